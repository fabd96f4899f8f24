// sweep.cpp - 'tcamwrap-sim sweep' (see sweep.hpp).
#include "sweep.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands.hpp"
#include "orvex_sim.h"
#include "sim_card.h"
#include "sim_fault.h"
#include "sim_kvs.h"
#include "sweep_workload.hpp"

namespace tcamwrap::cli
{

namespace
{

namespace fs = std::filesystem;

// Every step that changes the card's state: the engine's callback steps, the
// store's writes and deletes, the forwarding driver's writes and deletes.
constexpr char kPointClass[] = "camindex+kvs_store+kvs_delete+fwd_*_write+fwd_tcam_delete";
constexpr char kStoreCalls[] = "kvs_store+kvs_delete";
constexpr char kFwdWrites[] = "fwd_*_write";
constexpr uint64_t kNever = UINT64_MAX;
constexpr uint64_t kAll = UINT64_MAX; // a sample of every point
constexpr std::size_t kMaxOps = 4096;
constexpr uint32_t kMinOps = 20;
constexpr std::size_t kMaxUnits = 16;
constexpr uint32_t kDefaultOps = 300;
constexpr uint64_t kDefaultSeed = 1;

enum class RunKind : uint8_t { clean, crash, crash2, store, fwd };
constexpr const char *kKindNames[] = {"clean run", "first crash", "second crash",
                                      "store failure", "forwarding write failure"};
constexpr const char *kKindKeys[] = {"clean", "first_crash", "second_crash", "store_failure",
                                     "fwd_failure"};

struct RunSpec {
    uint32_t card = 0;
    RunKind kind = RunKind::clean;
    uint64_t point = 0; // first crash point
    uint64_t nth = 0;   // second crash point (0: every one) or the failing call
    int err = 0;        // errno of the failing call
};

// ---- shared memory ----------------------------------------------------------

template <std::size_t N>
void append(char (&buf)[N], const std::string &text)
{
    const std::size_t used = std::strlen(buf);
    if (used + 1 < N)
        std::snprintf(buf + used, N - used, "%s", text.c_str());
}

struct OpOutcome {
    uint8_t failed; // did not do what the model says; held tells what it did
    uint8_t units;
    Held held[kMaxUnits];
};

// What the clients of one run report (one page set per job runner).
struct ClientReport {
    volatile uint32_t started, done; // calls
    uint64_t counted[4];             // counting rules: points, PRE_MOVE, store calls, fwd writes
    OpOutcome outcome[kMaxOps];
    uint32_t fault_call; // 1-based call in which the injected failure came; 0 none
    int32_t fault_rc, fault_err;
    uint32_t lost;
    uint32_t torn; // tcam3 writes cut between result words and key
    uint32_t problems;
    uint32_t verified;
    char kind[32]; // of the first problem
    char problem_text[4096];
    char lost_text[2048];
};

struct RunResult {
    uint32_t runs, verified, failures, lost, torn;
    char kind[32];
    char repro[256];   // of the first failing run
    char lost_one[320]; // the first loc lost by a call that reported its failure
    char text[2048];
};

// The parent's and the job runners' view of one card.
struct CardRun {
    const SweepCard *card = nullptr;
    std::string template_dir;
    CardShape shape;
    std::vector<Op> ops;
    uint64_t points = 0, pre_moves = 0, store_calls = 0, fwd_writes = 0;
};

struct Sweep {
    uint64_t seed = kDefaultSeed;
    uint32_t ops = kDefaultOps;
    std::string base;
    std::vector<CardRun> cards;
    std::vector<RunSpec> specs;
};

template <typename T>
T *shared_array(std::size_t n)
{
    void *p = ::mmap(nullptr, sizeof(T) * n, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                     -1, 0);
    if (p == MAP_FAILED)
        throw Failure("mmap failed: " + errno_text(errno));
    std::memset(p, 0, sizeof(T) * n);
    return static_cast<T *>(p);
}

// ---- clients ------------------------------------------------------------------

void problem(ClientReport *r, const std::string &kind, const std::string &text)
{
    if (r->problems++ == 0)
        append(r->kind, kind);
    append(r->problem_text, "  " + kind + ": " + text + "\n");
}

// Runs fn in a child process; its wait status.
template <typename Fn>
int fork_client(ClientReport *r, Fn fn)
{
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = ::fork();
    if (pid < 0)
        throw Failure("fork failed: " + errno_text(errno));
    if (pid == 0) {
        // The fault injector's notes and the library's traces would drown the
        // report; what matters comes back through the shared page.
        const int null_fd = ::open("/dev/null", O_WRONLY);
        if (null_fd >= 0)
            ::dup2(null_fd, STDERR_FILENO);
        int code = 1;
        try {
            code = fn();
        } catch (const std::exception &e) {
            problem(r, "client", e.what());
        }
        ::_exit(code);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            throw Failure("waitpid failed: " + errno_text(errno));
    return status;
}

bool killed(int status)
{
    return WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 137);
}

StartReport start_sweep_client()
{
    StartOptions options;
    options.debug_level = 3;
    return start_library(options);
}

enum class Fault { none, store, fwd };

std::string call_text(std::size_t i, const Op &op)
{
    return "call #" + std::to_string(i + 1) + " (" + op_text(op) + ")";
}

std::string result_text(int rc, int err)
{
    return rc == 0 ? std::string("returned 0")
                   : "returned " + std::to_string(rc) + " errno " + errno_text(err);
}

// A call that did not do what the model says: was that allowed, and what did
// each of its locs keep? The model adopts what the locs hold.
void call_went_wrong(ClientReport *r, std::size_t i, const Op &op, const std::vector<Unit> &units,
                     int rc, int err, Fault fault, bool fired, uint64_t nth, CardModel &m)
{
    const std::string what = call_text(i, op) + " " + result_text(rc, err);
    const std::string cause = fault == Fault::store ? "store call #" + std::to_string(nth)
                                                    : "forwarding write #" + std::to_string(nth);
    bool reported = false; // the call failed as documented for the injected fault
    if (rc == 0)
        problem(r, "unexpected-success", what + ", the library must refuse it");
    else if (fault == Fault::none || !fired)
        problem(r, "unexpected-failure", what + " without an injected fault");
    else if (fault == Fault::store && (rc != -1 || err != ENOSPC))
        problem(r, "errno", what + " after the failed " + cause + "; documented: -1 ENOSPC");
    else if (fault == Fault::fwd && err != EIO && err != ENOSPC)
        /* EIO from the write itself; ENOSPC from an insert that found no place
         * because the groom the failed write cut short did not make room. */
        problem(r, "errno", what + " after the failed " + cause +
                                "; expected the driver's EIO or the engine's ENOSPC");
    else
        reported = true;
    OpOutcome &o = r->outcome[i];
    o.failed = 1;
    for (std::size_t k = 0; k < units.size(); ++k) {
        const Unit &u = units[k];
        const std::string loc = std::string(table_name(u.tbl_type)) + " inst " +
                                std::to_string(u.inst) + " loc " + hexnum(u.loc);
        EntryView got;
        try {
            got = read_entry(u.inst, u.tbl_type, u.loc);
        } catch (const Failure &e) {
            problem(r, "read-failed", loc + " after " + what + ": " + e.what());
            o.held[k] = Held::other;
            continue;
        }
        const Held h = held_by(u, got);
        o.held[k] = h;
        apply(m, u, entry_of(got));
        if (h == Held::nothing && !reported) {
            problem(r, "lost", loc + " holds nothing after " + what);
        } else if (h == Held::nothing) {
            ++r->lost;
            append(r->lost_text, "  " + loc + " lost, reported: " + what + " after the failed " +
                                     cause + "\n");
        } else if (h == Held::torn) {
            ++r->torn;
        } else if (h == Held::other) {
            problem(r, "crossed",
                    loc + " after " + what + ": " + mismatch_text(u.tbl_type, u.after, got) +
                        " (before the call: " + entry_brief(u.tbl_type, u.before) + ")");
        }
    }
}

// The workload, from a fresh start, with the fault rules given (the first rule
// is the fault); reports every call's outcome.
int client_workload(const CardRun &c, ClientReport *r, const std::string &rules, Fault fault,
                    uint64_t nth)
{
    const StartReport started = start_sweep_client();
    if (started.init_type != 0)
        throw Failure("the workload needs a fresh card");
    if (!rules.empty() && sim_fault_set(rules.c_str()) != 0)
        throw Failure("the fault injector refuses '" + rules + "'");
    CardModel m = empty_model(c.shape);
    bool fired = false;
    for (std::size_t i = 0; i < c.ops.size(); ++i) {
        const Op &op = c.ops[i];
        r->started = static_cast<uint32_t>(i + 1);
        const std::vector<Unit> units = units_of(op, m);
        const Expect want = expected(op, units);
        int err = 0;
        const int rc = call_op(op, &err);
        if (!fired && fault != Fault::none && sim_fault_rule_seen(0) >= nth) {
            fired = true;
            r->fault_call = static_cast<uint32_t>(i + 1);
            r->fault_rc = rc;
            r->fault_err = err;
        }
        r->outcome[i].units = static_cast<uint8_t>(units.size());
        if (rc == want.rc && (rc == 0 || err == want.err)) {
            for (std::size_t k = 0; k < want.done; ++k)
                apply(m, units[k], units[k].after);
        } else {
            call_went_wrong(r, i, op, units, rc, err, fault, fired, nth, m);
        }
        r->done = static_cast<uint32_t>(i + 1);
    }
    for (unsigned rule = 0; rule < 4; ++rule)
        r->counted[rule] = sim_fault_rule_seen(rule);
    return 0;
}

// A tcam3 write cut between its result words and its key.
Entry torn_entry(const Unit &u)
{
    Entry e = u.before;
    e.result = u.after.result;
    e.acl_prio = u.after.acl_prio;
    return e;
}

// The model after the calls the workload client finished, and the units of
// the one in flight.
CardModel replay(const CardRun &c, const ClientReport *r, std::vector<Unit> &inflight)
{
    CardModel m = empty_model(c.shape);
    for (std::size_t i = 0; i < r->done; ++i) {
        const std::vector<Unit> units = units_of(c.ops[i], m);
        const OpOutcome &o = r->outcome[i];
        if (!o.failed) {
            const Expect want = expected(c.ops[i], units);
            for (std::size_t k = 0; k < want.done; ++k)
                apply(m, units[k], units[k].after);
            continue;
        }
        for (std::size_t k = 0; k < units.size(); ++k)
            if (o.held[k] == Held::after)
                apply(m, units[k], units[k].after);
            else if (o.held[k] == Held::torn)
                apply(m, units[k], torn_entry(units[k]));
            else if (o.held[k] == Held::nothing)
                apply(m, units[k], Entry{});
    }
    inflight.clear();
    if (r->started > r->done)
        inflight = units_of(c.ops[r->done], m);
    return m;
}

// A restart with restore, then the whole card against the model.
int client_verify(const CardRun &c, ClientReport *r)
{
    start_sweep_client();
    std::vector<Unit> inflight;
    const CardModel model = replay(c, r, inflight);
    const std::vector<uint32_t> tables(std::begin(kTableTypes), std::end(kTableTypes));
    Verification v;
    CardModel found;
    verify_locs(model, inflight, tables, v, found);
    verify_lookups(found, tables, v);
    verify_audit(v);
    for (Held h : v.inflight_held)
        r->torn += h == Held::torn ? 1 : 0;
    for (uint8_t inst = 0; inst < c.shape.insts; ++inst)
        for (uint32_t tbl : tables) {
            char why[256] = "";
            if (is_orvex(tbl) && orvex_sim_check(inst, tbl, why, sizeof why) != 0)
                v.add({"engine", inst, tbl, TCAMWRAP_INVALID_LOC,
                       std::string("engine self-check of ") + table_name(tbl) + " inst " +
                           std::to_string(inst) + ": " + why});
        }
    for (const Problem &p : v.problems)
        problem(r, p.kind, p.text);
    if (v.problem_count > v.problems.size())
        append(r->problem_text, "  ... " + std::to_string(v.problem_count - v.problems.size()) +
                                    " more\n");
    r->verified = 1;
    return 0;
}

// A restart that the fault injector kills at its n-th point (or that counts
// its points when n is kNever).
int client_restart_crash(ClientReport *r, uint64_t nth)
{
    const std::string rule = std::string("crash=") + kPointClass + ":" + std::to_string(nth);
    if (sim_fault_set(rule.c_str()) != 0)
        throw Failure("the fault injector refuses '" + rule + "'");
    start_sweep_client();
    r->counted[0] = sim_fault_rule_seen(0);
    return 0;
}

// ---- runs ----------------------------------------------------------------------

void fresh_copy(const std::string &from, const std::string &to)
{
    std::error_code ec;
    fs::remove_all(to, ec);
    fs::copy(from, to, fs::copy_options::recursive, ec);
    if (ec)
        throw Failure("cannot copy " + from + " to " + to + ": " + ec.message());
}

std::string errno_name(int err)
{
    return err == ENOSPC ? "ENOSPC" : err == EIO ? "EIO" : std::to_string(err);
}

std::string repro(const Sweep &s, const RunSpec &spec)
{
    std::string line = "tcamwrap-sim sweep --seed " + std::to_string(s.seed) + " --ops " +
                       std::to_string(s.ops) + " --card " + s.cards[spec.card].card->name;
    switch (spec.kind) {
    case RunKind::clean:
        return line + " --clean";
    case RunKind::crash:
        return line + " --point " + std::to_string(spec.point);
    case RunKind::crash2:
        return line + " --point " + std::to_string(spec.point) + " --nth " +
               std::to_string(spec.nth);
    case RunKind::store:
        return line + " --store " + std::to_string(spec.nth) + " --errno " + errno_name(spec.err);
    case RunKind::fwd:
        return line + " --fwd " + std::to_string(spec.nth);
    }
    return line;
}

std::string spec_text(const Sweep &s, const RunSpec &spec)
{
    std::string text = std::string(kKindNames[static_cast<int>(spec.kind)]) + " on " +
                       s.cards[spec.card].card->name;
    if (spec.kind == RunKind::crash || spec.kind == RunKind::crash2)
        text += " at point " + std::to_string(spec.point);
    if (spec.kind == RunKind::crash2)
        text += ", restart killed at its point " + std::to_string(spec.nth);
    if (spec.kind == RunKind::store)
        text += ": store call #" + std::to_string(spec.nth) + " fails with " + errno_name(spec.err);
    if (spec.kind == RunKind::fwd)
        text += ": forwarding write #" + std::to_string(spec.nth) + " fails with EIO";
    return text;
}

// Where the first crash fell: the call in flight.
std::string crash_site(const CardRun &c, const ClientReport *r)
{
    if (r->started > r->done && r->done < c.ops.size())
        return "killed in " + call_text(r->done, c.ops[r->done]) + "\n";
    return "killed between calls, after call #" + std::to_string(r->done) + "\n";
}

class JobRunner
{
  public:
    JobRunner(const Sweep &s, std::string dir, ClientReport *report)
        : s_(s), dir_(std::move(dir)), snap_(dir_ + ".crashed"), asserts_(dir_ + ".asserts"),
          r_(report)
    {
        ::setenv(SIM_STATE_ENV, dir_.c_str(), 1);
        ::setenv("TCAMWRAP_ASSERT_FILE", asserts_.c_str(), 1);
        ::unsetenv(SIM_PROFILE_ENV);
    }

