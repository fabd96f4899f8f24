/* Entry writes through the fake engine: the bank of a loc, the ACLI pair rule, bad
 * arguments, an owed journal record. What writes and deletes do to the card across
 * crashes and failing calls is the crash sweep's part. */
#include "test_support.h"

namespace tw {
namespace {

/* The caller's buffers of a write of n entries. */
struct Batch {
    uint32_t tbl;
    Bytes keys, ssram, aclp;
    std::vector<uint16_t> prio;

    Batch(uint32_t t, uint32_t n, uint32_t seed, uint8_t acl_bit = 1) : tbl(t)
    {
        for (uint32_t i = 0; i < n; ++i) {
            Bytes k = make_key(t, seed + i), w = make_word(seed + i);
            keys.insert(keys.end(), k.begin(), k.end());
            ssram.insert(ssram.end(), w.begin(), w.end());
            prio.push_back(uint16_t(0x100 + seed + i));
            aclp.push_back(acl_bit);
        }
    }
    Bytes word(uint32_t i) const { return Bytes(ssram.begin() + i * 5, ssram.begin() + (i + 1) * 5); }
    int write(tbl_params p)
    {
        return tcamwrap_fwd_tcam_ssram_write(&p, keys.data(), prio.data(), ssram.data(),
                                             tbl == ACLI ? aclp.data() : nullptr);
    }
};


class Write : public LibTest {
protected:
    void boot(std::vector<int32_t> types, uint8_t insts = 1, uint32_t lvl = 7)
    {
        fake::card().num_insts = insts;
        ASSERT_EQ(start(types, 0, 0), 0);
        level(lvl);
        fake::clear_calls();
    }
};

/* ---- Orvex writes -------------------------------------------------------------- */

TEST_F(Write, BankFollowsTheHalfOfTheTable)
{
    boot({3});
    struct {
        uint32_t loc;
        uint8_t bank;
    } cases[] = {{0, 0}, {511, 0}, {512, 1}, {1023, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "loc " << c.loc);
        fake::clear_calls();
        Batch b(FIB, 1, c.loc);
        ASSERT_EQ(b.write(params(0, FIB, 1, c.loc, 0x5A)), 0);
        auto ins = fake::calls_of("orvex_tcam_insert_entry");
        ASSERT_EQ(ins.size(), 1u);
        EXPECT_EQ(ins[0].a[1], c.bank);
        EXPECT_EQ(ins[0].p.opaque, 0x5Au);   /* the caller's word goes through */
        EXPECT_EQ(fake::calls_of("orvex_tcam_groom")[0].a[1], c.bank);
        uint32_t sloc = uint32_t(tcamwrap_lmt_get_sloc(0, FIB, c.loc));
        EXPECT_EQ(sloc >= 512, c.bank == 1);
    }
}

TEST_F(Write, AcliResultMemoriesAndTheValidateCallback)
{
    boot({1});
    fake::set_ask_validate(true);
    Batch b(ACLI, 3, 7, 0);
    b.aclp[2] = 1;
    ASSERT_EQ(b.write(params(0, ACLI, 3, 20)), 0);
    tcam_info *ti = info(0, ACLI);
    /* The second flow-result entry may not stand next to the first. */
    EXPECT_EQ(ti->lmt[20], 0u);
    EXPECT_EQ(ti->lmt[21], 2u);
    EXPECT_EQ(ti->lmt[22], 1u);
    /* First insert: sloc 0 accepted (partner 1 unowned). Second: 0 is taken so the
     * engine asks 1 (partner 0 holds a flow-result entry: refused), then 2.
     * Third (bit set): 1 accepted at once. */
    std::vector<std::pair<uint32_t, uint8_t>> want = {{0, 1}, {1, 0}, {2, 1}, {1, 1}};
    EXPECT_EQ(fake::validate_answers(), want);
    EXPECT_EQ(fake::flow(0, ACLI, 1), b.word(1));
    EXPECT_EQ(fake::acl_prio(0, ACLI, 2), uint8_t(0));
    EXPECT_EQ(fake::acl_prio(0, ACLI, 1), uint8_t(1));
    EXPECT_EQ(fake::ssram(0, ACLI, 1), b.word(2));
}

TEST_F(Write, ArgumentChecks)
{
    boot({1, 2, 3}, 1, 3);
    Bytes keys(72), ssram(10), aclp(2);
    uint16_t prio[2] = {};
    struct Case {
        const char *name;
        uint32_t tbl, n;
        bool np, ns, with_aclp;
    } cases[] = {
        {"null params", FIB, 1, true, false, false}, {"null ssram", FIB, 1, false, true, false},
        {"bad type", 5, 1, false, false, false},     {"no entries", FIB, 0, false, false, false},
        {"ACLI without acl prio", ACLI, 1, false, false, false},
        {"FIB with acl prio", FIB, 1, false, false, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fake::clear_calls();
        tbl_params p = params(0, c.tbl, c.n, 0);
        errno = 0;
        int rc = tcamwrap_fwd_tcam_ssram_write(c.np ? nullptr : &p, keys.data(), prio, c.ns ? nullptr : ssram.data(),
                                               c.with_aclp ? aclp.data() : nullptr);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
        EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
    }
}

/* A journal record whose delete failed holds the table's inserts until the store
 * has none, also when it went although the store said the delete failed. */
TEST_F(Write, AnOwedJournalRecordHoldsInsertsUntilTheStoreHasNone)
{
    boot({FIB});
    ASSERT_EQ(Batch(FIB, 1, 1).write(params(0, FIB, 1, 12)), 0);
    fake::fail("kvs_delete", 5, EIO);
    Batch(FIB, 1, 2).write(params(0, FIB, 1, 12));   /* an overwrite: its record stays */
    errno = 0;
    EXPECT_EQ(Batch(FIB, 1, 3).write(params(0, FIB, 1, 20)), -1);
    EXPECT_EQ(errno, ENOSPC);
    fake::store().erase(fake::store_key(prefix_str(), 3, 0, FIB, 0));
    EXPECT_EQ(Batch(FIB, 1, 3).write(params(0, FIB, 1, 20)), 0);
}

}  // namespace
}  // namespace tw
