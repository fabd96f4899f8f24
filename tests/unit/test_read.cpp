/* TCAM entry reads: a loc beyond the table and bad arguments (the sweep, the fuzz
 * targets and the CLI runs read every written, unmapped and failing loc back). */
#include "test_support.h"

namespace tw {
namespace {

class Read : public LibTest {};

TEST_F(Read, OrvexLocBeyondTableFailsAfterEarlierEntries)
{
    orvex(ACLI);
    Table &t = table(1, ACLI, 8);
    t.map(7, 2);
    Bytes k = make_key(ACLI, 9);
    fake::hw_entry(1, ACLI, 2, k, 0x10);
    level(3);
    Bytes keys(3 * 36, 0xCC);
    uint16_t prio[3] = {0, 0, 0};
    tbl_params p = params(1, ACLI, 3, 7);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_tcam_read_with_priority(&p, keys.data(), prio), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Bytes(keys.begin(), keys.begin() + 36), k);
    EXPECT_EQ(Bytes(keys.begin() + 36, keys.end()), Bytes(72, 0xCC));
    EXPECT_EQ(prio[0], 0x10);
    EXPECT_EQ(fake::calls_of("orvex_tcam_read_entry").size(), 1u);
}

TEST_F(Read, ArgumentChecks)
{
    orvex(FIB);
    table(0, FIB, 8);
    Bytes keys(36);
    uint16_t prio[2];
    struct Case {
        const char *name;
        tbl_params p;
        bool null_params, null_keys, null_prio, with_prio;
    };
    const Case cases[] = {
        {"null params", params(0, FIB, 1, 0), true, false, false, false},
        {"null keys", params(0, FIB, 1, 0), false, true, false, true},
        {"null prio", params(0, FIB, 1, 0), false, false, true, true},
        {"bad type", params(0, 4, 1, 0), false, false, false, true},
        {"no entries", params(0, FIB, 0, 0), false, false, false, false},
        {"bad instance", params(2, FIB, 1, 0), false, false, false, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        tbl_params p = c.p;
        tbl_params *pp = c.null_params ? nullptr : &p;
        uint8_t *k = c.null_keys ? nullptr : keys.data();
        errno = 0;
        int rc = c.with_prio ? tcamwrap_fwd_tcam_read_with_priority(pp, k, c.null_prio ? nullptr : prio)
                             : tcamwrap_fwd_tcam_read(pp, k);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
        EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
    }
}

}  // namespace
}  // namespace tw
