// image.hpp - the hardware image: one shared file mapping holding every memory
// of every instance and table of the card.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "profile.hpp"
#include "sys_util.hpp"

namespace tcamwrap::sim {

// The memories of one (instance, table) inside the mapping.
struct TableView {
    uint32_t size = 0;         // TCAM locations
    uint32_t key_bytes = 0;    // value then mask
    uint8_t *valid = nullptr;  // 1 byte per location, 1 = entry live
    uint16_t *prio = nullptr;
    uint8_t *keys = nullptr;   // key_bytes per location
    uint8_t *ssram = nullptr;  // SIM_RESULT_BYTES per location
    uint8_t *flow = nullptr;   // SIM_RESULT_BYTES per two locations
    uint8_t *acl_prio = nullptr;
    uint64_t *generation = nullptr;  // bumped on every TCAM change, by any process

    explicit operator bool() const { return size != 0; }
    uint32_t half_bytes() const { return key_bytes / 2; }
    std::span<uint8_t> key(uint32_t loc) const { return {keys + std::size_t{loc} * key_bytes, key_bytes}; }
    std::span<const uint8_t> value(uint32_t loc) const { return key(loc).first(half_bytes()); }
    std::span<const uint8_t> mask(uint32_t loc) const { return key(loc).last(half_bytes()); }
};

class Image {
public:
    // Maps the image file at path, creating it (all memories zero, no entry valid)
    // when missing. Returns "" or an error text with errno set.
    std::string open_or_create(const std::string &path, const Profile &profile);

    // A table of a valid instance and table index; an empty view otherwise.
    const TableView &table(uint32_t inst, int t) const;

private:
    Mapping map_;
    std::array<std::array<TableView, kNumTableTypes>, SIM_MAX_INSTS> tables_{};
};

}  // namespace tcamwrap::sim
