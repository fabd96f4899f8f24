// cli_args.cpp - command-line parsing of tcamwrap-sim.
#include "cli_args.hpp"

#include <algorithm>
#include <charconv>

#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

const std::vector<OptionDef> &global_options()
{
    static const std::vector<OptionDef> defs = {
        {"help", false}, {"json", false}, {"verbose", false}, {"debug", true}, {"state", true}};
    return defs;
}

namespace
{

const OptionDef *find_option(const std::vector<OptionDef> &defs, std::string_view name)
{
    for (const auto *list : {&defs, &global_options()}) {
        auto it = std::find_if(list->begin(), list->end(),
                               [&](const OptionDef &s) { return s.name == name; });
        if (it != list->end())
            return &*it;
    }
    return nullptr;
}

} // namespace

Args Args::parse(const std::vector<std::string> &argv, const std::vector<OptionDef> &defs)
{
    Args args;
    bool options_done = false;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string &word = argv[i];
        if (options_done || word.size() < 3 || word.compare(0, 2, "--") != 0) {
            if (word == "--") {
                options_done = true;
                continue;
            }
            if (!options_done && word == "-h") {
                args.options_["help"] = "";
                continue;
            }
            args.positional_.push_back(word);
            continue;
        }
        std::string name = word.substr(2);
        std::optional<std::string> inline_value;
        if (auto eq = name.find('='); eq != std::string::npos) {
            inline_value = name.substr(eq + 1);
            name.resize(eq);
        }
        const OptionDef *def = find_option(defs, name);
        if (def == nullptr)
            throw UsageError("unknown option --" + name);
        if (!def->takes_value) {
            if (inline_value)
                throw UsageError("option --" + name + " takes no value");
            args.options_[name] = "";
            continue;
        }
        if (inline_value) {
            args.options_[name] = *inline_value;
        } else if (i + 1 < argv.size()) {
            args.options_[name] = argv[++i];
        } else {
            throw UsageError("option --" + name + " needs a value");
        }
    }
    return args;
}

bool Args::has(std::string_view name) const
{
    return options_.find(name) != options_.end();
}

std::optional<std::string> Args::value(std::string_view name) const
{
    auto it = options_.find(name);
    if (it == options_.end())
        return std::nullopt;
    return it->second;
}

std::optional<uint64_t> Args::number(std::string_view name, uint64_t max) const
{
    auto text = value(name);
    if (!text)
        return std::nullopt;
    return parse_number(*text, max, "--" + std::string(name));
}

uint64_t parse_number(std::string_view text, uint64_t max, std::string_view what)
{
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size())
        throw UsageError(std::string(what) + ": '" + std::string(text) + "' is not a number");
    if (value > max)
        throw UsageError(std::string(what) + ": " + std::string(text) + " is above " +
                         std::to_string(max));
    return value;
}

uint32_t parse_table(std::string_view text)
{
    if (text == "fib" || text == "FIB" || text == "3")
        return TCAMWRAP_TBL_FIB;
    if (text == "acli" || text == "ACLI" || text == "1")
        return TCAMWRAP_TBL_ACLI;
    if (text == "aclo" || text == "ACLO" || text == "2")
        return TCAMWRAP_TBL_ACLO;
    throw UsageError("unknown table '" + std::string(text) + "' (fib, acli or aclo)");
}

const char *table_name(uint32_t tbl_type)
{
    switch (tbl_type) {
    case TCAMWRAP_TBL_ACLI:
        return "acli";
    case TCAMWRAP_TBL_ACLO:
        return "aclo";
    case TCAMWRAP_TBL_FIB:
        return "fib";
    default:
        return "?";
    }
}

uint8_t parse_inst(std::string_view text)
{
    if (text == "all")
        return TCAMWRAP_ALL_INSTS;
    return static_cast<uint8_t>(parse_number(text, TCAMWRAP_MAX_INSTS - 1, "instance"));
}

} // namespace tcamwrap::cli
