// cli_args.cpp - command-line parsing of tcamwrap-sim.
#include "cli_args.hpp"

#include <algorithm>
#include <charconv>

#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

namespace
{

std::string join_choices(const std::vector<std::string> &choices)
{
    std::string out;
    for (std::size_t i = 0; i < choices.size(); ++i)
        out += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    return out;
}

std::string number_range(uint64_t min, uint64_t max)
{
    return "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
}

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

void check_value(const OptionDef &def, const std::string &value)
{
    switch (def.kind) {
    case ValueKind::Flag:
        return;
    case ValueKind::Text:
        if (value.empty())
            def.refuse(value);
        return;
    case ValueKind::Count:
    case ValueKind::Number:
        (void)parse_number(value, def.kind == ValueKind::Count ? 1 : 0, def.max, "--" + def.name);
        return;
    case ValueKind::Choice:
        if (std::find(def.choices.begin(), def.choices.end(), value) == def.choices.end())
            def.refuse(value);
        return;
    }
}

} // namespace

std::string OptionDef::accepted() const
{
    switch (kind) {
    case ValueKind::Flag:
        return "no value";
    case ValueKind::Text:
        return what;
    case ValueKind::Count:
        return number_range(1, max);
    case ValueKind::Number:
        return number_range(0, max);
    case ValueKind::Choice:
        return join_choices(choices);
    }
    return {};
}

void OptionDef::refuse(std::string_view value, std::string_view why) const
{
    throw Refused("--" + name + " '" + std::string(value) + "'" +
                  (why.empty() ? "" : ": " + std::string(why)) + ": give " + accepted());
}

OptionDef flag_option(std::string name)
{
    return {std::move(name), ValueKind::Flag, 0, {}, {}};
}
OptionDef text_option(std::string name, std::string what)
{
    return {std::move(name), ValueKind::Text, 0, {}, std::move(what)};
}
OptionDef count_option(std::string name, uint64_t max)
{
    return {std::move(name), ValueKind::Count, max, {}, {}};
}
OptionDef number_option(std::string name, uint64_t max)
{
    return {std::move(name), ValueKind::Number, max, {}, {}};
}
OptionDef choice_option(std::string name, std::vector<std::string> choices)
{
    return {std::move(name), ValueKind::Choice, 0, std::move(choices), {}};
}
OptionDef inst_option()
{
    return choice_option("inst", {"0", "1", "all"});
}

const std::vector<OptionDef> &global_options()
{
    static const std::vector<OptionDef> defs = {
        flag_option("help"),
        flag_option("version"),
        flag_option("json"),
        flag_option("timings"),
        flag_option("verbose"),
        number_option("debug", 7),
        text_option("state", "a directory"),
    };
    return defs;
}

Args Args::parse(const std::vector<std::string> &argv, const std::vector<OptionDef> &defs,
                 const std::vector<Exclusive> &exclusive)
{
    Args args;
    args.defs_ = defs;
    bool options_done = false;
    auto set = [&args](const OptionDef &def, std::string value) {
        if (args.has(def.name))
            throw Refused("--" + def.name + " is given twice: give it once (" + def.accepted() +
                          ")");
        check_value(def, value);
        args.options_[def.name] = std::move(value);
    };
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string &word = argv[i];
        if (options_done || word.size() < 3 || word.compare(0, 2, "--") != 0) {
            if (word == "--" && !options_done) {
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
        if (!def->takes_value()) {
            if (inline_value)
                throw UsageError("option --" + name + " takes no value");
            set(*def, "");
        } else if (inline_value) {
            set(*def, *inline_value);
        } else if (i + 1 < argv.size()) {
            set(*def, argv[++i]);
        } else {
            throw UsageError("option --" + name + " needs a value (" + def->accepted() + ")");
        }
    }
    for (const Exclusive &group : exclusive) {
        std::vector<std::string> all, given;
        for (const std::string &name : group) {
            all.push_back("--" + name);
            if (args.has(name))
                given.push_back(all.back());
        }
        if (given.size() > 1)
            throw Refused(given[0] + " and " + given[1] +
                          " exclude each other: give one of " + join_choices(all));
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

const OptionDef &Args::def(std::string_view name) const
{
    const OptionDef *d = find_option(defs_, name);
    if (d == nullptr)
        throw std::logic_error("no option --" + std::string(name));
    return *d;
}

std::optional<uint64_t> Args::number(std::string_view name) const
{
    auto text = value(name);
    if (!text)
        return std::nullopt;
    const OptionDef &d = def(name);
    return parse_number(*text, d.kind == ValueKind::Count ? 1 : 0, d.max, "--" + d.name);
}

uint64_t parse_number(std::string_view text, uint64_t min, uint64_t max, std::string_view what)
{
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    const bool number = !digits.empty() && end == digits.data() + digits.size() &&
                        (ec == std::errc() || ec == std::errc::result_out_of_range);
    if (!number || ec != std::errc() || value < min || value > max)
        throw Refused(std::string(what) + " '" + std::string(text) + "': give " +
                      number_range(min, max) + (number ? "" : " (decimal, or hex after 0x)"));
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
    throw Refused("TABLE '" + std::string(text) + "': give fib, acli or aclo");
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

uint8_t inst_of(const Args &args)
{
    const std::string text = args.value("inst").value_or("all");
    if (text == "all")
        return TCAMWRAP_ALL_INSTS;
    return static_cast<uint8_t>(parse_number(text, 0, TCAMWRAP_MAX_INSTS - 1, "--inst"));
}

} // namespace tcamwrap::cli
