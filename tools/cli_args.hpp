// cli_args.hpp - command-line parsing of tcamwrap-sim: options, positional
// arguments, and the two error kinds that decide the exit code.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tcamwrap::cli
{

// Exit codes of every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1; // a check found differences, or an operation failed
inline constexpr int kExitUsage = 2;

// The command line was wrong: exit 2 after one line on stderr.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The command was right but could not be carried out: exit 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct OptionDef {
    std::string name; // without the leading "--"
    bool takes_value = false;
};

// Options every subcommand accepts.
const std::vector<OptionDef> &global_options();

class Args
{
  public:
    // Parses argv (without the program and subcommand words) against the
    // subcommand's own options plus the global ones. "--name value" and
    // "--name=value" are both accepted; "--" ends the options.
    static Args parse(const std::vector<std::string> &argv, const std::vector<OptionDef> &defs);

    const std::vector<std::string> &positional() const { return positional_; }
    bool has(std::string_view name) const;
    std::optional<std::string> value(std::string_view name) const;

    // Typed getters: UsageError with the option's name when the text is bad.
    std::optional<uint64_t> number(std::string_view name, uint64_t max) const;

  private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string, std::less<>> options_;
};

// Number parsing shared by positional arguments and options: decimal or 0x hex.
uint64_t parse_number(std::string_view text, uint64_t max, std::string_view what);

// Table names: fib, acli, aclo (or 3, 1, 2).
uint32_t parse_table(std::string_view text);
const char *table_name(uint32_t tbl_type);
// Instance: 0, 1 or "all" (254, every instance).
uint8_t parse_inst(std::string_view text);

} // namespace tcamwrap::cli
