// fault.cpp - fault injection (sim_fault.h) and the platform-call counters
// (sim_card.h). Each rule counts the calls or points its name set matches; the
// rule counters restart with every new configuration, the call counters only
// with sim_calls_reset().
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fnmatch.h>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "sim_card.h"
#include "sim_fault.h"
#include "sys_util.hpp"

namespace tcamwrap::sim {
namespace {

constexpr const char *kFaultEnv = "TCAMWRAP_SIM_FAULT";

// The names a rule counts: '+'-separated patterns, each a glob (fnmatch) over
// the full name or a group name ("camindex" matches "camindex.PRE_ADD").
struct NameSet {
    std::vector<std::string> patterns;

    bool matches(const char *name) const
    {
        const std::string_view full(name);
        const std::string_view group = full.substr(0, full.find('.'));
        for (const std::string &p : patterns)
            if (p == group || ::fnmatch(p.c_str(), name, 0) == 0)
                return true;
        return false;
    }
};

struct Rule {
    bool crash;  // else fail
    NameSet names;
    uint64_t nth;
    int err;  // fail rules
    uint64_t seen = 0;
};

struct Config {
    std::vector<Rule> rules;  // in the order given
};

using Counters = std::map<std::string, uint64_t, std::less<>>;

struct FaultState {
    std::mutex mu;
    bool loaded = false;
    Config config;
    Counters calls;  // since sim_calls_reset()
};

FaultState &state()
{
    static FaultState s;
    return s;
}

uint64_t bump(Counters &c, std::string_view name)
{
    auto it = c.find(name);
    if (it == c.end())
        it = c.emplace(std::string(name), 0).first;
    return ++it->second;
}

bool parse_u64(std::string_view text, uint64_t &out)
{
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc{} && end == text.data() + text.size();
}

// errno by number or by the usual name.
bool parse_errno(std::string_view text, int &out)
{
    static constexpr std::pair<std::string_view, int> kNames[] = {
        {"EPERM", EPERM},   {"ENOENT", ENOENT}, {"EIO", EIO},         {"EAGAIN", EAGAIN},
        {"ENOMEM", ENOMEM}, {"EFAULT", EFAULT}, {"EBUSY", EBUSY},     {"ENODEV", ENODEV},
        {"EINVAL", EINVAL}, {"ENOSPC", ENOSPC}, {"ERANGE", ERANGE},   {"ETIMEDOUT", ETIMEDOUT},
    };
    for (auto [name, value] : kNames)
        if (text == name) {
            out = value;
            return true;
        }
    uint64_t n = 0;
    if (!parse_u64(text, n) || n == 0 || n > 4095)
        return false;
    out = static_cast<int>(n);
    return true;
}

std::vector<std::string_view> split(std::string_view text, char sep)
{
    std::vector<std::string_view> parts;
    while (true) {
        auto pos = text.find(sep);
        parts.push_back(text.substr(0, pos));
        if (pos == std::string_view::npos)
            return parts;
        text.remove_prefix(pos + 1);
    }
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\n'))
        s.remove_suffix(1);
    return s;
}

bool parse_names(std::string_view text, NameSet &out)
{
    for (std::string_view p : split(text, '+')) {
        if (p.empty())
            return false;
        out.patterns.emplace_back(p);
    }
    return true;
}

// Parses one rule into cfg; false when it is malformed.
bool parse_rule(std::string_view rule, Config &cfg)
{
    auto eq = rule.find('=');
    if (eq == std::string_view::npos)
        return false;
    std::string_view kind = rule.substr(0, eq);
    auto fields = split(rule.substr(eq + 1), ':');
    uint64_t nth = 0;
    if (kind == "fail" && fields.size() == 3) {
        int err = 0;
        NameSet names;
        if (!parse_names(fields[0], names) || !parse_u64(fields[1], nth) || nth == 0 ||
            !parse_errno(fields[2], err))
            return false;
        cfg.rules.push_back({false, std::move(names), nth, err});
        return true;
    }
    if (kind == "crash" && fields.size() == 2) {
        NameSet names;
        if (!parse_names(fields[0], names) || !parse_u64(fields[1], nth) || nth == 0)
            return false;
        cfg.rules.push_back({true, std::move(names), nth, 0});
        return true;
    }
    return false;
}

bool parse_config(std::string_view text, Config &out)
{
    Config cfg;
    for (auto rule : split(text, ',')) {
        rule = trim(rule);
        if (!rule.empty() && !parse_rule(rule, cfg))
            return false;
    }
    out = std::move(cfg);
    return true;
}

void install(FaultState &s, Config cfg)
{
    s.config = std::move(cfg);
    s.loaded = true;
}

void load_from_env_once(FaultState &s)
{
    if (s.loaded)
        return;
    Config cfg;
    const char *text = std::getenv(kFaultEnv);
    if (text != nullptr && !parse_config(text, cfg))
        std::fprintf(stderr, "tcamwrap-sim: %s='%s' is malformed; no faults injected\n", kFaultEnv,
                     text);
    install(s, std::move(cfg));
}

// Ends the process as a crash would: no destructors, no atexit, no stdio flush.
[[noreturn]] void crash(std::string_view point, uint64_t nth)
{
    char note[160];
    int n = std::snprintf(note, sizeof note, "tcamwrap-sim: injected crash at %.*s #%llu\n",
                          static_cast<int>(point.size()), point.data(),
                          static_cast<unsigned long long>(nth));
    if (n > 0 && ::write(STDERR_FILENO, note, static_cast<std::size_t>(n)) < 0) {
        // nothing to do: the process ends either way
    }
    std::raise(SIGKILL);
    ::_exit(137);
}

// Counts a crash point against every crash rule; ends the process on the
// counted one.
void reach_point(FaultState &s, const char *point)
{
    for (Rule &r : s.config.rules)
        if (r.crash && r.names.matches(point) && ++r.seen == r.nth)
            crash(point, r.nth);
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

int sim_fault_should_fail(const char *function)
{
    if (function == nullptr)
        return 0;
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    std::string_view name(function);
    bump(s.calls, name);
    // Every platform call is a crash point at its entry, before it does anything.
    reach_point(s, function);
    // Every matching rule counts this call, whichever of them fails it.
    const Rule *failing = nullptr;
    for (Rule &r : s.config.rules)
        if (!r.crash && r.names.matches(function) && ++r.seen == r.nth && failing == nullptr)
            failing = &r;
    if (failing == nullptr)
        return 0;
    errno = failing->err;
    return 1;
}

void sim_fault_point(const char *point)
{
    if (point == nullptr)
        return;
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    reach_point(s, point);
}

int sim_fault_set(const char *config)
{
    Config cfg;
    if (config != nullptr && !parse_config(config, cfg))
        return fail_with(EINVAL);
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    install(s, std::move(cfg));
    return 0;
}

uint64_t sim_fault_rule_seen(unsigned rule)
{
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    return rule < s.config.rules.size() ? s.config.rules[rule].seen : 0;
}

uint64_t sim_calls_get(const char *function)
{
    if (function == nullptr)
        return 0;
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    auto it = s.calls.find(std::string_view(function));
    return it == s.calls.end() ? 0 : it->second;
}

uint64_t sim_calls_total(void)
{
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    uint64_t total = 0;
    for (const auto &[name, n] : s.calls)
        total += n;
    return total;
}

void sim_calls_reset(void)
{
    FaultState &s = state();
    std::lock_guard lock(s.mu);
    s.calls.clear();
}

void sim_calls_foreach(void (*fn)(const char *function, uint64_t calls, void *ctx), void *ctx)
{
    if (fn == nullptr)
        return;
    Counters copy;
    {
        FaultState &s = state();
        std::lock_guard lock(s.mu);
        copy = s.calls;
    }
    for (const auto &[name, n] : copy)
        fn(name.c_str(), n, ctx);
}

}  // extern "C"
