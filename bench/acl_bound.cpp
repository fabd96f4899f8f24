// acl_bound - how far can any placement fill the ACLI table of
// tcamwrap_bench acli_fill/random before its first refused insert?
//
// The engine's inserts never move an entry. A key that overlaps every entry
// already in its bank fits only at one point: after all of those of higher
// priority and before all of those of lower priority, and only if that point
// is a free location. A layout has at most one such point per free location.
// The key's priority is one not offered yet, so even an engine that knew which
// priorities are still to come, and had put its free locations at the points
// holding most of them, takes the key with at most that share of them. The
// product of these shares over the keys offered before 95% fill bounds the
// chance of reaching 95% without a refused insert, whatever the placement.
//
// The workload is tcamwrap_bench's: acl_entries(distinct priorities), shuffled,
// entry i offered to the bank of spread_loc(i), that is bank i % 2.
//
// Usage: acl_bound [--size N] [--seed S] [--seeds K]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "workload.hpp"

namespace {

using tcamwrap::bench::Entry;

bool overlap(const Entry &a, const Entry &b)
{
    constexpr size_t half = TCAMWRAP_ACL_KEY_BYTES / 2;
    for (size_t i = 0; i < half; ++i)
        if (((a.key[i] ^ b.key[i]) & a.key[half + i] & b.key[half + i]) != 0)
            return false;
    return true;
}

// The largest share of the priorities not offered yet that `free_places`
// points between the bank's priorities can hold.
double best_share(std::vector<uint16_t> present, const std::vector<bool> &offered,
                  uint32_t free_places)
{
    std::sort(present.begin(), present.end());
    std::vector<uint32_t> unoffered_between;
    uint32_t total = 0;
    uint32_t lo = 0;
    for (size_t k = 0; k <= present.size(); ++k) {
        const uint32_t hi = k < present.size() ? present[k] : uint32_t(offered.size());
        uint32_t n = 0;
        for (uint32_t p = lo; p < hi; ++p)
            n += offered[p] ? 0 : 1;
        unoffered_between.push_back(n);
        total += n;
        lo = hi + 1;
    }
    std::sort(unoffered_between.begin(), unoffered_between.end(), std::greater<>());
    uint64_t best = 0;
    for (uint32_t k = 0; k < free_places && k < unoffered_between.size(); ++k)
        best += unoffered_between[k];
    return total == 0 ? 1.0 : double(best) / total;
}

struct Bound {
    double to_95 = 1.0; // chance of reaching 95% fill, at most
    int keys = 0;       // keys overlapping their whole bank, offered before 95%
};

Bound bound_for(uint32_t size, uint64_t seed)
{
    std::mt19937_64 rng(seed * 1000003u + 200); // tcamwrap_bench's rng_for(200 + random)
    std::vector<Entry> e =
        tcamwrap::bench::acl_entries(size, tcamwrap::bench::AclPriorities::distinct, 0.0, rng);
    std::shuffle(e.begin(), e.end(), rng);
    const uint32_t bank_size = size / 2;
    std::vector<bool> offered(size, false);
    Bound b;
    for (size_t i = 0; i < e.size(); ++i) {
        std::vector<uint16_t> present;
        bool all = true;
        for (size_t j = i % 2; j < i && all; j += 2) {
            present.push_back(e[j].prio);
            all = overlap(e[i], e[j]);
        }
        const double fill = double(present.size()) / bank_size;
        // Below half full a layout can hold a free place between every two entries.
        if (all && fill > 0.5 && fill < 0.95) {
            const double share = best_share(present, offered, bank_size - uint32_t(present.size()));
            std::printf("  seed %llu: offer %zu overlaps all %zu entries of bank %zu (fill %.3f): "
                        "fits with a chance of at most %.3f\n",
                        (unsigned long long)seed, i, present.size(), i % 2, fill, share);
            b.to_95 *= share;
            ++b.keys;
        }
        offered[e[i].prio] = true;
    }
    return b;
}

} // namespace

int main(int argc, char **argv)
{
    uint32_t size = 8192;
    uint64_t seed = 1;
    uint32_t seeds = 8;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        const unsigned long long v = std::strtoull(argv[i + 1], nullptr, 10);
        if (a == "--size" && v >= 2 && v <= 65536)
            size = uint32_t(v) & ~1u;
        else if (a == "--seed")
            seed = v;
        else if (a == "--seeds" && v >= 1)
            seeds = uint32_t(v);
        else {
            std::fprintf(stderr, "usage: acl_bound [--size N] [--seed S] [--seeds K]\n");
            return 2;
        }
    }
    if (argc % 2 == 0) {
        std::fprintf(stderr, "usage: acl_bound [--size N] [--seed S] [--seeds K]\n");
        return 2;
    }
    double sum = 0;
    for (uint32_t k = 0; k < seeds; ++k) {
        const Bound b = bound_for(size, seed + k);
        std::printf("seed %llu: %d keys overlap their whole bank between 50%% and 95%% fill; "
                    "chance of reaching 95%% at most %.3f\n",
                    (unsigned long long)(seed + k), b.keys, b.to_95);
        sum += b.to_95;
    }
    std::printf("mean over %u seeds: at most %.3f\n", seeds, sum / seeds);
    return 0;
}