    void run(const RunSpec &spec, RunResult &out)
    {
        const CardRun &c = s_.cards[spec.card];
        if (spec.kind == RunKind::crash2 && spec.nth == 0) {
            second_crashes(spec, c, out);
            return;
        }
        std::memset(static_cast<void *>(r_), 0, sizeof *r_);
        fresh_copy(c.template_dir, dir_);
        if (spec.kind == RunKind::clean || spec.kind == RunKind::store ||
            spec.kind == RunKind::fwd) {
            std::string rule;
            Fault fault = Fault::none;
            if (spec.kind == RunKind::store) {
                rule = std::string("fail=") + kStoreCalls + ":" + std::to_string(spec.nth) + ":" +
                       std::to_string(spec.err);
                fault = Fault::store;
            } else if (spec.kind == RunKind::fwd) {
                rule = std::string("fail=") + kFwdWrites + ":" + std::to_string(spec.nth) + ":EIO";
                fault = Fault::fwd;
            }
            const int st = fork_client(
                r_, [&] { return client_workload(c, r_, rule, fault, spec.nth); });
            if (!WIFEXITED(st) || WEXITSTATUS(st) != 0 || r_->done != c.ops.size())
                problem(r_, "client", "the workload client ended with status " +
                                          std::to_string(st));
        } else {
            first_crash(spec.point, c);
            if (spec.kind == RunKind::crash2)
                restart_crash(spec.nth);
        }
        verify(c);
        finish(spec, out, 1);
    }

