// memory_port.h - a hardware image in process memory for the placement engine,
// with callbacks that accept everything. Tests derive from it to record and
// judge the callbacks; the benchmark uses it as it is.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine.h"

namespace orvex {

class MemoryPort : public Port {
public:
    MemoryPort(uint32_t size, uint32_t key_bytes)
        : key_bytes_(key_bytes), valid_(size, 0), prio_(size, 0),
          keys_(std::size_t{size} * key_bytes, 0) {}

    int hw_write(uint32_t loc, const uint8_t *key, uint16_t prio) override {
        if (loc >= valid_.size()) return bad();
        valid_[loc] = 1;
        prio_[loc] = prio;
        std::memcpy(&keys_[std::size_t{loc} * key_bytes_], key, key_bytes_);
        return 0;
    }
    int hw_clear(uint32_t loc) override {
        if (loc >= valid_.size()) return bad();
        valid_[loc] = 0;
        return 0;
    }
    int hw_get(uint32_t loc, bool *valid, uint8_t *key, uint16_t *prio) override {
        if (loc >= valid_.size()) return bad();
        *valid = valid_[loc] != 0;
        *prio = prio_[loc];
        std::memcpy(key, &keys_[std::size_t{loc} * key_bytes_], key_bytes_);
        return 0;
    }
    int camindex(uint32_t, uint32_t, uint32_t) override { return 0; }
    int validate(uint32_t, bool *ok) override {
        *ok = true;
        return 0;
    }

    bool valid(uint32_t loc) const { return valid_[loc] != 0; }
    uint16_t prio(uint32_t loc) const { return prio_[loc]; }
    const uint8_t *key(uint32_t loc) const { return &keys_[std::size_t{loc} * key_bytes_]; }
    uint8_t *key(uint32_t loc) { return &keys_[std::size_t{loc} * key_bytes_]; }

private:
    static int bad() {
        errno = EINVAL;
        return -1;
    }

    uint32_t key_bytes_;
    std::vector<uint8_t> valid_;
    std::vector<uint16_t> prio_;
    std::vector<uint8_t> keys_;
};

}  // namespace orvex
