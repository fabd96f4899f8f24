// routes.cpp - generated tables and the longest-prefix-match model.
#include "routes.hpp"

namespace tcamwrap::cli
{

const std::array<double, 33> &prefix_length_mix()
{
    // Shares in percent, rounded, of a public IPv4 table of recent years.
    static const std::array<double, 33> mix = {
        0,    0,    0,    0,    0,    0,    0,    0,     // /0 - /7
        0.02, 0.01, 0.03, 0.08, 0.25, 0.5,  0.9,  1.5,   // /8 - /15
        2.4,  1.4,  2.4,  4.0,  5.7,  5.3,  10.2, 9.5,   // /16 - /23
        55.5, 0.06, 0.04, 0.03, 0.03, 0.02, 0.01, 0.005, // /24 - /31
        0.03};                                           // /32
    return mix;
}

uint32_t random_next_hop(std::mt19937_64 &rng)
{
    return 0x0AFF0001u + static_cast<uint32_t>(rng() % 64);
}

Route random_route(std::mt19937_64 &rng, PrefixSet &taken)
{
    static std::discrete_distribution<int> pick_len(prefix_length_mix().begin(),
                                                    prefix_length_mix().end());
    std::uniform_int_distribution<uint32_t> pick_addr(0x01000000u, 0xDFFFFFFFu);
    for (;;) {
        const auto len = static_cast<uint8_t>(pick_len(rng));
        // Short lengths have few networks; give up on a length after a few
        // collisions and draw another one.
        for (int attempt = 0; attempt < 16; ++attempt) {
            const uint32_t net = pick_addr(rng) & prefix_mask(len);
            if (net == 0 || !taken.insert(net, len))
                continue;
            return Route{net, len, random_next_hop(rng)};
        }
    }
}

std::vector<Route> generate_routes(uint32_t count, std::mt19937_64 &rng, PrefixSet &taken)
{
    std::vector<Route> routes;
    routes.reserve(count);
    if (count > 0 && taken.insert(0, 0))
        routes.push_back(Route{0, 0, random_next_hop(rng)});
    while (routes.size() < count)
        routes.push_back(random_route(rng, taken));
    return routes;
}

AclRule random_acl_rule(bool ingress, std::mt19937_64 &rng)
{
    static const uint8_t protos[] = {0, 6, 17, 1, 6, 17};
    static const uint16_t ports[] = {22, 53, 80, 123, 179, 443, 8080};
    static const uint8_t src_lens[] = {0, 8, 16, 24, 32};
    AclRule r;
    r.proto = protos[rng() % std::size(protos)];
    r.src_len = src_lens[rng() % std::size(src_lens)];
    r.dst_len = src_lens[rng() % std::size(src_lens)];
    r.src = static_cast<uint32_t>(rng()) & prefix_mask(r.src_len);
    r.dst = static_cast<uint32_t>(rng()) & prefix_mask(r.dst_len);
    if (r.proto == 6 || r.proto == 17) {
        r.any_dport = rng() % 4 == 0;
        r.dport = r.any_dport ? 0 : ports[rng() % std::size(ports)];
        r.any_sport = rng() % 4 != 0;
        r.sport = r.any_sport ? 0 : static_cast<uint16_t>(1024 + rng() % 1024);
    }
    r.prio = static_cast<uint16_t>(100 + 10 * (rng() % 8));
    r.acl_prio = ingress ? static_cast<uint8_t>(rng() % 4 == 0 ? 0 : 1) : 1;
    r.action = static_cast<uint8_t>(1 + rng() % 3);
    r.flow_id = static_cast<uint32_t>(rng() % 1000000);
    return r;
}

std::vector<AclRule> generate_acl(uint32_t count, bool ingress, std::mt19937_64 &rng)
{
    std::vector<AclRule> rules;
    rules.reserve(count);
    for (uint32_t i = 0; i < count; ++i)
        rules.push_back(random_acl_rule(ingress, rng));
    return rules;
}

std::optional<uint32_t> LpmTable::lookup(uint32_t addr) const
{
    for (int len = 32; len >= 0; --len) {
        const auto &level = by_len_[static_cast<std::size_t>(len)];
        if (level.empty())
            continue;
        auto it = level.find(addr & prefix_mask(static_cast<uint8_t>(len)));
        if (it != level.end())
            return it->second;
    }
    return std::nullopt;
}

uint32_t spread_loc(uint64_t i, uint32_t table_size, uint32_t start)
{
    const uint32_t half = table_size / 2;
    return (i % 2 == 0 ? 0u : half) + start + static_cast<uint32_t>(i / 2);
}

uint64_t spread_capacity(uint32_t table_size, uint32_t start)
{
    const uint32_t half = table_size / 2;
    return start >= half ? 0 : uint64_t{half - start} * 2;
}

} // namespace tcamwrap::cli
