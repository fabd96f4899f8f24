// Forwarding driver and line-card service of the simulated card.
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_hw.h"
#include "sim_test_util.hpp"
#include "tcamwrap_platform.h"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kAcli = 1, kAclo = 2, kFib = 3;
constexpr uint8_t kAll = 254;
constexpr const char *kCard = "insts=2,fib=64,acli=32,aclo=16,aclo_kind=tcam3";

tbl_params params(uint8_t inst, uint32_t tbl, uint32_t start, uint32_t num)
{
    return tbl_params{inst, tbl, num, start, 0xDEADBEEF};
}

std::vector<uint8_t> pattern(std::size_t n, uint8_t seed)
{
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}

TEST(SimFwd, ConfigRecordCarriesInstancesAndTableSizes)
{
    ScopedSimState state(kCard);
    for (uint8_t inst : {0, 1}) {
        std::array<uint8_t, 80> raw;
        raw.fill(0xCC);
        ASSERT_EQ(fwd_get_cfg_info(inst, raw.data()), 0);
        uint32_t acli, aclo, fib;
        std::memcpy(&acli, &raw[0x44], 4);
        std::memcpy(&aclo, &raw[0x48], 4);
        std::memcpy(&fib, &raw[0x4C], 4);
        EXPECT_EQ(raw[1], 2);
        EXPECT_EQ(acli, 32u);
        EXPECT_EQ(aclo, 16u);
        EXPECT_EQ(fib, 64u);
    }
    std::array<uint8_t, 80> raw{};
    errno = 0;
    EXPECT_EQ(fwd_get_cfg_info(2, raw.data()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fwd_get_cfg_info(0, nullptr), -1);
}

TEST(SimFwd, CardTcamTypesFollowTheProfile)
{
    const struct {
        const char *profile;
        std::array<uint32_t, 3> want;  // ACLI, ACLO, FIB
    } cases[] = {
        {nullptr, {1, 1, 1}},
        {"fib_kind=tcam3", {1, 1, 0}},
        {"acli_kind=tcam3,aclo_kind=tcam3", {0, 0, 1}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.profile != nullptr ? c.profile : "default");
        ScopedSimState state(c.profile);
        std::array<uint32_t, 3> types{7, 7, 7};
        ASSERT_EQ(get_card_tcam_types(types.data()), 0);
        EXPECT_EQ(types, c.want);
    }
    EXPECT_EQ(get_card_tcam_types(nullptr), -1);
}

TEST(SimFwd, TcamWriteReadDeleteOverARun)
{
    ScopedSimState state(kCard);
    auto keys = pattern(3 * 18, 1);
    auto p = params(1, kFib, 10, 3);
    ASSERT_EQ(fwd_tcam_write(&p, keys.data()), 0);

    std::vector<uint8_t> back(4 * 18, 0);
    auto r = params(1, kFib, 10, 4);
    ASSERT_EQ(fwd_tcam_read(&r, back.data()), 0);
    EXPECT_TRUE(std::equal(keys.begin(), keys.end(), back.begin()));
    EXPECT_EQ(std::vector<uint8_t>(back.begin() + 54, back.end()), std::vector<uint8_t>(18, 0xFF))
        << "a location without an entry reads as all 0xFF";

    uint16_t prio = 7;
    ASSERT_EQ(sim_hw_tcam_get(1, kFib, 11, nullptr, nullptr, &prio), 0);
    EXPECT_EQ(prio, 0) << "the driver writes priority 0";
    uint8_t valid = 1;
    ASSERT_EQ(sim_hw_tcam_get(0, kFib, 11, &valid, nullptr, nullptr), 0);
    EXPECT_EQ(valid, 0) << "instance 0 untouched";

    auto d = params(1, kFib, 11, 1);
    ASSERT_EQ(fwd_tcam_delete(&d), 0);
    ASSERT_EQ(fwd_tcam_read(&r, back.data()), 0);
    EXPECT_TRUE(std::equal(keys.begin(), keys.begin() + 18, back.begin()));
    EXPECT_EQ(std::vector<uint8_t>(back.begin() + 18, back.begin() + 36), std::vector<uint8_t>(18, 0xFF));
    EXPECT_TRUE(std::equal(keys.begin() + 36, keys.end(), back.begin() + 36));
}

TEST(SimFwd, Tcam3WritesMatchTheLowestLocation)
{
    ScopedSimState state(kCard);
    std::array<uint8_t, 36> any{};  // zero mask: matches everything
    for (uint32_t loc : {12u, 5u, 9u}) {
        auto p = params(0, kAclo, loc, 1);
        ASSERT_EQ(fwd_tcam_write(&p, any.data()), 0);
    }
    std::array<uint8_t, 18> search{};
    uint32_t loc = 0;
    ASSERT_EQ(sim_hw_lookup(0, kAclo, search.data(), &loc), 1);
    EXPECT_EQ(loc, 5u);
}

TEST(SimFwd, AllInstancesForWritesAndDeletesOnly)
{
    ScopedSimState state(kCard);
    auto key = pattern(36, 3);
    auto word = pattern(5, 9);
    auto p = params(kAll, kAcli, 31, 1);
    ASSERT_EQ(fwd_tcam_write(&p, key.data()), 0);
    ASSERT_EQ(fwd_ssram_write(&p, word.data()), 0);
    for (uint8_t inst : {0, 1}) {
        SCOPED_TRACE(int(inst));
        EXPECT_EQ(sim_hw_tcam_count(inst, kAcli), 1u);
        std::vector<uint8_t> got(5);
        auto r = params(inst, kAcli, 31, 1);
        ASSERT_EQ(fwd_ssram_read(&r, got.data()), 0);
        EXPECT_EQ(got, word);
    }
    std::vector<uint8_t> buf(36);
    errno = 0;
    EXPECT_EQ(fwd_tcam_read(&p, buf.data()), -1) << "a read names one instance";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fwd_ssram_read(&p, buf.data()), -1);

    ASSERT_EQ(fwd_tcam_delete(&p), 0);
    EXPECT_EQ(sim_hw_tcam_count(0, kAcli), 0u);
    EXPECT_EQ(sim_hw_tcam_count(1, kAcli), 0u);
}

