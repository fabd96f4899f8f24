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
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
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
constexpr uint32_t kLibraryUuid = 636;
constexpr uint8_t kBoth = TCAMWRAP_ALL_INSTS;

using Word = std::array<uint8_t, TCAMWRAP_RESULT_BYTES>;

struct Entry {
    std::vector<uint8_t> key;  // value then mask
    uint16_t prio = 0;
    Word word{};
    uint8_t acl_prio = 1;
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

std::vector<uint8_t> instances_of(uint8_t inst) { return inst == kBoth ? std::vector<uint8_t>{0, 1} : std::vector<uint8_t>{inst}; }

void apply_op(Model &m, const Op &op)
{
    for (uint8_t inst : instances_of(op.inst)) {
        if (op.remove)
            m.erase({inst, op.tbl, op.loc});
        else
            m[{inst, op.tbl, op.loc}] = op.entry;
    }
}

uint32_t prefix_mask(int len) { return len == 0 ? 0 : ~uint32_t{0} << (32 - len); }
uint32_t fib_addr(const std::vector<uint8_t> &key) { return uint32_t{key[1]} << 24 | uint32_t{key[2]} << 16 | uint32_t{key[3]} << 8 | key[4]; }
uint32_t sloc_of(uint8_t inst, uint32_t tbl, uint32_t loc) { return static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst, tbl, loc)); }

class Workload {
public:
    Workload(uint32_t seed) : rng_(seed) {}

    std::vector<Op> make(uint32_t count)
    {
        std::vector<Op> ops;
        Model live;
        for (uint32_t i = 0; i < count; ++i) {
            ops.push_back(next(live, i < count / 3));
            apply_op(live, ops.back());
        }
        return ops;
    }

private:
    Op next(const Model &live, bool filling)
    {
        Op op;
        op.tbl = rng_() % 100 < 85 ? kFib : kAcli;
        uint32_t r = rng_() % 100;
        op.inst = r < 60 ? kBoth : static_cast<uint8_t>(r % 2);
        auto mapped_on = [&](uint8_t inst, uint32_t loc) { return live.contains({inst, op.tbl, loc}); };
        std::set<uint32_t> mapped;
        for (const auto &[k, e] : live)
            if (std::get<1>(k) == op.tbl && (op.inst == kBoth || std::get<0>(k) == op.inst))
                mapped.insert(std::get<2>(k));
        uint32_t kind = filling ? 0 : rng_() % 100;
        if (mapped.empty() || kind < 55) {  // add at a free location
            do
                op.loc = rng_() % sim_card_table_size(op.tbl);
            while ((op.inst != 1 && mapped_on(0, op.loc)) || (op.inst != 0 && mapped_on(1, op.loc)));
        } else {
            op.loc = *std::next(mapped.begin(), static_cast<long>(rng_() % mapped.size()));
            op.remove = kind >= 85;  // else overwrite
        }
        if (!op.remove)
            op.entry = op.tbl == kFib ? fib_entry() : acli_entry();
        return op;
    }

    Word word()
    {
        Word w;
        for (auto &b : w)
            b = static_cast<uint8_t>(rng_());
        return w;
    }

    // A realistic mix of prefix lengths, the priority of a route being its length;
    // never the same prefix twice, so a lookup has exactly one best route.
    Entry fib_entry()
    {
        int len = 0;
        uint32_t addr = 0;
        do {
            int r = static_cast<int>(rng_() % 100), spread = static_cast<int>(rng_() % 24);
            len = r < 55 ? 24 : r < 70 ? 22 + spread % 2 : r < 85 ? 16 + spread % 6 : r < 95 ? 25 + spread % 8 : 8 + spread % 8;
            addr = static_cast<uint32_t>(rng_()) & prefix_mask(len);
        } while (!used_prefixes_.insert({len, addr}).second);
        // FIB key {vrf 0, address, 0} / {0xFF, prefix mask, 0}, big-endian words.
        Entry e{std::vector<uint8_t>(TCAMWRAP_FIB_KEY_BYTES, 0), static_cast<uint16_t>(len), word()};
        e.key[9] = 0xFF;
        for (int i = 0; i < 4; ++i) {
            e.key[1 + i] = static_cast<uint8_t>(addr >> (24 - 8 * i));
            e.key[10 + i] = static_cast<uint8_t>(prefix_mask(len) >> (24 - 8 * i));
        }
        return e;
    }

