// workload.cpp - generated FIB and ACL entries (see workload.hpp).
#include "workload.hpp"

#include <algorithm>
#include <iterator>

#include "keys.hpp"
#include "routes.hpp"

namespace tcamwrap::bench
{
namespace
{

struct PortRange {
    uint16_t lo, hi;
};

// Ranges seen in real rule sets: any, single services, ephemeral and
// registered ranges, small service blocks.
constexpr PortRange kPortRanges[] = {
    {0, 65535},    {0, 65535},   {80, 80},     {443, 443},   {53, 53},
    {22, 22},      {1024, 65535}, {49152, 65535}, {8000, 8999}, {6000, 6063},
    {20, 21},      {5060, 5061}, {33434, 33534}, {137, 139},  {3000, 3999},
};

// Sites the rules speak about: a few /16s; rules take the site, a /24 or a host
// inside it, or the whole /8, so their address ranges nest and overlap.
constexpr uint32_t kSites[] = {0x0A010000u, 0x0A020000u, 0x0A140000u, 0xAC100000u,
                               0xC0A80000u, 0xC6336400u, 0x64400000u, 0x0A0A0000u};
constexpr uint8_t kAddrLens[] = {0, 8, 16, 16, 24, 24, 24, 28, 32, 32};

uint32_t rule_address(std::mt19937_64 &rng, uint8_t *len)
{
    *len = kAddrLens[rng() % std::size(kAddrLens)];
    const uint32_t site = kSites[rng() % std::size(kSites)];
    const uint32_t inside = static_cast<uint32_t>(rng()) & 0xFFFFu;
    return (site | inside) & cli::prefix_mask(*len);
}

std::pair<uint16_t, uint16_t> rule_port(std::mt19937_64 &rng)
{
    const PortRange r = kPortRanges[rng() % std::size(kPortRanges)];
    const auto prefixes = port_prefixes(r.lo, r.hi);
    return prefixes[rng() % prefixes.size()];
}

void put_be32(uint8_t *out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// The ACL key of tools/keys.hpp with ternary port fields: group 1 of the value
// and of the mask holds the word source port << 16 | destination port at byte 1.
cli::AclKey acl_key_with_ports(const cli::AclRule &rule, std::pair<uint16_t, uint16_t> sport,
                               std::pair<uint16_t, uint16_t> dport)
{
    cli::AclKey key = cli::acl_key(rule);
    constexpr std::size_t kPortWord = 9 + 1;
    constexpr std::size_t kMaskHalf = TCAMWRAP_ACL_KEY_BYTES / 2;
    put_be32(key.data() + kPortWord, uint32_t{sport.first} << 16 | dport.first);
    put_be32(key.data() + kMaskHalf + kPortWord, uint32_t{sport.second} << 16 | dport.second);
    return key;
}

} // namespace

std::vector<std::pair<uint16_t, uint16_t>> port_prefixes(uint16_t lo, uint16_t hi)
{
    std::vector<std::pair<uint16_t, uint16_t>> out;
    uint32_t at = lo;
    while (at <= hi) {
        // The largest aligned block that starts at `at` and stays inside the range.
        uint32_t size = 1;
        while ((at & (size * 2 - 1)) == 0 && at + size * 2 - 1 <= hi && size < 65536)
            size *= 2;
        out.emplace_back(static_cast<uint16_t>(at), static_cast<uint16_t>(~(size - 1)));
        at += size;
    }
    return out;
}

std::vector<Entry> fib_entries(uint32_t count, std::mt19937_64 &rng)
{
    cli::PrefixSet taken;
    const auto routes = cli::generate_routes(count, rng, taken);
    std::vector<Entry> out(routes.size());
    for (std::size_t i = 0; i < routes.size(); ++i) {
        const auto key = cli::fib_key(routes[i].net, routes[i].len);
        std::copy(key.begin(), key.end(), out[i].key.begin());
        out[i].prio = cli::fib_priority(routes[i].len);
        out[i].result = cli::next_hop_result(routes[i].next_hop);
    }
    return out;
}

std::vector<Entry> acl_entries(uint32_t count, AclPriorities prios, double flow_share,
                               std::mt19937_64 &rng)
{
    static constexpr uint8_t kProtos[] = {0, 6, 17, 6, 17, 1};
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Entry> out(count);
    for (uint32_t i = 0; i < count; ++i) {
        cli::AclRule rule;
        rule.proto = kProtos[rng() % std::size(kProtos)];
        rule.src = rule_address(rng, &rule.src_len);
        rule.dst = rule_address(rng, &rule.dst_len);
        rule.action = static_cast<uint8_t>(1 + rng() % 3);
        rule.flow_id = static_cast<uint32_t>(rng() % 1000000);
        std::pair<uint16_t, uint16_t> sport{0, 0}, dport{0, 0};
        if (rule.proto == 6 || rule.proto == 17) {
            sport = rule_port(rng);
            dport = rule_port(rng);
        }
        Entry &e = out[i];
        const auto key = acl_key_with_ports(rule, sport, dport);
        std::copy(key.begin(), key.end(), e.key.begin());
        e.prio = prios == AclPriorities::distinct ? static_cast<uint16_t>(i)
                                                  : static_cast<uint16_t>(100 + 10 * (rng() % 8));
        e.result = cli::acl_result(rule);
        e.acl_prio = unit(rng) < flow_share ? 0 : 1;
    }
    return out;
}

std::vector<Entry> table_entries(uint32_t tbl_type, uint32_t count, std::mt19937_64 &rng)
{
    if (tbl_type == TCAMWRAP_TBL_FIB)
        return fib_entries(count, rng);
    const double flow_share = tbl_type == TCAMWRAP_TBL_ACLI ? 0.25 : 0.0;
    return acl_entries(count, AclPriorities::levels8, flow_share, rng);
}

} // namespace tcamwrap::bench
