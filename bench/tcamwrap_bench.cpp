// tcamwrap_bench - speed and memory of libtcamwrap on the simulated card, through
// its public calls, each beside its floor (clients.hpp: the same placements
// without the library).
//
//   calls/<kind>/<op>       add, overwrite, delete and read, one entry per call, on
//                           a FIB, ACLI, ACLO and a tcam3 table: library and floor
//                           in alternating batches, platform calls and allocations
//                           per call
//   card/<size>/<fill%>     programming a card (2 instances x 3 tables) through the
//                           library, and its warm restart
//   full/...                the largest card: the floor's programming, the warm
//                           restart by phase, in a new process (RSS), with an empty
//                           hardware image and with an empty store
//   acli_fill/<order>       filling an ACLI table with distinct priorities (random,
//                           ascending, descending) and with 8 levels
//
// Every benchmark checks what it did (maps, hardware, the engine's self-check,
// identical placements of library and floor); a failed check skips the benchmark
// with an error and the program exits 1, so a short run is a test.
//
// Own flags: --profile=full|smoke (default full), --seed=N. The rest are Google
// Benchmark's (--benchmark_filter, --benchmark_out=FILE, --benchmark_out_format=json).
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "card.hpp"
#include "clients.hpp"
#include "orvex_sim.h"
#include "probe.hpp"
#include "routes.hpp"
#include "sim_card.h"
#include "workload.hpp"

