// Tests that run tcamwrap-sim as a program against simulated cards in temporary
// state directories: every command is a new client process, so every command
// after the first also exercises the library's restart with restore.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "client.hpp"
#include "keys.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "sim_kvs.h"

namespace cli = tcamwrap::cli;
namespace fs = std::filesystem;

namespace
{

struct ToolRun {
    int code = -1;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path &p)
{
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
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
    // fault: a fault-injection rule for this run only (TCAMWRAP_SIM_FAULT).
    ToolRun tool(const std::vector<std::string> &args, const std::string &fault = "")
    {
        close_store();
        const fs::path out = root_ / "stdout", err = root_ / "stderr";
        const pid_t pid = ::fork();
        if (pid == 0) {
            if (!fault.empty())
                ::setenv("TCAMWRAP_SIM_FAULT", fault.c_str(), 1);
            if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr))
                ::_exit(126);
            std::vector<char *> argv;
            std::string prog = TCAMWRAP_SIM_TOOL;
            argv.push_back(prog.data());
            std::vector<std::string> copy = args;
            for (std::string &a : copy)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(prog.c_str(), argv.data());
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        ToolRun r;
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }

    ToolRun ok(const std::vector<std::string> &args)
    {
        ToolRun r = tool(args);
        EXPECT_EQ(r.code, 0) << join(args) << "\nstdout: " << r.out << "\nstderr: " << r.err;
        return r;
    }

    static std::string join(const std::vector<std::string> &args)
    {
        std::string s;
        for (const auto &a : args)
            s += a + " ";
        return s;
    }

    void small_card() { ok({"card", "create", "--fib", "2048", "--acli", "512", "--aclo", "512"}); }

    // The test process reads and edits the store and the hardware itself; it
    // lets go of both before the tool runs.
    static void close_store()
    {
        sim_kvs_close();
        sim_card_close();
    }

    fs::path root_;
    fs::path state_;
};

// ---- the store as the library keeps it -----------------------------------

kvs_buf record_key(std::vector<uint8_t> &bytes, uint8_t type, uint8_t inst, uint8_t tbl,
                   uint8_t last)
{
    bytes.assign(cli::kKeyPrefix, cli::kKeyPrefix + cli::kKeyPrefixLen);
    bytes.insert(bytes.end(), {type, inst, tbl, last});
    return kvs_buf{bytes.data(), static_cast<uint32_t>(bytes.size())};
}

std::vector<uint32_t> read_segment(uint8_t inst, uint8_t tbl, uint8_t seg)
{
    std::vector<uint8_t> kb;
    kvs_buf key = record_key(kb, cli::kRecLmtSegment, inst, tbl, seg);
    int err = 0;
    kvs_buf *at = kvs_move2key(cli::kKvsHandle, &key, &err);
    if (at == nullptr || at->len != key.len || std::memcmp(at->data, key.data, key.len) != 0) {
        ADD_FAILURE() << "no LMT segment " << int(seg) << " in the store";
        return {};
    }
    kvs_buf *value = kvs_getvalue(cli::kKvsHandle, &err);
    EXPECT_EQ(err, 0);
    std::vector<uint32_t> words(value->len / 4);
    std::memcpy(words.data(), value->data, value->len);
    return words;
}

void write_segment(uint8_t inst, uint8_t tbl, uint8_t seg, std::vector<uint32_t> words)
{
    std::vector<uint8_t> kb;
    kvs_buf key = record_key(kb, cli::kRecLmtSegment, inst, tbl, seg);
    kvs_buf value{reinterpret_cast<uint8_t *>(words.data()),
                  static_cast<uint32_t>(words.size() * 4)};
    ASSERT_EQ(kvs_store(cli::kKvsHandle, 1, &key, &value), 0);
}