  private:
    void first_crash(uint64_t point, const CardRun &c)
    {
        const std::string rule = std::string("crash=") + kPointClass + ":" + std::to_string(point);
        const int st =
            fork_client(r_, [&] { return client_workload(c, r_, rule, Fault::none, 0); });
        if (!killed(st))
            problem(r_, "not-killed", "the workload ended before crash point " +
                                          std::to_string(point));
    }

    void restart_crash(uint64_t nth)
    {
        const int st = fork_client(r_, [&] { return client_restart_crash(r_, nth); });
        if (!killed(st))
            problem(r_, "not-killed", "the restart ended before its crash point " +
                                          std::to_string(nth));
    }

    void verify(const CardRun &c)
    {
        const int st = fork_client(r_, [&] { return client_verify(c, r_); });
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0 || r_->verified == 0)
            problem(r_, "client", "the verifying client ended with status " + std::to_string(st));
        check_asserts();
    }

    // The library's assertions state its invariants: none may fire in any run,
    // crashed, failed or clean.
    void check_asserts()
    {
        std::ifstream in(asserts_, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), {});
        const size_t at = text.find("ASSERT:");
        if (at != std::string::npos)
            problem(r_, "assert", text.substr(at, text.find('\n', at) - at));
        std::error_code ec;
        fs::remove(asserts_, ec);
    }

