// demo.cpp - 'tcamwrap-sim demo': a line card's tables programmed, the client
// process killed in the middle of an overwrite storm, a warm restart, and every
// entry and every forwarding lookup checked.
//
// The parent process never starts the library: each client is a child of it, so
// each starts with the library's globals of a new process, as a restarted client
// process does. The parent plans every operation from one seed and keeps the
// model of what every loc must hold; the children do the work and report through
// a shared memory page.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "audit.hpp"
#include "card_model.hpp"
#include "commands.hpp"
#include "orvex_sim.h"
#include "profile.hpp"
#include "routes.hpp"
#include "sim_card.h"
#include "sim_fault.h"
#include "sim_hw.h"

namespace tcamwrap::cli
{

namespace
{

constexpr uint32_t kDemoInsts = 2;
constexpr int kCrashExit = 137;   // how the fault injector ends a process
constexpr int kStormFinished = 3; // the storm ran out before the crash point
constexpr uint32_t kListedErrors = 10;
struct LocWrite {
    uint32_t tbl_type;
    uint32_t loc;
    Entry entry;
};

struct Plan {
    uint64_t seed = 0;
    std::vector<Entry> load[4];                             // entry i at spread_loc(i)
    std::vector<std::pair<uint32_t, ResultWord>> next_hops; // FIB loc, new word
    std::vector<LocWrite> moves;                            // FIB overwrites with new routes
    std::vector<std::pair<uint32_t, uint32_t>> deletes;     // tbl_type, loc
    std::vector<LocWrite> storm;
    Model after_program;
    std::string crash_point;
    uint64_t crash_nth = 0;
};

// Fixed-size text in the shared page.
template <std::size_t N>
struct Text {
    char s[N];
    void append(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        const std::size_t used = std::strlen(s);
        if (used + 1 >= N)
            return;
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(s + used, N - used, fmt, ap);
        va_end(ap);
    }
};

// Reports of the children (a MAP_SHARED page, zeroed).
struct Shared {
    // client 1: programming
    double t_fib, t_acl, t_next_hops, t_moves, t_deletes;
    uint64_t moves_load, moves_changes, moves_overwrites, stores_program;
    // client 2: storm
    double t_storm_start, t_storm;
    uint32_t storm_start_repairs;
    uint64_t storm_restored;
    volatile uint64_t storm_started, storm_done, storm_moves, storm_stores;
    // client 3: restart and verification
    double t_restart, t_verify_locs, t_verify_lookups;
    uint64_t restored, stores_restart;
    uint32_t journal_records, lmt_switched, lmt_invalidated, orphans_deleted, old_copies_deleted;
    uint64_t locs_checked, loc_errors, lookups_checked, lookup_errors;
    int inflight_variant[kDemoInsts]; // -1 none, 0 old entry, 1 new entry, 2 neither
    uint32_t selfchecks, selfcheck_failures;
    uint64_t hw_entries[kDemoInsts][4];
    Text<4096> repair_lines;
    Text<4096> errors; // the first kListedErrors problems
    uint32_t errors_listed;
    Text<512> failure[3];
};


tbl_params one_entry(uint8_t inst, uint32_t tbl, uint32_t loc)
{
    tbl_params p{};
    p.inst = inst;
    p.tbl_type = tbl;
    p.num_entries = 1;
    p.start_addr = loc;
    return p;
}

// ---- planning (parent) ------------------------------------------------------

struct DemoSizes {
    uint32_t routes, acl, storm;
    uint32_t size[4];
};

Plan make_plan(uint64_t seed, const DemoSizes &sz)
{
    Plan plan;
    plan.seed = seed;
    std::mt19937_64 rng(seed);
    PrefixSet taken;
    for (const Route &r : generate_routes(sz.routes, rng, taken))
        plan.load[TCAMWRAP_TBL_FIB].push_back(fib_entry(r));
    for (const AclRule &r : generate_acl(sz.acl, true, rng))
        plan.load[TCAMWRAP_TBL_ACLI].push_back(acl_entry(r));
    for (const AclRule &r : generate_acl(sz.acl, false, rng))
        plan.load[TCAMWRAP_TBL_ACLO].push_back(acl_entry(r));

    Model &m = plan.after_program;
    for (uint32_t tbl : kTableTypes) {
        m[tbl].assign(sz.size[tbl], Entry{});
        for (std::size_t i = 0; i < plan.load[tbl].size(); ++i)
            m[tbl][spread_loc(i, sz.size[tbl], 0)] = plan.load[tbl][i];
    }

    // Disjoint shares of the routes: 10% new next hop, 5% moved to a new prefix
    // (an overwrite, which may make the engine move entries), 3% deleted. The
    // default route (loc 0) stays.
    std::vector<uint32_t> fib_locs = used_locs(m[TCAMWRAP_TBL_FIB]);
    fib_locs.erase(std::remove(fib_locs.begin(), fib_locs.end(), 0u), fib_locs.end());
    std::shuffle(fib_locs.begin(), fib_locs.end(), rng);
    auto take = [&, next = std::size_t{0}](std::size_t n) mutable {
        std::vector<uint32_t> out(fib_locs.begin() + static_cast<long>(next),
                                  fib_locs.begin() +
                                      static_cast<long>(std::min(next + n, fib_locs.size())));
        next = std::min(next + n, fib_locs.size());
        return out;
    };
    for (uint32_t loc : take(sz.routes / 10)) {
        Entry &e = m[TCAMWRAP_TBL_FIB][loc];
        ResultWord w;
        do
            w = next_hop_result(random_next_hop(rng));
        while (w == e.result);
        e.result = w;
        plan.next_hops.emplace_back(loc, w);
    }
    for (uint32_t loc : take(sz.routes / 20)) {
        const Entry e = fib_entry(random_route(rng, taken));
        m[TCAMWRAP_TBL_FIB][loc] = e;
        plan.moves.push_back({TCAMWRAP_TBL_FIB, loc, e});
    }
    for (uint32_t loc : take(sz.routes * 3 / 100)) {
        m[TCAMWRAP_TBL_FIB][loc] = Entry{};
        plan.deletes.emplace_back(TCAMWRAP_TBL_FIB, loc);
    }
    for (uint32_t tbl : {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO}) {
        auto locs = used_locs(m[tbl]);
        std::shuffle(locs.begin(), locs.end(), rng);
        for (std::size_t i = 0; i < locs.size() / 50; ++i) {
            m[tbl][locs[i]] = Entry{};
            plan.deletes.emplace_back(tbl, locs[i]);
        }
    }

    // The storm: overwrites of programmed locs, mostly routes moving to new
    // prefixes, some ACL rules replaced.
    std::vector<uint32_t> live[4];
    for (uint32_t tbl : kTableTypes)
        live[tbl] = used_locs(m[tbl]);
    for (uint32_t i = 0; i < sz.storm; ++i) {
        const uint64_t dice = rng() % 20;
        uint32_t tbl = TCAMWRAP_TBL_FIB;
        if (dice == 0 && !live[TCAMWRAP_TBL_ACLI].empty())
            tbl = TCAMWRAP_TBL_ACLI;
        else if (dice == 1 && !live[TCAMWRAP_TBL_ACLO].empty())
            tbl = TCAMWRAP_TBL_ACLO;
        if (live[tbl].empty())
            break;
        const uint32_t loc = live[tbl][rng() % live[tbl].size()];
        const Entry e = tbl == TCAMWRAP_TBL_FIB
                            ? fib_entry(random_route(rng, taken))
                            : acl_entry(random_acl_rule(tbl == TCAMWRAP_TBL_ACLI, rng));
        plan.storm.push_back({tbl, loc, e});
    }
    return plan;
}

// ---- children ----------------------------------------------------------------

StartReport start_demo_client()
{
    StartOptions options;
    // Reconciliation reports are traced at level 3.
    options.debug_level = static_cast<int>(std::max<uint32_t>(saved_debug_level(), 3));
    return start_library(options);
}

template <typename Fn>
int run_child(Shared *shm, int slot, Fn fn)
{
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = ::fork();
    if (pid < 0)
        throw Failure("fork failed: " + errno_text(errno));
    if (pid == 0) {
        int code = 1;
        try {
            code = fn();
        } catch (const std::exception &e) {
            shm->failure[slot].append("%s", e.what());
        }
        std::fflush(stdout);
        std::fflush(stderr);
        ::_exit(code);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            throw Failure("waitpid failed: " + errno_text(errno));
    return status;
}

int program_card(const Plan &plan, Shared *shm)
{
    const StartReport started = start_demo_client();
    if (started.init_type != 0)
        throw Failure("client 1 expected a fresh start");
    const uint64_t stores0 = sim_calls_get("kvs_store");
    uint64_t total = 0;
    for (uint32_t tbl : kTableTypes)
        total += plan.load[tbl].size();
    auto t = std::chrono::steady_clock::now();
    {
        Progress progress("client 1: loading", total);
        uint64_t done = 0;
        write_spread(TCAMWRAP_TBL_FIB, TCAMWRAP_ALL_INSTS,
                     specs_of(TCAMWRAP_TBL_FIB, plan.load[TCAMWRAP_TBL_FIB]), 0, progress, done);
        shm->t_fib = seconds_since(t);
        t = std::chrono::steady_clock::now();
        for (uint32_t tbl : {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO})
            write_spread(tbl, TCAMWRAP_ALL_INSTS, specs_of(tbl, plan.load[tbl]), 0, progress, done);
        shm->t_acl = seconds_since(t);
    }
    shm->moves_load = engine_moves();

    t = std::chrono::steady_clock::now();
    for (auto [loc, word] : plan.next_hops) {
        tbl_params p = one_entry(TCAMWRAP_ALL_INSTS, TCAMWRAP_TBL_FIB, loc);
        if (tcamwrap_fwd_ssram_write(&p, word.data()) != 0)
            throw Failure("tcamwrap_fwd_ssram_write of fib loc " + hexnum(loc) +
                          " failed: " + errno_text(errno));
    }
    shm->t_next_hops = seconds_since(t);

    t = std::chrono::steady_clock::now();
    const uint64_t moves_before = engine_moves();
    for (const LocWrite &w : plan.moves)
        write_entries(w.tbl_type, TCAMWRAP_ALL_INSTS, w.loc, {spec_of(w.tbl_type, w.entry)});
    shm->t_moves = seconds_since(t);
    shm->moves_overwrites = engine_moves() - moves_before;

    t = std::chrono::steady_clock::now();
    for (auto [tbl, loc] : plan.deletes) {
        tbl_params p = one_entry(TCAMWRAP_ALL_INSTS, tbl, loc);
        if (tcamwrap_fwd_tcam_delete(&p) != 0)
            throw Failure(std::string("tcamwrap_fwd_tcam_delete of ") + table_name(tbl) + " loc " +
                          hexnum(loc) + " failed: " + errno_text(errno));
    }
    shm->t_deletes = seconds_since(t);
    shm->moves_changes = engine_moves() - shm->moves_load;
    shm->stores_program = sim_calls_get("kvs_store") - stores0;
    return 0;
}

int overwrite_storm(const Plan &plan, Shared *shm)
{
    auto t = std::chrono::steady_clock::now();
    const StartReport started = start_demo_client();
    shm->t_storm_start = seconds_since(t);
    shm->storm_start_repairs = started.repairs.total();
    for (const auto &[table, n] : started.restored)
        shm->storm_restored += n;
    const std::string rule = "crash=" + plan.crash_point + ":" + std::to_string(plan.crash_nth);
    if (sim_fault_set(rule.c_str()) != 0)
        throw Failure("the fault injector refuses '" + rule + "'");
    const uint64_t stores0 = sim_calls_get("kvs_store");
    t = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < plan.storm.size(); ++i) {
        const LocWrite &w = plan.storm[i];
        shm->storm_started = i + 1;
        write_entries(w.tbl_type, TCAMWRAP_ALL_INSTS, w.loc, {spec_of(w.tbl_type, w.entry)});
        shm->storm_done = i + 1;
        // The process may end at any callback: keep the figures current.
        shm->storm_moves = engine_moves();
        shm->storm_stores = sim_calls_get("kvs_store") - stores0;
        shm->t_storm = seconds_since(t);
    }
    return kStormFinished;
}

struct Inflight {
    bool present = false;
    LocWrite write; // the new entry
    Entry old;
};

// Every loc against the model, then every route's lookup, through the verifier
// the sweep uses too.
void verify_card(const Model &model, const Inflight &inflight, Shared *shm)
{
    const CardModel card(kDemoInsts, model);
    std::vector<Unit> units;
    if (inflight.present)
        for (uint8_t inst = 0; inst < kDemoInsts; ++inst)
            units.push_back({inst, inflight.write.tbl_type, inflight.write.loc, inflight.old,
                             inflight.write.entry});
    const std::vector<uint32_t> tables(std::begin(kTableTypes), std::end(kTableTypes));
    Verification v;
    CardModel found;
    auto t = std::chrono::steady_clock::now();
    verify_locs(card, units, tables, v, found);
    shm->t_verify_locs = seconds_since(t);
    t = std::chrono::steady_clock::now();
    verify_lookups(found, {TCAMWRAP_TBL_FIB}, v);
    shm->t_verify_lookups = seconds_since(t);
    shm->locs_checked = v.locs_checked;
    shm->loc_errors = v.loc_errors;
    shm->lookups_checked = v.lookups_checked;
    shm->lookup_errors = v.lookup_errors;
    for (uint8_t inst = 0; inst < kDemoInsts; ++inst)
        shm->inflight_variant[inst] = -1;
    for (std::size_t i = 0; i < units.size(); ++i) {
        const Held h = v.inflight_held[i];
        shm->inflight_variant[units[i].inst] =
            h == Held::after ? 1 : h == Held::before || h == Held::unchanged ? 0 : 2;
    }
    for (const Problem &p : v.problems)
        if (shm->errors_listed++ < kListedErrors)
            shm->errors.append("%s\n", p.text.c_str());
}

int restart_and_verify(const Model &model, const Inflight &inflight, Shared *shm)
{
    const uint64_t stores0 = sim_calls_get("kvs_store");
    const StartReport started = start_demo_client();
    shm->t_restart = started.seconds;
    shm->stores_restart = sim_calls_get("kvs_store") - stores0;
    for (const auto &[table, n] : started.restored)
        shm->restored += n;
    const Repairs &r = started.repairs;
    shm->journal_records = r.journal_records;
    shm->lmt_switched = r.lmt_switched;
    shm->lmt_invalidated = r.lmt_invalidated;
    shm->orphans_deleted = r.orphans_deleted;
    shm->old_copies_deleted = r.old_copies_deleted;
    for (const std::string &line : r.lines)
        shm->repair_lines.append("%s\n", line.c_str());

    verify_card(model, inflight, shm);

    for (uint8_t inst = 0; inst < kDemoInsts; ++inst)
        for (uint32_t tbl : kTableTypes) {
            char why[256] = "";
            ++shm->selfchecks;
            if (orvex_sim_check(inst, tbl, why, sizeof why) != 0) {
                ++shm->selfcheck_failures;
                if (shm->errors_listed++ < kListedErrors)
                    shm->errors.append("engine self-check of %s inst %u: %s\n", table_name(tbl),
                                       inst, why);
            }
            shm->hw_entries[inst][tbl] = sim_hw_tcam_count(inst, tbl);
        }
    return shm->loc_errors == 0 && shm->lookup_errors == 0 && shm->selfcheck_failures == 0 ? 0 : 1;
}

// ---- the parent -------------------------------------------------------------

// The crash points --crash takes: the search engine's callbacks (PRE_ADD for
// camindex.PRE_ADD), any of them, and the store calls.
const char *const kCrashPoints[] = {"PRE_ADD",  "POST_ADD", "PRE_DEL",   "POST_DEL",  "PRE_MOVE",
                                    "POST_MOVE", "camindex", "kvs_store", "kvs_delete"};

struct CrashChoice {
    std::string point; // as the fault injector names it
    std::optional<uint64_t> nth;
};

// --crash POINT[:N], checked before anything is made.
std::optional<CrashChoice> crash_option(const Args &args)
{
    auto text = args.value("crash");
    if (!text)
        return std::nullopt;
    CrashChoice c;
    std::string point = *text;
    if (auto colon = point.rfind(':'); colon != std::string::npos) {
        const std::string count = point.substr(colon + 1);
        try {
            c.nth = parse_number(count, 1, UINT32_MAX, "count");
        } catch (const Refused &) {
            args.def("crash").refuse(*text, "the count N is not a whole number from 1");
        }
        point.resize(colon);
    }
    if (std::find(std::begin(kCrashPoints), std::end(kCrashPoints), point) ==
        std::end(kCrashPoints))
        args.def("crash").refuse(*text);
    c.point = point.rfind("PRE_", 0) == 0 || point.rfind("POST_", 0) == 0 ? "camindex." + point
                                                                          : point;
    return c;
}

// The state directory of the demo: a new temporary one unless one is named,
// which must not hold a card. Called once every option has been checked.
void prepare_state_dir()
{
    if (std::getenv(SIM_STATE_ENV) == nullptr) {
        const char *tmp = std::getenv("TMPDIR");
        std::string templ =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tcamwrap-demo-XXXXXX";
        if (::mkdtemp(templ.data()) == nullptr)
            throw Failure("cannot create a state directory: " + errno_text(errno));
        ::setenv(SIM_STATE_ENV, templ.c_str(), 1);
    }
    if (card_exists() || client_started())
        throw Refused("the demo needs a fresh card, but " + state_dir() +
                      " holds one ('tcamwrap-sim card reset' removes it, or name a new "
                      "directory)");
}

// The card the demo will make, from the profile a new card takes, checked
// against the options before the card exists.
DemoSizes card_sizes(const Args &args)
{
    DemoSizes sz{};
    sz.routes = static_cast<uint32_t>(args.number("routes").value_or(100000));
    sz.acl = static_cast<uint32_t>(args.number("acl").value_or(2000));
    sz.storm = static_cast<uint32_t>(args.number("storm").value_or(20000));
    if (sz.routes < 100)
        throw Refused("--routes '" + std::to_string(sz.routes) +
                      "': the demo needs at least 100 routes: give a whole number from 100 to " +
                      std::to_string(args.def("routes").max));
    sim::Profile profile;
    if (auto err = sim::profile_from_setting(std::getenv(SIM_PROFILE_ENV), profile); !err.empty())
        throw Refused(std::string(SIM_PROFILE_ENV) + ": " + err);
    if (profile.insts != kDemoInsts)
        throw Refused("the demo needs a card with two instances (" SIM_PROFILE_ENV " has " +
                      std::to_string(profile.insts) + ")");
    for (uint32_t tbl : kTableTypes) {
        const int t = sim::table_index(tbl);
        if (profile.kind[t] != SIM_KIND_ORVEX)
            throw Refused(std::string("the demo needs every table on an Orvex TCAM; ") +
                          table_name(tbl) + " is tcam3 in " SIM_PROFILE_ENV);
        sz.size[tbl] = profile.size[t];
    }
    // A bank filled beyond nine tenths leaves the engine little room to work.
    auto fits = [](uint64_t n, uint32_t size) { return n * 10 <= uint64_t{size} * 9; };
    if (!fits(sz.routes, sz.size[TCAMWRAP_TBL_FIB]))
        args.def("routes").refuse(std::to_string(sz.routes),
                                  "more than 90% of the fib (" +
                                      std::to_string(sz.size[TCAMWRAP_TBL_FIB]) + " entries)");
    if (!fits(sz.acl, sz.size[TCAMWRAP_TBL_ACLI]) || !fits(sz.acl, sz.size[TCAMWRAP_TBL_ACLO]))
        args.def("acl").refuse(std::to_string(sz.acl), "more than 90% of an ACL table");
    return sz;
}

// Makes the card the checks above describe; the children open it themselves.
void create_card(const DemoSizes &sz)
{
    open_card();
    for (uint32_t tbl : kTableTypes)
        if (table_size(tbl) != sz.size[tbl])
            throw Failure("the card in " + state_dir() + " is not the one " SIM_PROFILE_ENV
                          " describes");
    sim_card_close();
}

// The crash: --crash POINT[:N], or a random camindex point and count that the
// storm reaches about half way. moves_per_write: the engine's moves per
// overwrite and instance as the programming phase saw them.
void choose_crash(const std::optional<CrashChoice> &chosen, std::mt19937_64 &rng,
                  double moves_per_write, Plan &plan)
{
    const uint64_t storm_writes = plan.storm.size() * kDemoInsts;
    if (chosen) {
        plan.crash_point = chosen->point;
        plan.crash_nth = chosen->nth.value_or(1 + rng() % std::max<uint64_t>(1, storm_writes / 2));
        return;
    }
    // Every storm overwrite passes each add and delete point once per instance;
    // the move points only as often as groom moves.
    static const char *points[] = {"PRE_ADD", "POST_ADD", "PRE_DEL", "POST_DEL", "PRE_MOVE",
                                   "POST_MOVE"};
    std::string point = points[rng() % std::size(points)];
    uint64_t reach = storm_writes / 2;
    if (point == "PRE_MOVE" || point == "POST_MOVE") {
        // Moves are rare and their number in the storm only estimated: aim at
        // the first quarter of the estimate, and take a delete point when too
        // few moves are expected to be sure of reaching one.
        reach = static_cast<uint64_t>(moves_per_write * static_cast<double>(storm_writes) / 8);
        if (reach < 25) {
            point = "POST_DEL";
            reach = storm_writes / 2;
        }
    }
    plan.crash_point = "camindex." + point;
    plan.crash_nth = 1 + rng() % std::max<uint64_t>(1, reach);
}

void appendf(std::string &out, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string &out, const char *fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    out += line;
}

struct DemoTimes {
    double plan, program, storm, verify, audit, total;
};

struct DemoResult {
    uint64_t seed;
    const DemoSizes &sz;
    const Plan &plan;
    const Shared &shm;
    DemoTimes t;
    bool killed;
    std::string inflight;
    const std::vector<Difference> &audit;
    bool verdict;
    std::string problems;
    uint64_t entries[4];
};

std::string inflight_text(const Inflight &inflight, const Shared &shm)
{
    if (!inflight.present)
        return "none (the crash came between two overwrites)";
    static const char *variant[] = {"the old entry", "the new entry", "neither entry"};
    auto holds = [&](int v) { return v >= 0 && v <= 2 ? variant[v] : "?"; };
    return std::string(table_name(inflight.write.tbl_type)) + " loc " + hexnum(inflight.write.loc) +
           ": inst 0 holds " + holds(shm.inflight_variant[0]) + ", inst 1 holds " +
           holds(shm.inflight_variant[1]);
}

std::vector<std::string> split_lines(const char *text)
{
    std::vector<std::string> lines;
    for (const char *p = text; *p != '\0';) {
        const char *nl = std::strchr(p, '\n');
        const std::size_t n = nl != nullptr ? static_cast<std::size_t>(nl - p) : std::strlen(p);
        lines.emplace_back(p, n);
        p += n + (nl != nullptr ? 1 : 0);
    }
    return lines;
}

Json json_lines(const char *text)
{
    Json lines = Json::array();
    for (const std::string &line : split_lines(text))
        lines.push(line);
    return lines;
}

unsigned long long ull(uint64_t v)
{
    return v;
}

// One line of the report with its time in a right-hand column.
void timed(std::string &out, const std::string &label, double seconds)
{
    appendf(out, "%-62s %7.2f s\n", label.c_str(), seconds);
}

std::string text_report(const DemoResult &r)
{
    const Shared &m = r.shm;
    const Plan &plan = r.plan;
    std::string out;
    appendf(out, "tcamwrap-sim demo: seed %llu, state directory %s\n", ull(r.seed),
            state_dir().c_str());
    appendf(out, "card: 2 instances; fib %u, acli %u, aclo %u entries, all on the Orvex engine\n\n",
            r.sz.size[TCAMWRAP_TBL_FIB], r.sz.size[TCAMWRAP_TBL_ACLI],
            r.sz.size[TCAMWRAP_TBL_ACLO]);
    timed(out, "1. client 1 (fresh start) programs both instances", r.t.program);
    timed(out, "   " + std::to_string(r.sz.routes) + " routes, prefix-length mix of a public table",
          m.t_fib);
    timed(out,
          "   " + std::to_string(r.sz.acl) + " acli + " + std::to_string(r.sz.acl) + " aclo rules",
          m.t_acl);
    timed(out, "   " + std::to_string(plan.next_hops.size()) + " next hops changed", m.t_next_hops);
    timed(out,
          "   " + std::to_string(plan.moves.size()) + " routes moved to new prefixes (overwrites)",
          m.t_moves);
    timed(out, "   " + std::to_string(plan.deletes.size()) + " entries deleted", m.t_deletes);
    appendf(out, "   engine moves: %llu loading, %llu changing; store writes: %llu\n",
            ull(m.moves_load), ull(m.moves_changes), ull(m.stores_program));
    timed(out,
          "2. client 2 restarts with restore: " + std::to_string(m.storm_restored) + " entries, " +
              std::to_string(m.storm_start_repairs) + " repairs",
          m.t_storm_start);
    timed(out,
          "   overwrite storm: " + std::to_string(m.storm_done) + " overwrites done, #" +
              std::to_string(m.storm_started) + " in flight",
          m.t_storm);
    appendf(out, "   engine moves: %llu; store writes: %llu\n", ull(m.storm_moves),
            ull(m.storm_stores));
    appendf(out, "   crash: %s #%llu -> %s\n", plan.crash_point.c_str(), ull(plan.crash_nth),
            r.killed ? "client killed by the fault injector" : "NOT REACHED");
    timed(out, "3. client 3 restarts with restore and reconciles", m.t_restart);
    appendf(out, "   %llu entries restored from hardware; store writes: %llu\n", ull(m.restored),
            ull(m.stores_restart));
    appendf(out,
            "   repaired: %u journal record(s) (%u LMT switch(es), %u old copies deleted), "
            "%u stale loc(s), %u orphan entr(ies)\n",
            m.journal_records, m.lmt_switched, m.old_copies_deleted, m.lmt_invalidated,
            m.orphans_deleted);
    for (const std::string &line : split_lines(m.repair_lines.s))
        out += "     library: " + line + "\n";
    timed(out, "4. verification", m.t_verify_locs + m.t_verify_lookups);
    appendf(out, "   locs: %llu checked (every loc of every table, both instances), %llu wrong\n",
            ull(m.locs_checked), ull(m.loc_errors));
    out += "   in flight at the crash: " + r.inflight + "\n";
    appendf(out, "   lookups: %llu routes looked up by network address, %llu wrong\n",
            ull(m.lookups_checked), ull(m.lookup_errors));
    appendf(out, "   engine self-check: %u tables, %u failed\n", m.selfchecks,
            m.selfcheck_failures);
    timed(out,
          "   audit of store and hardware: " + std::to_string(r.audit.size()) + " difference(s)",
          r.t.audit);
    appendf(out, "entries per instance: fib %llu, acli %llu, aclo %llu\n",
            ull(r.entries[TCAMWRAP_TBL_FIB]), ull(r.entries[TCAMWRAP_TBL_ACLI]),
            ull(r.entries[TCAMWRAP_TBL_ACLO]));
    if (m.errors.s[0] != '\0')
        out += "first problems:\n" + std::string(m.errors.s);
    if (!r.verdict)
        out += "problems:\n" + r.problems;
    appendf(out, "verdict: %s (total %.1f s)\n",
            r.verdict ? "every entry and every lookup is right after the crash and warm restart"
                      : "WRONG",
            r.t.total);
    return out;
}

Json json_report(const DemoResult &r)
{
    const Shared &m = r.shm;
    const Plan &plan = r.plan;
    Json j = Json::object();
    j.set("seed", r.seed).set("state_dir", state_dir());
    Json card = Json::object().set("instances", kDemoInsts);
    Json per_table = Json::object();
    for (uint32_t tbl : kTableTypes) {
        card.set(table_name(tbl), r.sz.size[tbl]);
        per_table.set(table_name(tbl), r.entries[tbl]);
    }
    j.set("card", std::move(card)).set("entries_per_instance", std::move(per_table));
    j.set("operations", Json::object()
                            .set("routes_loaded", r.sz.routes)
                            .set("acl_rules_loaded", 2 * r.sz.acl)
                            .set("next_hops_changed", plan.next_hops.size())
                            .set("routes_moved", plan.moves.size())
                            .set("deletes", plan.deletes.size())
                            .set("storm_overwrites_done", m.storm_done));
    j.set("engine_moves", Json::object()
                              .set("load", m.moves_load)
                              .set("changes", m.moves_changes)
                              .set("storm", m.storm_moves));
    j.set("store_writes", Json::object()
                              .set("program", m.stores_program)
                              .set("storm", m.storm_stores)
                              .set("restart", m.stores_restart));
    j.set("seconds", Json::object()
                         .set("plan", r.t.plan)
                         .set("fib_load", m.t_fib)
                         .set("acl_load", m.t_acl)
                         .set("next_hops", m.t_next_hops)
                         .set("moves", m.t_moves)
                         .set("deletes", m.t_deletes)
                         .set("program_client", r.t.program)
                         .set("storm_restart", m.t_storm_start)
                         .set("storm", m.t_storm)
                         .set("storm_client", r.t.storm)
                         .set("restart", m.t_restart)
                         .set("verify_locs", m.t_verify_locs)
                         .set("verify_lookups", m.t_verify_lookups)
                         .set("verify_client", r.t.verify)
                         .set("audit", r.t.audit)
                         .set("total", r.t.total));
    j.set("crash", Json::object()
                       .set("point", plan.crash_point)
                       .set("nth", plan.crash_nth)
                       .set("killed", r.killed)
                       .set("in_flight", r.inflight));
    j.set("reconciliation", Json::object()
                                .set("restored_entries", m.restored)
                                .set("journal_records", m.journal_records)
                                .set("lmt_switched", m.lmt_switched)
                                .set("lmt_invalidated", m.lmt_invalidated)
                                .set("orphans_deleted", m.orphans_deleted)
                                .set("old_copies_deleted", m.old_copies_deleted)
                                .set("lines", json_lines(m.repair_lines.s)));
    Json problems = json_lines(m.errors.s);
    for (const Difference &d : r.audit)
        problems.push(d.text);
    j.set("verification", Json::object()
                              .set("locs_checked", m.locs_checked)
                              .set("loc_errors", m.loc_errors)
                              .set("lookups_checked", m.lookups_checked)
                              .set("lookup_errors", m.lookup_errors)
                              .set("engine_selfchecks", m.selfchecks)
                              .set("engine_selfcheck_failures", m.selfcheck_failures)
                              .set("audit_differences", r.audit.size())
                              .set("problems", std::move(problems)));
    j.set("verdict", r.verdict ? "right" : "wrong");
    return j;
}

} // namespace

std::string crash_points_accepted()
{
    std::string out = "POINT[:N], POINT one of";
    for (const char *point : kCrashPoints)
        out += std::string(" ") + point;
    return out + ", N a whole number from 1";
}

int cmd_demo(const Args &args)
{
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional()[0] + "'");
    const auto t_total = std::chrono::steady_clock::now();
    const std::optional<CrashChoice> crash = crash_option(args);
    const DemoSizes sz = card_sizes(args);
    const uint64_t seed = args.number("seed").value_or(std::random_device{}());
    prepare_state_dir();
    create_card(sz);

