// Tests of tcamwrap-sim's building blocks: entry layouts, route parsing, argument
// parsing and the audit of maps against the hardware.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>
#include <string>
#include <vector>

#include "audit.hpp"
#include "cli_args.hpp"
#include "client.hpp"
#include "keys.hpp"
#include "output.hpp"
#include "routes.hpp"

namespace cli = tcamwrap::cli;

namespace
{

TEST(FibKey, LaysOutFamilyVrfAndAddressBigEndianAndReadsBack)
{
    const std::pair<const char *, const char *> cases[] = { // value | mask
        {"10.1.0.0/16", "04000000000a010000ffffffffffffff0000"},
        {"0.0.0.0/0", "040000000000000000ffffffffff00000000"},
        {"192.0.2.1/32", "0400000000c0000201ffffffffffffffffff"},
        {"128.0.0.0/1", "040000000080000000ffffffffff80000000"},
    };
    for (const auto &[prefix, want] : cases) {
        SCOPED_TRACE(prefix);
        std::string error;
        const auto r = cli::parse_prefix(prefix, &error);
        ASSERT_TRUE(r) << error;
        const cli::FibKey key = cli::fib_key(r->net, r->len);
        EXPECT_EQ(cli::hex(key.data(), key.size()), want);
        const auto back = cli::fib_key_route(key.data());
        ASSERT_TRUE(back);
        EXPECT_EQ(std::pair(back->net, back->len), std::pair(r->net, r->len));
    }
    const cli::FibSearch s = cli::fib_search(0x0A010203u);
    EXPECT_EQ(cli::hex(s.data(), s.size()), "04000000000a010203");

    // Keys of another layout are not taken for routes.
    const cli::FibKey key = cli::fib_key(0x0A000000u, 8);
    const std::pair<std::size_t, uint8_t> edits[] = {
        {0, 0x06},  // another family
        {4, 0x01},  // a VRF
        {9, 0x0F},  // family not exact
        {17, 0x01}, // mask with a hole: not a prefix
    };
    for (auto [byte, value] : edits) {
        cli::FibKey k = key;
        k[byte] = value;
        EXPECT_FALSE(cli::fib_key_route(k.data())) << byte;
    }
}

TEST(RouteLine, ParsesRoutesCommentsAndRejectsBadLines)
{
    struct Case {
        const char *line;
        bool route, error;
        uint32_t net = 0;
        uint8_t len = 0;
        uint32_t next_hop = 0;
    };
    const Case cases[] = {
        {"10.0.0.0/8 192.0.2.1", true, false, 0x0A000000u, 8, 0xC0000201u},
        {"  198.51.100.0/24\t203.0.113.9  # customer", true, false, 0xC6336400u, 24, 0xCB007109u},
        {"0.0.0.0/0 10.255.0.1", true, false, 0, 0, 0x0AFF0001u},
        {"# only a comment", false, false},     {"   ", false, false},
        {"10.0.0.1/8 192.0.2.1", false, true},  // host bits
        {"10.0.0.0/33 192.0.2.1", false, true}, {"10.0.0.0/8", false, true},
        {"10.0.0.0/8 192.0.2", false, true},    {"10.0.0/8 192.0.2.1", false, true},
        {"10.0.0.256/32 192.0.2.1", false, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        std::string error;
        const auto r = cli::parse_route_line(c.line, &error);
        EXPECT_EQ(r.has_value(), c.route);
        EXPECT_EQ(!error.empty(), c.error) << error;
        if (r) {
            EXPECT_EQ(std::tuple(r->net, r->len, r->next_hop),
                      std::tuple(c.net, c.len, c.next_hop));
        }
    }
}

TEST(AclKeyAndResults, WildcardsHaveZeroMasksAndResultsLeadWithTheAction)
{
    cli::AclRule r;
    r.proto = 6;
    r.src = 0x0A000000u;
    r.src_len = 8;
    r.dst = 0xC0000201u;
    r.dst_len = 32;
    r.dport = 443;
    r.any_dport = false;
    r.action = 2;
    r.flow_id = 77;
    // value: proto, src, dst | flags, sport<<16|dport, 0; then the mask
    const cli::AclKey k = cli::acl_key(r);
    EXPECT_EQ(cli::hex(k.data(), k.size()), "060a000000c000020100000001bb00000000"
                                            "ffff000000ffffffff000000ffff00000000");
    const cli::AclKey any = cli::acl_key(cli::AclRule{});
    EXPECT_EQ(cli::hex(any.data() + 18, 18), std::string(36, '0'));

    // Result words: the action (or 01 on the FIB), then the flow id (or next hop).
    const cli::ResultWord a = cli::acl_result(r);
    EXPECT_EQ(cli::hex(a.data(), a.size()), "020000004d");
    const cli::ResultWord w = cli::next_hop_result(0xC0000201u);
    EXPECT_EQ(cli::hex(w.data(), w.size()), "01c0000201");
}

TEST(Args, ParsesOptionsNumbersTablesAndInstances)
{
    const std::vector<cli::OptionDef> options = {
        cli::count_option("count", 10), cli::flag_option("hw"),
        cli::choice_option("kind", {"orvex", "tcam3"}), cli::text_option("route", "a prefix")};
    const std::vector<cli::Exclusive> exclusive = {{"hw", "route"}};
    const auto a =
        cli::Args::parse({"fib", "--count=4", "10", "--hw", "--json", "--", "--x"}, options);
    EXPECT_EQ(a.positional(), (std::vector<std::string>{"fib", "10", "--x"}));
    EXPECT_EQ(a.number("count"), 4u);
    EXPECT_TRUE(a.has("hw") && a.has("json"));
    EXPECT_FALSE(a.has("verbose"));
    EXPECT_EQ(cli::parse_number("0x1f", 0, 100, "n"), 31u);
    EXPECT_EQ(cli::parse_table("1"), TCAMWRAP_TBL_ACLI);

    const std::vector<std::vector<std::string>> unusable = {{"--nope"}, {"--count"}, {"--hw=1"}};
    for (const auto &argv : unusable)
        EXPECT_THROW(cli::Args::parse(argv, options), cli::UsageError) << argv[0];
    // Refused with one message naming the option and what it accepts.
    const std::pair<std::vector<std::string>, const char *> refused[] = {
        {{"--count", "x"}, "--count 'x': give a whole number from 1 to 10"},
        {{"--count", "-1"}, "--count '-1': give a whole number from 1 to 10"},
        {{"--count", "0"}, "--count '0': give a whole number from 1 to 10"},
        {{"--count", "11"}, "--count '11': give a whole number from 1 to 10"},
        {{"--count", "1", "--count=2"}, "--count is given twice: give it once"},
        {{"--kind", "big"}, "--kind 'big': give orvex or tcam3"},
        {{"--route", ""}, "--route '': give a prefix"},
        {{"--route", "x", "--hw"}, "--hw and --route exclude each other: give one of --hw or --route"},
    };
    for (const auto &[argv, message] : refused) {
        try {
            (void)cli::Args::parse(argv, options, exclusive);
            ADD_FAILURE() << argv[0] << " accepted";
        } catch (const cli::Refused &e) {
            EXPECT_EQ(std::string(e.what()).rfind(message, 0), 0u) << e.what();
        }
    }
    EXPECT_THROW(cli::parse_table("acl"), cli::Refused);
}

// ---- audit of maps against the hardware ------------------------------------

constexpr uint32_t kNone = TCAMWRAP_INVALID_LOC;

TEST(AuditLmt, FindsEveryKindOfMismatchWithTheHardware)
{
    const cli::CardTable fib{1, TCAMWRAP_TBL_FIB, 4};
    struct Case {
        const char *name;
        std::vector<uint32_t> lmt;
        std::vector<uint8_t> hw;
        std::multiset<std::string> kinds;
    };
    const Case cases[] = {
        {"consistent", {3, kNone, 0, kNone}, {1, 0, 0, 1}, {}},
        {"mapped to an empty sloc", {3, 2, kNone, kNone}, {0, 0, 0, 1}, {"sloc-empty"}},
        {"hardware entry nobody owns", {3, kNone, kNone, kNone}, {0, 1, 0, 1}, {"hw-unowned"}},
        {"two locs on one sloc", {3, 3, kNone, kNone}, {0, 0, 0, 1}, {"sloc-shared"}},
        {"sloc beyond the table", {4, kNone, kNone, kNone}, {0, 0, 0, 0}, {"sloc-range"}},
        {"wrong sloc, the right one left behind",
         {2, kNone, kNone, kNone},
         {0, 0, 0, 1},
         {"sloc-empty", "hw-unowned"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<cli::Difference> out;
        cli::audit_lmt("persistent", fib, c.lmt, c.hw, out);
        std::multiset<std::string> kinds;
        for (const cli::Difference &d : out) {
            kinds.insert(d.kind);
            EXPECT_EQ(d.inst, 1u);
        }
        EXPECT_EQ(kinds, c.kinds);
    }
    // One representative message: it names the loc and the sloc.
    std::vector<cli::Difference> out;
    cli::audit_lmt("running", fib, {kNone, kNone, 1, kNone}, {0, 0, 0, 0}, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::pair(out[0].loc, out[0].sloc), std::pair(2u, 1u));
    EXPECT_EQ(out[0].text,
              "fib inst 1: loc 0x2 maps to sloc 0x1, which holds no entry in hardware");
}

TEST(AuditRlmt, TheMapsMustBeInverse)
{
    const cli::CardTable t{0, TCAMWRAP_TBL_FIB, 4};
    struct Case {
        const char *name;
        std::vector<uint32_t> lmt, rlmt;
        std::size_t differences;
    };
    const Case cases[] = {
        {"inverse", {2, kNone, 0, kNone}, {2, kNone, 0, kNone}, 0},
        {"RLMT misses a sloc", {2, kNone, kNone, kNone}, {kNone, kNone, kNone, kNone}, 1},
        {"RLMT names a loc that maps elsewhere", {1, kNone, kNone, kNone}, {kNone, 0, 0, kNone}, 1},
        {"RLMT names a loc beyond the table",
         {kNone, kNone, kNone, kNone},
         {9, kNone, kNone, kNone},
         1},
        {"swapped", {1, 0, kNone, kNone}, {0, 1, kNone, kNone}, 4},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<cli::Difference> out;
        cli::audit_rlmt(t, c.lmt.data(), c.rlmt.data(), out);
        EXPECT_EQ(out.size(), c.differences);
        for (const cli::Difference &d : out)
            EXPECT_EQ(d.kind, "rlmt");
    }
}

TEST(Repairs, AreCountedFromTheLibrarysReportLines)
{
    const std::vector<std::string> history = {
        "inst: 0 tbl_type: 3 restored 12 entries from HW",
        "<0, 3> Overwrite KVS record found..!! loc: 0x5 old_sloc: 0x9 valid: 1 new_sloc: 0xa "
        "valid: 1",
        "<0, 3> Corresponding LMT information: loc: 0x5 sloc: 0x9",
        "<0, 3> Changing LMT to loc: 0x5 -> sloc: 0xa",
        "<0, 3> invalidating the entry at old_sloc: 0x9",
        "<0, 3> Deleting Overwrite KVS record..",
        "<1, 2> LMT inconsistency found at loc: 0x7 sloc: 0x3 ..!!",
        "<1, 2> Invalidating LMT entry at loc: 0x7",
        "<1, 2> RLMT inconsistency found at sloc: 0x4 ..!!",
        "<1, 2> invalidating the entry at sloc: 0x4",
        "*** something failed ***",
        "!! <1, 2> post restore complete !!",
    };
    const cli::Repairs r = cli::parse_repairs(history);
    EXPECT_EQ(r.journal_records, 1u);
    EXPECT_EQ(r.lmt_switched, 1u);
    EXPECT_EQ(r.old_copies_deleted, 1u);
    EXPECT_EQ(r.lmt_invalidated, 1u);
    EXPECT_EQ(r.orphans_deleted, 1u);
    EXPECT_EQ(r.total(), 3u);
    // The report keeps the library's lines of the repairs and errors, nothing else.
    EXPECT_EQ(r.lines.size(), 10u);
}

} // namespace