    // Every point of the restart after one first crash: the card as the crash
    // left it is kept, and each run starts from a copy of it.
    void second_crashes(const RunSpec &spec, const CardRun &c, RunResult &out)
    {
        std::memset(static_cast<void *>(r_), 0, sizeof *r_);
        fresh_copy(c.template_dir, dir_);
        first_crash(spec.point, c);
        fresh_copy(dir_, snap_);
        const ClientReport first = *r_;
        if (first.problems != 0) {
            finish(spec, out, 1);
            return;
        }
        const int st = fork_client(r_, [&] { return client_restart_crash(r_, kNever); });
        const uint64_t points = r_->counted[0];
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
            problem(r_, "client", "the counting restart ended with status " + std::to_string(st));
            finish(spec, out, 1);
            return;
        }
        for (uint64_t nth = 1; nth <= points; ++nth) {
            *r_ = first;
            fresh_copy(snap_, dir_);
            restart_crash(nth);
            verify(c);
            RunSpec one = spec;
            one.nth = nth;
            finish(one, out, 1);
        }
        std::error_code ec;
        fs::remove_all(snap_, ec);
    }

    void finish(const RunSpec &spec, RunResult &out, uint32_t runs)
    {
        out.runs += runs;
        out.verified += r_->verified;
        out.lost += r_->lost;
        out.torn += r_->torn;
        if (r_->lost != 0 && out.lost_one[0] == '\0') {
            const std::string first(r_->lost_text, std::strcspn(r_->lost_text, "\n"));
            append(out.lost_one, first + " [" + repro(s_, spec) + "]");
        }
        if (s_.specs.size() == 1 && r_->problems == 0 && r_->lost_text[0] != '\0')
            append(out.text, "PASS " + spec_text(s_, spec) + "\n" + r_->lost_text);
        if (r_->problems == 0)
            return;
        if (out.failures++ == 0) {
            append(out.kind, r_->kind);
            append(out.repro, repro(s_, spec));
        }
        const CardRun &c = s_.cards[spec.card];
        std::string text = "FAIL " + spec_text(s_, spec) + ": " + r_->kind + "\n";
        if (spec.kind == RunKind::crash || spec.kind == RunKind::crash2)
            text += "  " + crash_site(c, r_);
        if (r_->fault_call != 0)
            text += "  the injected failure came in " +
                    call_text(r_->fault_call - 1, c.ops[r_->fault_call - 1]) + ", which " +
                    result_text(r_->fault_rc, r_->fault_err) + "\n";
        text += r_->problem_text;
        if (r_->lost_text[0] != '\0')
            text += r_->lost_text;
        text += "  repro: " + repro(s_, spec) + "\n";
        append(out.text, text);
    }

    const Sweep &s_;
    std::string dir_, snap_, asserts_;
    ClientReport *r_;
};

