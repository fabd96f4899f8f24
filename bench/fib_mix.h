// fib_mix.h - prefix lengths of a realistic IPv4 FIB, used as entry priorities
// (longest prefix wins): /24 60%, /23 10%, /22 7%, /21 to /16 15% together, and
// the remaining 8% spread evenly over every other length from /0 to /32.
#pragma once

#include <array>
#include <cstdint>
#include <random>

namespace orvex_bench {

class FibMix {
public:
    FibMix() {
        std::array<double, 33> w{};
        w[24] = 60;
        w[23] = 10;
        w[22] = 7;
        for (int len = 16; len <= 21; ++len) w[len] = 15.0 / 6;
        int others = 0;
        for (int len = 0; len <= 32; ++len) others += w[len] == 0;
        for (auto &x : w)
            if (x == 0) x = 8.0 / others;
        dist_ = std::discrete_distribution<int>(w.begin(), w.end());
    }
    uint16_t operator()(std::mt19937_64 &rng) { return static_cast<uint16_t>(dist_(rng)); }

    // An 18-byte FIB key for a random prefix of that length: value then mask,
    // each one byte (0) and two big-endian words (the address, then 0).
    static void key(std::mt19937_64 &rng, uint16_t len, uint8_t out[18]) {
        const uint32_t mask = len == 0 ? 0 : ~uint32_t{0} << (32 - len);
        const uint32_t addr = static_cast<uint32_t>(rng()) & mask;
        for (int i = 0; i < 18; ++i) out[i] = 0;
        for (int i = 0; i < 4; ++i) {
            out[1 + i] = static_cast<uint8_t>(addr >> (24 - 8 * i));
            out[10 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
        }
    }

private:
    std::discrete_distribution<int> dist_;
};

}  // namespace orvex_bench
