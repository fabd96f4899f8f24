// Tests that run tcamwrap-sim as a program against simulated cards in temporary
// state directories: every command is a new client process, so every command
// after the first also exercises the library's restart with restore.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "client.hpp"
#include "sim_card.h"
#include "sim_kvs.h"

namespace cli = tcamwrap::cli;
namespace fs = std::filesystem;
using Argv = std::vector<std::string>;

namespace
{

struct ToolRun {
    int code = -1;
    std::string out, err;
    bool has(const std::string &text) const { return out.find(text) != std::string::npos; }
};

std::string slurp(const fs::path &p)
{
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string join(const Argv &args)
{
    std::string s;
    for (const auto &a : args)
        s += a + " ";
    return s;
}

class ToolTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char templ[] = "/tmp/tcamwrap-cli-test-XXXXXX";
        ASSERT_NE(::mkdtemp(templ), nullptr);
        root_ = templ;
        state_ = root_ / "card";
        ::setenv(SIM_STATE_ENV, state_.c_str(), 1);
        ::unsetenv(SIM_PROFILE_ENV);
    }

    void TearDown() override
    {
        close_store();
        std::error_code ec;
        fs::remove_all(root_, ec);
    }

    // Runs the tool with the test's state directory; stdout and stderr apart.
    // fault: a fault-injection rule for this run only. No argument holds a quote.
    ToolRun tool(const Argv &args, const std::string &fault = "")
    {
        close_store();
        const fs::path out = root_ / "stdout", err = root_ / "stderr";
        std::string command = fault.empty() ? "" : "TCAMWRAP_SIM_FAULT='" + fault + "' ";
        command += TCAMWRAP_SIM_TOOL;
        for (const std::string &a : args)
            command += " '" + a + "'";
        command += " >" + out.string() + " 2>" + err.string();
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(out), slurp(err)};
    }

    ToolRun ok(const Argv &args)
    {
        ToolRun r = tool(args);
        EXPECT_EQ(r.code, 0) << join(args) << "\nstdout: " << r.out << "\nstderr: " << r.err;
        return r;
    }

    void small_card() { ok({"card", "create", "--fib", "2048", "--acli", "512", "--aclo", "512"}); }

    // The test process reads and edits the store and the hardware itself; it
    // lets go of both before the tool runs.
    static void close_store()
    {
        sim_kvs_close();
        sim_card_close();
    }

    fs::path root_, state_;
};

// ---- exit codes and help -------------------------------------------------------

