// dbgsvc_hist.cpp - history rings of the simulated card (libdbgsvchist.so).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <sys/time.h>

#include "sim_dbgsvc.h"
#include "sim_fault.h"
#include "sys_util.hpp"

namespace tcamwrap::sim {
namespace {

constexpr std::size_t kDefaultRingBytes = 64 * 1024;

struct Event {
    uint32_t id;
    uint32_t a;
    uint32_t stamp[2];  // seconds, microseconds
    uint32_t seq;
    std::string text;
};

class Ring {
public:
    explicit Ring(std::size_t capacity = kDefaultRingBytes) : capacity_(capacity) {}

    void set_capacity(std::size_t capacity)
    {
        capacity_ = capacity;
        trim();
    }
    void push(uint32_t id, uint32_t a, std::string text)
    {
        timeval tv{};
        ::gettimeofday(&tv, nullptr);
        bytes_ += text.size();
        events_.push_back({id, a, {static_cast<uint32_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec)},
                           next_seq_++, std::move(text)});
        trim();
    }
    const std::deque<Event> &events() const { return events_; }

private:
    // The newest event always stays, even when it alone exceeds the capacity.
    void trim()
    {
        while (events_.size() > 1 && bytes_ > capacity_) {
            bytes_ -= events_.front().text.size();
            events_.pop_front();
        }
    }

    std::size_t capacity_;
    std::size_t bytes_ = 0;
    uint32_t next_seq_ = 0;
    std::deque<Event> events_;
};

struct HistState {
    std::mutex mu;
    std::map<uint32_t, Ring> by_uuid;
    std::map<uint32_t, Ring> by_elem;
    std::map<uint32_t, sim_hist_printer> printers;
};

HistState &state()
{
    static HistState s;
    return s;
}

std::map<uint32_t, Ring> *rings_of(HistState &s, uint32_t kind)
{
    if (kind == SIM_HIST_UUID)
        return &s.by_uuid;
    if (kind == SIM_HIST_ELEM)
        return &s.by_elem;
    return nullptr;
}

// Text of at most len bytes, up to its first zero byte.
std::string bounded_text(const char *text, std::size_t len)
{
    return std::string(text, ::strnlen(text, len));
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

int dbgsvc_hist_init_for_uuid(uint32_t uuid, uint32_t size)
{
    if (sim_fault_should_fail("dbgsvc_hist_init_for_uuid"))
        return -1;
    if (size == 0)
        return fail_with(EINVAL);
    HistState &s = state();
    std::lock_guard lock(s.mu);
    auto [it, fresh] = s.by_uuid.try_emplace(uuid, size);
    if (!fresh)
        it->second.set_capacity(size);
    return 0;
}

int dbgsvc_hist_event_subtype_check(uint32_t, uint32_t)
{
    // Every subtype is recorded; an injected failure makes the caller skip it.
    return sim_fault_should_fail("dbgsvc_hist_event_subtype_check") ? -1 : 0;
}

int dbgsvc_hist_event(uint32_t subtype, uint32_t len, void *record)
{
    if (sim_fault_should_fail("dbgsvc_hist_event"))
        return -1;
    if (record == nullptr || len < sizeof(uint32_t))
        return fail_with(EINVAL);
    uint32_t elem = 0;
    std::memcpy(&elem, record, sizeof elem);
    const char *text = static_cast<const char *>(record) + sizeof elem;
    HistState &s = state();
    std::lock_guard lock(s.mu);
    s.by_elem[elem].push(subtype, elem, bounded_text(text, len - sizeof elem));
    return 0;
}

int dbgsvc_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t event_id, uint32_t a, uint32_t,
                                       uint32_t len, const char *text)
{
    if (sim_fault_should_fail("dbgsvc_his_log_event_for_uuid_inst"))
        return -1;
    if (text == nullptr)
        return fail_with(EINVAL);
    HistState &s = state();
    std::lock_guard lock(s.mu);
    s.by_uuid[uuid].push(event_id, a, bounded_text(text, len));
    return 0;
}

void dbgsvc_hist_print_event_header(uint32_t value5, const char *modname, uint32_t value1,
                                    uint32_t *stamp)
{
    std::printf("#%u %u.%06u %s event 0x%x\n", value5, stamp != nullptr ? stamp[0] : 0u,
                stamp != nullptr ? stamp[1] : 0u, modname != nullptr ? modname : "?", value1);
}

int dbgshim_show_hist_inst(void *, uint32_t *, uint32_t uuid, uint32_t, uint32_t)
{
    if (sim_fault_should_fail("dbgshim_show_hist_inst"))
        return -1;
    // Copied out so that a printer may call back into the service.
    std::deque<Event> events;
    sim_hist_printer printer = nullptr;
    {
        HistState &s = state();
        std::lock_guard lock(s.mu);
        if (auto it = s.by_uuid.find(uuid); it != s.by_uuid.end())
            events = it->second.events();
        if (auto it = s.printers.find(uuid); it != s.printers.end())
            printer = it->second;
    }
    std::printf("history of %u: %zu events\n", uuid, events.size());
    for (const Event &e : events) {
        if (printer != nullptr)
            printer(e.text.c_str(), e.id, e.a, e.stamp, e.seq);
        else
            std::printf("    %s\n", e.text.c_str());
    }
    std::fflush(stdout);
    return 0;
}

int sim_hist_set_printer(uint32_t uuid, sim_hist_printer fn)
{
    HistState &s = state();
    std::lock_guard lock(s.mu);
    if (fn == nullptr)
        s.printers.erase(uuid);
    else
        s.printers[uuid] = fn;
    return 0;
}

uint32_t sim_hist_count(uint32_t kind, uint32_t id)
{
    HistState &s = state();
    std::lock_guard lock(s.mu);
    auto *rings = rings_of(s, kind);
    if (rings == nullptr)
        return 0;
    auto it = rings->find(id);
    return it == rings->end() ? 0u : static_cast<uint32_t>(it->second.events().size());
}

const char *sim_hist_text(uint32_t kind, uint32_t id, uint32_t back)
{
    static thread_local std::string copy;
    HistState &s = state();
    std::lock_guard lock(s.mu);
    auto *rings = rings_of(s, kind);
    if (rings == nullptr)
        return nullptr;
    auto it = rings->find(id);
    if (it == rings->end() || back >= it->second.events().size())
        return nullptr;
    const auto &events = it->second.events();
    copy = events[events.size() - 1 - back].text;
    return copy.c_str();
}

void sim_hist_clear(void)
{
    HistState &s = state();
    std::lock_guard lock(s.mu);
    s.by_uuid.clear();
    s.by_elem.clear();
    s.printers.clear();
}

}  // extern "C"
