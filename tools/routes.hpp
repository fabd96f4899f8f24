// routes.hpp - generated tables (a FIB with the prefix-length mix of a public
// IPv4 routing table, ACL rules), the longest-prefix-match model that checks the
// hardware's lookups, and how bulk loads spread entries over the two banks.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "keys.hpp"

namespace tcamwrap::cli
{

// Relative share of each prefix length 0..32 in a public IPv4 table (about 55%
// /24, then /22, /23, /20, /21, /19 ...).
const std::array<double, 33> &prefix_length_mix();

// The (network, length) pairs in use, so that generated routes are unique.
class PrefixSet
{
  public:
    bool insert(uint32_t net, uint8_t len) { return set_.insert(id(net, len)).second; }
    bool contains(uint32_t net, uint8_t len) const { return set_.count(id(net, len)) != 0; }
    void erase(uint32_t net, uint8_t len) { set_.erase(id(net, len)); }

  private:
    static uint64_t id(uint32_t net, uint8_t len) { return uint64_t{len} << 32 | net; }
    std::unordered_set<uint64_t> set_;
};

// A next hop of the generated tables: one of 64 addresses 10.255.0.1 ...
uint32_t random_next_hop(std::mt19937_64 &rng);

// One new route of the mix, unique against taken (which receives it), with a
// random next hop. Networks are drawn from 1.0.0.0 - 223.255.255.255.
Route random_route(std::mt19937_64 &rng, PrefixSet &taken);

// count routes: the default route 0.0.0.0/0 first, then random_route().
std::vector<Route> generate_routes(uint32_t count, std::mt19937_64 &rng, PrefixSet &taken);

// count ACL rules with priorities from 8 levels (rule classes); about a quarter
// of the ingress rules get ACL-priority byte 0 (result in the flow-result memory),
// the others and every egress rule 1.
std::vector<AclRule> generate_acl(uint32_t count, bool ingress, std::mt19937_64 &rng);
AclRule random_acl_rule(bool ingress, std::mt19937_64 &rng);

// Longest-prefix match over a set of routes, each carrying a value.
class LpmTable
{
  public:
    void add(uint32_t net, uint8_t len, uint32_t value) { by_len_[len][net] = value; }
    void erase(uint32_t net, uint8_t len) { by_len_[len].erase(net); }
    // The value of the longest route that covers addr.
    std::optional<uint32_t> lookup(uint32_t addr) const;

  private:
    std::array<std::unordered_map<uint32_t, uint32_t>, 33> by_len_;
};

// Location of the i-th entry of a bulk load: even entries fill the lower half
// of the table (bank 0) from start on, odd ones the upper half (bank 1), so a
// load keeps both banks of the search engine equally full.
uint32_t spread_loc(uint64_t i, uint32_t table_size, uint32_t start);
// Entries a bulk load from start can place (both halves together).
uint64_t spread_capacity(uint32_t table_size, uint32_t start);

} // namespace tcamwrap::cli
