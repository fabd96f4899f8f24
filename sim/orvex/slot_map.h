// slot_map.h - occupancy of the locations of one bank.
//
// One bit per location (set = free) plus one summary bit per 64-bit word for
// "has a free location" and "has a used location", so the nearest free or used
// location in either direction is found with a few word scans whatever the size.
#pragma once

#include <cstdint>
#include <vector>

namespace orvex {

class SlotMap {
public:
    static constexpr uint32_t npos = UINT32_MAX;
    static constexpr uint32_t kWordBits = 64;

    explicit SlotMap(uint32_t size = 0);

    uint32_t size() const { return size_; }
    bool is_free(uint32_t i) const { return (free_[i / kWordBits] >> (i % kWordBits)) & 1u; }
    void set_free(uint32_t i, bool free);

    // Lowest free (used) location in [from, limit), or npos.
    uint32_t next_free(uint32_t from, uint32_t limit) const { return next(from, limit, true); }
    uint32_t next_used(uint32_t from, uint32_t limit) const { return next(from, limit, false); }
    // Highest free (used) location in [floor, below), or npos.
    uint32_t prev_free(uint32_t below, uint32_t floor) const { return prev(below, floor, true); }
    uint32_t prev_used(uint32_t below, uint32_t floor) const { return prev(below, floor, false); }

    // Used locations of word w (locations w*64 .. w*64+63): a segment of the bank.
    uint32_t used_in_word(uint32_t w) const;
    uint32_t words() const { return static_cast<uint32_t>(free_.size()); }

private:
    uint64_t bits(uint32_t w, bool free) const { return free ? free_[w] : ~free_[w] & valid_[w]; }
    void refresh_summary(uint32_t w);
    uint32_t next(uint32_t from, uint32_t limit, bool free) const;
    uint32_t prev(uint32_t below, uint32_t floor, bool free) const;
    // Next (previous) word from w on (below w) whose summary bit is set, or npos.
    uint32_t next_word(const std::vector<uint64_t> &summary, uint32_t w) const;
    uint32_t prev_word(const std::vector<uint64_t> &summary, uint32_t w) const;

    uint32_t size_;
    std::vector<uint64_t> free_;   // bit set = free
    std::vector<uint64_t> valid_;  // bit set = inside the bank (the last word may be partial)
    std::vector<uint64_t> any_free_;
    std::vector<uint64_t> any_used_;
};

}  // namespace orvex
