// orvex_bench - cost of the simulated search engine.
//
// 1. Placement: a realistic FIB (priority = prefix length) is loaded in random
//    order into an in-memory table up to a fill level, with a groom after every
//    insert as the library does; then a churn of deletes and inserts runs at
//    that level. Reported: moves per insert (the moves of the groom that
//    follows it), average and worst, and the most moves of one priority group
//    in one groom.
// 2. Calls per second of liborvex_tcam.so on the simulated card (hardware
//    image in a temporary state directory), with accepting callbacks.
//
// Usage: orvex_bench [--size N] [--fill F] [--churn N] [--seed S] [--uniform K] [--no-sim]
//
// The placement measured here (sim/orvex/README.md has the whole scheme):
// priority groups in strict order between them; inside a group that covers a
// range of priorities, entries keep order only with the entries whose keys
// overlap theirs. An insert never moves: it takes a free place of its window
// (below its overlapping entries of higher priority, above those of lower
// priority), nearest its place in priority order. Groom merges groups when
// gaps outnumber free places, refills empty gaps by shifting groups (a ranged
// group walks a free place through itself in jumps of at most 64 locations
// that pass no overlapping entry the wrong way), and plans a layout while a
// bank is young or a load comes in priority order, sliding groups there.
// Bounds: a refill moves one entry per group of one priority it crosses (at
// most 64 groups when free places are fewer than gaps); walks through ranged
// groups spend at most 64 moves per groom and slides 64; a walk step compares
// at most 64 x 64 keys; an insert compares its key with one group's entries
// (256 when merges or an ordered load made the group).
// ACL fill (tcamwrap_bench acli_fill/*, 8,192 ACLI locations, through the
// library): distinct priorities ascending and descending fill to 97.5% and
// 98.7% at 0.7 and 1.0 moves per insert (at most 64 in a groom); 8 levels to
// 99.85%;
// distinct priorities in random order reach 57% before the first refused
// insert and 97% after all are offered (acl_bound.cpp: what any placement
// that never moves at insert can reach there).
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "engine.h"
#include "fib_mix.h"
#include "memory_port.h"
#include "orvex_sim.h"
#include "sim_card.h"
#include "tcamwrap_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    uint32_t size = 131072;
    double fill = 0.8;
    uint32_t churn = 100000;
    uint64_t seed = 1;
    uint32_t uniform = 0;  // 0: FIB prefix-length mix; else priorities 0..uniform-1, even
    bool sim = true;
};

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct MoveStats {
    uint64_t inserts = 0;
    uint64_t failures = 0;
    uint64_t moves = 0;
    uint32_t worst = 0;
    uint64_t with_moves = 0;
    std::vector<uint32_t> per_insert;

    void add(uint32_t m) {
        ++inserts;
        moves += m;
        worst = std::max(worst, m);
        with_moves += m > 0;
        per_insert.push_back(m);
    }
    void print(const char *what, double secs) {
        std::sort(per_insert.begin(), per_insert.end());
        const auto pct = [&](double q) {
            return per_insert.empty() ? 0u : per_insert[static_cast<size_t>(q * (per_insert.size() - 1))];
        };
        std::printf("%-28s inserts %8" PRIu64 "  failed %5" PRIu64
                    "  moves/insert avg %.3f  worst %u  p99 %u  p99.9 %u  inserts with moves %.1f%%"
                    "  (%.2f s)\n",
                    what, inserts, failures, inserts ? double(moves) / double(inserts) : 0.0,
                    worst, pct(0.99), pct(0.999),
                    inserts ? 100.0 * double(with_moves) / double(inserts) : 0.0, secs);
    }
};

// Placement cost of the engine alone, with the library's call pattern: insert,
// then groom of the same bank; churn = delete a random entry, insert a new one.
void bench_placement(const Options &o) {
    orvex::MemoryPort port(o.size, 18);
    orvex::Table table(o.size, 18, port);
    std::mt19937_64 rng(o.seed);
    orvex_bench::FibMix mix;
    const auto next_prio = [&]() -> uint16_t {
        return o.uniform ? static_cast<uint16_t>(rng() % o.uniform) : mix(rng);
    };
    uint8_t key[18];
    std::vector<uint32_t> live;
    const uint32_t target = static_cast<uint32_t>(o.size * o.fill);

    const auto insert_one = [&](MoveStats &st) {
        const uint16_t len = next_prio();
        orvex_bench::FibMix::key(rng, static_cast<uint16_t>(len % 33), key);
        const unsigned bank = static_cast<unsigned>(rng() & 1);
        uint32_t sloc = 0;
        if (table.insert(key, len, bank, &sloc) != 0) {
            ++st.failures;
            return;
        }
        live.push_back(sloc);
        uint32_t moves = 0;
        table.groom(bank, &moves);
        st.add(moves);
    };

    MoveStats load;
    auto t0 = Clock::now();
    while (live.size() < target && load.failures < 1000) insert_one(load);
    char title[64];
    std::snprintf(title, sizeof title, "load to %.0f%% of %u", o.fill * 100, o.size);
    if (o.uniform) std::printf("priorities: %u values, evenly\n", o.uniform);
    else std::printf("priorities: IPv4 prefix-length mix\n");
    load.print(title, seconds_since(t0));
    const uint64_t repeat_load = table.counters().repeat_group_moves;

    // The places of the live entries change with moves: keep them from the copy.
    MoveStats churn;
    t0 = Clock::now();
    for (uint32_t i = 0; i < o.churn; ++i) {
        if (i % 4096 == 0 || live.empty()) {
            live.clear();
            table.for_each_entry([&](uint32_t s) { live.push_back(s); });
        }
        if (live.empty()) break;
        const std::size_t idx = rng() % live.size();
        const uint32_t victim = live[idx];
        live[idx] = live.back();
        live.pop_back();
        // a stale place may hold another entry by now: any entry is a fair victim
        if (!table.holds(victim)) continue;
        table.remove(victim);
        insert_one(churn);
    }
    churn.print("churn (delete + insert)", seconds_since(t0));

    std::string why;
    const bool ok = table.check(why);
    std::printf("groups moved twice in one groom: %" PRIu64 " during load, %" PRIu64
                " in all; self-check %s%s\n",
                repeat_load, table.counters().repeat_group_moves, ok ? "passed" : "FAILED: ",
                ok ? "" : why.c_str());
}

