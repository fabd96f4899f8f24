// sim_lib_child - a client process of libtcamwrap on the simulated card, for the
// integration tests. Both commands derive the same client workload from a seed.
//
//   sim_lib_child run <seed> <ops> [<crash rule>]
//       Fresh start (init_type 0), then the workload: adds, overwrites and deletes
//       of FIB entries (on one or both instances) and of ACLI entries. Prints
//       "done <k>" after each operation. With a crash rule, the rule is armed just
//       before the first single-instance FIB overwrite past 60% of the workload
//       ("armed <k>"). Ends with "moves <n>", the search engine's moves.
//   sim_lib_child verify <seed> <ops> <done> <inflight> <repairs>
//       Restart (init_type 1) and check that the card holds the first <done>
//       operations, plus operation <done> when <inflight> is "new" ("old": it
//       left no trace; "none": nothing was in flight): every key, result word,
//       ACL-priority byte and lookup, the hardware entry counts and the engine's
//       self-check. <repairs> is "none" (the restart repaired nothing) or
//       "journal" (it completed an overwrite from the journal).
// Exit status 0 when everything holds; 1 with the differences on stderr.
// SIM_LIB_CHILD_DEBUG=<level> sets the library's debug level of a run.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "orvex_sim.h"
#include "sim_dbgsvc.h"
#include "sim_fault.h"
#include "sim_hw.h"
#include "tcamwrap_api.h"

