// sim_test_util.hpp - helpers of the simulator tests: a private state directory
// per test, and children that run a piece of a test in a process of their own.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

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
        int rc = 99;
        try {
            rc = fn();
        } catch (...) {
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

inline std::string read_all(std::FILE *f)
{
    std::string out;
    char buf[4096];
    std::rewind(f);
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
        out.append(buf, n);
    std::fclose(f);
    return out;
}

struct ProgramRun {
    int status = -1;
    std::string out, err;
};

// Runs a test program as a new process (so it reads TCAMWRAP_SIM_FAULT at
// start-up when fault_env is given); its status, stdout and stderr.
inline ProgramRun run_program(const char *path, std::vector<std::string> args, const char *fault_env = nullptr)
{
    std::FILE *out = std::tmpfile(), *err = std::tmpfile();
    std::vector<char *> argv{const_cast<char *>(path)};
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    ProgramRun run;
    run.status = run_in_child([&] {
        if (fault_env != nullptr)
            ::setenv("TCAMWRAP_SIM_FAULT", fault_env, 1);
        if (::dup2(::fileno(out), STDOUT_FILENO) < 0 || ::dup2(::fileno(err), STDERR_FILENO) < 0)
            return 126;
        ::execv(path, argv.data());
        return 127;
    });
    run.out = read_all(out);
    run.err = read_all(err);
    return run;
}

}  // namespace tcamwrap::sim::test
