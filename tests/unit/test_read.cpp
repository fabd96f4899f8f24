/*
 * TCAM entry reads and the common frame of the forwarding access calls.
 */
#include "test_support.h"

namespace tw {
namespace {

class Read : public LibTest {
protected:
    /* An Orvex table of 16 entries with loc start -> sloc 5 and start+2 -> sloc 9;
     * start+1 is unmapped. */
    void three_entries(uint32_t tbl, uint32_t start)
    {
        orvex(tbl);
        Table &t = table(0, tbl, 16);
        t.map(start, 5);
        t.map(start + 2, 9);
        k0 = make_key(tbl, 100);
        k2 = make_key(tbl, 200);
        fake::hw_entry(0, tbl, 5, k0, p0);
        fake::hw_entry(0, tbl, 9, k2, p2);
    }
    Bytes k0, k2;
    const uint16_t p0 = 0x0101, p2 = 0xF00D;
};

TEST_F(Read, OrvexMiddleUnmappedGivesInvalidKeyAndPackedPriorities)
{
    for (uint32_t tbl : {FIB, ACLI, ACLO}) {
        SCOPED_TRACE(testing::Message() << "tbl_type " << tbl);
        SetUp();
        three_entries(tbl, 4);
        const size_t stride = tbl == FIB ? 18 : 36;
        Bytes keys(3 * stride + 4, 0xAB);
        uint16_t prio[4] = {0x1111, 0x2222, 0x3333, 0x4444};
        tbl_params p = params(0, tbl, 3, 4, 0x77);

        ASSERT_EQ(tcamwrap_fwd_tcam_read_with_priority(&p, keys.data(), prio), 0);

        EXPECT_EQ(Bytes(keys.begin(), keys.begin() + stride), k0);
        EXPECT_EQ(Bytes(keys.begin() + stride, keys.begin() + 2 * stride), ff(stride));
        EXPECT_EQ(Bytes(keys.begin() + 2 * stride, keys.begin() + 3 * stride), k2);
        EXPECT_EQ(Bytes(keys.begin() + 3 * stride, keys.end()), Bytes(4, 0xAB));
        EXPECT_EQ(prio[0], p0);
        EXPECT_EQ(prio[1], p2);
        EXPECT_EQ(prio[2], 0x3333);   /* untouched */
        EXPECT_EQ(prio[3], 0x4444);

        auto reads = fake::calls_of("orvex_tcam_read_entry");
        ASSERT_EQ(reads.size(), 2u);
        const uint32_t slocs[2] = {5, 9};
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(reads[i].p.start_addr, 4u);   /* the caller's, not the loc */
            EXPECT_EQ(reads[i].p.opaque, 0x77u);
            EXPECT_EQ(reads[i].a, (std::vector<uint64_t>{slocs[i], 0}));
        }
        EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
    }
}

TEST_F(Read, OrvexTrailingUnmappedEndsPrioritiesWithOneInvalid)
{
    orvex(FIB);
    Table &t = table(0, FIB, 16);
    t.map(0, 3);
    fake::hw_entry(0, FIB, 3, make_key(FIB, 1), 0x0042);
    Bytes keys(4 * 18);
    uint16_t prio[4] = {1, 2, 3, 4};
    tbl_params p = params(0, FIB, 4, 0);
    ASSERT_EQ(tcamwrap_fwd_tcam_read_with_priority(&p, keys.data(), prio), 0);
    EXPECT_EQ(std::vector<uint16_t>(prio, prio + 4), (std::vector<uint16_t>{0x0042, 0xFFFF, 3, 4}));
    EXPECT_EQ(Bytes(keys.begin() + 18, keys.end()), ff(3 * 18));
}

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

TEST_F(Read, OrvexReadFailureStopsTheRead)
{
    orvex(FIB);
    Table &t = table(0, FIB, 8);
    for (uint32_t i = 0; i < 3; ++i) {
        t.map(i, i + 4);
        fake::hw_entry(0, FIB, i + 4, make_key(FIB, i), uint16_t(i + 1));
    }
    fake::fail("orvex_tcam_read_entry", 5, EIO, 2);
    level(3);
    Bytes keys(3 * 18, 0x33);
    uint16_t prio[3] = {0x7777, 0x7777, 0x7777};
    tbl_params p = params(0, FIB, 3, 0);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_tcam_read_with_priority(&p, keys.data(), prio), 5);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(Bytes(keys.begin(), keys.begin() + 18), make_key(FIB, 0));
    EXPECT_EQ(Bytes(keys.begin() + 36, keys.end()), Bytes(18, 0x33));
    EXPECT_EQ(prio[0], 1);
    EXPECT_EQ(prio[1], 0x7777);
}

TEST_F(Read, Tcam3PassesTheCallersRequestThrough)
{
    orvex(ACLO, false);
    for (uint32_t i = 0; i < 2; ++i)
        fake::set_tcam(1, ACLO, 10 + i, make_key(ACLO, i));
    Bytes keys(72);
    tbl_params p = params(1, ACLO, 2, 10, 0xABCDEF01);
    ASSERT_EQ(tcamwrap_fwd_tcam_read(&p, keys.data()), 0);
    auto r = fake::calls_of("fwd_tcam_read");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(std::memcmp(&r[0].p, &p, sizeof p), 0);
    Bytes want = make_key(ACLO, 0), second = make_key(ACLO, 1);
    want.insert(want.end(), second.begin(), second.end());
    EXPECT_EQ(keys, want);
    EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
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