namespace {

constexpr uint32_t kFib = TCAMWRAP_TBL_FIB, kAcli = TCAMWRAP_TBL_ACLI;
constexpr uint32_t kKvsHandle = 1;
constexpr uint32_t kLibraryUuid = 636;
constexpr uint8_t kBothInstances = TCAMWRAP_ALL_INSTS;

using Word = std::array<uint8_t, TCAMWRAP_RESULT_BYTES>;

struct Entry {
    std::vector<uint8_t> key;  // value then mask
    uint16_t prio = 0;
    Word word{};
    uint8_t acl_prio = 1;
    bool operator==(const Entry &) const = default;
};

struct Op {
    bool remove = false;
    uint8_t inst = 0;  // 0, 1 or both
    uint32_t tbl = kFib;
    uint32_t loc = 0;
    Entry entry;  // for a write
};

// (instance, table, loc) -> entry
using Model = std::map<std::tuple<uint8_t, uint32_t, uint32_t>, Entry>;

int g_errors = 0;

// Reports one difference (the first 30 of them).
__attribute__((format(printf, 1, 2))) void fail(const char *fmt, ...)
{
    if (++g_errors > 30)
        return;
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

std::vector<uint8_t> instances_of(uint8_t inst)
{
    return inst == kBothInstances ? std::vector<uint8_t>{0, 1} : std::vector<uint8_t>{inst};
}

void apply_op(Model &m, const Op &op)
{
    for (uint8_t inst : instances_of(op.inst)) {
        if (op.remove)
            m.erase({inst, op.tbl, op.loc});
        else
            m[{inst, op.tbl, op.loc}] = op.entry;
    }
}

// A realistic mix of prefix lengths; the priority of a route is its length.
int prefix_length(std::mt19937 &rng)
{
    int r = static_cast<int>(rng() % 100);
    if (r < 55) return 24;
    if (r < 70) return 22 + static_cast<int>(rng() % 2);
    if (r < 85) return 16 + static_cast<int>(rng() % 6);
    if (r < 95) return 25 + static_cast<int>(rng() % 8);
    return 8 + static_cast<int>(rng() % 8);
}

uint32_t prefix_mask(int len) { return len == 0 ? 0 : ~uint32_t{0} << (32 - len); }

// FIB key {vrf 0, address, 0} / {0xFF, prefix mask, 0}, big-endian words.
std::vector<uint8_t> fib_key(uint32_t addr, int len)
{
    std::vector<uint8_t> k(TCAMWRAP_FIB_KEY_BYTES, 0);
    uint32_t mask = prefix_mask(len);
    k[9] = 0xFF;
    for (int i = 0; i < 4; ++i) {
        k[1 + i] = static_cast<uint8_t>((addr & mask) >> (24 - 8 * i));
        k[10 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
    }
    return k;
}

uint32_t fib_addr(const std::vector<uint8_t> &key)
{
    return uint32_t{key[1]} << 24 | uint32_t{key[2]} << 16 | uint32_t{key[3]} << 8 | key[4];
}

class Workload {
public:
    Workload(uint32_t seed, uint32_t fib_size, uint32_t acli_size)
        : rng_(seed), fib_size_(fib_size), acli_size_(acli_size) {}

    std::vector<Op> make(uint32_t count)
    {
        std::vector<Op> ops;
        Model live;
        for (uint32_t i = 0; i < count; ++i) {
            Op op = next(live, i < count / 3);
            apply_op(live, op);
            ops.push_back(std::move(op));
        }
        return ops;
    }

private:
    Op next(const Model &live, bool filling)
    {
        Op op;
        op.tbl = rng_() % 100 < 85 ? kFib : kAcli;
        uint32_t r = rng_() % 100;
        op.inst = r < 60 ? kBothInstances : static_cast<uint8_t>(r % 2);
        std::vector<uint32_t> mapped = mapped_locs(live, op);
        uint32_t kind = filling ? 0 : rng_() % 100;
        if (mapped.empty() || kind < 55) {  // add at a free location
            uint32_t size = op.tbl == kFib ? fib_size_ : acli_size_;
            do {
                op.loc = rng_() % size;
            } while (is_mapped(live, op));
        } else {
            op.loc = mapped[rng_() % mapped.size()];
            op.remove = kind >= 85;  // else overwrite
        }
        if (!op.remove)
            op.entry = op.tbl == kFib ? fib_entry() : acli_entry();
        return op;
    }

    static std::vector<uint32_t> mapped_locs(const Model &live, const Op &op)
    {
        std::set<uint32_t> locs;
        for (const auto &[k, e] : live)
            if (std::get<1>(k) == op.tbl && (op.inst == kBothInstances || std::get<0>(k) == op.inst))
                locs.insert(std::get<2>(k));
        return {locs.begin(), locs.end()};
    }

    static bool is_mapped(const Model &live, const Op &op)
    {
        for (uint8_t inst : instances_of(op.inst))
            if (live.contains({inst, op.tbl, op.loc}))
                return true;
        return false;
    }

    Word word()
    {
        Word w;
        for (auto &b : w)
            b = static_cast<uint8_t>(rng_());
        return w;
    }

    // Never the same prefix twice, so a lookup has exactly one best route.
    Entry fib_entry()
    {
        Entry e;
        int len = 0;
        uint32_t addr = 0;
        do {
            len = prefix_length(rng_);
            addr = static_cast<uint32_t>(rng_()) & prefix_mask(len);
        } while (!used_prefixes_.insert({len, addr}).second);
        e.key = fib_key(addr, len);
        e.prio = static_cast<uint16_t>(len);
        e.word = word();
        return e;
    }

    // ACL rules: a value under a mask of its first six bytes (never the same value
    // twice, so a lookup has one answer), in eight priority classes, every fourth
    // on the flow-result path.
    Entry acli_entry()
    {
        Entry e;
        e.key.assign(TCAMWRAP_ACL_KEY_BYTES, 0);
        do {
            for (int i = 0; i < 6; ++i)
                e.key[i] = static_cast<uint8_t>(rng_());
        } while (!used_acl_values_.insert(std::vector<uint8_t>(e.key.begin(), e.key.begin() + 6)).second);
        for (int i = 0; i < 6; ++i)
            e.key[18 + i] = 0xFF;
        e.prio = static_cast<uint16_t>(100 + rng_() % 8);
        e.word = word();
        e.acl_prio = rng_() % 4 == 0 ? 0 : 1;
        return e;
    }

    std::mt19937 rng_;
    uint32_t fib_size_, acli_size_;
    std::set<std::pair<int, uint32_t>> used_prefixes_;
    std::set<std::vector<uint8_t>> used_acl_values_;
};

tbl_params params(uint8_t inst, uint32_t tbl, uint32_t loc, uint32_t num = 1)
{
    return tbl_params{inst, tbl, num, loc, 0};
}

int client_init(uint32_t init_type, uint32_t debug_level)
{
    static uint8_t prefix_bytes[] = {'t', 'w'};
    static kvs_buf prefix{prefix_bytes, sizeof prefix_bytes};
    const int32_t tables[] = {static_cast<int32_t>(kFib), static_cast<int32_t>(kAcli),
                              TCAMWRAP_TBL_ACLO};
    return tcamwrap_init(tables, 3, kKvsHandle, &prefix, init_type, 0, debug_level, 0);
}

int client_apply(const Op &op)
{
    auto p = params(op.inst, op.tbl, op.loc);
    if (op.remove)
        return tcamwrap_fwd_tcam_delete(&p);
    Entry e = op.entry;
    uint8_t *acl_prio = op.tbl == kAcli ? &e.acl_prio : nullptr;
    return tcamwrap_fwd_tcam_ssram_write(&p, e.key.data(), &e.prio, e.word.data(), acl_prio);
}

bool is_single_fib_overwrite(const Model &live, const Op &op)
{
    return op.tbl == kFib && op.inst != kBothInstances && !op.remove &&
           live.contains({op.inst, op.tbl, op.loc});
}

int run(uint32_t seed, uint32_t count, const char *crash_rule)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // each line outlives a crash
    // The library's trace level of the run: 0 unless SIM_LIB_CHILD_DEBUG says.
    const char *level = std::getenv("SIM_LIB_CHILD_DEBUG");
    if (client_init(0, level != nullptr ? static_cast<uint32_t>(std::atoi(level)) : 0) != 0) {
        std::fprintf(stderr, "tcamwrap_init: %s\n", std::strerror(errno));
        return 1;
    }
    const auto ops = Workload(seed, sim_card_table_size(kFib), sim_card_table_size(kAcli)).make(count);
    Model live;
    bool armed = crash_rule == nullptr;
    for (uint32_t k = 0; k < ops.size(); ++k) {
        if (!armed && k >= ops.size() * 6 / 10 && is_single_fib_overwrite(live, ops[k])) {
            std::printf("armed %u\n", k);
            if (sim_fault_set(crash_rule) != 0)
                return 1;
            armed = true;
        }
        if (client_apply(ops[k]) != 0) {
            std::fprintf(stderr, "operation %u (%s tbl %u inst %u loc %u) failed: %s\n", k,
                         ops[k].remove ? "delete" : "write", ops[k].tbl, ops[k].inst, ops[k].loc,
                         std::strerror(errno));
            return 1;
        }
        apply_op(live, ops[k]);
        std::printf("done %u\n", k);
    }
    uint64_t moves = 0;
    for (uint8_t inst : {0, 1})
        for (uint32_t tbl : {kFib, kAcli}) {
            orvex_sim_counters c{};
            if (orvex_sim_counters_get(inst, tbl, &c) == 0)
                moves += c.moves;
        }
    std::printf("moves %llu\n", static_cast<unsigned long long>(moves));
    return armed ? 0 : 3;  // 3: the workload had no overwrite to crash in
}

std::string hex(const uint8_t *p, std::size_t n)
{
    std::string s;
    char b[3];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        s += b;
    }
    return s;
}

// A flow-result word serves two neighbouring slocs: it holds the word of the
// ACLI entry at loc or of the flow-result entry that shares its word.
bool flow_word_ok(const Model &m, uint8_t inst, uint32_t loc, const Word &w)
{
    uint32_t pair = static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst, kAcli, loc)) / 2;
    for (const auto &[k, e] : m)
        if (std::get<0>(k) == inst && std::get<1>(k) == kAcli && e.acl_prio == 0 && e.word == w &&
            static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst, kAcli, std::get<2>(k))) / 2 == pair)
            return true;
    return false;
}

