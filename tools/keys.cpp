// keys.cpp - entry layouts of tcamwrap-sim (see keys.hpp).
#include "keys.hpp"

#include <charconv>
#include <cstdio>

#include "output.hpp"

namespace tcamwrap::cli
{

namespace
{

void put_be32(uint8_t *out, uint32_t v)
{
    out[0] = static_cast<uint8_t>(v >> 24);
    out[1] = static_cast<uint8_t>(v >> 16);
    out[2] = static_cast<uint8_t>(v >> 8);
    out[3] = static_cast<uint8_t>(v);
}

uint32_t get_be32(const uint8_t *in)
{
    return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
}

// One 72-bit group: a byte and two big-endian words.
void put_group(uint8_t *out, uint8_t top, uint32_t w1, uint32_t w2)
{
    out[0] = top;
    put_be32(out + 1, w1);
    put_be32(out + 5, w2);
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

} // namespace

uint32_t prefix_mask(uint8_t len)
{
    return len == 0 ? 0u : len >= 32 ? 0xFFFFFFFFu : ~0u << (32 - len);
}

std::optional<uint32_t> parse_ipv4(std::string_view text)
{
    uint32_t addr = 0;
    for (int part = 0; part < 4; ++part) {
        if (part != 0) {
            if (text.empty() || text.front() != '.')
                return std::nullopt;
            text.remove_prefix(1);
        }
        unsigned octet = 0;
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), octet);
        if (ec != std::errc() || end == text.data() || octet > 255 || end - text.data() > 3)
            return std::nullopt;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        addr = addr << 8 | octet;
    }
    if (!text.empty())
        return std::nullopt;
    return addr;
}

std::string ipv4_text(uint32_t addr)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", addr >> 24, (addr >> 16) & 255, (addr >> 8) & 255,
                  addr & 255);
    return buf;
}

std::string route_text(uint32_t net, uint8_t len)
{
    return ipv4_text(net) + "/" + std::to_string(len);
}

std::optional<Route> parse_prefix(std::string_view text, std::string *error)
{
    const auto slash = text.find('/');
    if (slash == std::string_view::npos) {
        *error = "'" + std::string(text) + "' is not a prefix (a.b.c.d/len)";
        return std::nullopt;
    }
    auto net = parse_ipv4(text.substr(0, slash));
    unsigned len = 0;
    std::string_view len_text = text.substr(slash + 1);
    auto [end, ec] = std::from_chars(len_text.data(), len_text.data() + len_text.size(), len);
    if (!net || ec != std::errc() || end != len_text.data() + len_text.size() || len > 32) {
        *error = "'" + std::string(text) + "' is not a prefix (a.b.c.d/len)";
        return std::nullopt;
    }
    const auto l = static_cast<uint8_t>(len);
    if ((*net & ~prefix_mask(l)) != 0) {
        *error = "'" + std::string(text) + "' has host bits set (network is " +
                 route_text(*net & prefix_mask(l), l) + ")";
        return std::nullopt;
    }
    Route r;
    r.net = *net;
    r.len = l;
    return r;
}

std::optional<Route> parse_route_line(std::string_view line, std::string *error)
{
    error->clear();
    if (auto hash = line.find('#'); hash != std::string_view::npos)
        line = line.substr(0, hash);
    line = trim(line);
    if (line.empty())
        return std::nullopt;
    auto space = line.find_first_of(" \t");
    if (space == std::string_view::npos) {
        *error = "missing next hop after '" + std::string(line) + "'";
        return std::nullopt;
    }
    auto route = parse_prefix(line.substr(0, space), error);
    if (!route)
        return std::nullopt;
    std::string_view nh_text = trim(line.substr(space));
    auto nh = parse_ipv4(nh_text);
    if (!nh) {
        *error = "'" + std::string(nh_text) + "' is not a next-hop address";
        return std::nullopt;
    }
    route->next_hop = *nh;
    return route;
}

FibKey fib_key(uint32_t net, uint8_t len)
{
    FibKey key{};
    put_group(key.data(), kFamilyIpv4, 0, net & prefix_mask(len));
    put_group(key.data() + 9, 0xFF, 0xFFFFFFFFu, prefix_mask(len));
    return key;
}

FibSearch fib_search(uint32_t addr)
{
    FibSearch s{};
    put_group(s.data(), kFamilyIpv4, 0, addr);
    return s;
}

std::optional<Route> fib_key_route(const uint8_t *key)
{
    const uint8_t *mask = key + 9;
    if (key[0] != kFamilyIpv4 || get_be32(key + 1) != 0 || mask[0] != 0xFF ||
        get_be32(mask + 1) != 0xFFFFFFFFu)
        return std::nullopt;
    const uint32_t m = get_be32(mask + 5);
    // A prefix mask is a run of ones from the top.
    uint8_t len = 0;
    while (len < 32 && (m & (0x80000000u >> len)) != 0)
        ++len;
    if (prefix_mask(len) != m)
        return std::nullopt;
    Route r;
    r.net = get_be32(key + 5) & m;
    r.len = len;
    return r;
}

ResultWord next_hop_result(uint32_t next_hop)
{
    ResultWord w{};
    w[0] = kResultNextHop;
    put_be32(w.data() + 1, next_hop);
    return w;
}

std::optional<uint32_t> result_next_hop(const uint8_t *word)
{
    if (word[0] != kResultNextHop)
        return std::nullopt;
    return get_be32(word + 1);
}

AclKey acl_key(const AclRule &rule)
{
    AclKey key{};
    uint8_t *value = key.data();
    uint8_t *mask = key.data() + TCAMWRAP_ACL_KEY_BYTES / 2;
    const uint32_t src_mask = prefix_mask(rule.src_len);
    const uint32_t dst_mask = prefix_mask(rule.dst_len);
    const uint32_t ports = uint32_t{rule.sport} << 16 | rule.dport;
    const uint32_t port_mask =
        (rule.any_sport ? 0u : 0xFFFF0000u) | (rule.any_dport ? 0u : 0xFFFFu);
    put_group(value, rule.proto, rule.src & src_mask, rule.dst & dst_mask);
    put_group(value + 9, 0, ports & port_mask, 0);
    put_group(mask, rule.proto == 0 ? 0 : 0xFF, src_mask, dst_mask);
    put_group(mask + 9, 0, port_mask, 0);
    return key;
}

ResultWord acl_result(const AclRule &rule)
{
    ResultWord w{};
    w[0] = rule.action;
    put_be32(w.data() + 1, rule.flow_id);
    return w;
}

std::string describe_key(uint32_t tbl_type, const uint8_t *key)
{
    if (tbl_type == TCAMWRAP_TBL_FIB) {
        if (auto r = fib_key_route(key))
            return route_text(r->net, r->len);
        return "value " + hex(key, 9) + " mask " + hex(key + 9, 9);
    }
    return "value " + hex(key, 18) + " mask " + hex(key + 18, 18);
}

std::string describe_result(uint32_t tbl_type, const uint8_t *word)
{
    if (tbl_type == TCAMWRAP_TBL_FIB) {
        if (auto nh = result_next_hop(word))
            return "next hop " + ipv4_text(*nh);
    } else if (word[0] >= 1 && word[0] <= 3) {
        static const char *actions[] = {"", "permit", "deny", "redirect"};
        return std::string(actions[word[0]]) + " flow " + std::to_string(get_be32(word + 1));
    }
    return hex(word, TCAMWRAP_RESULT_BYTES);
}

} // namespace tcamwrap::cli