void write_journal(uint8_t inst, uint8_t tbl, uint32_t loc, uint32_t old_sloc, uint32_t new_sloc)
{
    std::vector<uint8_t> kb;
    kvs_buf key = record_key(kb, cli::kRecOverwrite, inst, tbl, 0);
    uint32_t rec[3] = {loc, old_sloc, new_sloc};
    kvs_buf value{reinterpret_cast<uint8_t *>(rec), sizeof rec};
    ASSERT_EQ(kvs_store(cli::kKvsHandle, 1, &key, &value), 0);
}

// A physical location that holds nothing and that no loc maps to.
uint32_t empty_sloc(const std::vector<uint32_t> &lmt, uint32_t size)
{
    std::set<uint32_t> mapped(lmt.begin(), lmt.end());
    for (uint32_t s = size / 2 - 1; s > 0; --s) {
        uint8_t valid = 1;
        EXPECT_EQ(sim_hw_tcam_get(0, TCAMWRAP_TBL_FIB, s, &valid, nullptr, nullptr), 0);
        if (valid == 0 && mapped.count(s) == 0)
            return s;
    }
    ADD_FAILURE() << "no empty sloc";
    return 0;
}

// ---- help and usage ----------------------------------------------------------

TEST_F(ToolTest, HelpAtEveryLevelStartsWithExamples)
{
    const std::vector<std::vector<std::string>> asks = {
        {"--help"},          {"help"},
        {"card", "--help"},  {"card", "create", "--help"},
        {"load", "--help"},  {"write", "-h"},
        {"read", "--help"},  {"delete", "--help"},
        {"ssram", "--help"}, {"lookup", "--help"},
        {"dump", "--help"},  {"history", "--help"},
        {"debug", "--help"}, {"parity", "--help"},
        {"check", "--help"}, {"demo", "--help"},
        {"help", "check"}};
    for (const auto &a : asks) {
        const ToolRun r = tool(a);
        EXPECT_EQ(r.code, 0) << join(a);
        EXPECT_EQ(r.out.rfind("Examples:\n", 0), 0u) << join(a);
        EXPECT_NE(r.out.find("Usage: tcamwrap-sim"), std::string::npos) << join(a);
        EXPECT_EQ(r.err, "") << join(a);
    }
    // Help starts nothing.
    EXPECT_FALSE(fs::exists(state_ / cli::kMarkerFile));
}

TEST_F(ToolTest, UsageErrorsExitTwoWithOneLineOnStderr)
{
    small_card();
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"nosuch"},
        {"--bogus", "check"},
        {"check", "--count", "3"},
        {"card"},
        {"card", "create"}, // the card exists
        {"card", "show", "--fib", "10"},
        {"read"},
        {"read", "fib"},
        {"read", "fib", "2048"},
        {"read", "fib", "0", "--count", "2049"},
        {"read", "table", "0"},
        {"read", "fib", "0", "--inst", "2"},
        {"write", "fib", "1"},
        {"write", "fib", "1", "--route", "10.0.0.1/8", "--next-hop", "1.1.1.1"},
        {"write", "acli", "1", "--route", "10.0.0.0/8", "--next-hop", "1.1.1.1"},
        {"write", "aclo", "1", "--key", "00", "--prio", "1", "--result", "0100000000"},
        {"write", "fib", "1", "--route", "10.0.0.0/8", "--next-hop", "1.1.1.1", "--acl-prio", "0"},
        {"load"},
        {"load", "--generate", "5000"}, // more than the table
        {"lookup", "acli", "1.2.3.4"},
        {"lookup", "fib", "1.2.3"},
        {"dump", "x", "fib"},
        {"dump", "lmt", "fib", "--inst", "all"},
        {"debug", "8"},
        {"parity", "fib", "1", "2", "3", "4", "5", "6", "7", "8", "9"},
        {"demo"}, // the card is not fresh
    };
    for (const auto &a : wrong) {
        const ToolRun r = tool(a);
        EXPECT_EQ(r.code, 2) << join(a) << "\n" << r.out << r.err;
        EXPECT_EQ(r.err.rfind("tcamwrap-sim: ", 0), 0u) << join(a) << ": " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << join(a) << ": " << r.err;
    }
}

// ---- client start ---------------------------------------------------------------