    auto t = std::chrono::steady_clock::now();
    Plan plan = make_plan(seed, sz);
    const double t_plan = seconds_since(t);

    auto *shm = static_cast<Shared *>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (shm == MAP_FAILED)
        throw Failure("mmap failed: " + errno_text(errno));
    std::memset(static_cast<void *>(shm), 0, sizeof(Shared));

    bool ok = true;
    std::string problems;
    auto problem = [&](const std::string &what) {
        ok = false;
        problems += "  " + what + "\n";
    };

    // 1. programming
    t = std::chrono::steady_clock::now();
    int status = run_child(shm, 0, [&] { return program_card(plan, shm); });
    const double t_program = seconds_since(t);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Failure(std::string("client 1 (programming) failed: ") +
                      (shm->failure[0].s[0] ? shm->failure[0].s : "it died"));

    // 2. the storm, killed
    std::mt19937_64 crash_rng(seed ^ 0x9e3779b97f4a7c15ull);
    const double moves_per_write = plan.moves.empty()
                                       ? 0.0
                                       : static_cast<double>(shm->moves_overwrites) /
                                             static_cast<double>(plan.moves.size() * kDemoInsts);
    choose_crash(crash, crash_rng, moves_per_write, plan);
    t = std::chrono::steady_clock::now();
    status = run_child(shm, 1, [&] { return overwrite_storm(plan, shm); });
    const double t_storm = seconds_since(t);
    const bool killed =
        (WIFEXITED(status) && WEXITSTATUS(status) == kCrashExit) || WIFSIGNALED(status);
    if (!killed) {
        if (WIFEXITED(status) && WEXITSTATUS(status) == kStormFinished)
            problem("the storm ended before the crash point was reached");
        else
            throw Failure(std::string("client 2 (storm) failed: ") +
                          (shm->failure[1].s[0] ? shm->failure[1].s : "unexpected exit"));
    }

