// commands.hpp - the subcommands of tcamwrap-sim and what they share.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cli_args.hpp"
#include "client.hpp"
#include "keys.hpp"
#include "output.hpp"

namespace tcamwrap::cli
{

// What a command needs of the state directory; main checks it before the
// command runs, so a mistyped --state never makes a new card.
enum class CardUse {
    Existing, // a card must be there; this process becomes its client
    Own,      // the command checks for itself ('card': create makes one)
    Fresh,    // the command makes its own card and its clients ('demo')
};

struct Command {
    const char *name;
    const char *summary; // one line for the command list
    const char *help;    // full help: usage first, examples last
    std::vector<OptionDef> options;
    std::vector<Exclusive> exclusive; // options of which at most one may be given
    CardUse card = CardUse::Existing;
    std::function<int(const Args &)> run;
};

const std::vector<Command> &commands();
const Command *find_command(const std::string &name);

// What --crash accepts, in words (demo).
std::string crash_points_accepted();

// Starts the library with the global options (--debug, --verbose) of args.
StartReport start_client(const Args &args);
// One line about the start for people ("restart with restore: ...").
std::string start_summary(const StartReport &report);
Json start_json(const StartReport &report);

// Card facts, after the card is open.
uint32_t table_size(uint32_t tbl_type);
bool is_orvex(uint32_t tbl_type);
// The instances a request covers: all of them for 254; checks the number.
std::vector<uint8_t> instances_of(uint8_t inst);
// Usage error unless loc + count fits the table.
void check_range(uint32_t tbl_type, uint64_t loc, uint64_t count);

// One entry as tcamwrap_fwd_tcam_ssram_write takes it.
struct EntrySpec {
    std::vector<uint8_t> key; // 18 or 36 bytes
    uint16_t prio = 0;
    ResultWord result{};
    uint8_t acl_prio = 1; // ACLI only
};

// Writes entries at consecutive locs from loc on; Failure naming the loc when
// the library refuses.
void write_entries(uint32_t tbl_type, uint8_t inst, uint32_t loc,
                   const std::vector<EntrySpec> &entries);
std::string errno_text(int err);
// Writes entry i at spread_loc(i, size, start) in runs of consecutive locs of each
// half; done counts the entries written, for the progress bar.
void write_spread(uint32_t tbl_type, uint8_t inst, const std::vector<EntrySpec> &entries,
                  uint32_t start, Progress &progress, uint64_t &done);

// One entry read back through the library by loc.
struct EntryView {
    bool used = false;
    uint32_t sloc = TCAMWRAP_INVALID_LOC;
    std::vector<uint8_t> key;
    uint16_t prio = 0;
    uint8_t acl_prio = 1;     // ACLI: the ACL-priority byte
    bool flow_result = false; // the result word came from the flow-result memory
    ResultWord result{};
};
// Failure when a library read fails for a used loc.
EntryView read_entry(uint8_t inst, uint32_t tbl_type, uint32_t loc);
Json entry_json(uint8_t inst, uint32_t tbl_type, uint32_t loc, const EntryView &e);
std::string entry_text(uint8_t inst, uint32_t tbl_type, uint32_t loc, const EntryView &e);

// Sum of the search engine's moves over every registered table of this process.
uint64_t engine_moves();

// Runs a library dump into a socket pair and returns the text without its NUL
// separators.
std::string capture_dump(const std::function<void(int fd)> &produce);

// Prints a report: JSON when --json (its "seconds" only with --timings), else
// the text.
void emit(const Args &args, const Json &json, const std::string &text);

// The subcommands.
int cmd_card(const Args &args);
int cmd_load(const Args &args);
int cmd_write(const Args &args);
int cmd_read(const Args &args);
int cmd_delete(const Args &args);
int cmd_ssram(const Args &args);
int cmd_lookup(const Args &args);
int cmd_dump(const Args &args);
int cmd_history(const Args &args);
int cmd_debug(const Args &args);
int cmd_parity(const Args &args);
int cmd_check(const Args &args);
int cmd_demo(const Args &args);

} // namespace tcamwrap::cli
