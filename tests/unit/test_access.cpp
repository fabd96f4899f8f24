/*
 * The result memory reads: an unmapped loc stops an Orvex read, a tcam3 flow
 * result is read entry by entry at the halved loc. The other reads and the
 * result-word write are the sweep's: every one-token fault of them fails the
 * sweep, the fuzz replays or the CLI runs.
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

}  // namespace
}  // namespace tw
