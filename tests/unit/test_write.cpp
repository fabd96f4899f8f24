/*
 * Entry write and entry delete, on both TCAM kinds, through the fake engine.
 */
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
    Bytes key(uint32_t i) const
    {
        size_t kb = fake::key_bytes(tbl);
        return Bytes(keys.begin() + i * kb, keys.begin() + (i + 1) * kb);
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
    static std::string journal_key() { return fake::store_key(prefix_str(), 3, 0, 3, 0); }
};

/* ---- Orvex writes -------------------------------------------------------------- */

TEST_F(Write, OrvexAddInsertsEachEntryWithItsHandleAndGrooms)
{
    boot({3});
    Batch b(FIB, 2, 1);
    ASSERT_EQ(b.write(params(0, FIB, 2, 10, 0xA5A5)), 0);

    EXPECT_EQ(fake::call_names({"orvex_"}),
              (std::vector<std::string>{"orvex_tcam_insert_entry", "orvex_tcam_groom", "orvex_tcam_insert_entry",
                                        "orvex_tcam_groom"}));
    auto ins = fake::calls_of("orvex_tcam_insert_entry");
    ASSERT_EQ(ins.size(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(ins[i].p.start_addr, 10u);
        EXPECT_EQ(ins[i].p.opaque, 0xA5A5u);
        EXPECT_EQ(ins[i].in[0], b.key(i));
        EXPECT_EQ(ins[i].a, (std::vector<uint64_t>{b.prio[i], 0}));
        tcamwrap_cb_handle h = handle_of(ins[i]);
        EXPECT_EQ(h.loc, 10 + i);
        EXPECT_EQ(h.acl_prio, 1);
        EXPECT_EQ(Bytes(h.ssram_data, h.ssram_data + 5), b.word(i));
        EXPECT_EQ(h.oper, TCAMWRAP_OPER_ADD);
        EXPECT_EQ(fake::ssram(0, FIB, i), b.word(i));
        EXPECT_EQ(info(0, FIB)->lmt[10 + i], i);
    }
}

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
        ASSERT_EQ(b.write(params(0, FIB, 1, c.loc)), 0);
        auto ins = fake::calls_of("orvex_tcam_insert_entry");
        ASSERT_EQ(ins.size(), 1u);
        EXPECT_EQ(ins[0].a[1], c.bank);
        EXPECT_EQ(fake::calls_of("orvex_tcam_groom")[0].a[1], c.bank);
        uint32_t sloc = uint32_t(tcamwrap_lmt_get_sloc(0, FIB, c.loc));
        EXPECT_EQ(sloc >= 512, c.bank == 1);
    }
}

TEST_F(Write, OverwriteInsertsNewThenDeletesOld)
{
    boot({3});
    Batch first(FIB, 1, 1), second(FIB, 1, 2);
    ASSERT_EQ(first.write(params(0, FIB, 1, 10)), 0);
    fake::clear_calls();

    using Seen = std::tuple<uint32_t, int, bool, uint32_t>;   /* op, phase, journal stored, LMT[10] */
    std::vector<Seen> seen;
    fake::set_camindex_observer([&](const fake::CamindexEvent &e) {
        seen.emplace_back(e.op, e.phase, fake::store().count(journal_key()) == 1, info(0, FIB)->lmt[10]);
    });
    ASSERT_EQ(second.write(params(0, FIB, 1, 10)), 0);
    fake::set_camindex_observer(nullptr);
    /* The journal exists exactly from the new copy's PRE_ADD to the old copy's POST_DEL,
     * and the LMT points at the old copy until that POST_DEL. */
    EXPECT_EQ(seen, (std::vector<Seen>{{0, 0, false, 0}, {0, 1, true, 0}, {1, 0, true, 0}, {1, 1, true, 0},
                                       {2, 0, true, 0}, {2, 1, true, 0}, {3, 0, true, 0}, {3, 1, false, 1}}));
    EXPECT_EQ(fake::call_names({"orvex_"}),
              (std::vector<std::string>{"orvex_tcam_insert_entry", "orvex_tcam_delete_entry", "orvex_tcam_groom"}));
    /* Journal, then the switched segment, and only then the journal goes. */
    EXPECT_EQ(fake::call_names({"kvs_store", "kvs_delete"}),
              (std::vector<std::string>{"kvs_store", "kvs_store", "kvs_delete"}));
    EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(info(0, FIB)->lmt, 1024));
    auto del = fake::calls_of("orvex_tcam_delete_entry");
    EXPECT_EQ(handle_of(fake::calls_of("orvex_tcam_insert_entry")[0]).oper, TCAMWRAP_OPER_OVERWRITE);
    EXPECT_EQ(handle_of(del[0]).oper, TCAMWRAP_OPER_OVERWRITE);
    EXPECT_EQ(del[0].a[0], 0u);
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[10], 1u);
    EXPECT_EQ(ti->rlmt[0], INV);
    EXPECT_EQ(fake::engine(0, FIB).entries.count(0), 0u);
    EXPECT_EQ(fake::ssram(0, FIB, 1), second.word(0));
}

