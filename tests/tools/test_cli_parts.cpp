// Tests of tcamwrap-sim's building blocks: entry layouts, route parsing, the
// generated tables, the longest-prefix model, bank spreading, argument parsing
// and JSON output.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <random>
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

std::string hex_of(const uint8_t *b, std::size_t n)
{
    return cli::hex(b, n);
}

TEST(FibKey, LaysOutFamilyVrfAndAddressBigEndian)
{
    struct Case {
        const char *prefix;
        const char *value_mask;
    };
    const Case cases[] = {
        {"10.1.0.0/16", "04"
                        "00000000"
                        "0a010000"
                        "ff"
                        "ffffffff"
                        "ffff0000"},
        {"0.0.0.0/0", "04"
                      "00000000"
                      "00000000"
                      "ff"
                      "ffffffff"
                      "00000000"},
        {"192.0.2.1/32", "04"
                         "00000000"
                         "c0000201"
                         "ff"
                         "ffffffff"
                         "ffffffff"},
        {"128.0.0.0/1", "04"
                        "00000000"
                        "80000000"
                        "ff"
                        "ffffffff"
                        "80000000"},
    };
    for (const Case &c : cases) {
        std::string error;
        auto r = cli::parse_prefix(c.prefix, &error);
        ASSERT_TRUE(r) << c.prefix << ": " << error;
        const cli::FibKey key = cli::fib_key(r->net, r->len);
        EXPECT_EQ(hex_of(key.data(), key.size()), c.value_mask) << c.prefix;
        auto back = cli::fib_key_route(key.data());
        ASSERT_TRUE(back) << c.prefix;
        EXPECT_EQ(back->net, r->net);
        EXPECT_EQ(back->len, r->len);
        EXPECT_EQ(cli::fib_priority(r->len), r->len);
    }
}

TEST(FibKey, SearchKeyIsTheValueHalfOfAnAddress)
{
    const cli::FibSearch s = cli::fib_search(0x0A010203u);
    EXPECT_EQ(hex_of(s.data(), s.size()), "04000000000a010203");
}

TEST(FibKey, ForeignLayoutsAreNotTakenForRoutes)
{
    cli::FibKey key = cli::fib_key(0x0A000000u, 8);
    auto broken = [&](std::size_t byte, uint8_t value) {
        cli::FibKey k = key;
        k[byte] = value;
        return cli::fib_key_route(k.data()).has_value();
    };
    EXPECT_FALSE(broken(0, 0x06));  // another family
    EXPECT_FALSE(broken(4, 0x01));  // a VRF
    EXPECT_FALSE(broken(9, 0x0F));  // family not exact
    EXPECT_FALSE(broken(17, 0x01)); // mask with a hole: not a prefix
    EXPECT_TRUE(broken(8, 0x00));   // value bytes under the mask do not matter
}

TEST(RouteLine, ParsesRoutesCommentsAndRejectsBadLines)
{
    struct Case {
        const char *line;
        bool route;
        bool error;
        uint32_t net;
        uint8_t len;
        uint32_t next_hop;
    };
    const Case cases[] = {
        {"10.0.0.0/8 192.0.2.1", true, false, 0x0A000000u, 8, 0xC0000201u},
        {"  198.51.100.0/24\t203.0.113.9  # customer", true, false, 0xC6336400u, 24, 0xCB007109u},
        {"0.0.0.0/0 10.255.0.1", true, false, 0, 0, 0x0AFF0001u},
        {"# only a comment", false, false, 0, 0, 0},
        {"   ", false, false, 0, 0, 0},
        {"10.0.0.1/8 192.0.2.1", false, true, 0, 0, 0},  // host bits
        {"10.0.0.0/33 192.0.2.1", false, true, 0, 0, 0}, // length
        {"10.0.0.0/8", false, true, 0, 0, 0},            // no next hop
        {"10.0.0.0/8 192.0.2", false, true, 0, 0, 0},    // bad next hop
        {"10.0.0/8 192.0.2.1", false, true, 0, 0, 0},    // bad prefix
        {"10.0.0.256/32 192.0.2.1", false, true, 0, 0, 0},
    };
    for (const Case &c : cases) {
        std::string error;
        auto r = cli::parse_route_line(c.line, &error);
        EXPECT_EQ(r.has_value(), c.route) << c.line;
        EXPECT_EQ(!error.empty(), c.error) << c.line << ": " << error;
        if (r) {
            EXPECT_EQ(r->net, c.net) << c.line;
            EXPECT_EQ(r->len, c.len) << c.line;
            EXPECT_EQ(r->next_hop, c.next_hop) << c.line;
        }
    }
}

