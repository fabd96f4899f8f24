// profile.hpp - the card profile: instances, table sizes and TCAM kinds.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "sim_hw.h"

namespace tcamwrap::sim {

inline constexpr uint32_t kNumTableTypes = 3;  // tbl_type 1 ACLI, 2 ACLO, 3 FIB

struct Profile {
    uint32_t insts = 2;
    std::array<uint32_t, kNumTableTypes> size{8192, 8192, 131072};   // by tbl_type - 1
    std::array<uint32_t, kNumTableTypes> kind{SIM_KIND_ORVEX, SIM_KIND_ORVEX, SIM_KIND_ORVEX};

    bool operator==(const Profile &) const = default;
};

// Index of a valid table type (1..3) into the per-type arrays; -1 otherwise.
inline int table_index(uint32_t tbl_type)
{
    return tbl_type - 1u < kNumTableTypes ? static_cast<int>(tbl_type - 1u) : -1;
}

// Applies the settings of text to out (settings not named keep their value).
// Returns an empty string, or a one-line description of the first error.
std::string parse_profile(std::string_view text, Profile &out);

// The profile as text that parse_profile reads back to the same profile.
std::string format_profile(const Profile &p);

// The profile a new card gets: the defaults, overridden by the setting (a file
// name, or profile text when no such file exists). Empty string or error text.
std::string profile_from_setting(const char *setting, Profile &out);

}  // namespace tcamwrap::sim
