// fwd.cpp - the forwarding driver of the simulated card (libfwd.so).
//
// Every call works on num_entries words from start_addr on, of one instance, or,
// for the writes and the delete, of every instance when inst is 254. A request
// that reaches outside the memory fails with EINVAL before anything is written.
// fwd_tcam_write programs the TCAM directly at the location with priority 0, as a
// tcam3 TCAM works: among matching entries the lowest location then wins. A read
// of a location without a valid entry returns its key as all 0xFF bytes.
#include <cstddef>
#include <cstring>
#include <optional>

#include "sim_card.h"
#include "sim_fault.h"
#include "sim_hw.h"
#include "sys_util.hpp"
#include "tcamwrap_platform.h"

namespace tcamwrap::sim {
namespace {

constexpr uint8_t kAllInstances = 254;

static_assert(sizeof(fwd_cfg_info) == 80);
static_assert(offsetof(fwd_cfg_info, num_insts) == 1);
static_assert(offsetof(fwd_cfg_info, acli_size) == 0x44);
static_assert(offsetof(fwd_cfg_info, aclo_size) == 0x48);
static_assert(offsetof(fwd_cfg_info, fib_size) == 0x4C);

struct InstRange {
    uint32_t lo, hi;
};

// The instances a request covers; nullopt with errno set when inst names none.
std::optional<InstRange> instances_of(uint8_t inst, bool all_allowed)
{
    uint32_t n = sim_card_num_insts();
    if (n == 0)
        return std::nullopt;  // the card could not be opened; errno tells why
    if (inst == kAllInstances && all_allowed)
        return InstRange{0, n};
    if (inst < n)
        return InstRange{inst, inst + 1u};
    errno = EINVAL;
    return std::nullopt;
}

bool tcam_range_ok(const tbl_params &p)
{
    uint32_t size = sim_card_table_size(p.tbl_type);
    return size != 0 && p.start_addr <= size && p.num_entries <= size - p.start_addr;
}

// Common checks of a TCAM request: fault injection, pointers, instance, range.
std::optional<InstRange> tcam_request(const char *name, const tbl_params *p, bool have_buffer,
                                      bool all_allowed)
{
    if (sim_fault_should_fail(name))
        return std::nullopt;
    if (p == nullptr || !have_buffer) {
        errno = EINVAL;
        return std::nullopt;
    }
    auto range = instances_of(p->inst, all_allowed);
    if (range && !tcam_range_ok(*p)) {
        errno = EINVAL;
        return std::nullopt;
    }
    return range;
}

int memory_write(const char *name, tbl_params *p, const uint8_t *in, uint32_t mem)
{
    if (sim_fault_should_fail(name))
        return -1;
    if (p == nullptr || in == nullptr)
        return fail_with(EINVAL);
    auto range = instances_of(p->inst, true);
    if (!range)
        return -1;
    // Every instance has the same memories, so the first write's range check
    // rejects a bad request before any instance is written.
    for (uint32_t inst = range->lo; inst < range->hi; ++inst)
        if (sim_hw_mem_write(static_cast<uint8_t>(inst), p->tbl_type, mem, p->start_addr,
                             p->num_entries, in) != 0)
            return -1;
    return 0;
}

int memory_read(const char *name, tbl_params *p, uint8_t *out, uint32_t mem)
{
    if (sim_fault_should_fail(name))
        return -1;
    if (p == nullptr || out == nullptr)
        return fail_with(EINVAL);
    auto range = instances_of(p->inst, false);
    if (!range)
        return -1;
    return sim_hw_mem_read(p->inst, p->tbl_type, mem, p->start_addr, p->num_entries, out);
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

int fwd_get_cfg_info(uint8_t inst, void *cfg)
{
    if (sim_fault_should_fail("fwd_get_cfg_info"))
        return -1;
    if (cfg == nullptr)
        return fail_with(EINVAL);
    auto range = instances_of(inst, false);
    if (!range)
        return -1;
    fwd_cfg_info info{};
    info.drv_byte0 = inst;
    info.num_insts = static_cast<uint8_t>(sim_card_num_insts());
    info.acli_size = sim_card_table_size(1);
    info.aclo_size = sim_card_table_size(2);
    info.fib_size = sim_card_table_size(3);
    std::memcpy(cfg, &info, sizeof info);
    return 0;
}

int fwd_tcam_write(tbl_params *p, uint8_t *key)
{
    auto range = tcam_request("fwd_tcam_write", p, key != nullptr, true);
    if (!range)
        return -1;
    const uint32_t stride = sim_key_bytes(p->tbl_type);
    for (uint32_t inst = range->lo; inst < range->hi; ++inst)
        for (uint32_t i = 0; i < p->num_entries; ++i)
            if (sim_hw_tcam_write(static_cast<uint8_t>(inst), p->tbl_type, p->start_addr + i,
                                  key + std::size_t{i} * stride, 0) != 0)
                return -1;
    return 0;
}

int fwd_tcam_read(tbl_params *p, uint8_t *keys)
{
    auto range = tcam_request("fwd_tcam_read", p, keys != nullptr, false);
    if (!range)
        return -1;
    const uint32_t stride = sim_key_bytes(p->tbl_type);
    for (uint32_t i = 0; i < p->num_entries; ++i) {
        uint8_t *key = keys + std::size_t{i} * stride;
        uint8_t valid = 0;
        if (sim_hw_tcam_get(p->inst, p->tbl_type, p->start_addr + i, &valid, key, nullptr) != 0)
            return -1;
        if (valid == 0)
            std::memset(key, 0xFF, stride);
    }
    return 0;
}

int fwd_tcam_delete(tbl_params *p)
{
    auto range = tcam_request("fwd_tcam_delete", p, true, true);
    if (!range)
        return -1;
    for (uint32_t inst = range->lo; inst < range->hi; ++inst)
        for (uint32_t i = 0; i < p->num_entries; ++i)
            if (sim_hw_tcam_clear(static_cast<uint8_t>(inst), p->tbl_type, p->start_addr + i) != 0)
                return -1;
    return 0;
}

int fwd_ssram_write(tbl_params *p, uint8_t *words)
{
    return memory_write("fwd_ssram_write", p, words, SIM_MEM_SSRAM);
}

int fwd_ssram_read(tbl_params *p, uint8_t *words)
{
    return memory_read("fwd_ssram_read", p, words, SIM_MEM_SSRAM);
}

int fwd_flow_result_write(tbl_params *p, uint8_t *words)
{
    return memory_write("fwd_flow_result_write", p, words, SIM_MEM_FLOW);
}

int fwd_flow_result_read(tbl_params *p, uint8_t *words)
{
    return memory_read("fwd_flow_result_read", p, words, SIM_MEM_FLOW);
}

int fwd_acl_prio_write(tbl_params *p, uint8_t *values)
{
    return memory_write("fwd_acl_prio_write", p, values, SIM_MEM_ACL_PRIO);
}

int fwd_acl_prio_read(tbl_params *p, uint8_t *values)
{
    return memory_read("fwd_acl_prio_read", p, values, SIM_MEM_ACL_PRIO);
}

}  // extern "C"