// ---- planning ----------------------------------------------------------------

// A fresh card of the profile in dir, its shape, and the workload's counts
// from a clean run (also verified: the clean run of the card).
void prepare_card(Sweep &s, CardRun &c, const std::string &dir, ClientReport *r)
{
    ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
    ::setenv(SIM_PROFILE_ENV, c.card->profile, 1);
    CardShape *shape = shared_array<CardShape>(1);
    const int st = fork_client(r, [&] {
        if (sim_card_open() != 0)
            throw Failure("cannot create the simulated card in " + dir + ": " +
                          errno_text(errno));
        uint64_t records = 0;
        if (sim_kvs_count(kKvsHandle, &records) != 0)
            throw Failure("cannot open the store in " + dir);
        *shape = open_card_shape();
        return 0;
    });
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
        throw Failure(std::string("cannot create the ") + c.card->name + " card: " +
                      r->problem_text);
    c.template_dir = dir;
    c.shape = *shape;
    ::munmap(shape, sizeof *shape);
    c.ops = make_workload(s.seed, s.ops, c.shape);
}

void count_points(CardRun &c, const std::string &dir, ClientReport *r)
{
    ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
    std::memset(static_cast<void *>(r), 0, sizeof *r);
    fresh_copy(c.template_dir, dir);
    const std::string never = ":" + std::to_string(kNever);
    const std::string rules = std::string("crash=") + kPointClass + never +
                              ",crash=camindex.PRE_MOVE" + never + ",crash=" + kStoreCalls +
                              never + ",crash=" + kFwdWrites + never;
    const int st =
        fork_client(r, [&] { return client_workload(c, r, rules, Fault::none, 0); });
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0 || r->problems != 0)
        throw Failure(std::string("the clean run of the workload on the ") + c.card->name +
                      " card failed:\n" + r->problem_text);
    c.points = r->counted[0];
    c.pre_moves = r->counted[1];
    c.store_calls = r->counted[2];
    c.fwd_writes = r->counted[3];
}

// n points of 1..total, evenly spread (all of them when n is kAll or larger).
std::vector<uint64_t> spread(uint64_t total, uint64_t n)
{
    std::vector<uint64_t> out;
    if (n >= total) {
        for (uint64_t k = 1; k <= total; ++k)
            out.push_back(k);
        return out;
    }
    for (uint64_t i = 0; i < n; ++i)
        out.push_back(1 + i * total / n);
    return out;
}

struct Sampling {
    uint64_t first = kAll, second = 0, store = kAll, eio = 0, fwd = kAll; // runs of each kind
};

