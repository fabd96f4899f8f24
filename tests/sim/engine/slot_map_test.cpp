// Tests of the bank occupancy map: every search against a plain scan, over
// sizes around the word and summary boundaries (partial last words included)
// and with bounds beyond the size, which are clamped.
#include <gtest/gtest.h>

#include <algorithm>
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
            SCOPED_TRACE(std::to_string(lo) + ".." + std::to_string(hi));
            ASSERT_EQ(map.next_free(lo, hi), ref.next(lo, hi, true));
            ASSERT_EQ(map.next_used(lo, hi), ref.next(lo, hi, false));
            ASSERT_EQ(map.prev_free(hi, lo), ref.prev(hi, lo, true));
            ASSERT_EQ(map.prev_used(hi, lo), ref.prev(hi, lo, false));
        }
    }
    uint32_t used = 0;
    for (uint32_t w = 0; w < map.words(); ++w) used += map.used_in_word(w);
    EXPECT_EQ(used, static_cast<uint32_t>(std::count(ref.free.begin(), ref.free.end(), false)));
}

INSTANTIATE_TEST_SUITE_P(AroundWordBoundaries, SlotMapSizes,
                         ::testing::Values(1u, 63u, 64u, 65u, 1000u, 4095u, 4096u, 4097u, 70000u));

}  // namespace