    // The model after the storm: every completed overwrite, and the one in flight.
    Model model = plan.after_program;
    for (uint64_t i = 0; i < shm->storm_done; ++i)
        model[plan.storm[i].tbl_type][plan.storm[i].loc] = plan.storm[i].entry;
    Inflight inflight;
    if (shm->storm_started > shm->storm_done) {
        inflight.present = true;
        inflight.write = plan.storm[shm->storm_done];
        inflight.old = model[inflight.write.tbl_type][inflight.write.loc];
    }

    // 3. restart, reconcile, verify
    t = std::chrono::steady_clock::now();
    status = run_child(shm, 2, [&] { return restart_and_verify(model, inflight, shm); });
    const double t_verify = seconds_since(t);
    if (!WIFEXITED(status) || (WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 1))
        throw Failure(std::string("client 3 (restart and verification) failed: ") +
                      (shm->failure[2].s[0] ? shm->failure[2].s : "it died"));
    if (shm->failure[2].s[0])
        problem(std::string("client 3: ") + shm->failure[2].s);
    if (shm->loc_errors != 0)
        problem(std::to_string(shm->loc_errors) + " loc(s) hold the wrong entry");
    if (shm->lookup_errors != 0)
        problem(std::to_string(shm->lookup_errors) + " lookup(s) return the wrong result");
    if (shm->selfcheck_failures != 0)
        problem(std::to_string(shm->selfcheck_failures) + " engine self-check(s) failed");

    // 4. what the next client would find
    t = std::chrono::steady_clock::now();
    const std::vector<Difference> audit = audit_persistent();
    const double t_audit = seconds_since(t);
    for (std::size_t i = 0; i < audit.size() && i < kListedErrors; ++i)
        problem("audit: " + audit[i].text);
    if (audit.size() > kListedErrors)
        problem("audit: " + std::to_string(audit.size() - kListedErrors) +
                " more difference(s); 'tcamwrap-sim check' lists them all");
    const double total = seconds_since(t_total);

    DemoResult r{seed,
                 sz,
                 plan,
                 *shm,
                 {t_plan, t_program, t_storm, t_verify, t_audit, total},
                 killed,
                 inflight_text(inflight, *shm),
                 audit,
                 ok,
                 problems,
                 {}};
    for (uint32_t tbl : kTableTypes)
        r.entries[tbl] = used_locs(model[tbl]).size();
    emit(args, json_report(r), text_report(r));
    ::munmap(shm, sizeof(Shared));
    return ok ? kExitOk : kExitFailed;
}

} // namespace tcamwrap::cli
