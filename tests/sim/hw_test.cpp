// Hardware image of the simulated card: persistence, memories and the lookup.
#include <array>
#include <cerrno>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "sim_hw.h"
#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kAcli = 1, kFib = 3;

using FibKey = std::array<uint8_t, 18>;

// FIB key: value {vrf, address big-endian, 4 zero bytes}, mask {0xFF, prefix mask}.
FibKey fib_key(uint32_t addr, int prefix_len)
{
    uint32_t mask = prefix_len == 0 ? 0 : ~uint32_t{0} << (32 - prefix_len);
    FibKey k{};
    k[9] = 0xFF;
    for (int i = 0; i < 4; ++i) {
        k[1 + i] = static_cast<uint8_t>((addr & mask) >> (24 - 8 * i));
        k[10 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
    }
    return k;
}

std::optional<uint32_t> lookup(uint8_t inst, uint32_t tbl, const uint8_t *search)
{
    uint32_t loc = 0;
    int rc = sim_hw_lookup(inst, tbl, search, &loc);
    EXPECT_GE(rc, 0);
    return rc == 1 ? std::optional<uint32_t>(loc) : std::nullopt;
}


TEST(SimHw, TcamCallsRejectWhatIsOutsideTheCard)
{
    ScopedSimState state("insts=1,fib=4096,acli=1024,aclo=1024");
    FibKey key = fib_key(1, 32);
    uint32_t loc = 0;
    errno = 0;
    const struct {
        const char *what;
        int rc;
    } cases[] = {
        {"write loc = size", sim_hw_tcam_write(0, kFib, 4096, key.data(), 0)},
        {"write inst 1 of 1", sim_hw_tcam_write(1, kFib, 0, key.data(), 0)},
        {"clear table 4", sim_hw_tcam_clear(0, 4, 0)},
        {"get inst 254", sim_hw_tcam_get(254, kFib, 0, nullptr, nullptr, nullptr)},
        {"lookup NULL search", sim_hw_lookup(0, kFib, nullptr, &loc)},
        {"mem write past the end", sim_hw_mem_write(0, kFib, SIM_MEM_FLOW, 2048, 1, key.data())},
        {"mem read wrapping", sim_hw_mem_read(0, kFib, SIM_MEM_SSRAM, UINT32_MAX, 2, key.data())},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.rc, -1);
    }
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), 0u) << "nothing written by a refused call";
}

// Reference: the hardware rule applied to a snapshot of the whole table.
std::optional<uint32_t> full_scan_lookup(uint32_t tbl, const uint8_t *search)
{
    const uint32_t kb = sim_key_bytes(tbl), half = kb / 2;
    std::optional<uint32_t> best;
    uint16_t best_prio = 0;
    std::vector<uint8_t> k(kb);
    for (uint32_t loc = 0; loc < sim_card_table_size(tbl); ++loc) {
        uint8_t valid = 0;
        uint16_t prio = 0;
        if (sim_hw_tcam_get(0, tbl, loc, &valid, k.data(), &prio) != 0 || valid == 0)
            continue;
        bool match = true;
        for (uint32_t i = 0; i < half && match; ++i)
            match = (search[i] & k[half + i]) == (k[i] & k[half + i]);
        if (match && (!best || prio > best_prio)) {
            best = loc;
            best_prio = prio;
        }
    }
    return best;
}

// Random writes, rewrites and clears of a table with few priorities and few
// distinct masks (many ties and many shared buckets), checked against the
// reference after every round.
void random_lookup_run(uint32_t tbl, uint32_t seed)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<uint32_t>(n)); };
    const uint32_t size = sim_card_table_size(tbl), half = sim_key_bytes(tbl) / 2;
    std::vector<std::vector<uint8_t>> masks(6, std::vector<uint8_t>(half));
    for (auto &m : masks)
        for (auto &b : m)
            b = pick(4) == 0 ? 0x00 : pick(2) ? 0xFF : 0xF0;
    auto random_value = [&] {
        std::vector<uint8_t> v(half);
        for (auto &b : v)
            b = static_cast<uint8_t>(pick(4) * 0x11);
        return v;
    };
    for (int round = 0; round < 5; ++round) {
        for (int op = 0; op < 300; ++op) {
            uint32_t loc = rng() % size;
            if (pick(5) == 0) {
                ASSERT_EQ(sim_hw_tcam_clear(0, tbl, loc), 0);
                continue;
            }
            std::vector<uint8_t> key = random_value();
            const auto &m = masks[static_cast<std::size_t>(pick(6))];
            key.insert(key.end(), m.begin(), m.end());
            ASSERT_EQ(sim_hw_tcam_write(0, tbl, loc, key.data(), static_cast<uint16_t>(pick(4))), 0);
        }
        for (int q = 0; q < 150; ++q) {
            std::vector<uint8_t> search = random_value();
            ASSERT_EQ(lookup(0, tbl, search.data()), full_scan_lookup(tbl, search.data())) << "round " << round;
        }
    }
}

TEST(SimHw, LookupAgreesWithAFullScanOverRandomChanges)
{
    ScopedSimState state("insts=1,fib=512,acli=256,aclo=256");
    for (uint32_t seed : {1u, 2u}) {
        random_lookup_run(kFib, seed);
        random_lookup_run(kAcli, seed + 100);
    }
}

}  // namespace
}  // namespace tcamwrap::sim::test
