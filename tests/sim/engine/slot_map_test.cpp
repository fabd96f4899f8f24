// Tests of the bank occupancy map: every search against a plain scan, over
// sizes around the word and summary boundaries.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "slot_map.h"

namespace {

using orvex::SlotMap;
constexpr uint32_t npos = SlotMap::npos;

struct Reference {
    std::vector<bool> free;

    uint32_t next(uint32_t from, uint32_t limit, bool want_free) const {
        for (uint32_t i = from; i < std::min<uint32_t>(limit, free.size()); ++i)
            if (free[i] == want_free) return i;
        return npos;
    }
    uint32_t prev(uint32_t below, uint32_t floor, bool want_free) const {
        for (uint32_t i = std::min<uint32_t>(below, free.size()); i > floor; --i)
            if (free[i - 1] == want_free) return i - 1;
        return npos;
    }
};

class SlotMapSizes : public ::testing::TestWithParam<uint32_t> {};

TEST_P(SlotMapSizes, SearchesAgreeWithAScanAfterRandomChanges) {
    const uint32_t size = GetParam();
    const uint64_t seed = 1000 + size;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    SlotMap map(size);
    Reference ref{std::vector<bool>(size, true)};

    for (int round = 0; round < 400; ++round) {
        // Change a few locations, sometimes in runs, so whole words fill and empty.
        const uint32_t start = static_cast<uint32_t>(rng() % size);
        const uint32_t run = static_cast<uint32_t>(rng() % 80) + 1;
        const bool make_free = rng() % 2 == 0;
        for (uint32_t i = start; i < std::min(size, start + run); ++i) {
            map.set_free(i, make_free);
            ref.free[i] = make_free;
        }
        for (int q = 0; q < 20; ++q) {
            const uint32_t a = static_cast<uint32_t>(rng() % (size + 2));
            const uint32_t b = static_cast<uint32_t>(rng() % (size + 2));
            const uint32_t lo = std::min(a, b);
            const uint32_t hi = std::max(a, b);
            ASSERT_EQ(map.next_free(lo, hi), ref.next(lo, hi, true)) << lo << ".." << hi;
            ASSERT_EQ(map.next_used(lo, hi), ref.next(lo, hi, false)) << lo << ".." << hi;
            ASSERT_EQ(map.prev_free(hi, lo), ref.prev(hi, lo, true)) << lo << ".." << hi;
            ASSERT_EQ(map.prev_used(hi, lo), ref.prev(hi, lo, false)) << lo << ".." << hi;
        }
    }
    uint32_t used = 0;
    for (uint32_t w = 0; w < map.words(); ++w) used += map.used_in_word(w);
    uint32_t ref_used = 0;
    for (bool f : ref.free) ref_used += !f;
    EXPECT_EQ(used, ref_used);
}

INSTANTIATE_TEST_SUITE_P(AroundWordBoundaries, SlotMapSizes,
                         ::testing::Values(1u, 63u, 64u, 65u, 1000u, 4095u, 4096u, 4097u, 70000u));

TEST(SlotMap, StartsFreeAndPartialLastWordHasNoPhantomLocations) {
    SlotMap map(70);  // second word has 6 locations
    EXPECT_EQ(map.words(), 2u);
    EXPECT_EQ(map.next_used(0, 70), npos);
    EXPECT_EQ(map.prev_free(1000, 0), 69u);  // bounds beyond the size are clamped
    for (uint32_t i = 64; i < 70; ++i) map.set_free(i, false);
    EXPECT_EQ(map.used_in_word(1), 6u);
    EXPECT_EQ(map.next_free(64, 1000), npos);
    EXPECT_EQ(map.prev_used(1000, 0), 69u);
}

}  // namespace
