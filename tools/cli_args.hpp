// cli_args.hpp - command-line parsing of tcamwrap-sim: options and their
// accepted values, positional arguments, and the error kinds that decide the
// exit status.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tcamwrap::cli
{

// Exit statuses of every command (the help and the man page list them).
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1; // refused, failed, or a check found differences
inline constexpr int kExitUsage = 2;  // the command line cannot be understood

// The command line cannot be understood (unknown command or option, a missing
// or extra argument): exit 2 after one line on stderr.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The command could not be carried out: exit 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A well-formed request that is refused before anything is done (a value out
// of range, options that conflict, a card that is missing or held): exit 1.
struct Refused : Failure {
    using Failure::Failure;
};

// What an option's value may be. Args::parse checks every value against it, so
// a command sees only accepted values.
enum class ValueKind {
    Flag,   // no value
    Text,   // any non-empty text; the command checks it
    Count,  // a whole number from 1 to max
    Number, // a whole number from 0 to max
    Choice, // one of choices
};

struct OptionDef {
    std::string name; // without the leading "--"
    ValueKind kind = ValueKind::Flag;
    uint64_t max = UINT64_MAX;        // Count, Number
    std::vector<std::string> choices; // Choice
    std::string what;                 // Text: what the value is, for messages

    bool takes_value() const { return kind != ValueKind::Flag; }
    // The accepted values in words: "a whole number from 1 to 262144".
    std::string accepted() const;
    // Refused naming the option, the value and the accepted values.
    [[noreturn]] void refuse(std::string_view value, std::string_view why = {}) const;
};

OptionDef flag_option(std::string name);
OptionDef text_option(std::string name, std::string what);
OptionDef count_option(std::string name, uint64_t max);
OptionDef number_option(std::string name, uint64_t max);
OptionDef choice_option(std::string name, std::vector<std::string> choices);
// --inst: 0, 1 or all (default all for every command).
OptionDef inst_option();

// Options every command accepts.
const std::vector<OptionDef> &global_options();

// Options of which at most one may be given.
using Exclusive = std::vector<std::string>;

class Args
{
  public:
    // Parses argv (without the program and command words) against the
    // command's own options plus the global ones. "--name value" and
    // "--name=value" are both accepted; "--" ends the options. Every value is
    // checked; an option given twice, or two of one exclusive group, is refused.
    static Args parse(const std::vector<std::string> &argv, const std::vector<OptionDef> &defs,
                      const std::vector<Exclusive> &exclusive = {});

    const std::vector<std::string> &positional() const { return positional_; }
    bool has(std::string_view name) const;
    std::optional<std::string> value(std::string_view name) const;
    // The value of a Count or Number option (checked by parse).
    std::optional<uint64_t> number(std::string_view name) const;
    // The definition of an option of this command.
    const OptionDef &def(std::string_view name) const;

  private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string, std::less<>> options_;
    std::vector<OptionDef> defs_;
};

// Number parsing shared by positional arguments and options: decimal or 0x hex;
// Refused naming what when the text is not a number from min to max.
uint64_t parse_number(std::string_view text, uint64_t min, uint64_t max, std::string_view what);

// Table names: fib, acli, aclo (or 3, 1, 2).
uint32_t parse_table(std::string_view text);
const char *table_name(uint32_t tbl_type);
// --inst: 0, 1 or "all" (254, every instance); all when not given.
uint8_t inst_of(const class Args &args);

} // namespace tcamwrap::cli
