// tcam_index.hpp - a per-process search index over one TCAM of the image.
//
// Entries are grouped by mask; inside a group they are hashed by their masked
// value. A search visits each group once (one hash probe), so its cost grows with
// the number of distinct masks, not with the number of entries: a FIB of prefix
// masks has a few dozen groups whatever its size, and a search visits groups from
// the highest priority down and stops once no group can beat its match. The index follows the image's
// generation word: changes made through this process keep it current, a change by
// another process makes the next search rebuild it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "image.hpp"

namespace tcamwrap::sim {

class TcamIndex {
public:
    // True when the index reflects the table at image generation gen.
    bool current(uint64_t gen) const { return built_ && gen_ == gen; }
    void rebuild(const TableView &t, uint64_t gen);
    void set_generation(uint64_t gen) { gen_ = gen; }
    void forget()
    {
        built_ = false;
        groups_.clear();
        order_stale_ = true;
    }

    // Keep a current index current across a change of one location (the entry's
    // key, priority and valid byte as they are in the image at the time of the call).
    void remove(const TableView &t, uint32_t loc);
    void add(const TableView &t, uint32_t loc);

    // The location the hardware would match for search (value half), if any.
    std::optional<uint32_t> lookup(const TableView &t, std::span<const uint8_t> search) const;

private:
    struct Group {
        std::unordered_map<std::string, std::vector<uint32_t>> by_value;  // masked value -> locs
        std::map<uint16_t, uint32_t> prios;                               // priority -> entries
        uint32_t entries = 0;
        uint16_t max_prio() const { return prios.rbegin()->first; }
    };

    static std::string masked(std::span<const uint8_t> value, std::span<const uint8_t> mask);
    void sort_groups() const;

    std::unordered_map<std::string, Group> groups_;  // by mask
    // Groups by their highest priority, highest first: a search stops at the first
    // group that cannot beat what it found. Rebuilt when a group's top changes.
    mutable std::vector<std::pair<const std::string *, const Group *>> order_;
    mutable bool order_stale_ = true;
    uint64_t gen_ = 0;
    bool built_ = false;
    mutable std::string probe_;  // scratch of lookup()
};

}  // namespace tcamwrap::sim
