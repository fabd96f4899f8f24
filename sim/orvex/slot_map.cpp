// slot_map.cpp - occupancy bitmap of one bank with word summaries.
#include "slot_map.h"

#include <bit>

namespace orvex {

namespace {
constexpr uint64_t bit(uint32_t i) { return uint64_t{1} << (i % SlotMap::kWordBits); }
}  // namespace

SlotMap::SlotMap(uint32_t size) : size_(size) {
    const uint32_t nwords = (size + kWordBits - 1) / kWordBits;
    free_.assign(nwords, ~uint64_t{0});
    valid_.assign(nwords, ~uint64_t{0});
    if (size % kWordBits != 0) {
        const uint64_t partial = (uint64_t{1} << (size % kWordBits)) - 1;
        free_.back() = partial;
        valid_.back() = partial;
    }
    const uint32_t nsummary = (nwords + kWordBits - 1) / kWordBits;
    any_free_.assign(nsummary, 0);
    any_used_.assign(nsummary, 0);
    for (uint32_t w = 0; w < nwords; ++w) refresh_summary(w);
}

void SlotMap::set_free(uint32_t i, bool free) {
    const uint32_t w = i / kWordBits;
    if (free)
        free_[w] |= bit(i);
    else
        free_[w] &= ~bit(i);
    refresh_summary(w);
}

void SlotMap::refresh_summary(uint32_t w) {
    const uint32_t s = w / kWordBits;
    if (bits(w, true) != 0)
        any_free_[s] |= bit(w);
    else
        any_free_[s] &= ~bit(w);
    if (bits(w, false) != 0)
        any_used_[s] |= bit(w);
    else
        any_used_[s] &= ~bit(w);
}

uint32_t SlotMap::used_in_word(uint32_t w) const {
    return static_cast<uint32_t>(std::popcount(bits(w, false)));
}

uint32_t SlotMap::next_word(const std::vector<uint64_t> &summary, uint32_t w) const {
    uint32_t s = w / kWordBits;
    if (s >= summary.size()) return npos;
    uint64_t m = summary[s] & (~uint64_t{0} << (w % kWordBits));
    while (m == 0) {
        if (++s >= summary.size()) return npos;
        m = summary[s];
    }
    return s * kWordBits + static_cast<uint32_t>(std::countr_zero(m));
}

uint32_t SlotMap::prev_word(const std::vector<uint64_t> &summary, uint32_t w) const {
    if (w == 0) return npos;
    const uint32_t last = w - 1;
    uint32_t s = last / kWordBits;
    const uint32_t shift = kWordBits - 1 - last % kWordBits;
    uint64_t m = summary[s] & (~uint64_t{0} >> shift);
    while (m == 0) {
        if (s == 0) return npos;
        m = summary[--s];
    }
    return s * kWordBits + kWordBits - 1 - static_cast<uint32_t>(std::countl_zero(m));
}

uint32_t SlotMap::next(uint32_t from, uint32_t limit, bool free) const {
    if (limit > size_) limit = size_;
    if (from >= limit) return npos;
    uint32_t w = from / kWordBits;
    uint64_t m = bits(w, free) & (~uint64_t{0} << (from % kWordBits));
    if (m == 0) {
        w = next_word(free ? any_free_ : any_used_, w + 1);
        if (w == npos) return npos;
        m = bits(w, free);
    }
    const uint32_t i = w * kWordBits + static_cast<uint32_t>(std::countr_zero(m));
    return i < limit ? i : npos;
}

uint32_t SlotMap::prev(uint32_t below, uint32_t floor, bool free) const {
    if (below > size_) below = size_;
    if (below <= floor) return npos;
    const uint32_t last = below - 1;
    uint32_t w = last / kWordBits;
    uint64_t m = bits(w, free) & (~uint64_t{0} >> (kWordBits - 1 - last % kWordBits));
    if (m == 0) {
        w = prev_word(free ? any_free_ : any_used_, w);
        if (w == npos) return npos;
        m = bits(w, free);
    }
    const uint32_t i = w * kWordBits + kWordBits - 1 - static_cast<uint32_t>(std::countl_zero(m));
    return i >= floor ? i : npos;
}

}  // namespace orvex