TEST_F(ToolTest, FirstClientStartsFreshAndEveryLaterOneRestarts)
{
    ToolRun r =
        ok({"card", "create", "--insts", "1", "--fib", "1024", "--acli", "256", "--aclo", "256"});
    EXPECT_NE(r.out.find("client start:    fresh start"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("insts=1"), std::string::npos) << r.out;
    EXPECT_TRUE(fs::exists(state_ / cli::kMarkerFile));
    r = ok({"card", "show", "--json"});
    EXPECT_NE(r.out.find("\"init_type\":1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"instances\":1"), std::string::npos) << r.out;

    ok({"card", "reset"});
    EXPECT_FALSE(fs::exists(state_ / cli::kMarkerFile));
    EXPECT_FALSE(fs::exists(state_ / "hw.img"));
    r = ok({"card", "show"});
    EXPECT_NE(r.out.find("fresh start"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("insts=2"), std::string::npos) << r.out; // the default profile again
}

TEST_F(ToolTest, DebugLevelIsKeptForLaterClients)
{
    small_card();
    EXPECT_NE(ok({"debug"}).out.find("debug level 3"), std::string::npos);
    ok({"debug", "7"});
    EXPECT_NE(ok({"debug"}).out.find("debug level 7"), std::string::npos);
    // At level 7 the restart traces its start-up, and the history shows it.
    const ToolRun h = ok({"history"});
    EXPECT_NE(h.out.find("history of this client process (start-up at debug level 7)"),
              std::string::npos);
    EXPECT_NE(h.out.find("    inst: 1 tbl_type: 3 restored 0 entries from HW"), std::string::npos)
        << h.out;
    EXPECT_NE(slurp(state_ / cli::kDebugLogFile).find("restored"), std::string::npos);
}

// ---- entries, lookups, results -----------------------------------------------------

TEST_F(ToolTest, WritesOverwritesNextHopsAndDeletesDecideLookups)
{
    small_card();
    struct Step {
        std::vector<std::string> command;
        const char *lookup_expect; // output of 'lookup fib 10.1.2.3' afterwards
    };
    const Step steps[] = {
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
    for (const Step &s : steps) {
        ok(s.command);
        for (const char *inst : {"0", "1"}) {
            const ToolRun r = ok({"lookup", "fib", "10.1.2.3", "--inst", inst});
            EXPECT_NE(r.out.find(s.lookup_expect), std::string::npos)
                << join(s.command) << " inst " << inst << ": " << r.out;
        }
    }
    ToolRun r = ok({"read", "fib", "5", "--inst", "all"});
    EXPECT_NE(r.out.find("fib inst 0 loc 0x5: unused"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("fib inst 1 loc 0x5: unused"), std::string::npos) << r.out;
    r = ok({"read", "fib", "1500", "--json"});
    EXPECT_NE(r.out.find("\"route\":\"10.1.3.0/24\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"result\":\"01c0000204\""), std::string::npos) << r.out;
    EXPECT_EQ(ok({"check"}).out.find("check passed") != std::string::npos, true);
}

TEST_F(ToolTest, AclEntriesKeepTheirResultMemory)
{
    small_card();
    const std::string key = "060a0000010a000002"
                            "000000000000000000"
                            "ffffffffffffffffff"
                            "000000000000000000";
    ok({"write", "acli", "3", "--key", key, "--prio", "120", "--result", "0200000009", "--acl-prio",
        "0", "--count", "2", "--inst", "0"});
    ToolRun r = ok({"read", "acli", "3", "--count", "2"});
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << r.out;
    EXPECT_NE(r.out.find("acli inst 0 loc 0x4: sloc"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("deny flow 9 (acl_prio 0, flow result)"), std::string::npos) << r.out;
    r = ok({"lookup", "acli", "--key", "060a0000010a000002000000000000000000"});
    EXPECT_NE(r.out.find("-> deny flow 9"), std::string::npos) << r.out;
    // Nothing was written on instance 1.
    r = ok({"read", "acli", "3", "--inst", "1"});
    EXPECT_NE(r.out.find("unused"), std::string::npos) << r.out;
    EXPECT_EQ(tool({"check"}).code, 0);
}

TEST_F(ToolTest, LoadsRouteFilesAndRefusesBadLines)
{
    small_card();
    {
        std::ofstream f(root_ / "routes.txt");
        f << "# a small FIB\n0.0.0.0/0 192.0.2.254\n10.0.0.0/8 192.0.2.1\n\n"
             "10.20.0.0/16 192.0.2.2   # more specific\n10.20.30.0/24 192.0.2.3\n";
    }
    ToolRun r = ok({"load", (root_ / "routes.txt").string(), "--inst", "1"});
    EXPECT_NE(r.out.find("fib: 4 entries"), std::string::npos) << r.out;
    const std::pair<const char *, const char *> lookups[] = {
        {"10.20.30.40", "next hop 192.0.2.3"},
        {"10.20.31.1", "next hop 192.0.2.2"},
        {"10.99.0.1", "next hop 192.0.2.1"},
        {"11.0.0.1", "next hop 192.0.2.254"},
    };
    for (auto [addr, want] : lookups) {
        r = ok({"lookup", "fib", addr, "--inst", "1"});
        EXPECT_NE(r.out.find(want), std::string::npos) << addr << ": " << r.out;
        r = ok({"lookup", "fib", addr, "--inst", "0"});
        EXPECT_NE(r.out.find("no match"), std::string::npos) << addr << ": " << r.out;
    }
    {
        std::ofstream f(root_ / "bad.txt");
        f << "10.0.0.0/8 192.0.2.1\n10.0.0.0/8 192.0.2.9\n";
    }
    r = tool({"load", (root_ / "bad.txt").string()});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("bad.txt:2: duplicate route 10.0.0.0/8"), std::string::npos) << r.err;
}

TEST_F(ToolTest, RouteRunsTakeConsecutiveNetworks)
{
    small_card();
    ok({"write", "fib", "100", "--route", "198.51.100.0/26", "--next-hop", "192.0.2.8", "--count",
        "4", "--inst", "0"});
    const std::pair<const char *, const char *> lookups[] = {
        {"198.51.100.1", "(loc 0x64): 198.51.100.0/26"},
        {"198.51.100.70", "(loc 0x65): 198.51.100.64/26"},
        {"198.51.100.130", "(loc 0x66): 198.51.100.128/26"},
        {"198.51.100.250", "(loc 0x67): 198.51.100.192/26"},
    };
    for (auto [addr, want] : lookups) {
        const ToolRun r = ok({"lookup", "fib", addr});
        EXPECT_NE(r.out.find(want), std::string::npos) << addr << ": " << r.out;
    }
    // A run may not leave the address space.
    const ToolRun r = tool({"write", "fib", "0", "--route", "255.255.255.0/24", "--next-hop",
                            "192.0.2.8", "--count", "2"});
    EXPECT_EQ(r.code, 2) << r.err;
    // Result words of unused locs cannot be read.
    EXPECT_NE(ok({"ssram", "fib", "99"}).out.find("not readable"), std::string::npos);
}

TEST_F(ToolTest, Tcam3TablesGoStraightToTheHardware)
{
    ok({"card", "create", "--fib", "1024", "--acli", "256", "--aclo", "256", "--aclo-kind",
        "tcam3"});
    const std::string key = "110a0000000a000000"
                            "000000000000000000"
                            "ffff000000ff000000"
                            "000000000000000000";
    ok({"write", "aclo", "17", "--key", key, "--prio", "7", "--result", "0300000005"});
    // On a tcam3 table the loc is the hardware location.
    ToolRun r =
        ok({"lookup", "aclo", "--key", "110a0000000a000000000000000000000000", "--inst", "1"});
    EXPECT_NE(r.out.find("matches sloc 0x11 (loc 0x11)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("redirect flow 5"), std::string::npos) << r.out;
    r = ok({"read", "aclo", "17"});
    EXPECT_NE(r.out.find("aclo inst 0 loc 0x11: sloc 0x11"), std::string::npos) << r.out;
    // The library keeps no map of a tcam3 table: nothing to audit or dump there.
    r = ok({"check", "--json"});
    EXPECT_NE(r.out.find("\"tables\":4"), std::string::npos) << r.out;
    r = tool({"dump", "lmt", "aclo"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("tcam3"), std::string::npos) << r.err;
}

// ---- check ------------------------------------------------------------------------

TEST_F(ToolTest, CheckPassesOnALoadedCard)
{
    small_card();
    const ToolRun load = ok({"load", "--generate", "1500", "--seed", "2"});
    EXPECT_EQ(load.err, ""); // no progress bar when stderr is not a terminal
    const ToolRun r = ok({"check", "--json"});
    EXPECT_NE(r.out.find("\"passed\":true"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"tables\":6"), std::string::npos) << r.out;
}

TEST_F(ToolTest, CheckPassesAfterAnAclLoad)
{
    // ACLI rules with ACL-priority byte 0 keep their result in the flow-result
    // memory, one word per pair of locations: no two may share a pair.
    small_card();
    ok({"load", "--acl", "200", "--seed", "1"});
    const ToolRun r = tool({"check"});
    EXPECT_EQ(r.code, 0) << r.out;
}

// Store edits that a restart must find and repair; after the repair 'check'
// passes again.
TEST_F(ToolTest, CheckReportsStoreEditsAndTheNextRestartRepairsThem)
{
    struct Case {
        const char *name;
        std::vector<std::string> kinds; // reported by the first check
        bool entry_kept;                // the edited loc still holds its entry afterwards
    };
    const Case cases[] = {
        {"loc points at a wrong, empty sloc", {"sloc-empty", "hw-unowned"}, false},
        {"loc forgotten by the store", {"hw-unowned"}, false},
        {"journal record whose new copy never reached the hardware", {"journal"}, true},
    };
    for (std::size_t c = 0; c < std::size(cases); ++c) {
        SCOPED_TRACE(cases[c].name);
        tool({"card", "reset"});
        small_card();
        ok({"load", "--generate", "800", "--seed", std::to_string(10 + c)});
        const uint32_t loc = 7;
        const std::string before = ok({"read", "fib", std::to_string(loc)}).out;
        ASSERT_NE(before.find("sloc"), std::string::npos) << before;

        std::vector<uint32_t> lmt = read_segment(0, TCAMWRAP_TBL_FIB, 0);
        ASSERT_EQ(lmt.size(), 1024u);
        std::vector<uint32_t> all = lmt;
        const std::vector<uint32_t> seg1 = read_segment(0, TCAMWRAP_TBL_FIB, 1);
        all.insert(all.end(), seg1.begin(), seg1.end());
        const uint32_t old_sloc = lmt[loc];
        ASSERT_NE(old_sloc, TCAMWRAP_INVALID_LOC);
        const uint32_t wrong = empty_sloc(all, 2048);
        if (c == 0) {
            lmt[loc] = wrong;
            write_segment(0, TCAMWRAP_TBL_FIB, 0, lmt);
        } else if (c == 1) {
            lmt[loc] = TCAMWRAP_INVALID_LOC;
            write_segment(0, TCAMWRAP_TBL_FIB, 0, lmt);
        } else {
            write_journal(0, TCAMWRAP_TBL_FIB, loc, old_sloc, wrong);
        }

        ToolRun r = tool({"check", "--json"});
        EXPECT_EQ(r.code, 1) << r.out << r.err;
        for (const std::string &kind : cases[c].kinds)
            EXPECT_NE(r.out.find("\"kind\":\"" + kind + "\""), std::string::npos)
                << kind << ": " << r.out;
        EXPECT_NE(r.out.find("\"found\":" + std::to_string(cases[c].kinds.size())),
                  std::string::npos)
            << r.out;
        // The check's own start was a restart: it repaired, and the running
        // audit after it is clean.
        EXPECT_NE(r.out.find("\"running\":0"), std::string::npos) << r.out;

        const std::string after = ok({"read", "fib", std::to_string(loc)}).out;
        if (cases[c].entry_kept)
            EXPECT_EQ(after, before);
        else
            EXPECT_NE(after.find("fib inst 0 loc 0x7: unused"), std::string::npos) << after;
        // Instance 1 was never touched.
        EXPECT_NE(ok({"read", "fib", std::to_string(loc), "--inst", "1"}).out.find("sloc"),
                  std::string::npos);
        r = ok({"check"});
        EXPECT_NE(r.out.find("check passed"), std::string::npos) << r.out;
    }
}

// A client killed in the middle of an overwrite: the next client finds what the
// crash left (a journal record or nothing) and completes or undoes the overwrite.
TEST_F(ToolTest, AClientKilledInAnOverwriteIsRepairedByTheNext)
{
    struct Case {
        const char *fault;
        bool journal_left; // the first check finds the overwrite record
        bool new_entry;    // after the restart the loc holds the new route
    };
    const Case cases[] = {
        {"crash=camindex.PRE_ADD:1", false, false}, {"crash=kvs_store:1", false, false},
        {"crash=camindex.POST_ADD:1", true, true},  {"crash=camindex.PRE_DEL:1", true, true},
        {"crash=camindex.POST_DEL:1", true, true},  {"crash=kvs_delete:1", true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        tool({"card", "reset"});
        small_card();
        ok({"write", "fib", "9", "--route", "10.9.0.0/16", "--next-hop", "192.0.2.1", "--inst",
            "0"});
        const ToolRun killed = tool({"write", "fib", "9", "--route", "10.9.9.0/24", "--next-hop",
                                     "192.0.2.2", "--inst", "0"},
                                    c.fault);
        EXPECT_EQ(killed.code, 137) << killed.out << killed.err;
        EXPECT_NE(killed.err.find("injected crash"), std::string::npos) << killed.err;

        ToolRun r = tool({"check", "--json"});
        EXPECT_EQ(r.code, c.journal_left ? 1 : 0) << r.out << r.err;
        EXPECT_EQ(r.out.find("\"kind\":\"journal\"") != std::string::npos, c.journal_left) << r.out;
        EXPECT_NE(r.out.find("\"running\":0"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("\"journal_records\":1") != std::string::npos, c.journal_left)
            << r.out;

        r = ok({"lookup", "fib", "10.9.9.9"});
        EXPECT_NE(r.out.find(c.new_entry ? "(loc 0x9): 10.9.9.0/24 prio 24 -> next hop 192.0.2.2"
                                         : "(loc 0x9): 10.9.0.0/16 prio 16 -> next hop 192.0.2.1"),
                  std::string::npos)
            << r.out;
        // One entry in the hardware: the other copy is gone.
        r = ok({"card", "show", "--json"});
        EXPECT_NE(r.out.find("{\"inst\":0,\"hw_entries\":1,\"mapped_locs\":1}"), std::string::npos)
            << r.out;
        EXPECT_NE(ok({"check"}).out.find("check passed"), std::string::npos);
    }
}

// ---- diagnostics ------------------------------------------------------------------

TEST_F(ToolTest, DumpsShowTheLmtAndTheEntries)
{
    small_card();
    ok({"load", "--generate", "300", "--inst", "0", "--seed", "3"});
    ToolRun r = ok({"dump", "lmt", "fib"});
    EXPECT_EQ(r.out.rfind("Instance: 0 Tbl type: 3 LMT size: 2048\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("Number of entries: 300"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find('\0'), std::string::npos);
    r = ok({"dump", "tcam", "fib", "--hw"});
    EXPECT_NE(r.out.find("From HW"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Total entries = 300"), std::string::npos) << r.out;
    r = ok({"dump", "tcam", "fib", "--inst", "1"});
    EXPECT_NE(r.out.find("Total entries = 0"), std::string::npos) << r.out;
}

TEST_F(ToolTest, ParityErrorsAreRepairedFromTheEngineCopy)
{
    small_card();
    ok({"load", "--generate", "400", "--seed", "4"});
    ToolRun r = ok({"parity", "fib", "1", "2", "3"});
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 5) << r.out;
    size_t repaired = 0;
    for (size_t p = r.out.find("damaged, repaired"); p != std::string::npos;
         p = r.out.find("damaged, repaired", p + 1))
        ++repaired;
    EXPECT_EQ(repaired, 3u) << r.out;
    EXPECT_NE(r.out.find("reply: status 0 error_code 0x00000000 unrepaired 0"), std::string::npos)
        << r.out;
    EXPECT_EQ(tool({"check"}).code, 0);

    // An empty location has no copy to repair from.
    std::vector<uint32_t> lmt = read_segment(0, TCAMWRAP_TBL_FIB, 0);
    const std::vector<uint32_t> seg1 = read_segment(0, TCAMWRAP_TBL_FIB, 1);
    lmt.insert(lmt.end(), seg1.begin(), seg1.end());
    const uint32_t empty = empty_sloc(lmt, 2048);
    r = tool({"parity", "fib", std::to_string(empty), "--sloc", "--json"});
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("\"status\":1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"unrepaired\":[" + std::to_string(empty) + "]"), std::string::npos)
        << r.out;
}

// ---- the demo ------------------------------------------------------------------

TEST_F(ToolTest, DemoSurvivesCrashesAtEveryOverwriteStep)
{
    // Overwrite k (from 0) passes each point as #2k+1 on instance 0, #2k+2 on 1.
    const char *points[] = {"PRE_ADD:301", "POST_ADD:301", "PRE_DEL:301", "POST_DEL:301"};
    for (std::size_t i = 0; i < std::size(points); ++i) {
        SCOPED_TRACE(points[i]);
        const fs::path dir = root_ / ("demo" + std::to_string(i));
        // The FIB alone: what a crash repairs, apart from the ACL tables.
        const ToolRun r =
            tool({"demo", "--state", dir.string(), "--routes", "3000", "--acl", "0", "--storm",
                  "1000", "--seed", std::to_string(20 + i), "--crash", points[i], "--json"});
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        EXPECT_NE(r.out.find("\"verdict\":\"right\""), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("\"killed\":true"), std::string::npos) << r.out;
        EXPECT_NE(r.err.find("injected crash at camindex." +
                             std::string(points[i], std::strchr(points[i], ':'))),
                  std::string::npos)
            << r.err;
        // 3% of the routes were deleted.
        EXPECT_NE(r.out.find("\"entries_per_instance\":{\"fib\":2910,\"acli\":0,\"aclo\":0}"),
                  std::string::npos)
            << r.out;
        // The storm stops in overwrite 150 (from 0), on instance 0.
        EXPECT_NE(r.out.find("\"storm_overwrites_done\":150"), std::string::npos) << r.out;
        // A crash after the journal record was written is repaired through it.
        const bool journalled = i != 0;
        EXPECT_EQ(r.out.find("\"journal_records\":1") != std::string::npos, journalled) << r.out;

        ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
        const ToolRun c = ok({"check"});
        EXPECT_NE(c.out.find("check passed"), std::string::npos) << c.out;
        ::setenv(SIM_STATE_ENV, state_.c_str(), 1);
    }
}

TEST_F(ToolTest, DemoWithARandomCrashPointGivesTheRightVerdict)
{
    for (int seed : {31, 32, 33}) {
        const fs::path dir = root_ / ("demo" + std::to_string(seed));
        const ToolRun r = tool({"demo", "--state", dir.string(), "--routes", "4000", "--acl", "100",
                                "--storm", "2000", "--seed", std::to_string(seed)});
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        EXPECT_NE(r.out.find("verdict: every entry and every lookup is right"), std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find("client killed by the fault injector"), std::string::npos) << r.out;
        // 3% of the routes and 2% of the rules were deleted.
        EXPECT_NE(r.out.find("entries per instance: fib 3880, acli 98, aclo 98"), std::string::npos)
            << r.out;
    }
}

} // namespace
