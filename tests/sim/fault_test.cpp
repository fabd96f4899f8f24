// Fault injection and call counters of the simulated card. Crash rules are run
// in sim_fault_child, a new process that reads them from TCAMWRAP_SIM_FAULT.
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_card.h"
#include "sim_fault.h"
#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

// errno of each of n calls of function (0 when the call is not to fail).
std::vector<int> call_results(const char *function, int n)
{
    std::vector<int> out;
    for (int i = 0; i < n; ++i) {
        errno = 0;
        out.push_back(sim_fault_should_fail(function) != 0 ? errno : 0);
    }
    return out;
}

TEST(SimFault, FailsTheNthCallWithItsErrno)
{
    const struct {
        const char *config;
        const char *function;
        std::vector<int> want;
    } cases[] = {
        {"fail=fwd_ssram_write:3:EIO", "fwd_ssram_write", {0, 0, EIO, 0, 0}},
        {"fail=fwd_ssram_write:3:EIO", "fwd_ssram_read", {0, 0, 0, 0}},
        {"fail=kvs_store:1:28", "kvs_store", {ENOSPC, 0}},
        {"fail=a:2:EBUSY, fail=a:4:ENOMEM", "a", {0, EBUSY, 0, ENOMEM, 0}},
        {"fail=a:2:EBUSY,fail=b:1:EIO", "a", {0, EBUSY, 0}},
        {"fail=x+fwd_*_write:2:EIO", "fwd_acl_prio_write", {0, EIO, 0}},
        {"", "a", {0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.config) + " / " + c.function);
        ASSERT_EQ(sim_fault_set(c.config), 0);
        EXPECT_EQ(call_results(c.function, 1), std::vector<int>{c.want[0]});
        ASSERT_EQ(sim_fault_set(c.config), 0);  // a new configuration restarts the count
        EXPECT_EQ(call_results(c.function, static_cast<int>(c.want.size())), c.want);
    }
    sim_fault_set(nullptr);
}

TEST(SimFault, MalformedConfigsAreRefusedAndKeepTheRulesInForce)
{
    for (const char *config : {"fail=a:0:EIO", "fail=a:1:0", "fail=a:1:EWHAT", "fail=a:1", "fail=:1:EIO",
                               "crash=p", "crash=p:x", "explode=p:1", "fail=a:1:EIO:2"}) {
        SCOPED_TRACE(config);
        ASSERT_EQ(sim_fault_set("fail=keep:2:EIO"), 0);
        EXPECT_EQ(call_results("keep", 1), std::vector<int>{0});
        errno = 0;
        EXPECT_EQ(sim_fault_set(config), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(call_results("keep", 1), std::vector<int>{EIO}) << "old rule and count kept";
    }
    sim_fault_set(nullptr);
}

TEST(SimFault, CrashPointsEndTheProcessAtTheCountedPoint)
{
    const std::vector<std::string> seq = {"camindex.PRE_ADD", "kvs_store", "camindex.POST_ADD", "camindex.PRE_ADD",
                                          "camindex.PRE_MOVE", "kvs_store", "kvs_delete"};
    const struct {
        const char *config;
        int passed;  // points passed before the crash; -1: no crash
    } cases[] = {
        {"crash=camindex.PRE_ADD:1", 0},
        {"crash=camindex.PRE_ADD:2", 3},
        {"crash=camindex:3", 3},  // any camindex point counts
        {"crash=kvs_*+camindex.PRE_MOVE:3", 5},  // one count over a set of points
        {"crash=*:7", 6},
        {"crash=kvs_store:2", 5},
        {"crash=kvs_delete:1", 6},
        {"crash=kvs_delete:2", -1},
        {"crash=camindex.PRE_DEL:1", -1},
        {"fail=kvs_store:1:EIO", -1},  // a fail rule never ends the process
        {"crash=camindex:0", -1},      // a malformed variable injects nothing
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config);
        std::vector<std::string> args{"points"};
        args.insert(args.end(), seq.begin(), seq.end());
        auto [status, out, err] = run_program(SIM_FAULT_CHILD, args, c.config);
        std::string want;
        for (std::size_t i = 0; i < (c.passed < 0 ? seq.size() : std::size_t(c.passed)); ++i)
            want += seq[i] + "\n";
        EXPECT_EQ(out, want);
        EXPECT_TRUE(c.passed < 0 ? exited_with(status, 0) : killed(status)) << status;
    }
    ProgramRun calls = run_program(SIM_FAULT_CHILD, {"calls", "fwd_tcam_read", "3"}, "fail=fwd_tcam_read:2:5");
    EXPECT_TRUE(exited_with(calls.status, 0)) << calls.status;
    EXPECT_EQ(calls.out, "0 5 0\n");
    // Every platform call is a crash point at its entry.
    calls = run_program(SIM_FAULT_CHILD, {"calls", "fwd_tcam_read", "3"}, "crash=fwd_tcam_*:2");
    EXPECT_TRUE(killed(calls.status)) << calls.status;
    EXPECT_EQ(calls.out, "0");
}

TEST(SimFault, CallCountersCountEveryPlatformCallByName)
{
    sim_calls_reset();
    ASSERT_EQ(sim_fault_set("fail=zz_b:1:EIO"), 0);
    call_results("zz_b", 2);
    call_results("zz_a", 3);
    ASSERT_EQ(sim_fault_set(nullptr), 0);  // keeps the call counts
    EXPECT_EQ(sim_calls_get("zz_b"), 2u) << "a failed call counts too";
    EXPECT_EQ(sim_calls_get("never"), 0u);
    EXPECT_EQ(sim_calls_total(), 5u);

    std::vector<std::pair<std::string, uint64_t>> seen;
    sim_calls_foreach(
        [](const char *name, uint64_t n, void *ctx) {
            static_cast<decltype(seen) *>(ctx)->emplace_back(name, n);
        },
        &seen);
    EXPECT_EQ(seen, (decltype(seen){{"zz_a", 3}, {"zz_b", 2}}));
    sim_calls_reset();
    EXPECT_EQ(sim_calls_total(), 0u);
}

}  // namespace
}  // namespace tcamwrap::sim::test