std::vector<RunSpec> plan_runs(const Sweep &s, const Sampling &n)
{
    std::vector<RunSpec> specs;
    for (uint32_t ci = 0; ci < s.cards.size(); ++ci) {
        const CardRun &c = s.cards[ci];
        specs.push_back({ci, RunKind::clean, 0, 0, 0});
        for (uint64_t k : spread(c.points, n.first))
            specs.push_back({ci, RunKind::crash, k, 0, 0});
        for (uint64_t k : spread(c.points, n.second))
            specs.push_back({ci, RunKind::crash2, k, 0, 0});
        for (uint64_t k : spread(c.store_calls, n.store))
            specs.push_back({ci, RunKind::store, 0, k, ENOSPC});
        for (uint64_t k : spread(c.store_calls, n.eio))
            specs.push_back({ci, RunKind::store, 0, k, EIO});
        for (uint64_t k : spread(c.fwd_writes, n.fwd))
            specs.push_back({ci, RunKind::fwd, 0, k, EIO});
    }
    return specs;
}

// ---- running ---------------------------------------------------------------------

struct RunCounter {
    uint64_t next; // the next run to take
    uint64_t done;
};

std::vector<RunResult> run_all(const Sweep &s, uint32_t jobs)
{
    const std::size_t n = s.specs.size();
    RunResult *results = shared_array<RunResult>(n);
    auto *counter = shared_array<RunCounter>(1);
    std::vector<pid_t> runners;
    for (uint32_t j = 0; j < jobs; ++j) {
        ClientReport *report = shared_array<ClientReport>(1);
        std::fflush(stdout);
        std::fflush(stderr);
        const pid_t pid = ::fork();
        if (pid < 0)
            throw Failure("fork failed: " + errno_text(errno));
        if (pid == 0) {
            int code = 0;
            try {
                JobRunner runner(s, s.base + "/job" + std::to_string(j), report);
                for (;;) {
                    const uint64_t i = __atomic_fetch_add(&counter->next, 1, __ATOMIC_SEQ_CST);
                    if (i >= n)
                        break;
                    runner.run(s.specs[i], results[i]);
                    __atomic_fetch_add(&counter->done, 1, __ATOMIC_SEQ_CST);
                }
            } catch (const std::exception &e) {
                std::fprintf(stderr, "tcamwrap-sim sweep: job %u: %s\n", j, e.what());
                code = 1;
            }
            ::_exit(code);
        }
        runners.push_back(pid);
    }
    Progress progress("sweep", n);
    std::size_t running = runners.size();
    bool runner_failed = false;
    while (running > 0) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid > 0 && std::find(runners.begin(), runners.end(), pid) != runners.end()) {
            --running;
            runner_failed = runner_failed || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
            continue;
        }
        if (pid < 0 && errno != EINTR)
            break;
        progress.update(__atomic_load_n(&counter->done, __ATOMIC_SEQ_CST));
        ::usleep(100000);
    }
    progress.finish();
    if (runner_failed)
        throw Failure("a job runner failed");
    std::vector<RunResult> out(results, results + n);
    ::munmap(results, sizeof(RunResult) * n);
    ::munmap(counter, sizeof *counter);
    return out;
}

// ---- the report ---------------------------------------------------------------------

struct Totals {
    uint64_t runs = 0, verified = 0, failures = 0, lost = 0, torn = 0;
};

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

unsigned long long ull(uint64_t v)
{
    return v;
}

struct Report {
    const Sweep &s;
    const std::vector<RunResult> &results;
    Totals by_kind[5];
    Totals by_store_errno[2]; // ENOSPC, EIO
    Totals all;
    uint64_t crash_runs = 0;
    double seconds = 0;
};

Report summarise(const Sweep &s, const std::vector<RunResult> &results, double seconds)
{
    Report r{s, results, {}, {}, {}, 0, seconds};
    for (std::size_t i = 0; i < results.size(); ++i) {
        const RunSpec &spec = s.specs[i];
        const RunResult &res = results[i];
        for (Totals *t : {&r.by_kind[static_cast<int>(spec.kind)], &r.all}) {
            t->runs += res.runs;
            t->verified += res.verified;
            t->failures += res.failures;
            t->lost += res.lost;
            t->torn += res.torn;
        }
        if (spec.kind == RunKind::store) {
            Totals &t = r.by_store_errno[spec.err == EIO ? 1 : 0];
            t.runs += res.runs;
            t.failures += res.failures;
        }
        if (spec.kind == RunKind::crash || spec.kind == RunKind::crash2 ||
            spec.kind == RunKind::store)
            r.crash_runs += res.runs;
    }
    return r;
}