// ---- calls per second on the simulated card --------------------------------------

int accept_validate(void *, uint32_t, uint8_t *ok) {
    *ok = 1;
    return 0;
}
int accept_camindex(void *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }

void bench_sim_calls(const Options &o) {
    const auto dir = std::filesystem::temp_directory_path() /
                     ("orvex-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
    const std::string profile = "insts=1,fib=" + std::to_string(o.size) + ",fib_kind=orvex";
    ::setenv(SIM_PROFILE_ENV, profile.c_str(), 1);
    sim_card_close();

    if (orvex_tcam_init(0, 3, 72, accept_validate, nullptr, accept_camindex, nullptr, 0, nullptr,
                        nullptr, 0, 0) != 0) {
        std::printf("orvex_tcam_init failed: %s\n", std::strerror(errno));
        return;
    }
    tbl_params p{0, 3, 1, 0, 0};
    std::mt19937_64 rng(o.seed);
    orvex_bench::FibMix mix;
    const uint32_t n = static_cast<uint32_t>(o.size * o.fill);
    std::vector<uint8_t> keys(std::size_t{n} * 18);
    std::vector<uint16_t> prios(n);
    for (uint32_t i = 0; i < n; ++i) {
        prios[i] = mix(rng);
        orvex_bench::FibMix::key(rng, prios[i], &keys[std::size_t{i} * 18]);
    }

    auto t0 = Clock::now();
    uint32_t done = 0;
    for (uint32_t i = 0; i < n; ++i) {
        uint8_t bank = static_cast<uint8_t>(i & 1);
        uint32_t scratch = 0;
        if (orvex_tcam_insert_entry(&p, &keys[std::size_t{i} * 18], &prios[i], &bank) != 0) break;
        orvex_tcam_groom(&p, 0, &scratch, bank);
        ++done;
    }
    const double t_insert = seconds_since(t0);

    std::vector<uint32_t> slocs;
    slocs.reserve(done);
    t0 = Clock::now();
    uint8_t key[18];
    uint16_t prio = 0;
    uint32_t reads = 0;
    for (uint32_t s = 0; s < o.size; ++s) reads += orvex_tcam_read_entry(&p, &s, key, &prio, 0) == 0;
    const double t_read = seconds_since(t0);
    for (uint32_t s = 0; s < o.size; ++s)
        if (orvex_tcam_read_entry(&p, &s, key, &prio, 0) == 0) slocs.push_back(s);

    char why[200] = "";
    const int check = orvex_sim_check(0, 3, why, sizeof why);

    t0 = Clock::now();
    uint32_t deleted = 0;
    for (uint32_t s : slocs) deleted += orvex_tcam_delete_entry(&p, &s) == 0;
    const double t_delete = seconds_since(t0);

    std::printf("simulated card, FIB of %u locations:\n", o.size);
    std::printf("  insert + groom  %8u calls  %10.0f pairs/s\n", done, done / t_insert);
    std::printf("  read_entry      %8u calls  %10.0f calls/s\n", o.size, o.size / t_read);
    std::printf("  delete_entry    %8u calls  %10.0f calls/s\n", deleted, deleted / t_delete);
    std::printf("  self-check after the load: %s %s\n", check == 0 ? "passed" : "FAILED", why);
    (void)reads;
    std::filesystem::remove_all(dir);
}

bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--size" && has_value)
            o.size = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 0));
        else if (a == "--fill" && has_value)
            o.fill = std::strtod(argv[++i], nullptr);
        else if (a == "--churn" && has_value)
            o.churn = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 0));
        else if (a == "--seed" && has_value)
            o.seed = std::strtoull(argv[++i], nullptr, 0);
        else if (a == "--uniform" && has_value)
            o.uniform = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 0));
        else if (a == "--no-sim")
            o.sim = false;
        else
            return false;
    }
    return o.size >= 2 && o.size <= 262144 && o.fill > 0 && o.fill <= 1 && o.uniform <= 65536;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: orvex_bench [--size N] [--fill F] [--churn N] [--seed S] [--uniform K]"
                     " [--no-sim]\n"
                     "  e.g. orvex_bench --size 131072 --fill 0.8\n");
        return 2;
    }
    std::printf("seed %" PRIu64 "\n", o.seed);
    bench_placement(o);
    if (o.sim) bench_sim_calls(o);
    return 0;
}
