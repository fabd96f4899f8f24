// main.cpp - tcamwrap-sim: a client process of libtcamwrap on the simulated line
// card. Every invocation starts the library as the card's table client would
// (fresh on a new card, otherwise restart with restore), then runs one
// subcommand.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "commands.hpp"
#include "sim_card.h"
#include "tcamwrap_api.h"

namespace
{

using namespace tcamwrap::cli;

std::string top_help()
{
    std::string out =
        "Usage: tcamwrap-sim [global options] COMMAND [arguments] [options]\n"
        "\n"
        "A client process of libtcamwrap on the simulated line card. Every command\n"
        "starts the library as the card's table client does: a fresh start on a new\n"
        "card, a restart with restore (and reconciliation) on a card where a client\n"
        "has run before. The card lives in the state directory ($TCAMWRAP_SIM_STATE,\n"
        "default ./tcamwrap-sim-state); 'card create' makes it, every other command\n"
        "but 'demo' needs it there. One client process per card: a command on a card\n"
        "that another process holds is refused, naming that process. The library's\n"
        "records are kept under store handle 1 with the key prefix \"tcamwrap-sim/\".\n"
        "\n"
        "Commands:\n";
    for (const Command &c : commands()) {
        char line[128];
        std::snprintf(line, sizeof line, "  %-9s %s\n", c.name, c.summary);
        out += line;
    }
    out += "\n"
           "Global options (anywhere on the line):\n"
           "  --help        help of the command (tcamwrap-sim COMMAND --help)\n"
           "  --version     the versions of tcamwrap-sim and of the library header\n"
           "  --json        reports as one JSON object on stdout\n"
           "  --timings     include wall-clock seconds in the JSON report\n"
           "  --state DIR   the state directory (sets TCAMWRAP_SIM_STATE)\n"
           "  --debug N     the library's debug level for this run (0..7)\n"
           "  --verbose     the library's debug output on stderr instead of the log file\n"
           "\n"
           "Exit status:\n"
           "  0  done\n"
           "  1  refused (a value out of range, conflicting or repeated options, no card,\n"
           "     a card held by another client), failed, or a check found differences\n"
           "  2  usage error (unknown command or option, missing or extra argument)\n"
           "\n"
           "Examples:\n"
           "  tcamwrap-sim demo                       # the warm-restart demo on a fresh card\n"
           "  tcamwrap-sim card create --fib 16384    # a new simulated card\n"
           "  tcamwrap-sim load --generate 10000 --acl 200\n"
           "  tcamwrap-sim lookup fib 10.1.2.3\n"
           "  tcamwrap-sim check                      # audit maps, store and hardware\n"
           "  tcamwrap-sim read fib 0 --count 4 --json\n";
    return out;
}

std::string version_text()
{
    return "tcamwrap-sim " TCAMWRAP_VERSION_STRING " (built with tcamwrap_api.h " TCAMWRAP_VERSION_STRING
           ")\n";
}

// The subcommand is the first word that is neither an option nor the value of
// a global option; the rest goes to the subcommand's parser.
bool split_command(int argc, char **argv, std::string &command, std::vector<std::string> &rest)
{
    bool found = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (!found && word.rfind("--", 0) == 0) {
            rest.push_back(word);
            const bool takes_value = (word == "--state" || word == "--debug");
            if (takes_value && i + 1 < argc)
                rest.push_back(argv[++i]);
            continue;
        }
        if (!found && word != "-h") {
            command = word;
            found = true;
            continue;
        }
        rest.push_back(word);
    }
    return found;
}

// Runs the command; errors carry no command name, main adds it once.
int run(const std::string &command, std::vector<std::string> rest, bool has_command)
{
    if (!has_command) {
        const Args args = Args::parse(rest, {});
        if (args.has("version")) {
            std::fputs(version_text().c_str(), stdout);
            return kExitOk;
        }
        if (args.has("help")) {
            std::fputs(top_help().c_str(), stdout);
            return kExitOk;
        }
        throw UsageError("missing COMMAND (tcamwrap-sim --help lists them)");
    }
    const Command *cmd = find_command(command);
    if (cmd == nullptr)
        throw UsageError("unknown command '" + command + "' (tcamwrap-sim --help lists them)");
    const Args args = Args::parse(rest, cmd->options, cmd->exclusive);
    if (args.has("help")) {
        std::fputs(cmd->help, stdout);
        return kExitOk;
    }
    if (args.has("version")) {
        std::fputs(version_text().c_str(), stdout);
        return kExitOk;
    }
    if (auto dir = args.value("state"))
        ::setenv(SIM_STATE_ENV, dir->c_str(), 1);
    if (cmd->card == CardUse::Existing) {
        require_card();
        claim_card();
    }
    return cmd->run(args);
}

} // namespace

int main(int argc, char **argv)
{
    std::string command;
    std::vector<std::string> rest;
    const bool has_command = split_command(argc, argv, command, rest);
    if (command == "help") {
        if (rest.empty()) {
            std::fputs(top_help().c_str(), stdout);
            return kExitOk;
        }
        command = rest.front();
        rest = {"--help"};
    }
    const std::string prefix = "tcamwrap-sim" + (find_command(command) != nullptr ? " " + command : "");
    try {
        return run(command, rest, has_command);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "%s: %s\n", prefix.c_str(), e.what());
        return kExitUsage;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%s: %s\n", prefix.c_str(), e.what());
        return kExitFailed;
    }
}