std::string text_report(const Report &r, bool timings)
{
    std::string out;
    appendf(out, "tcamwrap-sim sweep: seed %llu, %u calls per card\n", ull(r.s.seed), r.s.ops);
    for (const CardRun &c : r.s.cards)
        appendf(out,
                "card %s (%s): %llu crash points, %llu engine moves (PRE_MOVE), %llu store "
                "calls, %llu forwarding writes\n",
                c.card->name, c.card->profile, ull(c.points), ull(c.pre_moves),
                ull(c.store_calls), ull(c.fwd_writes));
    appendf(out, "\n%-34s %8s %9s %9s\n", "runs", "runs", "verified", "failures");
    for (int k = 0; k < 5; ++k) {
        const Totals &t = r.by_kind[k];
        if (t.runs == 0)
            continue;
        appendf(out, "  %-32s %8llu %9llu %9llu\n", kKindNames[k], ull(t.runs), ull(t.verified),
                ull(t.failures));
        if (k == static_cast<int>(RunKind::store))
            for (int e = 0; e < 2; ++e)
                appendf(out, "    %-30s %8llu %9s %9llu\n", e == 0 ? "ENOSPC" : "EIO",
                        ull(r.by_store_errno[e].runs), "", ull(r.by_store_errno[e].failures));
    }
    appendf(out, "  %-32s %8llu %9llu %9llu\n", "total", ull(r.all.runs), ull(r.all.verified),
            ull(r.all.failures));
    appendf(out, "crash runs (first + second crashes + store failures): %llu\n",
            ull(r.crash_runs));
    appendf(out, "locs lost by a call that reported its failure: %llu\n", ull(r.all.lost));
    std::size_t shown = 0;
    for (const RunResult &res : r.results)
        if (res.lost_one[0] != '\0' && shown++ < 5)
            out += std::string(res.lost_one) + "\n";
    appendf(out, "tcam3 writes cut between result words and key (crash or failed key write): %llu\n",
            ull(r.all.torn));
    std::size_t listed = 0;
    constexpr std::size_t kListed = 40;
    for (std::size_t i = 0; i < r.results.size(); ++i) {
        if (r.results[i].failures == 0)
            continue;
        if (listed++ == 0)
            out += "\nfailures:\n";
        if (listed <= kListed)
            out += r.results[i].text;
    }
    if (listed > kListed)
        appendf(out, "... %llu more failing runs (--json lists them all)\n",
                ull(listed - kListed));
    if (timings)
        appendf(out, "time: %.1f s\n", r.seconds);
    appendf(out, "verdict: %s\n",
            r.all.failures == 0 ? "every run verified: nothing lost or crossed"
                                : "FAILURES (each one above has its repro line)");
    return out;
}

Json json_report(const Report &r, bool timings)
{
    Json j = Json::object();
    j.set("seed", r.s.seed).set("calls_per_card", r.s.ops);
    Json cards = Json::array();
    for (const CardRun &c : r.s.cards)
        cards.push(Json::object()
                       .set("card", c.card->name)
                       .set("profile", c.card->profile)
                       .set("crash_points", c.points)
                       .set("engine_moves", c.pre_moves)
                       .set("store_calls", c.store_calls)
                       .set("fwd_writes", c.fwd_writes));
    j.set("cards", std::move(cards));
    Json runs = Json::object();
    for (int k = 0; k < 5; ++k)
        runs.set(kKindKeys[k], Json::object()
                                   .set("runs", r.by_kind[k].runs)
                                   .set("verified", r.by_kind[k].verified)
                                   .set("failures", r.by_kind[k].failures));
    j.set("runs", std::move(runs));
    j.set("total", Json::object()
                       .set("runs", r.all.runs)
                       .set("crash_runs", r.crash_runs)
                       .set("verified", r.all.verified)
                       .set("failures", r.all.failures)
                       .set("lost_reported", r.all.lost)
                       .set("tcam3_torn", r.all.torn));
    Json failures = Json::array();
    for (std::size_t i = 0; i < r.results.size(); ++i) {
        const RunResult &res = r.results[i];
        if (res.failures == 0)
            continue;
        failures.push(Json::object()
                          .set("run", spec_text(r.s, r.s.specs[i]))
                          .set("class", res.kind)
                          .set("failing_runs", res.failures)
                          .set("repro", res.repro)
                          .set("text", res.text));
    }
    j.set("failures", std::move(failures));
    if (timings)
        j.set("seconds", r.seconds);
    j.set("verdict", r.all.failures == 0 ? "right" : "wrong");
    return j;
}

std::string make_base_dir()
{
    for (const char *dir : {static_cast<const char *>("/dev/shm"),
                            static_cast<const char *>(std::getenv("TMPDIR")),
                            static_cast<const char *>("/tmp")}) {
        if (dir == nullptr || *dir == '\0' || ::access(dir, W_OK) != 0)
            continue;
        std::string templ = std::string(dir) + "/tcamwrap-sweep-XXXXXX";
        if (::mkdtemp(templ.data()) != nullptr)
            return templ;
    }
    throw Failure("cannot create a directory for the sweep's cards");
}