TEST(ResultWords, CarryNextHopsAndAclActions)
{
    const cli::ResultWord w = cli::next_hop_result(0xC0000201u);
    EXPECT_EQ(hex_of(w.data(), w.size()), "01c0000201");
    EXPECT_EQ(cli::result_next_hop(w.data()), 0xC0000201u);
    EXPECT_EQ(cli::describe_result(TCAMWRAP_TBL_FIB, w.data()), "next hop 192.0.2.1");

    cli::AclRule rule;
    rule.action = 2;
    rule.flow_id = 77;
    const cli::ResultWord a = cli::acl_result(rule);
    EXPECT_EQ(hex_of(a.data(), a.size()), "020000004d");
    EXPECT_EQ(cli::describe_result(TCAMWRAP_TBL_ACLO, a.data()), "deny flow 77");
}

TEST(AclKey, WildcardFieldsHaveZeroMasks)
{
    cli::AclRule r;
    r.proto = 6;
    r.src = 0x0A000000u;
    r.src_len = 8;
    r.dst = 0xC0000201u;
    r.dst_len = 32;
    r.dport = 443;
    r.any_dport = false;
    r.any_sport = true;
    const cli::AclKey k = cli::acl_key(r);
    // value: proto, src, dst | flags, sport<<16|dport, 0
    EXPECT_EQ(hex_of(k.data(), 18), "06"
                                    "0a000000"
                                    "c0000201"
                                    "00"
                                    "000001bb"
                                    "00000000");
    EXPECT_EQ(hex_of(k.data() + 18, 18), "ff"
                                         "ff000000"
                                         "ffffffff"
                                         "00"
                                         "0000ffff"
                                         "00000000");

    cli::AclRule any; // protocol 0 = any, no addresses
    const cli::AclKey w = cli::acl_key(any);
    EXPECT_EQ(hex_of(w.data() + 18, 18), std::string(36, '0'));
}

TEST(GeneratedRoutes, AreUniqueStartWithTheDefaultAndFollowTheMix)
{
    std::mt19937_64 rng(1);
    cli::PrefixSet taken;
    const auto routes = cli::generate_routes(20000, rng, taken);
    ASSERT_EQ(routes.size(), 20000u);
    EXPECT_EQ(routes[0].net, 0u);
    EXPECT_EQ(routes[0].len, 0);
    cli::PrefixSet seen;
    std::map<int, int> by_len;
    for (const cli::Route &r : routes) {
        EXPECT_TRUE(seen.insert(r.net, r.len)) << cli::route_text(r.net, r.len);
        EXPECT_EQ(r.net & ~cli::prefix_mask(r.len), 0u);
        EXPECT_EQ(r.next_hop >> 8, 0x0AFF00u);
        ++by_len[r.len];
    }
    // /24 is a little over half of a public table; /22 and /23 about a tenth.
    EXPECT_GT(by_len[24], 10000);
    EXPECT_LT(by_len[24], 12500);
    EXPECT_GT(by_len[22] + by_len[23], 3000);
    EXPECT_LT(by_len[8] + by_len[32], 100);
    // The same seed gives the same table.
    std::mt19937_64 again(1);
    cli::PrefixSet taken2;
    EXPECT_EQ(cli::generate_routes(20000, again, taken2), routes);
}

TEST(GeneratedAcl, MixesAclPriorityBytesOnIngressOnly)
{
    std::mt19937_64 rng(3);
    int flow = 0;
    for (const cli::AclRule &r : cli::generate_acl(400, true, rng)) {
        flow += r.acl_prio == 0;
        EXPECT_LE(r.acl_prio, 1);
        EXPECT_GE(r.action, 1);
        EXPECT_LE(r.action, 3);
    }
    EXPECT_GT(flow, 40);
    EXPECT_LT(flow, 360);
    for (const cli::AclRule &r : cli::generate_acl(100, false, rng))
        EXPECT_EQ(r.acl_prio, 1);
}

TEST(Lpm, TheLongestCoveringRouteWins)
{
    cli::LpmTable t;
    t.add(0, 0, 1);
    t.add(0x0A000000u, 8, 2);
    t.add(0x0A010000u, 16, 3);
    t.add(0x0A010200u, 24, 4);
    struct Case {
        uint32_t addr;
        uint32_t want;
    };
    const Case cases[] = {
        {0x0A010203u, 4}, {0x0A0103FFu, 3}, {0x0A020000u, 2}, {0x0B000000u, 1}, {0x0A010000u, 3}};
    for (const Case &c : cases)
        EXPECT_EQ(t.lookup(c.addr), c.want) << cli::ipv4_text(c.addr);
    t.erase(0x0A010000u, 16);
    EXPECT_EQ(t.lookup(0x0A0103FFu), 2u);
    t.erase(0, 0);
    EXPECT_FALSE(t.lookup(0x0B000000u));
}