// Keys, result words and ACL-priority bytes of one table, read back by loc.
void check_table(const Model &m, uint8_t inst, uint32_t tbl)
{
    const uint32_t size = sim_card_table_size(tbl);
    const uint32_t kb = sim_key_bytes(tbl);
    std::vector<uint8_t> keys(std::size_t{size} * kb);
    auto p = params(inst, tbl, 0, size);
    if (tcamwrap_fwd_tcam_read(&p, keys.data()) != 0) {
        fail("inst %u tbl %u: tcamwrap_fwd_tcam_read: %s", inst, tbl, std::strerror(errno));
        return;
    }
    for (uint32_t loc = 0; loc < size; ++loc) {
        const uint8_t *got = &keys[std::size_t{loc} * kb];
        auto it = m.find({inst, tbl, loc});
        if (it == m.end()) {
            if (std::any_of(got, got + kb, [](uint8_t b) { return b != 0xFF; }))
                fail("inst %u tbl %u loc %u: expected no entry, read %s", inst, tbl, loc,
                     hex(got, kb).c_str());
            continue;
        }
        const Entry &e = it->second;
        if (std::memcmp(got, e.key.data(), kb) != 0)
            fail("inst %u tbl %u loc %u: key %s, expected %s", inst, tbl, loc, hex(got, kb).c_str(),
                 hex(e.key.data(), kb).c_str());
        auto one = params(inst, tbl, loc);
        if (tbl == kAcli) {
            uint8_t acl = 0xEE;
            if (tcamwrap_fwd_acl_prio_read(&one, &acl) != 0 || acl != e.acl_prio)
                fail("inst %u ACLI loc %u: acl_prio %u, expected %u", inst, loc, acl, e.acl_prio);
            if (e.acl_prio == 0) {
                Word w{};
                if (tcamwrap_fwd_flow_result_read(&one, w.data()) != 0 || !flow_word_ok(m, inst, loc, w))
                    fail("inst %u ACLI loc %u: flow result %s, expected %s", inst, loc,
                         hex(w.data(), 5).c_str(), hex(e.word.data(), 5).c_str());
                continue;
            }
        }
        Word w{};
        if (tcamwrap_fwd_ssram_read(&one, w.data()) != 0 || w != e.word)
            fail("inst %u tbl %u loc %u: result %s, expected %s", inst, tbl, loc,
                 hex(w.data(), 5).c_str(), hex(e.word.data(), 5).c_str());
    }
}