// A sample size: a number (0: none) or "all".
uint64_t sample_option(const Args &args, const char *name, uint64_t fallback)
{
    const std::optional<std::string> text = args.value(name);
    if (!text)
        return fallback;
    return *text == "all" ? kAll : parse_number(*text, 0, kNever - 1, std::string("--") + name);
}

int errno_option(const Args &args)
{
    return args.value("errno").value_or("ENOSPC") == "EIO" ? EIO : ENOSPC;
}

// One run named on the command line, or nothing.
std::optional<RunSpec> single_run(const Args &args)
{
    /* Args::parse lets at most one of --clean, --point, --store and --fwd
     * through, each a count from 1. */
    RunSpec spec;
    if (args.has("nth") && !args.has("point"))
        throw Refused("--nth needs --point: the restart after that first crash");
    if (args.has("errno") && !args.has("store"))
        throw Refused("--errno goes with --store: the error the failing store call returns");
    if (args.has("clean")) {
        spec.kind = RunKind::clean;
    } else if (auto p = args.number("point")) {
        spec.kind = RunKind::crash;
        spec.point = *p;
        if (auto n = args.number("nth")) {
            spec.kind = RunKind::crash2;
            spec.nth = *n;
        }
    } else if (auto n = args.number("store")) {
        spec = {0, RunKind::store, 0, *n, errno_option(args)};
    } else if (auto n = args.number("fwd")) {
        spec = {0, RunKind::fwd, 0, *n, EIO};
    } else {
        return std::nullopt;
    }
    return spec;
}

} // namespace

std::vector<OptionDef> sweep_options()
{
    auto sample = [](const char *name) { return text_option(name, "a number of runs, or all"); };
    return {number_option("seed", UINT64_MAX),
            count_option("ops", kMaxOps),
            choice_option("card", {"orvex", "tcam3", "all"}),
            count_option("jobs", 64),
            sample("sample"),
            sample("second"),
            sample("store-sample"),
            sample("eio-sample"),
            sample("fwd-sample"),
            count_option("point", kNever - 1),
            count_option("nth", kNever - 1),
            count_option("store", kNever - 1),
            count_option("fwd", kNever - 1),
            choice_option("errno", {"ENOSPC", "EIO"}),
            flag_option("clean")};
}

std::vector<Exclusive> sweep_exclusive()
{
    return {{"clean", "point", "store", "fwd"}};
}

int cmd_sweep(const Args &args)
{
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional()[0] + "'");
    const auto t0 = std::chrono::steady_clock::now();
    Sweep s;
    s.seed = args.number("seed").value_or(kDefaultSeed);
    s.ops = static_cast<uint32_t>(args.number("ops").value_or(kDefaultOps));
    if (s.ops < kMinOps)
        args.def("ops").refuse(std::to_string(s.ops), "the workload needs at least 20 calls");
    const uint32_t jobs = static_cast<uint32_t>(args.number("jobs").value_or(1));
    const std::string card = args.value("card").value_or("all");
    Sampling n;
    n.first = sample_option(args, "sample", kAll);
    n.second = sample_option(args, "second", 400);
    n.store = sample_option(args, "store-sample", kAll);
    n.eio = sample_option(args, "eio-sample", 200);
    n.fwd = sample_option(args, "fwd-sample", kAll);
    const std::optional<RunSpec> one = single_run(args);

    s.base = make_base_dir();
    ClientReport *report = shared_array<ClientReport>(1);
    for (const SweepCard &c : kSweepCards)
        if (card == "all" || card == c.name) {
            CardRun run;
            run.card = &c;
            s.cards.push_back(std::move(run));
        }
    if (one && s.cards.size() != 1)
        throw Refused("a single run needs --card orvex or --card tcam3");
    int rc = kExitFailed;
    try {
        for (CardRun &c : s.cards) {
            prepare_card(s, c, s.base + "/template-" + c.card->name, report);
            count_points(c, s.base + "/count", report);
        }
        s.specs = one ? std::vector<RunSpec>{*one} : plan_runs(s, n);
        const std::vector<RunResult> results = run_all(s, one ? 1 : jobs);
        const Report r = summarise(s, results, seconds_since(t0));
        if (args.has("json"))
            std::printf("%s\n", json_report(r, args.has("timings")).dump().c_str());
        else
            std::fputs(text_report(r, true).c_str(), stdout);
        rc = r.all.failures == 0 ? kExitOk : kExitFailed;
    } catch (...) {
        std::error_code ec;
        fs::remove_all(s.base, ec);
        throw;
    }
    std::error_code ec;
    fs::remove_all(s.base, ec);
    ::munmap(report, sizeof *report);
    return rc;
}

} // namespace tcamwrap::cli
