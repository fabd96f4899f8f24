/*
 * The result memory reads, on both TCAM kinds. The result-word write
 * (tcamwrap_fwd_ssram_write) is the sweep's: every one-token fault of it fails
 * the sweep, the fuzz replays or the CLI runs.
 */
#include "test_support.h"

namespace tw {
namespace {

Bytes slice(const Bytes &b, size_t from, size_t n) { return Bytes(b.begin() + from, b.begin() + from + n); }

class Access : public LibTest {};

/* ---- result memory reads --------------------------------------------------------------- */

TEST_F(Access, OrvexSsramReadStopsAtTheFirstUnmappedLoc)
{
    orvex(FIB);
    Table &t = table(0, FIB, 16);
    t.map(0, 8);
    t.map(1, 2);
    fake::set_ssram(0, FIB, 8, make_word(1));
    fake::set_ssram(0, FIB, 2, make_word(2));
    Bytes out(15, 0xAA);
    tbl_params p = params(0, FIB, 3, 0);
    level(4);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_ssram_read(&p, out.data()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(slice(out, 0, 5), make_word(1));
    EXPECT_EQ(slice(out, 5, 5), make_word(2));
    EXPECT_EQ(slice(out, 10, 5), Bytes(5, 0xAA));
    for (const fake::Call &c : fake::calls_of("fwd_ssram_read"))
        EXPECT_EQ(c.p.num_entries, 1u);
    ASSERT_FALSE(fake::hist_events().empty());
    EXPECT_EQ(fake::hist_events().back().text, "*** could not find sloc for loc: 0x2 ***\n");
}

TEST_F(Access, OrvexAcliReadsUseTheSlocAndTheHalvedSloc)
{
    orvex(ACLI);
    Table &t = table(0, ACLI, 128);
    t.map(10, 0x41);
    fake::set_flow(0, ACLI, 0x20, make_word(3));
    fake::set_acl_prio(0, ACLI, 0x41, 1);
    Bytes flow(5);
    uint8_t aclp = 0;
    tbl_params p = params(0, ACLI, 1, 10);
    ASSERT_EQ(tcamwrap_fwd_flow_result_read(&p, flow.data()), 0);
    ASSERT_EQ(tcamwrap_fwd_acl_prio_read(&p, &aclp), 0);
    EXPECT_EQ(flow, make_word(3));
    EXPECT_EQ(aclp, 1);
    EXPECT_EQ(fake::calls_of("fwd_flow_result_read")[0].p.start_addr, 0x20u);
    EXPECT_EQ(fake::calls_of("fwd_acl_prio_read")[0].p.start_addr, 0x41u);
    /* An unmapped loc is only a note for the flow-result read: the word of its
     * pair may still hold the other loc's result. */
    level(4);
    p.start_addr = 11;
    EXPECT_EQ(tcamwrap_fwd_flow_result_read(&p, flow.data()), -1);
    ASSERT_FALSE(fake::hist_events().empty());
    EXPECT_EQ(fake::hist_events().back().text, "could not find sloc for loc: 0xb\n");
}

TEST_F(Access, Tcam3FlowResultReadIsEntryByEntryAtTheHalvedLoc)
{
    orvex(ACLI, false);
    fake::set_flow(1, ACLI, 3, make_word(7));
    Bytes out(10);
    tbl_params p = params(1, ACLI, 2, 6, 0x66);
    ASSERT_EQ(tcamwrap_fwd_flow_result_read(&p, out.data()), 0);
    auto r = fake::calls_of("fwd_flow_result_read");
    ASSERT_EQ(r.size(), 2u);
    for (const fake::Call &c : r) {
        EXPECT_EQ(c.p.start_addr, 3u);
        EXPECT_EQ(c.p.num_entries, 1u);
    }
    EXPECT_EQ(slice(out, 0, 5), make_word(7));
    EXPECT_EQ(slice(out, 5, 5), make_word(7));
}

TEST_F(Access, NonAcliTablesHaveNoFlowResultOrAclPriority)
{
    for (uint32_t tbl : {FIB, ACLO}) {
        for (bool is_orvex : {false, true}) {
            SCOPED_TRACE(testing::Message() << "tbl " << tbl << (is_orvex ? " Orvex" : " tcam3"));
            SetUp();
            orvex(tbl, is_orvex);
            table(0, tbl, 16).map(0, 0);
                    Bytes buf(5);
            tbl_params p = params(0, tbl, 1, 0);
            errno = 0;
            EXPECT_EQ(tcamwrap_fwd_flow_result_read(&p, buf.data()), -1);
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            EXPECT_EQ(tcamwrap_fwd_acl_prio_read(&p, buf.data()), -1);
            EXPECT_EQ(errno, EINVAL);
            EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
        }
    }
}

TEST_F(Access, ReadDriverFailures)
{
    orvex(ACLI);
    Table &t = table(0, ACLI, 16);
    t.map(0, 4);
    Bytes buf(5);
    struct {
        const char *fn;
        int (*call)(tbl_params *, uint8_t *);
    } cases[] = {
        {"fwd_ssram_read", tcamwrap_fwd_ssram_read},
        {"fwd_flow_result_read", tcamwrap_fwd_flow_result_read},
        {"fwd_acl_prio_read", tcamwrap_fwd_acl_prio_read},
    };
    for (bool is_orvex : {true, false}) {
        orvex(ACLI, is_orvex);
        for (const auto &c : cases) {
            SCOPED_TRACE(testing::Message() << c.fn << (is_orvex ? " Orvex" : " tcam3"));
            fake::clear_failures();
            fake::fail(c.fn, 21, ENOTTY);
            tbl_params p = params(0, ACLI, 1, 0);
            errno = 0;
            EXPECT_EQ(c.call(&p, buf.data()), 21);
            EXPECT_EQ(errno, ENOTTY);
        }
    }
}

}  // namespace
}  // namespace tw