// 0: done (help at every level starts with its usage and starts nothing);
// 1: refused, failed, or a check found a fault; 2: usage error. Every refusal
// is one line on stderr that names what was wrong.
TEST_F(ToolTest, ExitCodesAndHelpAtEveryLevel)
{
    small_card();
    const fs::path missing = root_ / "no-such-card";
    struct Run {
        Argv args;
        int code;
        const char *says = "";
    };
    const Run runs[] = {
        {{"--help"}, 0}, {{"help", "check"}, 0}, {{"card", "create", "--help"}, 0},
        {{"write", "-h"}, 0}, {{"--version"}, 0},
        {{"parity", "fib", "5", "--sloc"}, 1}, // empty: no copy
        {{}, 2}, {{"nosuch"}, 2}, {{"check", "--count", "3"}, 2},
        {{"dump"}, 2, "tcamwrap-sim dump: say lmt or tcam"},
        {{"card", "create"}, 1, "a card already exists"},
        {{"card", "create", "--fib", "0"}, 1, "--fib '0': give a whole number from 1 to 262144"},
        {{"card", "create", "--fib", "8", "--profile", "fib=8"}, 1, "exclude each other"},
        {{"read", "fib", "2048"}, 1, "LOC '2048': give a whole number from 0 to 2047"},
        {{"read", "fib", "0", "--count", "-1"}, 1, "--count '-1': give a whole number from 1"},
        {{"read", "nat", "0"}, 1, "TABLE 'nat': give fib, acli or aclo"},
        {{"write", "fib", "1", "--route", "10.0.0.1/8", "--next-hop", "1.1.1.1"}, 1},
        {{"write", "fib", "1", "--route", "10.0.0.0/8", "--route", "11.0.0.0/8"}, 1,
         "--route is given twice"},
        {{"demo"}, 1, "the demo needs a fresh card"},
        {{"demo", "--crash", "BOGUS", "--state", missing.string()}, 1, "--crash 'BOGUS': give"},
        {{"read", "fib", "0", "--state", missing.string()}, 1, "no card in"},
    };
    for (const Run &run : runs) {
        SCOPED_TRACE(join(run.args));
        const ToolRun r = tool(run.args);
        EXPECT_EQ(r.code, run.code) << r.out << r.err;
        if (run.code == 0) {
            EXPECT_TRUE(r.out.rfind("Usage: tcamwrap-sim", 0) == 0 ||
                        r.out.rfind("tcamwrap-sim 1.", 0) == 0)
                << r.out;
            EXPECT_EQ(r.err, "");
        } else if (run.code == 2 || std::string(run.says) != "") {
            EXPECT_EQ(r.err.rfind("tcamwrap-sim", 0), 0u) << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_NE(r.err.find(run.says), std::string::npos) << r.err;
        }
    }
    EXPECT_FALSE(fs::exists(missing)) << "a refused command makes nothing";
    const std::string help = ok({"--help"}).out;
    EXPECT_LT(help.find("Exit status:"), help.find("Examples:"));
    ok({"card", "reset"});
    EXPECT_EQ(tool({"card", "show"}).code, 1) << "a removed card is not made anew";
    EXPECT_FALSE(fs::exists(state_ / cli::kMarkerFile)); // help starts no client
}

// One client process per card: a second one is refused, naming the first,
// which goes on undisturbed; a holder killed with SIGKILL frees the card.
TEST_F(ToolTest, OneClientPerCard)
{
    small_card();
    auto start_load = [&](const char *start) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::execl(TCAMWRAP_SIM_TOOL, "tcamwrap-sim", "load", "--generate", "900", "--acl",
                    "200", "--seed", "4", "--start", start, static_cast<char *>(nullptr));
            ::_exit(127);
        }
        // Wait until the loader holds the card, then stop it there.
        long holder = 0;
        for (int i = 0; i < 2000 && holder != pid; ++i) {
            holder = sim_card_holder();
            ::usleep(1000);
        }
        close_store();
        EXPECT_EQ(holder, pid);
        EXPECT_EQ(::kill(pid, SIGSTOP), 0);
        return pid;
    };
    pid_t loader = start_load("0");
    ToolRun second = tool({"read", "fib", "0"});
    EXPECT_EQ(second.code, 1);
    EXPECT_NE(second.err.find("has a client already: process " + std::to_string(loader)),
              std::string::npos)
        << second.err;
    EXPECT_EQ(tool({"card", "reset"}).code, 1) << "nor may it remove the card";
    ::kill(loader, SIGCONT);
    int status = 0;
    ::waitpid(loader, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(ok({"check"}).has("check passed"));
    EXPECT_TRUE(ok({"read", "fib", "0"}).has("0.0.0.0/0"));

    loader = start_load("100");
    ::kill(loader, SIGKILL);
    ::waitpid(loader, &status, 0);
    EXPECT_EQ(sim_card_holder(), 0);
    close_store();
    ok({"card", "show"});
}

// ---- client start ---------------------------------------------------------------

