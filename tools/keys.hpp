// keys.hpp - how tcamwrap-sim lays out its table entries in the library's key
// and result formats.
//
// FIB key (18 bytes: value then mask, each one byte and two big-endian words):
//   value byte 0      address family, 0x04 = IPv4     mask 0xff (exact)
//   value bytes 1..4  VRF, always 0                   mask 0xffffffff (exact)
//   value bytes 5..8  the IPv4 network, big-endian    mask = the prefix mask
// Priority = prefix length, so the hardware's highest-priority match is the
// longest-prefix match. A lookup searches {0x04, 0, address}.
//
// ACL key (36 bytes: value then mask, each two 72-bit groups):
//   group 0: byte protocol, word source address, word destination address
//   group 1: byte 0 (flags), word source port << 16 | destination port, word 0
// A wildcard field has mask 0; addresses carry prefix masks.
//
// Result words (5 bytes): FIB {0x01, next hop IPv4 big-endian}; ACL {action,
// flow id big-endian} with action 1 permit, 2 deny, 3 redirect.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

using FibKey = std::array<uint8_t, TCAMWRAP_FIB_KEY_BYTES>;
using AclKey = std::array<uint8_t, TCAMWRAP_ACL_KEY_BYTES>;
using ResultWord = std::array<uint8_t, TCAMWRAP_RESULT_BYTES>;
using FibSearch = std::array<uint8_t, TCAMWRAP_FIB_KEY_BYTES / 2>;

inline constexpr uint8_t kFamilyIpv4 = 0x04;
inline constexpr uint8_t kResultNextHop = 0x01;

struct Route {
    uint32_t net = 0;      // host order, host bits zero
    uint8_t len = 0;       // 0..32
    uint32_t next_hop = 0; // host order
    bool operator==(const Route &) const = default;
};

uint32_t prefix_mask(uint8_t len);
std::optional<uint32_t> parse_ipv4(std::string_view text);
std::string ipv4_text(uint32_t addr);
std::string route_text(uint32_t net, uint8_t len);

// "a.b.c.d/len next-hop" (host bits of the prefix must be zero); '#' starts a
// comment. nullopt with *error set for a bad line; nullopt with *error empty for
// a blank or comment line.
std::optional<Route> parse_route_line(std::string_view line, std::string *error);
// "a.b.c.d/len" alone.
std::optional<Route> parse_prefix(std::string_view text, std::string *error);

FibKey fib_key(uint32_t net, uint8_t len);
FibSearch fib_search(uint32_t addr);
// The route a key of the layout above stands for; nullopt for another layout.
std::optional<Route> fib_key_route(const uint8_t *key);
inline uint16_t fib_priority(uint8_t len)
{
    return len;
}

ResultWord next_hop_result(uint32_t next_hop);
std::optional<uint32_t> result_next_hop(const uint8_t *word);

struct AclRule {
    uint8_t proto = 0; // 0 = any
    uint32_t src = 0, dst = 0;
    uint8_t src_len = 0, dst_len = 0;
    uint16_t sport = 0, dport = 0;
    bool any_sport = true, any_dport = true;
    uint16_t prio = 0;    // entry priority
    uint8_t acl_prio = 1; // ACLI: 0 = result in the flow-result memory
    uint8_t action = 1;
    uint32_t flow_id = 0;
};

AclKey acl_key(const AclRule &rule);
ResultWord acl_result(const AclRule &rule);

// One-line description of any key of a table, for reads and dumps.
std::string describe_key(uint32_t tbl_type, const uint8_t *key);
std::string describe_result(uint32_t tbl_type, const uint8_t *word);

} // namespace tcamwrap::cli