// The route the forwarding pipeline must pick for addr: the longest prefix.
std::optional<std::pair<uint32_t, const Entry *>> best_route(
    const std::map<std::pair<int, uint32_t>, std::pair<uint32_t, const Entry *>> &routes, uint32_t addr)
{
    for (int len = 32; len >= 0; --len)
        if (auto it = routes.find({len, addr & prefix_mask(len)}); it != routes.end())
            return it->second;
    return std::nullopt;
}

// Lookups of an address inside every route ever programmed, live or not.
void check_fib_lookups(const Model &m, const std::vector<Op> &ops, uint8_t inst, std::mt19937 &rng)
{
    std::map<std::pair<int, uint32_t>, std::pair<uint32_t, const Entry *>> routes;
    for (const auto &[k, e] : m)
        if (std::get<0>(k) == inst && std::get<1>(k) == kFib)
            routes[{e.prio, fib_addr(e.key)}] = {std::get<2>(k), &e};
    for (const Op &op : ops) {
        if (op.tbl != kFib || op.remove)
            continue;
        int len = op.entry.prio;
        uint32_t addr = fib_addr(op.entry.key) | (static_cast<uint32_t>(rng()) & ~prefix_mask(len));
        uint8_t search[9] = {0, static_cast<uint8_t>(addr >> 24), static_cast<uint8_t>(addr >> 16),
                             static_cast<uint8_t>(addr >> 8), static_cast<uint8_t>(addr)};
        uint32_t sloc = 0;
        Word w{};
        int rc = sim_hw_lookup_result(inst, kFib, search, &sloc, w.data());
        auto want = best_route(routes, addr);
        if (!want) {
            if (rc != 0)
                fail("inst %u lookup %08x: matched sloc %u, expected no route", inst, addr, sloc);
            continue;
        }
        uint32_t want_sloc = static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst, kFib, want->first));
        if (rc != 1 || sloc != want_sloc || w != want->second->word)
            fail("inst %u lookup %08x: rc %d sloc %u result %s, expected loc %u sloc %u result %s", inst,
                 addr, rc, sloc, hex(w.data(), 5).c_str(), want->first, want_sloc,
                 hex(want->second->word.data(), 5).c_str());
    }
}

