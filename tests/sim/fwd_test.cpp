// Forwarding driver of the simulated card: requests outside a memory.
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_hw.h"
#include "sim_test_util.hpp"
#include "tcamwrap_platform.h"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kAcli = 1, kFib = 3;
constexpr uint8_t kAll = 254;
constexpr const char *kCard = "insts=2,fib=64,acli=32,aclo=16,aclo_kind=tcam3";
using Bytes = std::vector<uint8_t>;

tbl_params params(uint8_t inst, uint32_t tbl, uint32_t start, uint32_t num = 1)
{
    return tbl_params{inst, tbl, num, start, 0xDEADBEEF};
}

Bytes pattern(std::size_t n, uint8_t seed)
{
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}

// Every driver call; the buffer is large enough for any request of these tests.
struct DriverCall {
    const char *name;
    std::function<int(tbl_params *, uint8_t *)> call;
    bool writes;     // accepts inst 254
    bool half_size;  // the flow-result memory: one word per two locations
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

TEST(SimFwd, RequestsOutsideAMemoryFailWithEinvalAndWriteNothing)
{
    ScopedSimState state(kCard);
    Bytes buf(64 * 36, 0x5A);
    for (const DriverCall &d : driver_calls()) {
        SCOPED_TRACE(d.name);
        const uint32_t words = d.half_size ? 16 : 32;  // ACLI has 32 locations
        const struct {
            uint8_t inst;
            uint32_t tbl, start, num;
            bool ok;
        } cases[] = {
            {0, kAcli, 0, words, true},      {1, kAcli, words - 1, 1, true}, {0, kAcli, words, 1, false},
            {0, kAcli, words - 1, 2, false}, {0, kAcli, 0xFFFFFFFF, 2, false},  // start + num wraps
            {2, kAcli, 0, 1, false},         {kAll, kAcli, 0, 1, d.writes},     {0, 4, 0, 1, false},
        };
        for (const auto &c : cases) {
            SCOPED_TRACE(std::to_string(c.inst) + "/" + std::to_string(c.tbl) + "/" + std::to_string(c.start) +
                         "+" + std::to_string(c.num));
            auto p = params(c.inst, c.tbl, c.start, c.num);
            errno = 0;
            int rc = d.call(&p, buf.data());
            EXPECT_EQ(rc, c.ok ? 0 : -1);
            if (!c.ok) {
                EXPECT_EQ(errno, EINVAL);
            }
        }
        errno = 0;
        EXPECT_EQ(d.call(nullptr, buf.data()), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    // A write refused for its last word leaves the first untouched too.
    Bytes keys = pattern(2 * 18, 1), words(10, 0x77), got(5, 0x11);
    auto p = params(0, kFib, 63, 2);
    ASSERT_EQ(fwd_tcam_write(&p, keys.data()), -1);
    ASSERT_EQ(fwd_ssram_write(&p, words.data()), -1);
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), 0u);
    auto r = params(0, kFib, 63);
    ASSERT_EQ(fwd_ssram_read(&r, got.data()), 0);
    EXPECT_EQ(got, Bytes(5, 0));
}

}  // namespace
}  // namespace tcamwrap::sim::test
