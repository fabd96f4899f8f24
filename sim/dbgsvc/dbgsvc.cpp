// dbgsvc.cpp - debug output of the simulated card (libdbgsvc.so).
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string_view>

#include "sim_dbgsvc.h"
#include "sys_util.hpp"

extern "C" {
dbgsvc_modname dbgsvc_dbg_modname = {"tcamwrap"};
}

namespace tcamwrap::sim {
namespace {

struct ElementList {
    bool all = false;
    std::set<uint32_t> elems;
};

// "all", "" or numbers separated by ','.
bool parse_elements(std::string_view text, ElementList &out)
{
    ElementList list;
    if (text == "all") {
        list.all = true;
        out = list;
        return true;
    }
    while (!text.empty()) {
        auto comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        uint32_t n = 0;
        auto [end, ec] = std::from_chars(item.data(), item.data() + item.size(), n);
        if (ec != std::errc{} || end != item.data() + item.size())
            return false;
        list.elems.insert(n);
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    }
    out = list;
    return true;
}

struct DebugState {
    std::mutex mu;
    bool loaded = false;
    ElementList elements;
    FILE *out = nullptr;  // nullptr = stderr
};

DebugState &state()
{
    static DebugState s;
    return s;
}

void load_from_env_once(DebugState &s)
{
    if (s.loaded)
        return;
    s.loaded = true;
    if (const char *list = std::getenv(SIM_DEBUG_ELEMS_ENV); list != nullptr &&
        !parse_elements(list, s.elements))
        std::fprintf(stderr, "tcamwrap-sim: %s='%s' is malformed; ignored\n", SIM_DEBUG_ELEMS_ENV,
                     list);
    if (const char *path = std::getenv(SIM_DEBUG_FILE_ENV); path != nullptr && *path != '\0') {
        s.out = std::fopen(path, "a");
        if (s.out == nullptr)
            std::fprintf(stderr, "tcamwrap-sim: cannot open %s; debug output goes to stderr\n",
                         path);
    }
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

int dbgsvc_chk_int(uint32_t elem, uint32_t, uint32_t, uint32_t)
{
    DebugState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    return s.elements.all || s.elements.elems.contains(elem) ? 1 : 0;
}

void dbgout_func(uint32_t, dbgsvc_modname *modname, const char *func, uint32_t,
                 const char *fmt, ...)
{
    if (fmt == nullptr)
        return;
    DebugState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    FILE *out = s.out != nullptr ? s.out : stderr;
    std::fprintf(out, "[%s] %s: ", modname != nullptr ? modname->name : "?",
                 func != nullptr ? func : "?");
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(out, fmt, ap);
    va_end(ap);
    std::fflush(out);
}

int sim_dbgsvc_set_debug_elems(const char *list)
{
    ElementList parsed;
    if (list != nullptr && !parse_elements(list, parsed))
        return fail_with(EINVAL);
    DebugState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    s.elements = parsed;
    return 0;
}

int sim_dbgsvc_set_debug_file(const char *path)
{
    FILE *f = nullptr;
    if (path != nullptr && (f = std::fopen(path, "a")) == nullptr)
        return -1;
    DebugState &s = state();
    std::lock_guard lock(s.mu);
    load_from_env_once(s);
    if (s.out != nullptr)
        std::fclose(s.out);
    s.out = f;
    return 0;
}

}  // extern "C"
