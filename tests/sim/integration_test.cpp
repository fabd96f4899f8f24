// libtcamwrap on the simulated card: a client process programs the tables, and a
// new process restarts with restore and must find the same card, also after the
// first one was killed in the middle of an overwrite.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr const char *kProfile = "insts=2,fib=8192,acli=1024,aclo=1024";
constexpr const char *kSeed = "1121";
constexpr const char *kOps = "3000";

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

// Restarts twice on the card: the first restart must do exactly the repairs
// named, the second (the card repaired once) none.
void expect_restarts(const std::string &done, const char *inflight, const char *repairs)
{
    for (const char *r : {repairs, "none"}) {
        ProgramRun verify = run_program(SIM_LIB_CHILD, {"verify", kSeed, kOps, done, inflight, r});
        EXPECT_TRUE(exited_with(verify.status, 0)) << verify.status << "\n" << verify.out << verify.err;
    }
}

TEST(SimIntegration, FreshStartThenRestartFindsEveryEntry)
{
    ScopedSimState state(kProfile);
    ProgramRun run = run_program(SIM_LIB_CHILD, {"run", kSeed, kOps});
    ASSERT_TRUE(exited_with(run.status, 0)) << run.status << "\n" << run.err;
    EXPECT_EQ(last_number(run.out, "done"), std::stol(kOps) - 1);
    EXPECT_GT(last_number(run.out, "moves"), 0) << "the workload made the engine move entries";
    expect_restarts(kOps, "none", "none");
}

// The client is killed at a point of one overwrite; the restart must leave that
// entry as before the overwrite ("old") or as after it ("new"), everything else as
// written, and say whether it completed the overwrite from the journal.
struct CrashCase {
    const char *name, *rule, *inflight, *repairs;
};

void PrintTo(const CrashCase &c, std::ostream *os) { *os << c.rule; }

class SimIntegrationCrash : public ::testing::TestWithParam<CrashCase> {};

TEST_P(SimIntegrationCrash, KilledInAnOverwriteRestartsConsistent)
{
    const CrashCase &c = GetParam();
    ScopedSimState state(kProfile);
    ProgramRun run = run_program(SIM_LIB_CHILD, {"run", kSeed, kOps, c.rule});
    ASSERT_TRUE(killed(run.status)) << run.status << "\n" << run.err;
    long armed = last_number(run.out, "armed");
    ASSERT_GE(armed, 0);
    ASSERT_EQ(last_number(run.out, "done") + 1, armed) << "killed in the armed operation";
    expect_restarts(std::to_string(armed), c.inflight, c.repairs);
}

INSTANTIATE_TEST_SUITE_P(
    Points, SimIntegrationCrash,
    ::testing::Values(
        CrashCase{"PreAdd", "crash=camindex.PRE_ADD:1", "old", "none"},        // nothing written yet
        CrashCase{"JournalStore", "crash=kvs_store:1", "old", "none"},        // journal not stored
        CrashCase{"PostAdd", "crash=camindex.POST_ADD:1", "new", "journal"},  // both copies live
        CrashCase{"PreDel", "crash=camindex.PRE_DEL:1", "new", "journal"},
        CrashCase{"PostDel", "crash=camindex.POST_DEL:1", "new", "journal"},  // old copy gone
        CrashCase{"SegmentStore", "crash=kvs_store:2", "new", "journal"},     // map not stored
        CrashCase{"JournalDelete", "crash=kvs_delete:1", "new", "journal"}),  // journal kept
    [](const ::testing::TestParamInfo<CrashCase> &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tcamwrap::sim::test
