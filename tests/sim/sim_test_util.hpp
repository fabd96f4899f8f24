// sim_test_util.hpp - helpers of the simulator tests: a private state directory
// per test, and children that run a piece of a test in a process of their own.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_card.h"
#include "sim_fault.h"

namespace tcamwrap::sim::test {

// Points TCAMWRAP_SIM_STATE at a new empty directory (and TCAMWRAP_SIM_PROFILE at
// profile, or unsets it), forgets the card of this process, and clears fault
// rules; undone on destruction. close_others runs at both ends too, for the
// simulator libraries that keep per-process state of their own (the store).
class ScopedSimState {
public:
    explicit ScopedSimState(const char *profile = nullptr, std::function<void()> close_others = {})
        : close_others_(std::move(close_others))
    {
        char tmpl[] = "/tmp/tcamwrap-sim-test-XXXXXX";
        const char *made = ::mkdtemp(tmpl);
        dir_ = made != nullptr ? made : "";
        ::setenv(SIM_STATE_ENV, dir_.c_str(), 1);
        set_profile(profile);
        forget();
    }
    ScopedSimState(const ScopedSimState &) = delete;
    ScopedSimState &operator=(const ScopedSimState &) = delete;
    ~ScopedSimState()
    {
        forget();
        ::unsetenv(SIM_STATE_ENV);
        ::unsetenv(SIM_PROFILE_ENV);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    const std::string &dir() const { return dir_; }

    static void set_profile(const char *profile)
    {
        if (profile != nullptr)
            ::setenv(SIM_PROFILE_ENV, profile, 1);
        else
            ::unsetenv(SIM_PROFILE_ENV);
    }

    // Drop this process's view of the card, as a new process would start.
    void forget() const
    {
        if (close_others_)
            close_others_();
        sim_card_close();
        sim_fault_set(nullptr);
    }

private:
    std::string dir_;
    std::function<void()> close_others_;
};

// Runs fn in a forked child that ends with _exit(fn()), skipping every clean-up
// of this process; returns the child's wait status. The child must not use gtest
// assertions: it reports through its exit code (or a pipe).
inline int run_in_child(const std::function<int()> &fn)
{
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        int rc = 0;
        try {
            rc = fn();
        } catch (...) {
            rc = 99;
        }
        ::_exit(rc);
    }
    int status = -1;
    if (pid > 0)
        ::waitpid(pid, &status, 0);
    return status;
}

inline bool exited_with(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
inline bool killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }

}  // namespace tcamwrap::sim::test