TEST(SpreadLoc, FillsBothHalvesFromStartInTurn)
{
    // 16 entries: even i in the lower half, odd i in the upper half.
    const uint32_t want[] = {2, 10, 3, 11, 4, 12};
    for (uint32_t i = 0; i < 6; ++i)
        EXPECT_EQ(cli::spread_loc(i, 16, 2), want[i]) << i;
    EXPECT_EQ(cli::spread_capacity(16, 2), 12u);
    EXPECT_EQ(cli::spread_capacity(16, 8), 0u);
    // Every entry of a full spread load has its own loc.
    std::vector<int> used(1000, 0);
    for (uint32_t i = 0; i < cli::spread_capacity(1000, 0); ++i)
        ++used[cli::spread_loc(i, 1000, 0)];
    for (int u : used)
        EXPECT_EQ(u, 1);
}

TEST(Args, ParsesOptionsPositionalsAndRefusesUnknownOptions)
{
    const std::vector<cli::OptionSpec> specs = {{"count", true}, {"hw", false}};
    const auto a =
        cli::Args::parse({"fib", "--count=4", "10", "--hw", "--json", "--", "--x"}, specs);
    EXPECT_EQ(a.positional(), (std::vector<std::string>{"fib", "10", "--x"}));
    EXPECT_EQ(a.number("count", 10), 4u);
    EXPECT_TRUE(a.has("hw"));
    EXPECT_TRUE(a.has("json"));
    EXPECT_FALSE(a.has("verbose"));

    EXPECT_THROW(cli::Args::parse({"--nope"}, specs), cli::UsageError);
    EXPECT_THROW(cli::Args::parse({"--count"}, specs), cli::UsageError);
    EXPECT_THROW(cli::Args::parse({"--hw=1"}, specs), cli::UsageError);
    EXPECT_THROW(cli::Args::parse({"--count", "x"}, specs).number("count", 10), cli::UsageError);
    EXPECT_THROW(cli::Args::parse({"--count", "11"}, specs).number("count", 10), cli::UsageError);
}

TEST(Args, NumbersTablesAndInstances)
{
    EXPECT_EQ(cli::parse_number("0x1f", 100, "n"), 31u);
    EXPECT_EQ(cli::parse_number("12", 100, "n"), 12u);
    EXPECT_THROW(cli::parse_number("", 100, "n"), cli::UsageError);
    EXPECT_THROW(cli::parse_number("-1", 100, "n"), cli::UsageError);
    EXPECT_EQ(cli::parse_table("fib"), TCAMWRAP_TBL_FIB);
    EXPECT_EQ(cli::parse_table("1"), TCAMWRAP_TBL_ACLI);
    EXPECT_EQ(cli::parse_table("aclo"), TCAMWRAP_TBL_ACLO);
    EXPECT_THROW(cli::parse_table("acl"), cli::UsageError);
    EXPECT_EQ(cli::parse_inst("all"), TCAMWRAP_ALL_INSTS);
    EXPECT_EQ(cli::parse_inst("1"), 1);
    EXPECT_THROW(cli::parse_inst("2"), cli::UsageError);
}

TEST(Output, JsonEscapesAndKeepsMemberOrder)
{
    cli::Json j = cli::Json::object();
    j.set("b", 1).set("a", "x\"y\n").set("list", cli::Json::array().push(true).push(cli::Json()));
    EXPECT_EQ(j.dump(), "{\"b\":1,\"a\":\"x\\\"y\\n\",\"list\":[true,null]}");
}

TEST(Output, HexParsingAcceptsSeparatorsAndRejectsOddDigits)
{
    std::vector<uint8_t> out;
    ASSERT_TRUE(cli::parse_hex("0x01:c0 00.02 01", out));
    EXPECT_EQ(out, (std::vector<uint8_t>{0x01, 0xC0, 0x00, 0x02, 0x01}));
    EXPECT_FALSE(cli::parse_hex("abc", out));
    EXPECT_FALSE(cli::parse_hex("zz", out));
    EXPECT_FALSE(cli::parse_hex("", out));
}

// ---- audit of maps against the hardware ------------------------------------

