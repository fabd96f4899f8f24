// Fault injection and call counters of the simulated card.
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

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
        {"", "a", {0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.config) + " / " + c.function);
        ASSERT_EQ(sim_fault_set(c.config), 0);
        EXPECT_EQ(call_results(c.function, static_cast<int>(c.want.size())), c.want);
    }
    sim_fault_set(nullptr);
}

TEST(SimFault, MalformedConfigsAreRefusedAndKeepTheRulesInForce)
{
    const char *bad[] = {"fail=a:0:EIO", "fail=a:1:0",    "fail=a:1:EWHAT", "fail=a:1",
                         "fail=:1:EIO",  "crash=p",       "crash=p:0",      "crash=p:x",
                         "explode=p:1",  "fail=a:1:EIO:2", "fail"};
    for (const char *config : bad) {
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

TEST(SimFault, NewConfigurationRestartsTheCount)
{
    ASSERT_EQ(sim_fault_set("fail=f:2:EIO"), 0);
    EXPECT_EQ(call_results("f", 1), std::vector<int>{0});
    ASSERT_EQ(sim_fault_set("fail=f:2:EIO"), 0);
    EXPECT_EQ(call_results("f", 2), (std::vector<int>{0, EIO}));
    sim_fault_set(nullptr);
}

// Runs the points in a child after installing config; returns how many points the
// child passed and its wait status.
std::pair<int, int> run_points(const char *config, const std::vector<std::string> &points)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {-1, -1};
    int status = run_in_child([&] {
        ::close(fds[0]);
        if (sim_fault_set(config) != 0)
            return 3;
        for (const auto &p : points) {
            sim_fault_point(p.c_str());
            if (::write(fds[1], "x", 1) != 1)
                return 4;
        }
        return 0;
    });
    ::close(fds[1]);
    int passed = 0;
    char c;
    while (::read(fds[0], &c, 1) == 1)
        ++passed;
    ::close(fds[0]);
    return {passed, status};
}

TEST(SimFault, CrashPointsEndTheProcessAtTheCountedPoint)
{
    const std::vector<std::string> seq = {"camindex.PRE_ADD", "kvs_store",       "camindex.POST_ADD",
                                          "camindex.PRE_ADD", "camindex.PRE_MOVE", "kvs_store",
                                          "kvs_delete"};
    const struct {
        const char *config;
        int passed;  // points passed before the crash; -1: no crash
    } cases[] = {
        {"crash=camindex.PRE_ADD:1", 0},
        {"crash=camindex.PRE_ADD:2", 3},
        {"crash=camindex:3", 3},          // any camindex point counts
        {"crash=camindex.POST_ADD:1", 2},
        {"crash=kvs_store:2", 5},
        {"crash=kvs_delete:1", 6},
        {"crash=kvs_delete:2", -1},
        {"crash=camindex.PRE_DEL:1", -1},
        {"fail=kvs_store:1:EIO", -1},      // a fail rule never ends the process
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config);
        auto [passed, status] = run_points(c.config, seq);
        if (c.passed < 0) {
            EXPECT_TRUE(exited_with(status, 0)) << status;
            EXPECT_EQ(passed, static_cast<int>(seq.size()));
        } else {
            EXPECT_TRUE(killed(status)) << status;
            EXPECT_EQ(passed, c.passed);
        }
    }
}

// Runs the helper program with TCAMWRAP_SIM_FAULT set; its output and status.
std::pair<std::string, int> run_helper(const char *fault_env, std::vector<std::string> args)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {"", -1};
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[1], STDOUT_FILENO);
        ::close(fds[0]);
        ::close(fds[1]);
        ::setenv("TCAMWRAP_SIM_FAULT", fault_env, 1);
        std::vector<char *> argv{const_cast<char *>(SIM_FAULT_CHILD)};
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(SIM_FAULT_CHILD, argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = ::read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<std::size_t>(n));
    ::close(fds[0]);
    int status = -1;
    ::waitpid(pid, &status, 0);
    return {out, status};
}

TEST(SimFault, EnvironmentConfiguresANewProcess)
{
    auto [out, status] = run_helper("fail=fwd_tcam_read:2:5", {"calls", "fwd_tcam_read", "3"});
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(out, "0 5 0\n");

    std::tie(out, status) = run_helper("crash=camindex:2", {"points", "camindex.PRE_DEL", "camindex.POST_DEL", "x"});
    EXPECT_TRUE(killed(status)) << status;
    EXPECT_EQ(out, "camindex.PRE_DEL\n");

    // A malformed variable injects nothing (and says so on stderr).
    std::tie(out, status) = run_helper("fail=fwd_tcam_read:0:5", {"calls", "fwd_tcam_read", "2"});
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(out, "0 0\n");
}

TEST(SimFault, CallCountersCountEveryPlatformCallByName)
{
    sim_calls_reset();
    ASSERT_EQ(sim_fault_set("fail=zz_b:1:EIO"), 0);
    call_results("zz_b", 2);
    call_results("zz_a", 3);
    EXPECT_EQ(sim_calls_get("zz_a"), 3u);
    EXPECT_EQ(sim_calls_get("zz_b"), 2u) << "a failed call counts too";
    EXPECT_EQ(sim_calls_get("never"), 0u);
    EXPECT_EQ(sim_calls_total(), 5u);

    ASSERT_EQ(sim_fault_set(nullptr), 0);
    EXPECT_EQ(sim_calls_get("zz_a"), 3u) << "a new fault configuration keeps the call counts";

    struct Seen {
        std::map<std::string, uint64_t> calls;
        std::vector<std::string> order;
    } seen;
    sim_calls_foreach(
        [](const char *name, uint64_t n, void *ctx) {
            auto *s = static_cast<Seen *>(ctx);
            s->calls[name] = n;
            s->order.push_back(name);
        },
        &seen);
    EXPECT_EQ(seen.order, (std::vector<std::string>{"zz_a", "zz_b"}));
    EXPECT_EQ(seen.calls["zz_a"], 3u);

    sim_calls_reset();
    EXPECT_EQ(sim_calls_total(), 0u);
}

}  // namespace
}  // namespace tcamwrap::sim::test