    // ACL rules: a value under a mask of its first six bytes (never the same value
    // twice, so a lookup has one answer), in eight priority classes, every fourth
    // on the flow-result path.
    Entry acli_entry()
    {
        Entry e;
        e.key.assign(TCAMWRAP_ACL_KEY_BYTES, 0);
        do
            std::generate_n(e.key.begin(), 6, [this] { return static_cast<uint8_t>(rng_()); });
        while (!used_acl_values_.insert(std::vector<uint8_t>(e.key.begin(), e.key.begin() + 6)).second);
        std::fill_n(e.key.begin() + 18, 6, 0xFF);
        e.prio = static_cast<uint16_t>(100 + rng_() % 8);
        e.word = word();
        e.acl_prio = rng_() % 4 == 0 ? 0 : 1;
        return e;
    }

    std::mt19937 rng_;
    std::set<std::pair<int, uint32_t>> used_prefixes_;
    std::set<std::vector<uint8_t>> used_acl_values_;
};

tbl_params params(uint8_t inst, uint32_t tbl, uint32_t loc, uint32_t num = 1) { return tbl_params{inst, tbl, num, loc, 0}; }

int client_init(uint32_t init_type, uint32_t debug_level)
{
    static uint8_t prefix_bytes[] = {'t', 'w'};
    static kvs_buf prefix{prefix_bytes, sizeof prefix_bytes};
    const int32_t tables[] = {static_cast<int32_t>(kFib), static_cast<int32_t>(kAcli), TCAMWRAP_TBL_ACLO};
    if (tcamwrap_init(tables, 3, 1, &prefix, init_type, 0, debug_level, 0) == 0)
        return 0;
    std::fprintf(stderr, "tcamwrap_init(%u): %s\n", init_type, std::strerror(errno));
    return 1;
}

int client_apply(const Op &op)
{
    auto p = params(op.inst, op.tbl, op.loc);
    if (op.remove)
        return tcamwrap_fwd_tcam_delete(&p);
    Entry e = op.entry;
    return tcamwrap_fwd_tcam_ssram_write(&p, e.key.data(), &e.prio, e.word.data(), op.tbl == kAcli ? &e.acl_prio : nullptr);
}

int run(uint32_t seed, uint32_t count, const char *crash_rule)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // each line outlives a crash
    if (client_init(0, 0) != 0)
        return 1;
    const auto ops = Workload(seed).make(count);
    Model live;
    bool armed = crash_rule == nullptr;
    for (uint32_t k = 0; k < ops.size(); ++k) {
        const Op &op = ops[k];
        bool single_fib_overwrite = op.tbl == kFib && op.inst != kBoth && !op.remove && live.contains({op.inst, op.tbl, op.loc});
        if (!armed && k >= ops.size() * 6 / 10 && single_fib_overwrite) {
            std::printf("armed %u\n", k);
            if (sim_fault_set(crash_rule) != 0)
                return 1;
            armed = true;
        }
        if (client_apply(op) != 0) {
            std::fprintf(stderr, "operation %u failed: %s\n", k, std::strerror(errno));
            return 1;
        }
        apply_op(live, op);
        std::printf("done %u\n", k);
    }
    unsigned long long moves = 0;
    for (uint8_t inst : {0, 1})
        for (uint32_t tbl : {kFib, kAcli}) {
            orvex_sim_counters c{};
            if (orvex_sim_counters_get(inst, tbl, &c) == 0)
                moves += c.moves;
        }
    std::printf("moves %llu\n", moves);
    return armed ? 0 : 3;  // 3: the workload had no overwrite to crash in
}

