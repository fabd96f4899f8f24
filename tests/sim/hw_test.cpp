// Hardware image of the simulated card: persistence, memories and the lookup.
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "sim_hw.h"
#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kAcli = 1, kFib = 3;
constexpr const char *kSmallCard = "insts=2,fib=4096,acli=1024,aclo=1024";

using FibKey = std::array<uint8_t, 18>;

// FIB key: value {vrf, address big-endian, 4 zero bytes}, mask {0xFF, prefix mask}.
FibKey fib_key(uint32_t addr, int prefix_len, uint8_t vrf = 0)
{
    uint32_t mask = prefix_len == 0 ? 0 : ~uint32_t{0} << (32 - prefix_len);
    FibKey k{};
    k[0] = vrf;
    k[9] = 0xFF;
    for (int i = 0; i < 4; ++i) {
        k[1 + i] = static_cast<uint8_t>((addr & mask) >> (24 - 8 * i));
        k[10 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
    }
    return k;
}

std::array<uint8_t, 9> fib_search(uint32_t addr, uint8_t vrf = 0)
{
    std::array<uint8_t, 9> s{};
    s[0] = vrf;
    for (int i = 0; i < 4; ++i)
        s[1 + i] = static_cast<uint8_t>(addr >> (24 - 8 * i));
    return s;
}

std::optional<uint32_t> lookup(uint8_t inst, uint32_t tbl, const uint8_t *search)
{
    uint32_t loc = 0;
    int rc = sim_hw_lookup(inst, tbl, search, &loc);
    EXPECT_GE(rc, 0);
    return rc == 1 ? std::optional<uint32_t>(loc) : std::nullopt;
}

TEST(SimHw, TcamWriteGetClear)
{
    ScopedSimState state(kSmallCard);
    FibKey key = fib_key(0x0A000000, 8);
    ASSERT_EQ(sim_hw_tcam_write(1, kFib, 4095, key.data(), 0x1234), 0);

    uint8_t valid = 0;
    FibKey got{};
    uint16_t prio = 0;
    ASSERT_EQ(sim_hw_tcam_get(1, kFib, 4095, &valid, got.data(), &prio), 0);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(got, key);
    EXPECT_EQ(prio, 0x1234);
    ASSERT_EQ(sim_hw_tcam_get(0, kFib, 4095, &valid, nullptr, nullptr), 0);
    EXPECT_EQ(valid, 0) << "instances are separate memories";

    ASSERT_EQ(sim_hw_tcam_clear(1, kFib, 4095), 0);
    ASSERT_EQ(sim_hw_tcam_get(1, kFib, 4095, &valid, got.data(), &prio), 0);
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(sim_hw_tcam_count(1, kFib), 0u);
}

TEST(SimHw, TcamCallsRejectWhatIsOutsideTheCard)
{
    ScopedSimState state("insts=1,fib=4096,acli=1024,aclo=1024");
    FibKey key = fib_key(1, 32);
    uint32_t loc = 0;
    const struct {
        const char *what;
        int rc;
    } cases[] = {
        {"write loc = size", sim_hw_tcam_write(0, kFib, 4096, key.data(), 0)},
        {"write inst 1 of 1", sim_hw_tcam_write(1, kFib, 0, key.data(), 0)},
        {"write table 0", sim_hw_tcam_write(0, 0, 0, key.data(), 0)},
        {"write table 4", sim_hw_tcam_write(0, 4, 0, key.data(), 0)},
        {"write NULL key", sim_hw_tcam_write(0, kFib, 0, nullptr, 0)},
        {"clear loc = size", sim_hw_tcam_clear(0, kFib, 4096)},
        {"get loc = size", sim_hw_tcam_get(0, kFib, 4096, nullptr, nullptr, nullptr)},
        {"get inst 254", sim_hw_tcam_get(254, kFib, 0, nullptr, nullptr, nullptr)},
        {"lookup NULL search", sim_hw_lookup(0, kFib, nullptr, &loc)},
        {"lookup inst 1 of 1", sim_hw_lookup(1, kFib, key.data(), &loc)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.rc, -1);
    }
    errno = 0;
    EXPECT_EQ(sim_hw_tcam_write(0, kFib, 4096, key.data(), 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), 0u) << "nothing written by a refused call";
}

TEST(SimHw, ImageSurvivesTheDeathOfTheProcessThatWroteIt)
{
    ScopedSimState state(kSmallCard);
    // The child opens the card afresh, writes every kind of memory and is killed.
    int status = run_in_child([] {
        FibKey key = fib_key(0xC0A80000, 16);
        uint8_t word[5] = {1, 2, 3, 4, 5};
        uint8_t flow[5] = {9, 8, 7, 6, 5};
        uint8_t prio = 0;
        if (sim_hw_tcam_write(1, kFib, 77, key.data(), 42) != 0 ||
            sim_hw_mem_write(1, kFib, SIM_MEM_SSRAM, 77, 1, word) != 0 ||
            sim_hw_mem_write(0, kAcli, SIM_MEM_FLOW, 511, 1, flow) != 0 ||
            sim_hw_mem_write(0, kAcli, SIM_MEM_ACL_PRIO, 1023, 1, &prio) != 0)
            return 1;
        ::raise(SIGKILL);
        return 2;
    });
    ASSERT_TRUE(killed(status)) << status;

    state.forget();
    uint8_t valid = 0;
    FibKey key{};
    uint16_t prio = 0;
    ASSERT_EQ(sim_hw_tcam_get(1, kFib, 77, &valid, key.data(), &prio), 0);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(key, fib_key(0xC0A80000, 16));
    EXPECT_EQ(prio, 42);
    uint8_t word[5] = {};
    ASSERT_EQ(sim_hw_mem_read(1, kFib, SIM_MEM_SSRAM, 77, 1, word), 0);
    EXPECT_EQ(std::vector<uint8_t>(word, word + 5), (std::vector<uint8_t>{1, 2, 3, 4, 5}));
    ASSERT_EQ(sim_hw_mem_read(0, kAcli, SIM_MEM_FLOW, 511, 1, word), 0);
    EXPECT_EQ(std::vector<uint8_t>(word, word + 5), (std::vector<uint8_t>{9, 8, 7, 6, 5}));

    uint32_t loc = 0;
    auto search = fib_search(0xC0A81234);
    EXPECT_EQ(sim_hw_lookup(1, kFib, search.data(), &loc), 1);
    EXPECT_EQ(loc, 77u);
}

TEST(SimHw, LookupSeesChangesMadeByAnotherProcess)
{
    ScopedSimState state(kSmallCard);
    FibKey wide = fib_key(0x0A000000, 8);
    ASSERT_EQ(sim_hw_tcam_write(0, kFib, 10, wide.data(), 1), 0);
    auto search = fib_search(0x0A010203);
    ASSERT_EQ(lookup(0, kFib, search.data()), 10u);  // this process has built its index

    int status = run_in_child([] {
        sim_card_close();
        FibKey narrow = fib_key(0x0A010000, 16);
        return sim_hw_tcam_write(0, kFib, 20, narrow.data(), 5) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(lookup(0, kFib, search.data()), 20u);

    status = run_in_child([] { return sim_hw_tcam_clear(0, kFib, 20) == 0 ? 0 : 1; });
    ASSERT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(lookup(0, kFib, search.data()), 10u);
}

TEST(SimHw, LookupPicksHighestPriorityThenLowestLocation)
{
    ScopedSimState state(kSmallCard);
    struct Entry {
        uint32_t loc;
        uint32_t addr;
        int len;
        uint16_t prio;
    };
    const Entry entries[] = {
        {100, 0x0A000000, 8, 8},    // 10/8
        {50, 0x0A010000, 16, 16},   // 10.1/16
        {60, 0x0A010000, 16, 16},   // the same prefix again, higher location
        {40, 0x0A010100, 24, 24},   // 10.1.1/24
        {30, 0x00000000, 0, 0},     // default route
        {20, 0x0B000000, 8, 8},     // 11/8, tie in priority with 10/8
        {10, 0x0B000000, 8, 8},     // 11/8 again, lower location
    };
    for (const Entry &e : entries) {
        FibKey k = fib_key(e.addr, e.len);
        ASSERT_EQ(sim_hw_tcam_write(0, kFib, e.loc, k.data(), e.prio), 0);
    }
    const struct {
        uint32_t addr;
        uint32_t want;
    } cases[] = {
        {0x0A010101, 40},  // the /24 beats /16 and /8
        {0x0A010201, 50},  // two equal /16 at 50 and 60: the lower location
        {0x0A020304, 100}, // only 10/8 and default
        {0x0C000001, 30},  // only the default route
        {0x0B000001, 10},  // two equal 11/8: the lower location
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.addr);
        auto s = fib_search(c.addr);
        EXPECT_EQ(lookup(0, kFib, s.data()), c.want);
    }

    // A search in another VRF byte matches nothing: the first key byte is fully masked.
    auto other_vrf = fib_search(0x0A010101, 7);
    EXPECT_EQ(lookup(0, kFib, other_vrf.data()), std::nullopt);

    // Clearing and overwriting a location change what matches.
    ASSERT_EQ(sim_hw_tcam_clear(0, kFib, 40), 0);
    auto s = fib_search(0x0A010101);
    EXPECT_EQ(lookup(0, kFib, s.data()), 50u);
    FibKey moved = fib_key(0x0C000000, 8);
    ASSERT_EQ(sim_hw_tcam_write(0, kFib, 50, moved.data(), 8), 0);
    EXPECT_EQ(lookup(0, kFib, s.data()), 60u);
    auto c = fib_search(0x0C000001);
    EXPECT_EQ(lookup(0, kFib, c.data()), 50u);
    EXPECT_EQ(lookup(1, kFib, c.data()), std::nullopt) << "instance 1 holds nothing";
}

// Reference: the hardware rule applied to a snapshot of the whole table.
struct Snapshot {
    uint32_t key_bytes;
    std::vector<uint8_t> valid;
    std::vector<uint8_t> keys;
    std::vector<uint16_t> prio;

    static Snapshot take(uint8_t inst, uint32_t tbl)
    {
        Snapshot s;
        s.key_bytes = sim_key_bytes(tbl);
        uint32_t n = sim_card_table_size(tbl);
        s.valid.resize(n);
        s.keys.resize(std::size_t{n} * s.key_bytes);
        s.prio.resize(n);
        for (uint32_t loc = 0; loc < n; ++loc)
            sim_hw_tcam_get(inst, tbl, loc, &s.valid[loc], &s.keys[std::size_t{loc} * s.key_bytes],
                            &s.prio[loc]);
        return s;
    }

    std::optional<uint32_t> lookup(const uint8_t *search) const
    {
        std::optional<uint32_t> best;
        uint32_t half = key_bytes / 2;
        for (uint32_t loc = 0; loc < valid.size(); ++loc) {
            if (valid[loc] == 0)
                continue;
            const uint8_t *k = &keys[std::size_t{loc} * key_bytes];
            bool match = true;
            for (uint32_t i = 0; i < half && match; ++i)
                match = (search[i] & k[half + i]) == (k[i] & k[half + i]);
            if (match && (!best || prio[loc] > prio[*best]))
                best = loc;
        }
        return best;
    }
};

// Random writes, rewrites and clears of a table with few priorities and few
// distinct masks (many ties and many shared buckets), checked against the
// reference after every round.
void random_lookup_run(uint32_t tbl, uint32_t seed)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const uint32_t size = sim_card_table_size(tbl);
    const uint32_t kb = sim_key_bytes(tbl);
    const uint32_t half = kb / 2;
    // A small pool of masks and values, so entries overlap a lot.
    std::vector<std::vector<uint8_t>> masks(6, std::vector<uint8_t>(half));
    for (auto &m : masks)
        for (auto &b : m)
            b = std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? 0x00
                : std::uniform_int_distribution<int>(0, 1)(rng) ? 0xFF
                                                                 : 0xF0;
    auto random_value = [&] {
        std::vector<uint8_t> v(half);
        for (auto &b : v)
            b = static_cast<uint8_t>(std::uniform_int_distribution<int>(0, 3)(rng) * 0x11);
        return v;
    };
    for (int round = 0; round < 8; ++round) {
        for (int op = 0; op < 300; ++op) {
            uint32_t loc = std::uniform_int_distribution<uint32_t>(0, size - 1)(rng);
            if (std::uniform_int_distribution<int>(0, 4)(rng) == 0) {
                ASSERT_EQ(sim_hw_tcam_clear(0, tbl, loc), 0);
                continue;
            }
            std::vector<uint8_t> key = random_value();
            const auto &m = masks[std::uniform_int_distribution<std::size_t>(0, masks.size() - 1)(rng)];
            key.insert(key.end(), m.begin(), m.end());
            uint16_t prio = static_cast<uint16_t>(std::uniform_int_distribution<int>(0, 3)(rng));
            ASSERT_EQ(sim_hw_tcam_write(0, tbl, loc, key.data(), prio), 0);
        }
        Snapshot ref = Snapshot::take(0, tbl);
        for (int q = 0; q < 200; ++q) {
            std::vector<uint8_t> search = random_value();
            ASSERT_EQ(lookup(0, tbl, search.data()), ref.lookup(search.data())) << "round " << round;
        }
    }
}

TEST(SimHw, LookupAgreesWithAFullScanOverRandomChanges)
{
    ScopedSimState state("insts=1,fib=512,acli=256,aclo=256");
    for (uint32_t seed : {1u, 2u, 3u}) {
        random_lookup_run(kFib, seed);
        random_lookup_run(kAcli, seed + 100);
    }
}

TEST(SimHw, ResultMemoriesCheckTheirRanges)
{
    ScopedSimState state("insts=1,fib=7,acli=7,aclo=7");
    const struct {
        uint32_t mem, words, width;
    } mems[] = {{SIM_MEM_SSRAM, 7, 5}, {SIM_MEM_FLOW, 4, 5}, {SIM_MEM_ACL_PRIO, 7, 1}};
    std::vector<uint8_t> buf(64, 0xAB);
    for (const auto &m : mems) {
        SCOPED_TRACE(m.mem);
        EXPECT_EQ(sim_hw_mem_words(kFib, m.mem), m.words);
        EXPECT_EQ(sim_hw_mem_width(m.mem), m.width);
        const struct {
            uint32_t start, count;
            int rc;
        } cases[] = {
            {0, m.words, 0},        {m.words - 1, 1, 0},  {m.words, 0, 0},
            {m.words, 1, -1},       {0, m.words + 1, -1}, {UINT32_MAX, 2, -1},
            {m.words + 1, 0, -1},
        };
        for (const auto &c : cases) {
            SCOPED_TRACE(std::to_string(c.start) + "+" + std::to_string(c.count));
            EXPECT_EQ(sim_hw_mem_write(0, kFib, m.mem, c.start, c.count, buf.data()), c.rc);
            EXPECT_EQ(sim_hw_mem_read(0, kFib, m.mem, c.start, c.count, buf.data()), c.rc);
        }
    }
    EXPECT_EQ(sim_hw_mem_read(0, kFib, 3, 0, 1, buf.data()), -1) << "no memory 3";
    EXPECT_EQ(sim_hw_mem_words(kFib, 3), 0u);
    EXPECT_EQ(sim_hw_mem_read(1, kFib, SIM_MEM_SSRAM, 0, 1, buf.data()), -1) << "no instance 1";
}

TEST(SimHw, LookupResultTakesTheWordTheAclPriorityBitSelects)
{
    ScopedSimState state(kSmallCard);
    std::array<uint8_t, 36> key{};  // all-zero mask: matches every search
    std::array<uint8_t, 18> search{};
    const uint8_t adjacency[5] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4};
    const uint8_t flow[5] = {0xF0, 0xF1, 0xF2, 0xF3, 0xF4};
    const uint8_t off = 0, on = 1;
    ASSERT_EQ(sim_hw_tcam_write(0, kAcli, 9, key.data(), 3), 0);
    ASSERT_EQ(sim_hw_mem_write(0, kAcli, SIM_MEM_SSRAM, 9, 1, adjacency), 0);
    ASSERT_EQ(sim_hw_mem_write(0, kAcli, SIM_MEM_FLOW, 4, 1, flow), 0);  // serves 8 and 9

    uint32_t loc = 0;
    uint8_t result[5] = {};
    ASSERT_EQ(sim_hw_mem_write(0, kAcli, SIM_MEM_ACL_PRIO, 9, 1, &off), 0);
    ASSERT_EQ(sim_hw_lookup_result(0, kAcli, search.data(), &loc, result), 1);
    EXPECT_EQ(loc, 9u);
    EXPECT_EQ(std::memcmp(result, flow, 5), 0);

    ASSERT_EQ(sim_hw_mem_write(0, kAcli, SIM_MEM_ACL_PRIO, 9, 1, &on), 0);
    ASSERT_EQ(sim_hw_lookup_result(0, kAcli, search.data(), &loc, result), 1);
    EXPECT_EQ(std::memcmp(result, adjacency, 5), 0);

    // FIB always answers from the adjacency SSRAM, whatever its ACL-priority byte.
    FibKey fk = fib_key(0, 0);
    ASSERT_EQ(sim_hw_tcam_write(0, kFib, 9, fk.data(), 0), 0);
    ASSERT_EQ(sim_hw_mem_write(0, kFib, SIM_MEM_SSRAM, 9, 1, adjacency), 0);
    ASSERT_EQ(sim_hw_mem_write(0, kFib, SIM_MEM_ACL_PRIO, 9, 1, &off), 0);
    auto fs = fib_search(0x01020304);
    ASSERT_EQ(sim_hw_lookup_result(0, kFib, fs.data(), &loc, result), 1);
    EXPECT_EQ(std::memcmp(result, adjacency, 5), 0);

    auto none = fib_search(0);
    ASSERT_EQ(sim_hw_tcam_clear(0, kFib, 9), 0);
    EXPECT_EQ(sim_hw_lookup_result(0, kFib, none.data(), &loc, result), 0);
}

}  // namespace
}  // namespace tcamwrap::sim::test