TEST_F(Write, AllInstancesEntryByEntry)
{
    boot({1}, 2);
    Batch b(ACLI, 2, 3, 1);
    ASSERT_EQ(b.write(params(254, ACLI, 2, 4)), 0);
    std::vector<std::pair<int, uint32_t>> seen;   /* instance, loc */
    for (const fake::Call &c : fake::calls_of("orvex_tcam_insert_entry"))
        seen.emplace_back(c.p.inst, handle_of(c).loc);
    EXPECT_EQ(seen, (std::vector<std::pair<int, uint32_t>>{{0, 4}, {1, 4}, {0, 5}, {1, 5}}));
    EXPECT_NE(info(1, ACLI)->lmt[5], INV);
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

TEST_F(Write, FailingInsertStopsAndKeepsEarlierEntries)
{
    boot({3}, 1, 3);
    fake::fail("orvex_tcam_insert_entry", 9, ENOSPC, 3);
    Batch b(FIB, 4, 1);
    errno = 0;
    EXPECT_EQ(b.write(params(0, FIB, 4, 10)), 9);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_NE(info(0, FIB)->lmt[11], INV);
    EXPECT_EQ(info(0, FIB)->lmt[12], INV);
}

/* ---- tcam3 writes ------------------------------------------------------------------- */

TEST_F(Write, Tcam3WritesResultsBeforeTheKey)
{
    fake::card().tcam_type[0] = 0;   /* ACLI on tcam3 */
    boot({1});
    Batch b(ACLI, 2, 5, 0);
    b.aclp[1] = 1;
    ASSERT_EQ(b.write(params(0, ACLI, 2, 7, 0x99)), 0);
    EXPECT_EQ(fake::call_names({"fwd_", "orvex_"}),
              (std::vector<std::string>{"fwd_acl_prio_write", "fwd_flow_result_write", "fwd_tcam_write",
                                        "fwd_acl_prio_write", "fwd_ssram_write", "fwd_tcam_write"}));
    auto tw = fake::calls_of("fwd_tcam_write");
    ASSERT_EQ(tw.size(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(tw[i].p.start_addr, 7 + i);
        EXPECT_EQ(tw[i].p.opaque, 0x99u);
        EXPECT_EQ(tw[i].in[0], b.key(i));
    }
    EXPECT_EQ(fake::flow(0, ACLI, 3), b.word(0));
    EXPECT_EQ(fake::ssram(0, ACLI, 8), b.word(1));
}

TEST_F(Write, Tcam3AllInstancesAndFailures)
{
    fake::card().tcam_type[2] = 0;   /* FIB on tcam3 */
    boot({3}, 2, 3);
    Batch b(FIB, 2, 1);
    ASSERT_EQ(b.write(params(254, FIB, 2, 0)), 0);
    std::vector<std::pair<int, uint32_t>> seen;
    for (const fake::Call &c : fake::calls_of("fwd_tcam_write"))
        seen.emplace_back(c.p.inst, c.p.start_addr);
    EXPECT_EQ(seen, (std::vector<std::pair<int, uint32_t>>{{0, 0}, {1, 0}, {0, 1}, {1, 1}}));

    fake::clear_calls();
    fake::fail("fwd_tcam_write", 3, EIO, 2);
    errno = 0;
    EXPECT_EQ(b.write(params(1, FIB, 2, 5)), 3);
    EXPECT_EQ(errno, EIO);

}

/* ---- deletes ------------------------------------------------------------------------ */

TEST_F(Write, OrvexDeleteClearsTheMapsThroughTheCallbacks)
{
    boot({3});
    Batch b(FIB, 3, 1);
    ASSERT_EQ(b.write(params(0, FIB, 3, 10, 0x42)), 0);
    fake::clear_calls();
    tbl_params p = params(0, FIB, 2, 10, 0x42);
    ASSERT_EQ(tcamwrap_fwd_tcam_delete(&p), 0);
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[11], INV);
    EXPECT_EQ(ti->lmt[12], 2u);
    EXPECT_EQ(ti->rlmt[1], INV);
    auto del = fake::calls_of("orvex_tcam_delete_entry");
    ASSERT_EQ(del.size(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(del[i].a[0], i);
        EXPECT_EQ(del[i].p.opaque, 0x42u);
        tcamwrap_cb_handle h = handle_of(del[i]);
        EXPECT_EQ(h.oper, TCAMWRAP_OPER_DELETE);
        EXPECT_EQ(h.loc, 10 + i);
    }
    EXPECT_TRUE(fake::calls_of("orvex_tcam_groom").empty());
    EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(ti->lmt, ti->lmt_sz));
}

TEST_F(Write, DeleteAllInstancesAndFailure)
{
    boot({2}, 2, 3);
    Batch b(ACLO, 3, 1);
    ASSERT_EQ(b.write(params(254, ACLO, 3, 0)), 0);
    fake::clear_calls();
    fake::fail("orvex_tcam_delete_entry", 6, EPERM, 3);
    tbl_params p = params(254, ACLO, 3, 0);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_tcam_delete(&p), 6);
    EXPECT_EQ(errno, EPERM);
    std::vector<int> insts;
    for (const fake::Call &c : fake::calls_of("orvex_tcam_delete_entry"))
        insts.push_back(c.p.inst);
    EXPECT_EQ(insts, (std::vector<int>{0, 1, 0}));
    EXPECT_EQ(info(1, ACLO)->lmt[0], INV);
    EXPECT_NE(info(0, ACLO)->lmt[1], INV);   /* the failing delete */
}

TEST_F(Write, Tcam3DeleteIsOneDriverCall)
{
    fake::card().tcam_type[1] = 0;
    boot({2}, 2, 3);
    tbl_params p = params(254, ACLO, 9, 100, 0x1234);
    EXPECT_EQ(tcamwrap_fwd_tcam_delete(&p), 0);
    auto d = fake::calls_of("fwd_tcam_delete");
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(std::memcmp(&d[0].p, &p, sizeof p), 0);

    fake::fail("fwd_tcam_delete", 2, EROFS);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_tcam_delete(&p), 2);
    EXPECT_EQ(errno, EROFS);
}

}  // namespace
}  // namespace tw