TEST_F(ToolTest, FirstClientStartsFreshAndLaterOnesRestartAtTheKeptDebugLevel)
{
    ToolRun r =
        ok({"card", "create", "--insts", "1", "--fib", "1024", "--acli", "256", "--aclo", "256"});
    EXPECT_TRUE(r.has("client start:    fresh start")) << r.out;
    EXPECT_TRUE(r.has("insts=1")) << r.out;
    r = ok({"card", "show", "--json"});
    EXPECT_TRUE(r.has("\"init_type\":1")) << r.out;
    ok({"debug", "7"});
    EXPECT_TRUE(ok({"debug"}).has("debug level 7"));
    // At level 7 the restart traces its start-up into the history and the log.
    EXPECT_TRUE(ok({"history"}).has("    inst: 0 tbl_type: 3 restored 0 entries from HW"));
    EXPECT_NE(slurp(state_ / cli::kDebugLogFile).find("restored"), std::string::npos);

    ok({"card", "reset"});
    EXPECT_FALSE(fs::exists(state_ / "hw.img"));
    r = ok({"card", "create"});
    EXPECT_TRUE(r.has("fresh start")) << r.out;
    EXPECT_TRUE(r.has("insts=2")) << r.out; // the default profile again
}

// ---- entries, lookups, results -----------------------------------------------------

TEST_F(ToolTest, WritesOverwritesNextHopsAndDeletesDecideLookups)
{
    small_card();
    const std::pair<Argv, const char *> steps[] = { // command, then 'lookup fib 10.1.2.3'
        {{"write", "fib", "5", "--route", "10.1.0.0/16", "--next-hop", "192.0.2.1"},
         "(loc 0x5): 10.1.0.0/16 prio 16 -> next hop 192.0.2.1"},
        {{"write", "fib", "1500", "--route", "10.1.2.0/24", "--next-hop", "192.0.2.2"},
         "(loc 0x5dc): 10.1.2.0/24 prio 24 -> next hop 192.0.2.2"},
        {{"ssram", "fib", "1500", "--next-hop", "192.0.2.3"},
         "(loc 0x5dc): 10.1.2.0/24 prio 24 -> next hop 192.0.2.3"},
        {{"write", "fib", "1500", "--route", "10.1.3.0/24", "--next-hop", "192.0.2.4"},
         "(loc 0x5): 10.1.0.0/16 prio 16 -> next hop 192.0.2.1"},
        {{"delete", "fib", "5"}, "10.1.2.3: no match"},
    };
    for (const auto &[command, lookup] : steps) {
        ok(command);
        for (const char *inst : {"0", "1"})
            EXPECT_TRUE(ok({"lookup", "fib", "10.1.2.3", "--inst", inst}).has(lookup))
                << join(command) << " inst " << inst;
    }
    const ToolRun r = ok({"read", "fib", "1500", "--json"});
    EXPECT_TRUE(r.has("\"route\":\"10.1.3.0/24\"")) << r.out;
    EXPECT_TRUE(r.has("\"result\":\"01c0000204\"")) << r.out;
    EXPECT_TRUE(ok({"check"}).has("check passed"));
}

// ACLI on an Orvex table keeps results of ACL-priority byte 0 in the
// flow-result memory; ACLO on a tcam3 table has no map: loc = sloc.
TEST_F(ToolTest, AclEntriesOnOrvexAndTcam3Tables)
{
    ok({"card", "create", "--fib", "1024", "--acli", "256", "--aclo", "256", "--aclo-kind",
        "tcam3"});
    const std::string in = "060a0000010a000002000000000000000000",
                      out = "110a0000000a000000000000000000000000";
    ok({"write", "acli", "3", "--key", in + "ffffffffffffffffff000000000000000000", "--prio",
        "120", "--result", "0200000009", "--acl-prio", "0", "--count", "2", "--inst", "0"});
    ok({"write", "aclo", "17", "--key", out + "ffff000000ff000000000000000000000000", "--prio",
        "7", "--result", "0300000005"});
    ToolRun r = ok({"read", "acli", "3", "--count", "2"});
    EXPECT_TRUE(r.has("acli inst 0 loc 0x4: sloc")) << r.out;
    EXPECT_TRUE(r.has("deny flow 9 (acl_prio 0, flow result)")) << r.out;
    EXPECT_TRUE(ok({"lookup", "acli", "--key", in}).has("-> deny flow 9"));
    EXPECT_TRUE(ok({"read", "acli", "3", "--inst", "1"}).has("unused"));
    r = ok({"lookup", "aclo", "--key", out, "--inst", "1"});
    EXPECT_TRUE(r.has("matches sloc 0x11 (loc 0x11)")) << r.out;
    EXPECT_TRUE(r.has("redirect flow 5")) << r.out;
    // Nothing to audit or dump on a tcam3 table.
    EXPECT_TRUE(ok({"check", "--json"}).has("\"tables\":4"));
    EXPECT_EQ(tool({"dump", "lmt", "aclo"}).code, 1);
}

