// workload.hpp - the entries the library benchmark programs: a FIB with the
// prefix-length mix of a public IPv4 table (tools/routes.hpp), and ACL rules whose
// address and port ranges become ternary prefixes, as an ACL compiler lays them
// into a TCAM. Key layouts are those of tools/keys.hpp.
#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "tcamwrap_api.h"

namespace tcamwrap::bench
{

// One TCAM entry as a client hands it to tcamwrap_fwd_tcam_ssram_write.
struct Entry {
    std::array<uint8_t, TCAMWRAP_ACL_KEY_BYTES> key{}; // FIB keys use the first 18 bytes
    uint16_t prio = 0;
    std::array<uint8_t, TCAMWRAP_RESULT_BYTES> result{};
    uint8_t acl_prio = 1; // ACLI: 0 = result in the flow-result memory
};

// How ACL entries get their priorities.
enum class AclPriorities {
    levels8,  // 8 rule classes, as tcamwrap-sim's generated ACLs
    distinct, // entry i gets priority i (the caller orders them)
};

// count unique FIB routes (priority = prefix length).
std::vector<Entry> fib_entries(uint32_t count, std::mt19937_64 &rng);

// count ACL entries. Addresses come from a few sites, so rules overlap (a /16 and
// the /24s inside it); port ranges are split into prefixes and each entry takes
// one of them. flow_share: the part of the entries whose result goes to the
// flow-result memory (ACLI only; 0 for ACLO).
std::vector<Entry> acl_entries(uint32_t count, AclPriorities prios, double flow_share,
                               std::mt19937_64 &rng);

// Entries for a table type (FIB routes, or 8-level ACL rules; a quarter of the
// ingress rules keep their result in the flow-result memory).
std::vector<Entry> table_entries(uint32_t tbl_type, uint32_t count, std::mt19937_64 &rng);

// Bytes of one key of a table type.
inline uint32_t key_bytes(uint32_t tbl_type)
{
    return tbl_type == TCAMWRAP_TBL_FIB ? TCAMWRAP_FIB_KEY_BYTES : TCAMWRAP_ACL_KEY_BYTES;
}

// The prefixes (value, mask) that together cover the ports lo..hi.
std::vector<std::pair<uint16_t, uint16_t>> port_prefixes(uint16_t lo, uint16_t hi);

} // namespace tcamwrap::bench