namespace tcamwrap::bench
{
namespace
{

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// Elapsed and processor time of a piece of work. On a machine shared with other
// jobs the processor time is the steadier of the two.
struct Times {
    double wall = 0, cpu = 0;
    Times &operator+=(const Times &o)
    {
        wall += o.wall;
        cpu += o.cpu;
        return *this;
    }
    Times operator/(double n) const { return Times{wall / n, cpu / n}; }
};

struct Stopwatch {
    Clock::time_point wall0 = Clock::now();
    double cpu0 = cpu_seconds();
    double wall() const { return seconds_since(wall0); }
    double cpu() const { return cpu_seconds() - cpu0; }
    Times times() const { return Times{wall(), cpu()}; }
};

// ---- run profile ---------------------------------------------------------------------

struct Profile {
    std::string name;
    uint32_t call_table;       // locations of the tables of calls/*
    uint32_t call_batch;       // calls per timed batch
    int call_batches;          // batches per benchmark
    std::vector<uint32_t> card_sizes;
    std::vector<double> card_fills;
    uint32_t full_size;        // the largest card: the last size at the last fill
    int warm_restarts;
    int child_restarts;
    uint32_t fill_table;       // ACLI locations of acli_fill/*
    double fill_time_limit;    // seconds per acli_fill row
};

const Profile kFull{"full", 65536, 4096, 8, {16384, 65536, 262144}, {0.25, 0.5, 0.85}, 262144,
                    5, 3, 8192, 60.0};
const Profile kSmoke{"smoke", 4096, 256, 2, {4096, 8192}, {0.5, 0.85}, 8192, 2, 1, 512, 5.0};

Profile g_profile = kFull;
uint64_t g_seed = 1;
int g_failures = 0;

constexpr double kCallFill = 0.85;

void fail(benchmark::State &state, const std::string &why)
{
    ++g_failures;
    std::fprintf(stderr, "tcamwrap_bench: check failed: %s\n", why.c_str());
    state.SkipWithError(why.c_str());
}

std::mt19937_64 rng_for(uint32_t salt)
{
    return std::mt19937_64(g_seed * 1000003u + salt);
}

uint32_t entries_for(uint32_t size, double fill)
{
    return static_cast<uint32_t>(size * fill);
}

// ---- platform-call counts -----------------------------------------------------------

using CallCounts = std::map<std::string, uint64_t>;

CallCounts platform_calls()
{
    CallCounts c;
    sim_calls_foreach(
        [](const char *name, uint64_t n, void *ctx) { (*static_cast<CallCounts *>(ctx))[name] = n; },
        &c);
    return c;
}

CallCounts calls_between(const CallCounts &before, const CallCounts &after)
{
    CallCounts d;
    for (const auto &[name, n] : after) {
        const auto it = before.find(name);
        const uint64_t was = it == before.end() ? 0 : it->second;
        if (n > was)
            d[name] = n - was;
    }
    return d;
}

uint64_t calls_of(const CallCounts &c, const char *name)
{
    const auto it = c.find(name);
    return it == c.end() ? 0 : it->second;
}

uint64_t total_calls(const CallCounts &c)
{
    uint64_t n = 0;
    for (const auto &[name, v] : c)
        n += v;
    return n;
}

// "orvex_tcam_insert_entry 1, kvs_store 2" per operation.
std::string calls_text(const CallCounts &c, uint64_t ops)
{
    std::string out;
    for (const auto &[name, n] : c) {
        char item[96];
        std::snprintf(item, sizeof item, "%s%s %.3g", out.empty() ? "" : ", ", name.c_str(),
                      double(n) / double(ops));
        out += item;
    }
    return out;
}

// ---- calls/<kind>/<op> ---------------------------------------------------------------

enum class Op { add, overwrite, remove, read };

struct Kind {
    const char *name;
    uint32_t tbl_type;
    bool tcam3;
};

constexpr Kind kKinds[] = {{"fib", TCAMWRAP_TBL_FIB, false},
                           {"acli", TCAMWRAP_TBL_ACLI, false},
                           {"aclo", TCAMWRAP_TBL_ACLO, false},
                           {"tcam3", TCAMWRAP_TBL_FIB, true}};

// The card the calls/* benchmarks work on, with the library started on it.
struct CallsCard {
    bool tcam3 = false;
    bool ready = false;
};
CallsCard g_calls_card;

// One table kind, programmed to 85% by the library on instance 0 and by the
// floor on instance 1, with the same entries at the same locations.
struct CallsTable {
    uint32_t tbl_type = 0;
    uint32_t size = 0;
    std::unique_ptr<LibraryTable> lib;
    std::unique_ptr<FloorTable> floor;
    std::vector<Entry> pool;       // [0, size): entries by loc order; then replacements
    std::vector<uint32_t> current; // per loc: index into pool, or kNone
    std::vector<uint32_t> used;    // programmed locs, shuffled
    std::vector<uint32_t> spare;   // free locs, in bank order
    uint32_t rotate = 0;
    uint32_t next_replacement = 0;
    static constexpr uint32_t kNone = ~0u;
};
std::map<std::string, std::unique_ptr<CallsTable>> g_calls_tables;

std::string use_calls_card(bool tcam3)
{
    if (g_calls_card.ready && g_calls_card.tcam3 == tcam3)
        return {};
    g_calls_tables.clear();
    CardShape shape{2, g_profile.call_table, tcam3};
    sim_use(fresh_dir(tcam3 ? "calls-tcam3" : "calls"), shape);
    if (library_start(0) != 0)
        return std::string("tcamwrap_init failed: ") + std::strerror(errno);
    g_calls_card = CallsCard{tcam3, true};
    return {};
}

std::string build_calls_table(const Kind &kind, CallsTable &t)
{
    const Profile &p = g_profile;
    t.tbl_type = kind.tbl_type;
    t.size = p.call_table;
    t.lib = std::make_unique<LibraryTable>(0, kind.tbl_type);
    t.floor = std::make_unique<FloorTable>(1, kind.tbl_type, t.size, !kind.tcam3, kFloorStoreHandle);
    if (t.floor->start_error() != 0)
        return "the floor's orvex_tcam_init failed";
    auto rng = rng_for(kind.tbl_type * 7 + kind.tcam3);
    t.pool = table_entries(kind.tbl_type, t.size + 2 * p.call_batch, rng);
    t.current.assign(t.size, CallsTable::kNone);
    const uint32_t n = entries_for(t.size, kCallFill);
    for (uint32_t i = 0; i < t.size; ++i) {
        const uint32_t loc = cli::spread_loc(i, t.size, 0);
        if (i >= n) {
            t.spare.push_back(loc);
            continue;
        }
        if (t.lib->write(loc, t.pool[i]) != 0 || t.floor->write(loc, t.pool[i]) != 0)
            return "programming entry " + std::to_string(i) + " failed: " + std::strerror(errno);
        t.current[loc] = i;
        t.used.push_back(loc);
    }
    if (t.spare.size() < p.call_batch)
        return "too few free locations for a batch of adds";
    std::shuffle(t.used.begin(), t.used.end(), rng);
    return {};
}

// What one side (library or floor) did in its batches.
struct Side {
    double seconds = 0;
    double cpu = 0;
    CallCounts calls;
    probe::Allocations allocs;
};

// Time one batch of one client; platform calls and allocations are counted
// around it, outside the timed part.
template <typename Body> std::string timed_batch(Side &side, Body body)
{
    const CallCounts before = platform_calls();
    probe::reset_allocations();
    probe::count_allocations(true);
    const Stopwatch sw;
    const std::string err = body();
    const double s = sw.wall();
    const double cpu = sw.cpu();
    probe::count_allocations(false);
    const probe::Allocations a = probe::allocations();
    side.seconds += s;
    side.cpu += cpu;
    side.allocs.library += a.library;
    side.allocs.store += a.store;
    side.allocs.simulator += a.simulator;
    side.allocs.runtime += a.runtime;
    for (const auto &[name, n] : calls_between(before, platform_calls()))
        side.calls[name] += n;
    return err;
}

std::string client_error(const char *what, uint32_t loc)
{
    return std::string(what) + " at loc " + std::to_string(loc) + " failed: " + std::strerror(errno);
}

// One batch of op by one client on the given locs.
std::string run_batch(CallsTable &t, TableClient &c, Op op, const std::vector<uint32_t> &locs,
                      const std::vector<uint32_t> &entry_of, std::vector<uint8_t> &keys)
{
    const uint32_t kb = key_bytes(t.tbl_type);
    for (std::size_t i = 0; i < locs.size(); ++i) {
        const uint32_t loc = locs[i];
        switch (op) {
        case Op::add:
        case Op::overwrite:
            if (c.write(loc, t.pool[entry_of[i]]) != 0)
                return client_error("write", loc);
            break;
        case Op::remove:
            if (c.remove(loc) != 0)
                return client_error("delete", loc);
            break;
        case Op::read:
            if (c.read(loc, &keys[i * kb]) != 0)
                return client_error("read", loc);
            break;
        }
    }
    return {};
}

// Put a batch's locs back as they were: adds deleted, deletes written again.
std::string undo_batch(CallsTable &t, TableClient &c, Op op, const std::vector<uint32_t> &locs)
{
    for (uint32_t loc : locs) {
        if (op == Op::add && c.remove(loc) != 0)
            return client_error("delete", loc);
        if (op == Op::remove && c.write(loc, t.pool[t.current[loc]]) != 0)
            return client_error("write", loc);
    }
    return {};
}

std::string check_batch(const CallsTable &t, const Kind &kind, Op op,
                        const std::vector<uint32_t> &locs, const std::vector<uint8_t> &lib_keys,
                        const std::vector<uint8_t> &floor_keys)
{
    const uint32_t kb = key_bytes(t.tbl_type);
    for (std::size_t i = 0; i < locs.size(); ++i) {
        const uint32_t loc = locs[i];
        if (!kind.tcam3 && t.lib->sloc(loc) != t.floor->sloc(loc))
            return "library and floor placed loc " + std::to_string(loc) + " differently";
        if (op != Op::read)
            continue;
        const uint8_t *want = t.pool[t.current[loc]].key.data();
        if (std::memcmp(&lib_keys[i * kb], want, kb) != 0 ||
            std::memcmp(&floor_keys[i * kb], want, kb) != 0)
            return "loc " + std::to_string(loc) + " reads back another key";
    }
    return {};
}

void report_side(benchmark::State &state, const char *prefix, const Side &s, uint64_t ops)
{
    const std::string p(prefix);
    state.counters[p + "_ns"] = 1e9 * s.seconds / double(ops);
    state.counters[p + "_cpu_ns"] = 1e9 * s.cpu / double(ops);
    state.counters[p + "_platform_calls"] = double(total_calls(s.calls)) / double(ops);
    state.counters[p + "_allocs"] = double(s.allocs.total()) / double(ops);
    state.counters[p + "_allocs_library"] = double(s.allocs.library) / double(ops);
    state.counters[p + "_allocs_store"] = double(s.allocs.store) / double(ops);
    state.counters[p + "_allocs_simulator"] = double(s.allocs.simulator) / double(ops);
    state.counters[p + "_allocs_runtime"] = double(s.allocs.runtime) / double(ops);
}

// One batch of calls: the locs, the pool entries written there, and the keys
// each side read back.
struct Batch {
    std::vector<uint32_t> locs, entry_of;
    std::vector<uint8_t> lib_keys, floor_keys;
};

// Adds go to free locs; the other calls take the next programmed locs in turn,
// and overwrites write replacement entries there.
void next_batch(const CallsTable &t, Op op, Batch &b)
{
    const uint32_t k = static_cast<uint32_t>(b.locs.size());
    for (uint32_t i = 0; i < k; ++i) {
        if (op == Op::add) {
            b.locs[i] = t.spare[i];
            b.entry_of[i] = entries_for(t.size, kCallFill) + i;
        } else {
            b.locs[i] = t.used[(t.rotate + i) % t.used.size()];
            b.entry_of[i] = t.size + (t.next_replacement + i) % (2 * k);
        }
    }
}

// The batch by library and floor, the library first in even batches; returns
// the library's time in *lib_seconds.
std::string run_both(CallsTable &t, Op op, Batch &b, int batch, Side &lib, Side &floor,
                     double *lib_seconds)
{
    for (int turn = 0; turn < 2; ++turn) {
        const bool library_turn = (turn == 0) == (batch % 2 == 0);
        TableClient &c = library_turn ? static_cast<TableClient &>(*t.lib) : *t.floor;
        Side &side = library_turn ? lib : floor;
        const double before = side.seconds;
        const std::string err = timed_batch(side, [&] {
            return run_batch(t, c, op, b.locs, b.entry_of, library_turn ? b.lib_keys : b.floor_keys);
        });
        if (!err.empty())
            return err;
        if (library_turn)
            *lib_seconds = side.seconds - before;
    }
    return {};
}

// After a batch: check it, and put both tables back as they were (an overwrite
// stays; the table then holds the replacement entries).
std::string settle_batch(CallsTable &t, const Kind &kind, Op op, const Batch &b)
{
    if (op == Op::overwrite)
        for (std::size_t i = 0; i < b.locs.size(); ++i)
            t.current[b.locs[i]] = b.entry_of[i];
    std::string err = check_batch(t, kind, op, b.locs, b.lib_keys, b.floor_keys);
    if (err.empty())
        err = undo_batch(t, *t.lib, op, b.locs);
    if (err.empty())
        err = undo_batch(t, *t.floor, op, b.locs);
    if (err.empty())
        err = check_batch(t, kind, Op::add, b.locs, b.lib_keys, b.floor_keys);
    return err;
}

CallsTable *calls_table(benchmark::State &state, const Kind &kind)
{
    if (std::string err = use_calls_card(kind.tcam3); !err.empty()) {
        fail(state, err);
        return nullptr;
    }
    auto &slot = g_calls_tables[kind.name];
    if (!slot) {
        slot = std::make_unique<CallsTable>();
        if (std::string err = build_calls_table(kind, *slot); !err.empty()) {
            slot.reset();
            fail(state, err);
        }
    }
    return slot.get();
}

void bm_calls(benchmark::State &state, Kind kind, Op op)
{
    CallsTable *t = calls_table(state, kind);
    if (t == nullptr)
        return;
    const uint32_t k = g_profile.call_batch;
    const std::size_t key_space = std::size_t{k} * key_bytes(t->tbl_type);
    Batch b{std::vector<uint32_t>(k), std::vector<uint32_t>(k), std::vector<uint8_t>(key_space),
            std::vector<uint8_t>(key_space)};
    Side lib, floor;
    uint64_t ops = 0;
    int batch = 0;
    for (auto _ : state) {
        next_batch(*t, op, b);
        double lib_seconds = 0;
        std::string err = run_both(*t, op, b, batch, lib, floor, &lib_seconds);
        if (err.empty())
            err = settle_batch(*t, kind, op, b);
        if (!err.empty())
            return fail(state, err);
        state.SetIterationTime(lib_seconds);
        t->rotate += k;
        t->next_replacement += k;
        ops += k;
        ++batch;
    }
    state.SetItemsProcessed(static_cast<int64_t>(ops));
    report_side(state, "lib", lib, ops);
    report_side(state, "floor", floor, ops);
    state.counters["ratio"] = lib.seconds / floor.seconds;
    state.counters["ratio_cpu"] = lib.cpu / floor.cpu;
    state.SetLabel("library: " + calls_text(lib.calls, ops) + " | floor: " +
                   calls_text(floor.calls, ops));
}

// ---- card/<size>/<fill%> ---------------------------------------------------------------

// The entries of each table type of a card, the same for library and floor.
std::map<uint32_t, std::vector<Entry>> card_entries(uint32_t size, double fill)
{
    std::map<uint32_t, std::vector<Entry>> out;
    for (uint32_t type : kTableTypes) {
        auto rng = rng_for(100 + type);
        out[type] = table_entries(type, entries_for(size, fill), rng);
    }
    return out;
}

// What card/<full> leaves for the full/* benchmarks.
struct FullCard {
    bool programmed = false;
    std::string pristine;   // saved copy of the programmed card
    std::string work;       // where the restarts run
    CardShape shape;
    uint64_t entries = 0;   // hardware entries (both instances)
    Times program;
    Times warm_restart;
    std::vector<uint32_t> maps; // the library's maps after programming
};
FullCard g_full;

// Entries the engine moved since the tables were registered.
uint64_t engine_moves(const CardShape &shape)
{
    uint64_t moves = 0;
    for (uint8_t inst = 0; inst < shape.insts; ++inst)
        for (uint32_t type : kTableTypes) {
            orvex_sim_counters c{};
            if (orvex_sim_counters_get(inst, type, &c) == 0)
                moves += c.moves;
        }
    return moves;
}

Times warm_restart(std::string &err)
{
    library_forget();
    sim_forget();
    const Stopwatch sw;
    if (library_start(1) != 0)
        err = std::string("restart failed: ") + std::strerror(errno);
    return sw.times();
}

// Program every table on both instances through the library (one call per
// entry writes it on every instance).
std::string program_with_library(const CardShape &shape,
                                 const std::map<uint32_t, std::vector<Entry>> &entries)
{
    for (uint32_t type : kTableTypes) {
        LibraryTable table(TCAMWRAP_ALL_INSTS, type);
        const auto &list = entries.at(type);
        for (uint32_t i = 0; i < list.size(); ++i) {
            const uint32_t loc = cli::spread_loc(i, shape.size, 0);
            if (table.write(loc, list[i]) != 0)
                return client_error("write", loc) + " (table type " + std::to_string(type) +
                       ", entry " + std::to_string(i) + ")";
        }
    }
    return {};
}

// Maps and hardware hold `total` entries, and the engine's copies agree.
std::string check_programmed(const CardShape &shape, uint64_t total)
{
    if (library_mapped() != total || hw_entries(shape) != total)
        return "programming left " + std::to_string(library_mapped()) + " mapped locations and " +
               std::to_string(hw_entries(shape)) + " hardware entries, not " +
               std::to_string(total);
    if (std::string why = engine_check(shape); !why.empty())
        return "engine self-check: " + why;
    return {};
}

// The mean of the profile's warm restarts; each must leave maps and hardware as they were.
Times mean_warm_restart(const CardShape &shape, uint64_t total, std::string &err)
{
    const std::vector<uint32_t> maps = library_maps();
    Times sum;
    for (int r = 0; r < g_profile.warm_restarts && err.empty(); ++r) {
        sum += warm_restart(err);
        if (err.empty() && (library_maps() != maps || hw_entries(shape) != total))
            err = "the warm restart changed the maps or the hardware";
    }
    return sum / g_profile.warm_restarts;
}

void bm_card(benchmark::State &state, uint32_t size, double fill)
{
    const CardShape shape{2, size, false};
    const bool full = size == g_profile.full_size && fill == g_profile.card_fills.back();
    const auto entries = card_entries(size, fill);
    const uint64_t total = uint64_t{entries_for(size, fill)} * 3 * shape.insts;
    for (auto _ : state) {
        g_calls_card.ready = false;
        g_calls_tables.clear();
        const std::string dir = fresh_dir("card");
        sim_use(dir, shape);
        if (library_start(0) != 0)
            return fail(state, std::string("tcamwrap_init failed: ") + std::strerror(errno));
        const CallCounts before = platform_calls();
        const Stopwatch sw;
        std::string err = program_with_library(shape, entries);
        const Times program = sw.times();
        const CallCounts calls = calls_between(before, platform_calls());
        const uint64_t moves = engine_moves(shape);
        if (err.empty())
            err = check_programmed(shape, total);
        const std::vector<uint32_t> maps = library_maps();
        const Times restart = err.empty() ? mean_warm_restart(shape, total, err) : Times{};
        if (!err.empty())
            return fail(state, err);
        state.SetIterationTime(program.wall);

        const double n = double(total);
        state.counters["entries"] = n;
        state.counters["locations"] = double(shape.locations());
        state.counters["program_s"] = program.wall;
        state.counters["program_cpu_s"] = program.cpu;
        state.counters["program_ns_per_entry"] = 1e9 * program.wall / n;
        state.counters["inserts_per_s"] = n / program.wall;
        state.counters["store_writes_per_entry"] = double(calls_of(calls, "kvs_store")) / n;
        state.counters["engine_moves_per_entry"] = double(moves) / n;
        state.counters["warm_restart_ms"] = 1e3 * restart.wall;
        state.counters["warm_restart_cpu_ms"] = 1e3 * restart.cpu;
        state.counters["warm_restart_ns_per_location"] =
            1e9 * restart.wall / double(shape.locations());
        state.counters["program_over_restart"] = program.wall / restart.wall;
        state.counters["program_over_restart_cpu"] = program.cpu / restart.cpu;

        if (full) {
            g_full.programmed = true;
            g_full.shape = shape;
            g_full.entries = total;
            g_full.program = program;
            g_full.warm_restart = restart;
            g_full.maps = maps;
            g_full.pristine = fresh_dir("full-pristine");
            g_full.work = fresh_dir("full-work");
            copy_card(dir, g_full.pristine);
        }
    }
}

// ---- full/* ------------------------------------------------------------------------------

bool need_full(benchmark::State &state)
{
    if (g_full.programmed)
        return true;
    fail(state, "needs card/" + std::to_string(g_profile.full_size) + "/85 to run first");
    return false;
}

void bm_full_floor(benchmark::State &state)
{
    if (!need_full(state))
        return;
    const CardShape &shape = g_full.shape;
    const uint32_t n = entries_for(shape.size, g_profile.card_fills.back());
    const auto entries = card_entries(shape.size, g_profile.card_fills.back());
    for (auto _ : state) {
        g_calls_card.ready = false;
        g_calls_tables.clear();
        const std::string dir = fresh_dir("floor");
        sim_use(dir, shape);
        // By (inst, tbl_type): the order in which library_maps() lists the tables.
        std::map<std::pair<uint8_t, uint32_t>, std::unique_ptr<FloorTable>> tables;
        for (uint8_t inst = 0; inst < shape.insts; ++inst)
            for (uint32_t type : kTableTypes) {
                auto &t = tables[{inst, type}];
                t = std::make_unique<FloorTable>(inst, type, shape.size, true, kFloorStoreHandle);
                if (t->start_error() != 0)
                    return fail(state, "the floor's orvex_tcam_init failed");
            }
        const CallCounts before = platform_calls();
        const Stopwatch sw;
        for (uint32_t type : kTableTypes) {
            const auto &list = entries.at(type);
            for (uint32_t i = 0; i < n; ++i) {
                const uint32_t loc = cli::spread_loc(i, shape.size, 0);
                for (uint8_t inst = 0; inst < shape.insts; ++inst)
                    if (tables.at({inst, type})->write(loc, list[i]) != 0)
                        return fail(state, client_error("floor write", loc));
            }
        }
        const Times floor = sw.times();
        const CallCounts calls = calls_between(before, platform_calls());
        state.SetIterationTime(floor.wall);

        std::vector<uint32_t> floor_maps;
        for (const auto &[where, t] : tables)
            for (uint32_t loc = 0; loc < shape.size; ++loc)
                floor_maps.push_back(t->sloc(loc));
        if (floor_maps != g_full.maps)
            return fail(state, "the floor placed entries differently from the library");

        const double entries = double(g_full.entries);
        state.counters["entries"] = entries;
        state.counters["table_locations"] = double(shape.size);
        state.counters["floor_s"] = floor.wall;
        state.counters["floor_cpu_s"] = floor.cpu;
        state.counters["floor_ns_per_entry"] = 1e9 * floor.wall / entries;
        state.counters["lib_s"] = g_full.program.wall;
        state.counters["lib_cpu_s"] = g_full.program.cpu;
        state.counters["lib_ns_per_entry"] = 1e9 * g_full.program.wall / entries;
        state.counters["ratio"] = g_full.program.wall / floor.wall;
        state.counters["ratio_cpu"] = g_full.program.cpu / floor.cpu;
        state.counters["floor_store_writes_per_entry"] =
            double(calls_of(calls, "kvs_store")) / entries;
        tables.clear();
        sim_forget();
        fresh_dir("floor"); // frees the disk
    }
}

int count_restored(void *handle, uint32_t, const uint32_t *, const uint32_t *, uint32_t, uint32_t,
                   uint32_t, uint32_t)
{
    ++*static_cast<uint64_t *>(handle);
    return 0;
}
int accept_camindex(void *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
    return 0;
}

// The search engine's restore of every table alone, with a callback that only counts.
Times engine_restore(uint64_t &restored)
{
    sim_forget();
    restored = 0;
    const Stopwatch sw;
    for (uint8_t inst = 0; inst < g_full.shape.insts; ++inst)
        for (uint32_t type : kTableTypes)
            (void)orvex_tcam_init(inst, type, type == TCAMWRAP_TBL_FIB ? 72 : 144, nullptr, nullptr,
                                  accept_camindex, nullptr, 1, count_restored, &restored, 0, 0);
    return sw.times();
}

void report_phases(benchmark::State &state, const probe::RestartPhases &p, double n)
{
    const std::pair<const char *, double> phases[] = {
        {"setup", p.setup},           {"maps", p.maps},           {"lmt_restore", p.lmt_restore},
        {"engine_init", p.engine_init}, {"reconcile", p.reconcile}, {"store_read", p.store_read},
        {"store_write", p.store_write}, {"engine_delete", p.engine_delete}};
    for (const auto &[name, s] : phases)
        state.counters[std::string("phase_") + name + "_ms"] = 1e3 * s / n;
}

probe::RestartPhases &operator+=(probe::RestartPhases &a, const probe::RestartPhases &b)
{
    a.setup += b.setup;
    a.maps += b.maps;
    a.lmt_restore += b.lmt_restore;
    a.engine_init += b.engine_init;
    a.reconcile += b.reconcile;
    a.store_read += b.store_read;
    a.store_write += b.store_write;
    a.engine_delete += b.engine_delete;
    return a;
}

// A restart of the card in g_full.work, by phase; err set when it fails.
Times tapped_restart(probe::RestartPhases &phases, std::string &err)
{
    library_forget();
    sim_forget();
    probe::reset_library_peak();
    probe::restart_tap_start();
    const Stopwatch sw;
    if (library_start(1) != 0)
        err = std::string("restart failed: ") + std::strerror(errno);
    const Times t = sw.times();
    phases = probe::restart_tap_stop();
    return t;
}

void bm_full_warm_restart(benchmark::State &state)
{
    if (!need_full(state))
        return;
    copy_card(g_full.pristine, g_full.work);
    sim_use(g_full.work, g_full.shape);
    probe::RestartPhases sum;
    Times lib_total, engine_total;
    double best = 1e9;
    int runs = 0;
    for (auto _ : state) {
        uint64_t restored = 0;
        engine_total += engine_restore(restored);
        if (restored != g_full.entries)
            return fail(state, "the engine restored " + std::to_string(restored) + " entries");
        probe::RestartPhases p;
        std::string err;
        const Times t = tapped_restart(p, err);
        if (!err.empty())
            return fail(state, err);
        if (library_maps() != g_full.maps)
            return fail(state, "the restart changed the maps");
        state.SetIterationTime(t.wall);
        lib_total += t;
        best = std::min(best, t.wall);
        sum += p;
        ++runs;
    }
    const double locations = double(g_full.shape.locations());
    const Times mean = lib_total / runs;
    const Times engine = engine_total / runs;
    const double store_read = sum.store_read / runs;
    // The library's part: the restart less the engine's restore and the store reads.
    const double library_alone = mean.wall - engine.wall - store_read;
    state.counters["restart_ms"] = 1e3 * mean.wall;
    state.counters["restart_ms_min"] = 1e3 * best;
    state.counters["restart_cpu_ms"] = 1e3 * mean.cpu;
    state.counters["engine_restore_ms"] = 1e3 * engine.wall;
    state.counters["engine_restore_cpu_ms"] = 1e3 * engine.cpu;
    state.counters["restore_callbacks_ms"] = 1e3 * (sum.engine_init / runs - engine.wall);
    state.counters["library_ms"] = 1e3 * library_alone;
    state.counters["library_ns_per_location"] = 1e9 * library_alone / locations;
    state.counters["program_over_restart"] = g_full.program.wall / mean.wall;
    state.counters["program_over_restart_cpu"] = g_full.program.cpu / mean.cpu;
    state.counters["map_bytes_per_location"] = double(probe::library_live_bytes()) / locations;
    state.counters["restart_peak_bytes_per_location"] =
        double(probe::library_peak_bytes()) / locations;
    report_phases(state, sum, runs);
    g_full.warm_restart = mean;
}

// ---- the restart in a process of its own -------------------------------------------------

// Fields of /proc/self/status in kB.
std::map<std::string, double> status_kb()
{
    std::map<std::string, double> out;
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        const auto colon = line.find(':');
        if (colon == std::string::npos || line.find(" kB") == std::string::npos)
            continue;
        out[line.substr(0, colon)] = std::strtod(line.c_str() + colon + 1, nullptr);
    }
    return out;
}

// --restart-child: restart the library on $TCAMWRAP_SIM_STATE and print the time,
// the locations mapped and the memory of this process.
int restart_child()
{
    const Stopwatch sw;
    const int rc = library_start(1);
    const double s = sw.wall();
    if (rc != 0) {
        std::fprintf(stderr, "restart failed: %s\n", std::strerror(errno));
        return 1;
    }
    auto kb = status_kb();
    std::printf("%.6f %" PRIu64 " %.0f %.0f %.0f %.0f\n", s, library_mapped(), kb["VmRSS"],
                kb["RssAnon"], kb["RssFile"] + kb["RssShmem"], kb["VmHWM"]);
    return 0;
}

std::string self_path()
{
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return std::string(path, n > 0 ? static_cast<std::size_t>(n) : 0);
}

void bm_full_new_process(benchmark::State &state)
{
    if (!need_full(state))
        return;
    copy_card(g_full.pristine, g_full.work);
    ::setenv(SIM_STATE_ENV, g_full.work.c_str(), 1);
    double rss = 0, anon = 0, file = 0, hwm = 0, total = 0;
    int runs = 0;
    for (auto _ : state) {
        sim_forget();
        std::fflush(nullptr);
        FILE *child = ::popen(("exec '" + self_path() + "' --restart-child").c_str(), "r");
        if (child == nullptr)
            return fail(state, "cannot start the restart process");
        double s = 0;
        uint64_t mapped = 0;
        const int got = std::fscanf(child, "%lf %" SCNu64 " %lf %lf %lf %lf", &s, &mapped, &rss,
                                    &anon, &file, &hwm);
        const int status = ::pclose(child);
        if (got != 6 || status != 0)
            return fail(state, "the restart process failed");
        if (mapped != g_full.entries)
            return fail(state, "the restart process mapped " + std::to_string(mapped) + " locations");
        state.SetIterationTime(s);
        total += s;
        ++runs;
    }
    state.counters["restart_ms"] = 1e3 * total / runs;
    state.counters["rss_mib"] = rss / 1024;
    state.counters["rss_anon_mib"] = anon / 1024;
    state.counters["rss_file_mib"] = file / 1024;
    state.counters["peak_rss_mib"] = hwm / 1024;
}

// Restarts after losing one half of the card's state.
void bm_full_restart_lost(benchmark::State &state, bool lost_hardware)
{
    if (!need_full(state))
        return;
    for (auto _ : state) {
        copy_card(g_full.pristine, g_full.work);
        if (lost_hardware)
            clear_hardware(g_full.work);
        else
            clear_store(g_full.work);
        sim_use(g_full.work, g_full.shape);
        const CallCounts before = platform_calls();
        probe::RestartPhases p;
        std::string err;
        const Times t = tapped_restart(p, err);
        const CallCounts calls = calls_between(before, platform_calls());
        if (!err.empty())
            return fail(state, err);
        if (library_mapped() != 0 || hw_entries(g_full.shape) != 0)
            return fail(state, "the restart left " + std::to_string(library_mapped()) +
                                   " mapped locations and " +
                                   std::to_string(hw_entries(g_full.shape)) + " hardware entries");
        state.SetIterationTime(t.wall);
        state.counters["restart_s"] = t.wall;
        state.counters["restart_cpu_s"] = t.cpu;
        state.counters["over_warm_restart"] = t.wall / g_full.warm_restart.wall;
        state.counters["over_warm_restart_cpu"] = t.cpu / g_full.warm_restart.cpu;
        state.counters["store_writes"] = double(calls_of(calls, "kvs_store"));
        state.counters["engine_deletes"] = double(calls_of(calls, "orvex_tcam_delete_entry"));
        const double library_alone = t.wall - p.engine_init - p.store_read - p.store_write - p.engine_delete;
        state.counters["library_ns_per_location"] =
            1e9 * library_alone / double(g_full.shape.locations());
        report_phases(state, p, 1);
    }
}

// ---- acli_fill/<order> --------------------------------------------------------------------

enum class FillOrder { random, ascending, descending, levels8 };

// How far offering entries one by one fills a table.
struct Fill {
    uint32_t offered = 0, placed = 0;
    uint32_t at_first_failure = 0; // entries placed before the first refused one
    double to_first_failure = 0;   // seconds until then
    double seconds = 0;
    bool time_limited = false;
};

Fill offer_all(TableClient &table, const std::vector<Entry> &entries, uint32_t size)
{
    Fill f;
    bool failed = false;
    const auto t0 = Clock::now();
    for (const Entry &e : entries) {
        if (seconds_since(t0) > g_profile.fill_time_limit) {
            f.time_limited = true;
            break;
        }
        if (table.write(cli::spread_loc(f.offered++, size, 0), e) == 0) {
            ++f.placed;
        } else if (!failed) {
            failed = true;
            f.at_first_failure = f.placed;
            f.to_first_failure = seconds_since(t0);
        }
    }
    f.seconds = seconds_since(t0);
    if (!failed) {
        f.at_first_failure = f.placed;
        f.to_first_failure = f.seconds;
    }
    return f;
}

void bm_acli_fill(benchmark::State &state, FillOrder order)
{
    const uint32_t size = g_profile.fill_table;
    const CardShape shape{1, size, false};
    auto rng = rng_for(200 + static_cast<uint32_t>(order));
    const auto prios = order == FillOrder::levels8 ? AclPriorities::levels8 : AclPriorities::distinct;
    std::vector<Entry> entries = acl_entries(size, prios, 0.0, rng);
    if (order == FillOrder::random)
        std::shuffle(entries.begin(), entries.end(), rng);
    if (order == FillOrder::descending)
        std::reverse(entries.begin(), entries.end());
    for (auto _ : state) {
        g_calls_card.ready = false;
        g_calls_tables.clear();
        sim_use(fresh_dir("fill"), shape);
        if (library_start(0) != 0)
            return fail(state, std::string("tcamwrap_init failed: ") + std::strerror(errno));
        LibraryTable acli(0, TCAMWRAP_TBL_ACLI);
        const Fill f = offer_all(acli, entries, size);
        state.SetIterationTime(f.seconds);
        orvex_sim_counters c{};
        if (orvex_sim_counters_get(0, TCAMWRAP_TBL_ACLI, &c) != 0)
            return fail(state, "no engine counters");
        if (library_mapped() != f.placed)
            return fail(state, "the library maps " + std::to_string(library_mapped()) +
                                   " locations for " + std::to_string(f.placed) + " entries");
        if (std::string why = engine_check(shape); !why.empty())
            return fail(state, "engine self-check: " + why);
        state.counters["table"] = size;
        state.counters["offered"] = f.offered;
        state.counters["fill_at_first_failure"] = double(f.at_first_failure) / size;
        state.counters["fill_after_all_offered"] = double(f.placed) / size;
        state.counters["inserts_per_s"] = double(f.at_first_failure) / f.to_first_failure;
        state.counters["moves_per_insert"] = c.inserts ? double(c.moves) / double(c.inserts) : 0;
        state.counters["max_groom_moves"] = double(c.max_groom_moves);
        state.counters["time_limited"] = f.time_limited ? 1 : 0;
    }
}

// ---- registration --------------------------------------------------------------------------

std::string percent(double fill)
{
    return std::to_string(static_cast<int>(fill * 100 + 0.5));
}

void register_all()
{
    const Profile &p = g_profile;
    const std::pair<Op, const char *> ops[] = {
        {Op::add, "add"}, {Op::overwrite, "overwrite"}, {Op::remove, "delete"}, {Op::read, "read"}};
    for (const Kind &kind : kKinds)
        for (const auto &[op, name] : ops)
            benchmark::RegisterBenchmark(
                ("calls/" + std::string(kind.name) + "/" + name).c_str(),
                [kind, op = op](benchmark::State &s) { bm_calls(s, kind, op); })
                ->UseManualTime()
                ->Iterations(p.call_batches)
                ->Unit(benchmark::kMicrosecond);
    for (uint32_t size : p.card_sizes)
        for (double fill : p.card_fills)
            benchmark::RegisterBenchmark(
                ("card/" + std::to_string(size) + "/" + percent(fill)).c_str(),
                [size, fill](benchmark::State &s) { bm_card(s, size, fill); })
                ->UseManualTime()
                ->Iterations(1)
                ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("full/floor", bm_full_floor)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("full/warm_restart", bm_full_warm_restart)
        ->UseManualTime()
        ->Iterations(p.warm_restarts)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("full/new_process_restart", bm_full_new_process)
        ->UseManualTime()
        ->Iterations(p.child_restarts)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("full/restart_empty_hardware",
                                 [](benchmark::State &s) { bm_full_restart_lost(s, true); })
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("full/restart_empty_store",
                                 [](benchmark::State &s) { bm_full_restart_lost(s, false); })
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    const std::pair<FillOrder, const char *> orders[] = {{FillOrder::random, "random"},
                                                         {FillOrder::ascending, "ascending"},
                                                         {FillOrder::descending, "descending"},
                                                         {FillOrder::levels8, "levels8"}};
    for (const auto &[order, name] : orders)
        benchmark::RegisterBenchmark(("acli_fill/" + std::string(name)).c_str(),
                                     [order = order](benchmark::State &s) { bm_acli_fill(s, order); })
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMillisecond);
}

