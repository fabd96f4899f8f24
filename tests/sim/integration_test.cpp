// libtcamwrap on the simulated card: a client process programs the tables, and a
// new process restarts with restore and must find the same card, also after the
// first one was killed in the middle of an overwrite.
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr const char *kProfile = "insts=2,fib=8192,acli=1024,aclo=1024";
constexpr const char *kSeed = "1121";
constexpr const char *kOps = "3000";

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Runs the client program as a new process on the state directory.
Outcome client(const ScopedSimState &state, std::vector<std::string> args)
{
    const std::string out = state.dir() + "/client.out", err = state.dir() + "/client.err";
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr))
            ::_exit(126);
        std::vector<char *> argv{const_cast<char *>(SIM_LIB_CHILD)};
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(SIM_LIB_CHILD, argv.data());
        ::_exit(127);
    }
    Outcome o;
    ::waitpid(pid, &o.status, 0);
    o.out = slurp(out);
    o.err = slurp(err);
    return o;
}

// The number after the last line "<word> <n>" of the output; -1 if none.
long last_number(const std::string &out, const std::string &word)
{
    long n = -1;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(word + " "))
            n = std::stol(line.substr(word.size() + 1));
    return n;
}

TEST(SimIntegration, FreshStartThenRestartFindsEveryEntry)
{
    ScopedSimState state(kProfile);
    Outcome run = client(state, {"run", kSeed, kOps});
    ASSERT_TRUE(exited_with(run.status, 0)) << run.status << "\n" << run.err;
    EXPECT_EQ(last_number(run.out, "done"), std::stol(kOps) - 1);
    EXPECT_GT(last_number(run.out, "moves"), 0) << "the workload made the engine move entries";

    Outcome verify = client(state, {"verify", kSeed, kOps, kOps, "none", "none"});
    EXPECT_TRUE(exited_with(verify.status, 0)) << verify.status << "\n" << verify.out << verify.err;
    // A second restart finds the same card again.
    verify = client(state, {"verify", kSeed, kOps, kOps, "none", "none"});
    EXPECT_TRUE(exited_with(verify.status, 0)) << verify.status << "\n" << verify.out << verify.err;
}

// The client is killed at a point of one overwrite; the restart must leave that
// entry as before the overwrite ("old") or as after it ("new"), everything else as
// written, and say whether it completed the overwrite from the journal.
struct CrashCase {
    const char *name;
    const char *rule;
    const char *inflight;
    const char *repairs;
};

void PrintTo(const CrashCase &c, std::ostream *os) { *os << c.rule; }

class SimIntegrationCrash : public ::testing::TestWithParam<CrashCase> {};

TEST_P(SimIntegrationCrash, KilledInAnOverwriteRestartsConsistent)
{
    const CrashCase &c = GetParam();
    ScopedSimState state(kProfile);
    Outcome run = client(state, {"run", kSeed, kOps, c.rule});
    ASSERT_TRUE(killed(run.status)) << run.status << "\n" << run.err;
    long armed = last_number(run.out, "armed");
    long done = last_number(run.out, "done");
    ASSERT_GE(armed, 0);
    ASSERT_EQ(done + 1, armed) << "killed in the armed operation";

    std::string done_ops = std::to_string(armed);
    Outcome verify = client(state, {"verify", kSeed, kOps, done_ops, c.inflight, c.repairs});
    EXPECT_TRUE(exited_with(verify.status, 0)) << verify.status << "\n" << verify.out << verify.err;
    // Repaired once, the card restarts clean.
    verify = client(state, {"verify", kSeed, kOps, done_ops, c.inflight, "none"});
    EXPECT_TRUE(exited_with(verify.status, 0)) << verify.status << "\n" << verify.out << verify.err;
}

INSTANTIATE_TEST_SUITE_P(
    Points, SimIntegrationCrash,
    ::testing::Values(
        CrashCase{"PreAdd", "crash=camindex.PRE_ADD:1", "old", "none"},         // nothing written yet
        CrashCase{"JournalStore", "crash=kvs_store:1", "old", "none"},         // journal not stored
        CrashCase{"PostAdd", "crash=camindex.POST_ADD:1", "new", "journal"},   // both copies live
        CrashCase{"PreDel", "crash=camindex.PRE_DEL:1", "new", "journal"},
        CrashCase{"PostDel", "crash=camindex.POST_DEL:1", "new", "journal"},   // old copy gone
        CrashCase{"SegmentStore", "crash=kvs_store:2", "new", "journal"},      // map not stored
        CrashCase{"JournalDelete", "crash=kvs_delete:1", "new", "journal"}),   // journal kept
    [](const ::testing::TestParamInfo<CrashCase> &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tcamwrap::sim::test