// Every driver call as (name, call with a request); the buffer is large enough
// for any request of these tests.
struct DriverCall {
    const char *name;
    std::function<int(tbl_params *, uint8_t *)> call;
    bool all_instances;  // accepts inst 254
    bool half_size;      // the flow-result memory: one word per two locations
};

const std::vector<DriverCall> &driver_calls()
{
    static const std::vector<DriverCall> calls = {
        {"fwd_tcam_write", fwd_tcam_write, true, false},
        {"fwd_tcam_read", fwd_tcam_read, false, false},
        {"fwd_tcam_delete", [](tbl_params *p, uint8_t *) { return fwd_tcam_delete(p); }, true, false},
        {"fwd_ssram_write", fwd_ssram_write, true, false},
        {"fwd_ssram_read", fwd_ssram_read, false, false},
        {"fwd_flow_result_write", fwd_flow_result_write, true, true},
        {"fwd_flow_result_read", fwd_flow_result_read, false, true},
        {"fwd_acl_prio_write", fwd_acl_prio_write, true, false},
        {"fwd_acl_prio_read", fwd_acl_prio_read, false, false},
    };
    return calls;
}

TEST(SimFwd, RequestsOutsideAMemoryFailWithEinval)
{
    ScopedSimState state(kCard);
    std::vector<uint8_t> buf(64 * 36, 0x5A);
    for (const DriverCall &d : driver_calls()) {
        SCOPED_TRACE(d.name);
        const uint32_t words = d.half_size ? 16 : 32;  // ACLI has 32 locations
        const struct {
            uint8_t inst;
            uint32_t tbl, start, num;
            bool ok;
        } cases[] = {
            {0, kAcli, 0, words, true},
            {1, kAcli, words - 1, 1, true},
            {0, kAcli, words, 1, false},
            {0, kAcli, words - 1, 2, false},
            {0, kAcli, 0xFFFFFFFF, 2, false},  // start + num wraps around
            {2, kAcli, 0, 1, false},           // no instance 2
            {kAll, kAcli, 0, 1, d.all_instances},
            {0, 0, 0, 1, false},
            {0, 4, 0, 1, false},
        };
        for (const auto &c : cases) {
            SCOPED_TRACE(std::to_string(c.inst) + "/" + std::to_string(c.tbl) + "/" +
                         std::to_string(c.start) + "+" + std::to_string(c.num));
            auto p = params(c.inst, c.tbl, c.start, c.num);
            errno = 0;
            int rc = d.call(&p, buf.data());
            if (c.ok) {
                EXPECT_EQ(rc, 0);
            } else {
                EXPECT_EQ(rc, -1);
                EXPECT_EQ(errno, EINVAL);
            }
        }
        errno = 0;
        EXPECT_EQ(d.call(nullptr, buf.data()), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(SimFwd, RefusedWriteChangesNothing)
{
    ScopedSimState state(kCard);
    auto key = pattern(2 * 18, 1);
    auto p = params(0, kFib, 63, 2);  // the second entry is outside the table
    ASSERT_EQ(fwd_tcam_write(&p, key.data()), -1);
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), 0u);
    std::vector<uint8_t> words(10, 0x77);
    ASSERT_EQ(fwd_ssram_write(&p, words.data()), -1);
    std::vector<uint8_t> got(5, 0x11);
    auto r = params(0, kFib, 63, 1);
    ASSERT_EQ(fwd_ssram_read(&r, got.data()), 0);
    EXPECT_EQ(got, std::vector<uint8_t>(5, 0));
}

TEST(SimFwd, ResultMemoriesAreSeparate)
{
    ScopedSimState state(kCard);
    auto ssram = pattern(5, 1), flow = pattern(5, 100);
    uint8_t acl = 1;
    auto p = params(0, kAcli, 6, 1);
    auto f = params(0, kAcli, 3, 1);  // flow word 3 serves locations 6 and 7
    ASSERT_EQ(fwd_ssram_write(&p, ssram.data()), 0);
    ASSERT_EQ(fwd_flow_result_write(&f, flow.data()), 0);
    ASSERT_EQ(fwd_acl_prio_write(&p, &acl), 0);
    std::vector<uint8_t> got(5);
    ASSERT_EQ(fwd_ssram_read(&p, got.data()), 0);
    EXPECT_EQ(got, ssram);
    ASSERT_EQ(fwd_flow_result_read(&f, got.data()), 0);
    EXPECT_EQ(got, flow);
    uint8_t acl_got = 0;
    ASSERT_EQ(fwd_acl_prio_read(&p, &acl_got), 0);
    EXPECT_EQ(acl_got, 1);
    auto other = params(0, kAcli, 7, 1);
    ASSERT_EQ(fwd_acl_prio_read(&other, &acl_got), 0);
    EXPECT_EQ(acl_got, 0);
}

TEST(SimFwd, EveryCallPassesFaultInjection)
{
    ScopedSimState state(kCard);
    std::vector<uint8_t> buf(64, 0);
    for (const DriverCall &d : driver_calls()) {
        SCOPED_TRACE(d.name);
        ASSERT_EQ(sim_fault_set((std::string("fail=") + d.name + ":2:EIO").c_str()), 0);
        auto p = params(0, kAcli, 0, 1);
        uint64_t before = sim_calls_get(d.name);
        EXPECT_EQ(d.call(&p, buf.data()), 0);
        errno = 0;
        EXPECT_EQ(d.call(&p, buf.data()), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(d.call(&p, buf.data()), 0);
        EXPECT_EQ(sim_calls_get(d.name), before + 3);
    }
    for (const char *name : {"fwd_get_cfg_info", "get_card_tcam_types"}) {
        SCOPED_TRACE(name);
        ASSERT_EQ(sim_fault_set((std::string("fail=") + name + ":1:ENODEV").c_str()), 0);
        errno = 0;
        int rc = std::string(name) == "fwd_get_cfg_info"
                     ? fwd_get_cfg_info(0, buf.data())
                     : get_card_tcam_types(reinterpret_cast<uint32_t *>(buf.data()));
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, ENODEV);
    }
    sim_fault_set(nullptr);
}

}  // namespace
}  // namespace tcamwrap::sim::test