// The processor's model name, for the run's context.
std::string cpu_model()
{
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    return "unknown";
}

// Takes this program's own flags out of argv; false on a bad one.
bool take_own_flags(int &argc, char **argv)
{
    int out = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--profile=full")
            g_profile = kFull;
        else if (a == "--profile=smoke")
            g_profile = kSmoke;
        else if (a.rfind("--profile=", 0) == 0)
            return false;
        else if (a.rfind("--seed=", 0) == 0)
            g_seed = std::strtoull(a.c_str() + 7, nullptr, 10);
        else
            argv[out++] = argv[i];
    }
    argc = out;
    return true;
}

} // namespace
} // namespace tcamwrap::bench

int main(int argc, char **argv)
{
    using namespace tcamwrap::bench;
    probe::init();
    if (argc == 2 && std::strcmp(argv[1], "--restart-child") == 0)
        return restart_child();
    if (!take_own_flags(argc, argv)) {
        std::fprintf(stderr, "usage: tcamwrap_bench [--profile=full|smoke] [--seed=N] "
                             "[--benchmark_* flags]\n");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::AddCustomContext("profile", g_profile.name);
    benchmark::AddCustomContext("seed", std::to_string(g_seed));
    benchmark::AddCustomContext("cpu_model", cpu_model());
    benchmark::AddCustomContext("build", TCAMWRAP_BENCH_BUILD);
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return g_failures == 0 ? 0 : 1;
}
