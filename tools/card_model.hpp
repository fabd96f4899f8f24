// card_model.hpp - what every loc of every table on every instance must hold,
// and the whole-card verification of a running client against it. The demo and
// the sweep share both: a client process is started (restart with restore), then
//  - every loc of every table on every instance is read back through the library
//    and held against the model; the units of the one call in flight (one loc on
//    one instance each, in the order the library works them) may hold their
//    state before or after the call, as a prefix done and the rest not;
//  - every installed key is searched in the hardware, which must answer with the
//    result word of the model's winning entry (highest priority on an Orvex
//    table, lowest location on a tcam3 one; any of several that tie);
//  - maps, store and hardware are audited (audit.hpp).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "commands.hpp"
#include "routes.hpp"

namespace tcamwrap::cli
{

inline constexpr uint32_t kTableTypes[] = {TCAMWRAP_TBL_FIB, TCAMWRAP_TBL_ACLI,
                                           TCAMWRAP_TBL_ACLO};

// What one loc of one table holds on one instance.
struct Entry {
    bool used = false;
    uint8_t acl_prio = 1;
    uint16_t prio = 0;
    std::array<uint8_t, TCAMWRAP_ACL_KEY_BYTES> key{};
    ResultWord result{};
    bool operator==(const Entry &) const = default;
};

using TableModel = std::vector<Entry>; // by loc

// One instance: its tables by tbl_type.
struct Model {
    TableModel tables[4];
    TableModel &operator[](uint32_t tbl) { return tables[tbl]; }
    const TableModel &operator[](uint32_t tbl) const { return tables[tbl]; }
};

using CardModel = std::vector<Model>; // by instance

uint32_t key_bytes(uint32_t tbl);
Entry fib_entry(const Route &r);
Entry acl_entry(const AclRule &r);
Entry entry_of(const EntryView &v);
EntrySpec spec_of(uint32_t tbl, const Entry &e);
std::vector<EntrySpec> specs_of(uint32_t tbl, const std::vector<Entry> &entries);
std::vector<uint32_t> used_locs(const TableModel &t);
std::string entry_brief(uint32_t tbl, const Entry &e);

// Whether what was read is the model's entry (a tcam3 table keeps no priority).
bool same_entry(uint32_t tbl, const Entry &want, const EntryView &got);
// What differs between the model's entry and the one read back.
std::string mismatch_text(uint32_t tbl, const Entry &want, const EntryView &got);

// One loc on one instance as a call changes it.
struct Unit {
    uint8_t inst = 0;
    uint32_t tbl_type = 0;
    uint32_t loc = 0;
    Entry before, after;
};

// What a unit's loc holds after the call.
enum class Held : uint8_t {
    before,    // its state before the call
    after,     // its state after the call
    unchanged, // the call leaves it as it was, and it is
    nothing, // neither, and the loc is unused: lost
    torn,    // tcam3 overwrite cut between its result words and its key
    other,   // anything else
};
const char *held_name(Held h);
Held held_by(const Unit &u, const EntryView &got);

struct Problem {
    std::string kind; // lost, crossed, wrong-entry, wrong-result, in-flight, read, lookup, audit:*
    uint32_t inst = 0, tbl_type = 0, loc = TCAMWRAP_INVALID_LOC;
    std::string text; // one line, "<table> inst <i> loc 0x..: ..."
};

struct Verification {
    uint64_t locs_checked = 0, loc_errors = 0;
    uint64_t lookups_checked = 0, lookup_errors = 0;
    uint64_t audit_differences = 0;
    std::vector<Held> inflight_held; // per unit of the call in flight
    std::vector<Problem> problems;   // the first kKeptProblems
    uint64_t problem_count = 0;
    static constexpr std::size_t kKeptProblems = 64;
    void add(Problem p);
    bool ok() const { return problem_count == 0; }
};

// Reads every loc of the given tables on every instance of the model and holds
// it against the model, the units of the call in flight (in the library's
// order) as a prefix after and the rest before; found receives what was read.
void verify_locs(const CardModel &model, const std::vector<Unit> &inflight,
                 const std::vector<uint32_t> &tables, Verification &v, CardModel &found);

// Looks up the value half of every used loc's key in the hardware of each
// instance and checks the entry that answers: one of the model's winners among
// the entries that match, with that entry's result word.
void verify_lookups(const CardModel &found, const std::vector<uint32_t> &tables,
                    Verification &v);

// The running audit (audit.hpp) as problems.
void verify_audit(Verification &v);

} // namespace tcamwrap::cli