// ---- check, repairs, diagnostics --------------------------------------------

TEST_F(ToolTest, ParityErrorsAreRepairedFromTheEngineCopy)
{
    // ACLI rules with ACL-priority byte 0 share the flow-result memory, one
    // word per pair of locations: the load must keep them apart.
    small_card();
    EXPECT_EQ(ok({"load", "--generate", "400", "--acl", "200", "--seed", "2"}).err, "");
    const ToolRun check = ok({"check", "--json"});
    EXPECT_TRUE(check.has("\"passed\":true") && check.has("\"tables\":6")) << check.out;
    const ToolRun r = ok({"parity", "fib", "1", "2", "3"});
    std::size_t repaired = 0;
    for (auto p = r.out.find("damaged, repaired"); p != std::string::npos;
         p = r.out.find("damaged, repaired", p + 1))
        ++repaired;
    EXPECT_EQ(repaired, 6u) << r.out; // both instances
    EXPECT_TRUE(r.has("reply: status 0 error_code 0x00000000 unrepaired 0")) << r.out;
    EXPECT_TRUE(ok({"dump", "tcam", "fib", "--hw"}).has("Total entries = 400"));
    EXPECT_EQ(tool({"check"}).code, 0);
}

// Overwrite k (from 0) of the storm passes each crash point as #2k+1 on
// instance 0, #2k+2 on 1: ":301" stops it in overwrite 150, on instance 0.
// Without --crash the point and the count are random.
TEST_F(ToolTest, DemoGivesTheRightVerdictWhereverTheCrashFalls)
{
    struct Case {
        std::string crash;
        const char *acl, *entries;
        int journalled; // 1: repaired through the journal record, -1: either
    };
    const Case cases[] = {
        // The FIB alone: what a crash repairs, apart from the ACL tables.
        {"PRE_ADD", "0", "{\"fib\":2910,\"acli\":0,\"aclo\":0}", 0},
        {"POST_DEL", "0", "{\"fib\":2910,\"acli\":0,\"aclo\":0}", 1},
        {"", "100", "{\"fib\":2910,\"acli\":98,\"aclo\":98}", -1}, // 3% and 2% deleted
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE(c.crash.empty() ? "random" : c.crash);
        const fs::path dir = root_ / ("demo" + std::to_string(i));
        Argv args = {"demo",  "--state", dir.string(), "--routes", "3000", "--acl", c.acl,
                     "--storm", "1000", "--seed", std::to_string(20 + i), "--json"};
        if (!c.crash.empty())
            args.insert(args.end(), {"--crash", c.crash + ":301"});
        const ToolRun r = tool(args);
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        EXPECT_TRUE(r.has("\"verdict\":\"right\"")) << r.out;
        EXPECT_TRUE(r.has("\"killed\":true")) << r.out;
        EXPECT_TRUE(r.has(std::string("\"entries_per_instance\":") + c.entries)) << r.out;
        EXPECT_NE(r.err.find("injected crash at camindex." + c.crash), std::string::npos);
        if (c.journalled >= 0) {
            EXPECT_TRUE(r.has("\"storm_overwrites_done\":150")) << r.out;
            EXPECT_EQ(r.has("\"journal_records\":1"), c.journalled == 1) << r.out;
        }
        ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
        EXPECT_TRUE(ok({"check"}).has("check passed"));
        ::setenv(SIM_STATE_ENV, state_.c_str(), 1);
    }
}

} // namespace
