// profile.cpp - parsing and printing of the card profile.
#include "profile.hpp"

#include <charconv>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace tcamwrap::sim {
namespace {

constexpr std::array<std::string_view, kNumTableTypes> kTableNames{"acli", "aclo", "fib"};

std::string_view trim(std::string_view s)
{
    constexpr std::string_view blanks = " \t\r";
    auto first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

bool parse_u32(std::string_view text, uint32_t &out)
{
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc{} && end == text.data() + text.size();
}

std::string parse_kind(std::string_view value, uint32_t &kind)
{
    if (value == "orvex")
        kind = SIM_KIND_ORVEX;
    else if (value == "tcam3")
        kind = SIM_KIND_TCAM3;
    else
        return "unknown TCAM kind '" + std::string(value) + "' (orvex or tcam3)";
    return {};
}

std::string parse_size(std::string_view value, uint32_t &size)
{
    uint32_t n = 0;
    if (!parse_u32(value, n) || n == 0 || n > SIM_MAX_ENTRIES)
        return "table size '" + std::string(value) + "' is not 1.." +
               std::to_string(SIM_MAX_ENTRIES);
    size = n;
    return {};
}

std::string apply_setting(std::string_view name, std::string_view value, Profile &p)
{
    if (name == "insts") {
        uint32_t n = 0;
        if (!parse_u32(value, n) || n < 1 || n > SIM_MAX_INSTS)
            return "insts '" + std::string(value) + "' is not 1 or 2";
        p.insts = n;
        return {};
    }
    for (uint32_t t = 0; t < kNumTableTypes; ++t) {
        if (name == kTableNames[t])
            return parse_size(value, p.size[t]);
        if (name.size() == kTableNames[t].size() + 5 && name.starts_with(kTableNames[t]) &&
            name.ends_with("_kind"))
            return parse_kind(value, p.kind[t]);
    }
    return "unknown setting '" + std::string(name) + "'";
}

bool is_regular_file(const char *path)
{
    struct stat st {};
    return ::stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

std::string parse_profile(std::string_view text, Profile &out)
{
    Profile p = out;
    while (!text.empty()) {
        auto end = text.find_first_of(",\n");
        std::string_view item = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (auto hash = item.find('#'); hash != std::string_view::npos)
            item = item.substr(0, hash);
        item = trim(item);
        if (item.empty())
            continue;
        auto eq = item.find('=');
        if (eq == std::string_view::npos)
            return "setting '" + std::string(item) + "' has no '='";
        if (auto err = apply_setting(trim(item.substr(0, eq)), trim(item.substr(eq + 1)), p);
            !err.empty())
            return err;
    }
    out = p;
    return {};
}

std::string format_profile(const Profile &p)
{
    std::ostringstream os;
    os << "insts=" << p.insts;
    for (uint32_t t = 0; t < kNumTableTypes; ++t)
        os << ',' << kTableNames[t] << '=' << p.size[t];
    for (uint32_t t = 0; t < kNumTableTypes; ++t)
        os << ',' << kTableNames[t] << "_kind=" << (p.kind[t] == SIM_KIND_ORVEX ? "orvex" : "tcam3");
    return os.str();
}

std::string profile_from_setting(const char *setting, Profile &out)
{
    out = Profile{};
    if (setting == nullptr || *setting == '\0')
        return {};
    if (!is_regular_file(setting))
        return parse_profile(setting, out);
    std::ifstream in(setting);
    if (!in.is_open())
        return std::string("cannot read profile file ") + setting;
    std::stringstream text;
    text << in.rdbuf();
    if (auto err = parse_profile(text.str(), out); !err.empty())
        return std::string(setting) + ": " + err;
    return {};
}

}  // namespace tcamwrap::sim