// An ACLI entry's result word: a flow-result word serves two neighbouring slocs,
// so it may hold the word of the flow-result entry that shares it.
bool acli_word_ok(const Model &m, uint8_t inst, uint32_t loc, const Entry &e, const Word &w)
{
    if (e.acl_prio != 0)
        return w == e.word;
    return std::any_of(m.begin(), m.end(), [&](const auto &kv) {
        auto [i, tbl, l] = kv.first;
        return i == inst && tbl == kAcli && kv.second.acl_prio == 0 && kv.second.word == w &&
               sloc_of(inst, kAcli, l) / 2 == sloc_of(inst, kAcli, loc) / 2;
    });
}

// Keys, result words and ACL-priority bytes of one table, read back by loc.
void check_table(const Model &m, uint8_t inst, uint32_t tbl)
{
    const uint32_t size = sim_card_table_size(tbl), kb = sim_key_bytes(tbl);
    std::vector<uint8_t> keys(std::size_t{size} * kb);
    auto all = params(inst, tbl, 0, size);
    if (tcamwrap_fwd_tcam_read(&all, keys.data()) != 0)
        return fail("inst %u tbl %u: tcamwrap_fwd_tcam_read: %s", inst, tbl, std::strerror(errno));
    for (uint32_t loc = 0; loc < size; ++loc) {
        const uint8_t *got = &keys[std::size_t{loc} * kb];
        auto it = m.find({inst, tbl, loc});
        if (it == m.end()) {
            if (std::any_of(got, got + kb, [](uint8_t b) { return b != 0xFF; }))
                fail("inst %u tbl %u loc %u: an entry where none was written", inst, tbl, loc);
            continue;
        }
        const Entry &e = it->second;
        if (std::memcmp(got, e.key.data(), kb) != 0)
            fail("inst %u tbl %u loc %u: wrong key", inst, tbl, loc);
        auto one = params(inst, tbl, loc);
        Word w{};
        uint8_t acl = 0xEE;
        if (tbl == kAcli && (tcamwrap_fwd_acl_prio_read(&one, &acl) != 0 || acl != e.acl_prio))
            fail("inst %u ACLI loc %u: acl_prio %u, expected %u", inst, loc, acl, e.acl_prio);
        bool flow = tbl == kAcli && e.acl_prio == 0;
        int rc = flow ? tcamwrap_fwd_flow_result_read(&one, w.data()) : tcamwrap_fwd_ssram_read(&one, w.data());
        if (rc != 0 || !(tbl == kAcli ? acli_word_ok(m, inst, loc, e, w) : w == e.word))
            fail("inst %u tbl %u loc %u: wrong %s word", inst, tbl, loc, flow ? "flow result" : "result");
    }
}

// Pipeline lookups: of an address inside every route ever programmed, live or
// not (the longest live prefix must answer), and of every live ACLI value.
void check_lookups(const Model &m, const std::vector<Op> &ops, uint8_t inst, std::mt19937 &rng)
{
    std::map<std::pair<int, uint32_t>, std::pair<uint32_t, const Entry *>> routes;
    for (const auto &[k, e] : m)
        if (std::get<0>(k) == inst && std::get<1>(k) == kFib)
            routes[{e.prio, fib_addr(e.key)}] = {std::get<2>(k), &e};
    for (const Op &op : ops) {
        if (op.tbl != kFib || op.remove)
            continue;
        uint32_t addr = fib_addr(op.entry.key) | (static_cast<uint32_t>(rng()) & ~prefix_mask(op.entry.prio));
        uint8_t search[9] = {0, static_cast<uint8_t>(addr >> 24), static_cast<uint8_t>(addr >> 16),
                             static_cast<uint8_t>(addr >> 8), static_cast<uint8_t>(addr)};
        auto best = routes.end();
        for (int len = 32; len >= 0 && best == routes.end(); --len)
            best = routes.find({len, addr & prefix_mask(len)});
        uint32_t sloc = 0;
        Word w{};
        int rc = sim_hw_lookup_result(inst, kFib, search, &sloc, w.data());
        if (best == routes.end() ? rc != 0
                                 : rc != 1 || sloc != sloc_of(inst, kFib, best->second.first) || w != best->second.second->word)
            fail("inst %u lookup %08x: rc %d sloc %u, expected %s", inst, addr, rc, sloc,
                 best == routes.end() ? "no route" : "the longest prefix and its word");
    }
    for (const auto &[k, e] : m) {
        if (std::get<0>(k) != inst || std::get<1>(k) != kAcli)
            continue;
        uint32_t sloc = 0;
        Word w{};
        int rc = sim_hw_lookup_result(inst, kAcli, e.key.data(), &sloc, w.data());
        if (rc != 1 || sloc != sloc_of(inst, kAcli, std::get<2>(k)) || !acli_word_ok(m, inst, std::get<2>(k), e, w))
            fail("inst %u ACLI loc %u lookup: rc %d sloc %u", inst, std::get<2>(k), rc, sloc);
    }
}