void check_acli_lookups(const Model &m, uint8_t inst)
{
    for (const auto &[k, e] : m) {
        if (std::get<0>(k) != inst || std::get<1>(k) != kAcli)
            continue;
        uint32_t sloc = 0;
        Word w{};
        int rc = sim_hw_lookup_result(inst, kAcli, e.key.data(), &sloc, w.data());
        uint32_t want = static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst, kAcli, std::get<2>(k)));
        bool word_ok = e.acl_prio == 0 ? flow_word_ok(m, inst, std::get<2>(k), w) : w == e.word;
        if (rc != 1 || sloc != want || !word_ok)
            fail("inst %u ACLI loc %u lookup: rc %d sloc %u, expected sloc %u", inst, std::get<2>(k),
                 rc, sloc, want);
    }
}

// Repairs that the restart's reconciliation reported in the library's history.
void check_repairs(std::string_view expected)
{
    bool journal = false, scan_repair = false;
    for (uint32_t i = 0; i < sim_hist_count(SIM_HIST_UUID, kLibraryUuid); ++i) {
        std::string_view text = sim_hist_text(SIM_HIST_UUID, kLibraryUuid, i);
        journal |= text.find("Overwrite KVS record found") != std::string_view::npos;
        scan_repair |= text.find("inconsistency") != std::string_view::npos;
    }
    if (scan_repair)
        fail("the restart found LMT/RLMT inconsistencies");
    if (journal != (expected == "journal"))
        fail("journal repair %s, expected %s", journal ? "seen" : "not seen",
             std::string(expected).c_str());
}

int verify(uint32_t seed, uint32_t count, uint32_t done, std::string_view inflight,
           std::string_view repairs)
{
    const auto ops = Workload(seed, sim_card_table_size(kFib), sim_card_table_size(kAcli)).make(count);
    if (done > ops.size() || (inflight != "none" && done >= ops.size())) {
        std::fprintf(stderr, "bad arguments\n");
        return 2;
    }
    Model m;
    for (uint32_t k = 0; k < done; ++k)
        apply_op(m, ops[k]);
    if (inflight == "new")
        apply_op(m, ops[done]);

    // Level 3: errors and reconciliation reports go to the history.
    if (client_init(1, 3) != 0) {
        std::fprintf(stderr, "tcamwrap_init(restart): %s\n", std::strerror(errno));
        return 1;
    }
    check_repairs(repairs);
    std::mt19937 rng(seed + 1);
    for (uint8_t inst : {0, 1}) {
        for (uint32_t tbl : {kFib, kAcli}) {
            check_table(m, inst, tbl);
            uint32_t want = 0;
            for (const auto &[k, e] : m)
                want += std::get<0>(k) == inst && std::get<1>(k) == tbl ? 1 : 0;
            if (uint32_t got = sim_hw_tcam_count(inst, tbl); got != want)
                fail("inst %u tbl %u: %u entries in hardware, expected %u", inst, tbl, got, want);
            char why[256] = "";
            if (orvex_sim_check(inst, tbl, why, sizeof why) != 0)
                fail("inst %u tbl %u: engine self-check: %s", inst, tbl, why);
        }
        check_fib_lookups(m, ops, inst, rng);
        check_acli_lookups(m, inst);
    }
    std::printf("checked %zu entries, %d errors\n", m.size(), g_errors);
    return g_errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc >= 4 && std::strcmp(argv[1], "run") == 0 && argc <= 5)
        return run(static_cast<uint32_t>(std::atoi(argv[2])), static_cast<uint32_t>(std::atoi(argv[3])),
                   argc == 5 ? argv[4] : nullptr);
    if (argc == 7 && std::strcmp(argv[1], "verify") == 0)
        return verify(static_cast<uint32_t>(std::atoi(argv[2])), static_cast<uint32_t>(std::atoi(argv[3])),
                      static_cast<uint32_t>(std::atoi(argv[4])), argv[5], argv[6]);
    std::fprintf(stderr, "usage: sim_lib_child run <seed> <ops> [<crash rule>]\n"
                         "       sim_lib_child verify <seed> <ops> <done> none|old|new none|journal\n");
    return 2;
}