constexpr uint32_t kNone = TCAMWRAP_INVALID_LOC;

std::multiset<std::string> kinds_of(const std::vector<cli::Difference> &d)
{
    std::multiset<std::string> k;
    for (const cli::Difference &x : d)
        k.insert(x.kind);
    return k;
}

TEST(AuditLmt, FindsEveryKindOfMismatchWithTheHardware)
{
    const cli::CardTable fib{1, TCAMWRAP_TBL_FIB, 8};
    struct Case {
        const char *name;
        std::vector<uint32_t> lmt;
        std::vector<uint8_t> hw;
        std::multiset<std::string> kinds;
    };
    const Case cases[] = {
        {"consistent", {3, kNone, 0, kNone, kNone, kNone, kNone, 7}, {1, 0, 0, 1, 0, 0, 0, 1}, {}},
        {"empty table", std::vector<uint32_t>(8, kNone), std::vector<uint8_t>(8, 0), {}},
        {"mapped to an empty sloc",
         {3, 5, kNone, kNone, kNone, kNone, kNone, kNone},
         {0, 0, 0, 1, 0, 0, 0, 0},
         {"sloc-empty"}},
        {"hardware entry nobody owns",
         {3, kNone, kNone, kNone, kNone, kNone, kNone, kNone},
         {0, 1, 0, 1, 0, 0, 0, 0},
         {"hw-unowned"}},
        {"two locs on one sloc",
         {3, 3, kNone, kNone, kNone, kNone, kNone, kNone},
         {0, 0, 0, 1, 0, 0, 0, 0},
         {"sloc-shared"}},
        {"sloc beyond the table",
         {8, kNone, kNone, kNone, kNone, kNone, kNone, kNone},
         std::vector<uint8_t>(8, 0),
         {"sloc-range"}},
        {"wrong sloc, the right one left behind",
         {2, kNone, kNone, kNone, kNone, kNone, kNone, kNone},
         {0, 0, 0, 1, 0, 0, 0, 0},
         {"sloc-empty", "hw-unowned"}},
    };
    for (const Case &c : cases) {
        std::vector<cli::Difference> out;
        cli::audit_lmt("persistent", fib, c.lmt, c.hw, out);
        EXPECT_EQ(kinds_of(out), c.kinds) << c.name;
        for (const cli::Difference &d : out) {
            EXPECT_EQ(d.inst, 1u) << c.name;
            EXPECT_EQ(d.text.rfind("fib inst 1: ", 0), 0u) << d.text;
        }
    }
}

TEST(AuditLmt, NamesTheLocAndSlocOfADifference)
{
    const cli::CardTable fib{0, TCAMWRAP_TBL_FIB, 4};
    std::vector<cli::Difference> out;
    cli::audit_lmt("running", fib, {kNone, kNone, 1, kNone}, {0, 0, 0, 0}, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].loc, 2u);
    EXPECT_EQ(out[0].sloc, 1u);
    EXPECT_EQ(out[0].text,
              "fib inst 0: loc 0x2 maps to sloc 0x1, which holds no entry in hardware");
    EXPECT_NE(out[0].to_json().dump().find("\"kind\":\"sloc-empty\""), std::string::npos);
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
        std::vector<cli::Difference> out;
        cli::audit_rlmt(t, c.lmt.data(), c.rlmt.data(), out);
        EXPECT_EQ(out.size(), c.differences) << c.name;
        for (const cli::Difference &d : out)
            EXPECT_EQ(d.kind, "rlmt") << c.name;
    }
}

// ---- what a restart repaired, from the library's history ---------------------

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
        "<1, 2> RLMT inconsistency found at sloc: 0x6 ..!!",
        "<1, 2> invalidating the entry at sloc: 0x6",
        "*** something failed ***",
        "!! <1, 2> post restore complete !!",
    };
    const cli::Repairs r = cli::parse_repairs(history);
    EXPECT_EQ(r.journal_records, 1u);
    EXPECT_EQ(r.lmt_switched, 1u);
    EXPECT_EQ(r.old_copies_deleted, 1u);
    EXPECT_EQ(r.lmt_invalidated, 1u);
    EXPECT_EQ(r.orphans_deleted, 2u);
    EXPECT_EQ(r.total(), 4u);
    // The report keeps the library's lines of the repairs and errors, nothing else.
    EXPECT_EQ(r.lines.size(), 12u);
    EXPECT_EQ(cli::parse_repairs({"inst: 0 tbl_type: 3 restored 12 entries from HW"}).total(), 0u);
}

} // namespace