// Repairs that the restart's reconciliation reported in the library's history.
void check_repairs(std::string_view expected)
{
    bool journal = false;
    for (uint32_t i = 0; i < sim_hist_count(SIM_HIST_UUID, kLibraryUuid); ++i) {
        std::string_view text = sim_hist_text(SIM_HIST_UUID, kLibraryUuid, i);
        journal |= text.find("Overwrite KVS record found") != std::string_view::npos;
        if (text.find("inconsistency") != std::string_view::npos)
            fail("the restart found LMT/RLMT inconsistencies");
    }
    if (journal != (expected == "journal"))
        fail("journal repair %s, expected %s", journal ? "seen" : "not seen", std::string(expected).c_str());
}

int verify(uint32_t seed, uint32_t count, uint32_t done, std::string_view inflight, std::string_view repairs)
{
    const auto ops = Workload(seed).make(count);
    if (done > ops.size() || (inflight != "none" && done >= ops.size()))
        return 2;
    Model m;
    for (uint32_t k = 0; k < done + (inflight == "new" ? 1 : 0); ++k)
        apply_op(m, ops[k]);

    if (client_init(1, 3) != 0)  // level 3: errors and reconciliation reports go to the history
        return 1;
    check_repairs(repairs);
    std::mt19937 rng(seed + 1);
    for (uint8_t inst : {0, 1}) {
        for (uint32_t tbl : {kFib, kAcli}) {
            check_table(m, inst, tbl);
            auto want = static_cast<uint32_t>(std::count_if(m.begin(), m.end(), [&](const auto &kv) {
                return std::get<0>(kv.first) == inst && std::get<1>(kv.first) == tbl;
            }));
            if (uint32_t got = sim_hw_tcam_count(inst, tbl); got != want)
                fail("inst %u tbl %u: %u entries in hardware, expected %u", inst, tbl, got, want);
            char why[256] = "";
            if (orvex_sim_check(inst, tbl, why, sizeof why) != 0)
                fail("inst %u tbl %u: engine self-check: %s", inst, tbl, why);
        }
        check_lookups(m, ops, inst, rng);
    }
    std::printf("checked %zu entries, %d errors\n", m.size(), g_errors);
    return g_errors == 0 ? 0 : 1;
}

uint32_t num(const char *s) { return static_cast<uint32_t>(std::atoi(s)); }

}  // namespace

int main(int argc, char **argv)
{
    if (argc >= 4 && argc <= 5 && std::strcmp(argv[1], "run") == 0)
        return run(num(argv[2]), num(argv[3]), argc == 5 ? argv[4] : nullptr);
    if (argc == 7 && std::strcmp(argv[1], "verify") == 0)
        return verify(num(argv[2]), num(argv[3]), num(argv[4]), argv[5], argv[6]);
    std::fprintf(stderr, "usage: sim_lib_child run <seed> <ops> [<crash rule>]\n"
                         "       sim_lib_child verify <seed> <ops> <done> none|old|new none|journal\n");
    return 2;
}
