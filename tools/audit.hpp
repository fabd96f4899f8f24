// audit.hpp - 'tcamwrap-sim check': LMT, RLMT, persistent store and hardware of
// every managed (Orvex) table, held against each other.
//
// Two audits:
//  - persistent: what a restarting client finds, before the library starts: the
//    store's LMT segments against the hardware image (every mapped sloc holds an
//    entry, no sloc mapped twice, every hardware entry owned by a loc), and no
//    overwrite journal record left behind; on ACLI, no two entries whose results
//    are in the flow-result memory share one flow-result word;
//  - running: after the library has started (and reconciled), its LMT and RLMT in
//    memory are inverse to each other, agree with the hardware in the same way,
//    and equal the store's LMT segments; again no journal record.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "output.hpp"

namespace tcamwrap::cli
{

struct Difference {
    std::string audit; // "persistent" or "running"
    std::string kind;  // short name, see audit.cpp
    uint32_t inst = 0;
    uint32_t tbl_type = 0;
    uint32_t loc = 0xFFFFFFFFu;
    uint32_t sloc = 0xFFFFFFFFu;
    std::string text; // one line for people
    Json to_json() const;
};

struct OverwriteRecord {
    uint32_t inst = 0, tbl_type = 0;
    uint32_t loc = 0, old_sloc = 0, new_sloc = 0;
};

// Everything the library keeps under the tool's handle and prefix.
struct StoreImage {
    // LMT per (inst, tbl_type) as the segments hold it (0xFFFFFFFF where no segment).
    std::map<std::pair<uint32_t, uint32_t>, std::vector<uint32_t>> lmt;
    std::vector<OverwriteRecord> journal;
    std::vector<Difference> malformed; // records the library would not have written
    uint64_t records = 0;
};

// The Orvex tables of the card: (inst, tbl_type) pairs with their sizes.
struct CardTable {
    uint32_t inst, tbl_type, size;
};
std::vector<CardTable> orvex_tables();

StoreImage read_store(const std::vector<CardTable> &tables);
// One byte per physical location: 1 when the hardware holds a valid entry.
std::vector<uint8_t> hardware_valid(uint32_t inst, uint32_t tbl_type, uint32_t size);

std::vector<Difference> audit_persistent();
// Needs the library started; reads the store again.
std::vector<Difference> audit_running();

// Checks one LMT against the hardware: mapped slocs in range, not shared, valid
// in hardware; valid hardware slocs owned. Appends to out.
void audit_lmt(const std::string &audit, const CardTable &t, const std::vector<uint32_t> &lmt,
               const std::vector<uint8_t> &hw_valid, std::vector<Difference> &out);
// ACLI: no even/odd pair of valid locations whose ACL-priority bytes are both 0
// (they would share one flow-result word).
void audit_flow_pairs(const std::string &audit, const CardTable &t,
                      const std::vector<uint8_t> &hw_valid, const std::vector<uint32_t> &owner,
                      std::vector<Difference> &out);
// RLMT[LMT[loc]] == loc and LMT[RLMT[sloc]] == sloc.
void audit_rlmt(const CardTable &t, const uint32_t *lmt, const uint32_t *rlmt,
                std::vector<Difference> &out);

} // namespace tcamwrap::cli
