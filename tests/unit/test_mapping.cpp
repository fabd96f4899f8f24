/*
 * LMT persistence, the overwrite journal and the camindex callback, driven the
 * way the search engine drives them.
 */
#include "test_support.h"

namespace tw {
namespace {

const char *const kCamindex = "tcamwrap_cb_orvex_tcam_camindex";

std::string seg_key(uint8_t inst, uint8_t tbl, uint8_t seg) { return fake::store_key(prefix_str(), 2, inst, tbl, seg); }
std::string journal_key(uint8_t inst, uint8_t tbl) { return fake::store_key(prefix_str(), 3, inst, tbl, 0); }

std::string journal_value(uint32_t loc, uint32_t old_sloc, uint32_t new_sloc)
{
    uint32_t w[3] = {loc, old_sloc, new_sloc};
    return words_image(w, 3);
}

class Mapping : public LibTest {
protected:
    /* Fresh start of one instance with every table on Orvex. */
    tcam_info *fresh(uint32_t tbl, uint32_t size, uint8_t insts = 1)
    {
        fake::card().num_insts = insts;
        fake::card().size[tbl] = size;
        EXPECT_EQ(start({int32_t(tbl)}, 0, 0), 0);
        level(7);
        fake::clear_calls();
        fake::clear_traces();
        return info(0, tbl);
    }

    static void prepare(tcamwrap_cb_handle *h, uint32_t loc, uint32_t oper, uint8_t aclp, const Bytes &word)
    {
        h->loc = loc;
        h->oper = oper;
        h->acl_prio = aclp;
        std::memcpy(h->ssram_data, word.data(), 5);
    }

    static int cam(tcamwrap_cb_handle *h, uint32_t op, uint32_t old_sloc, uint32_t new_sloc)
    {
        return tcamwrap_cb_orvex_tcam_camindex(h, 0x1111, 0x2222, op, old_sloc, new_sloc);
    }

    /* Add loc at sloc through PRE_ADD with oper 1. */
    static void add(tcam_info *ti, uint32_t loc, uint32_t sloc, const Bytes &word = make_word(1), uint8_t aclp = 1)
    {
        prepare(&ti->cb_handle, loc, TCAMWRAP_OPER_ADD, aclp, word);
        ASSERT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, sloc), 0);
    }
};

/* ---- LMT segments --------------------------------------------------------- */

TEST_F(Mapping, PreAddStoresTheSegmentOfTheLoc)
{
    struct {
        uint32_t size, loc;
        uint8_t seg;
        uint32_t words;
    } cases[] = {
        {1500, 1100, 1, 476}, {1500, 3, 0, 1024}, {2048, 1024, 1, 1024},
        {2048, 2047, 1, 1024}, {1024, 1023, 0, 1024}, {100, 99, 0, 100},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << " loc " << c.loc);
        SetUp();
        tcam_info *ti = fresh(FIB, c.size);
        ASSERT_NE(ti, nullptr);
        uint32_t sloc = c.size - 1 - c.loc / 2;
        add(ti, c.loc, sloc);
        EXPECT_EQ(ti->lmt[c.loc], sloc);
        EXPECT_EQ(ti->rlmt[sloc], c.loc);
        auto st = fake::calls_of("kvs_store");
        ASSERT_EQ(st.size(), 1u);
        EXPECT_EQ(st[0].a, (std::vector<uint64_t>{0x51, 1}));
        EXPECT_EQ(fake::key_str(st[0].in[0]), seg_key(0, 3, c.seg));
        EXPECT_EQ(fake::key_str(st[0].in[1]), words_image(ti->lmt + c.seg * 1024u, c.words));
        EXPECT_TRUE(traced("tcamwrap_kvs_store_lmt_segment", fmt("storing LMT segment<0 3>: %d \n", c.seg)))
            << dump_traces();
    }
}

TEST_F(Mapping, PreAddOfAnAddTracesWritesAndPersists)
{
    tcam_info *ti = fresh(FIB, 1024);
    Bytes w = make_word(7);
    add(ti, 0x44, 0x4d, w);
    std::vector<Trace> want = {
        {"tcamwrap_print_camindex_cb_type", "PRE_ADD: new_sloc: 0x4d\n"},
        {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: new sloc is 0x4d\n"},
        {"tcamwrap_lmt_pre_add", "PRE_ADD: LMT<0 3>: oper: 1 loc 0x44 --> sloc 0x4d\n"},
        {"tcamwrap_kvs_store_lmt_segment", "storing LMT segment<0 3>: 0 \n"},
        {"tcamwrap_internal_ssram_update", "writing adjacency SSRAM at loc: 0x4d\n"},
    };
    EXPECT_EQ(fake::traces(), want) << dump_traces();
    auto wr = fake::calls_of("fwd_ssram_write");
    ASSERT_EQ(wr.size(), 1u);
    EXPECT_EQ(wr[0].p.inst, 0);
    EXPECT_EQ(wr[0].p.tbl_type, FIB);
    EXPECT_EQ(wr[0].p.num_entries, 1u);
    EXPECT_EQ(wr[0].p.start_addr, 0x4du);
    EXPECT_EQ(wr[0].p.opaque, 0x4du);
    EXPECT_EQ(fake::ssram(0, FIB, 0x4d), w);
    /* The segment is stored before the result memories are written. */
    EXPECT_EQ(fake::call_names({"kvs_", "fwd_"}), (std::vector<std::string>{"kvs_store", "fwd_ssram_write"}));
}

TEST_F(Mapping, FailedSegmentStoreKeepsTheMapping)
{
    tcam_info *ti = fresh(FIB, 1024);
    fake::fail("kvs_store", 5, 0);
    prepare(&ti->cb_handle, 3, TCAMWRAP_OPER_ADD, 1, make_word(3));
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 8), 0);
    EXPECT_EQ(ti->lmt[3], 8u);
    EXPECT_EQ(ti->rlmt[8], 3u);
    EXPECT_TRUE(traced("tcamwrap_kvs_store_lmt_segment", "*** LMT segment<0 3>: 0 kvs_store() failed: kvs error 5 ***\n"))
        << dump_traces();
    EXPECT_EQ(fake::ssram(0, FIB, 8), make_word(3));
}

/* ---- the overwrite journal --------------------------------------------------- */

TEST_F(Mapping, OverwriteJournalLifecycle)
{
    tcam_info *ti = fresh(FIB, 1024);
    add(ti, 5, 9);
    fake::clear_calls();
    fake::clear_traces();

    /* PRE_ADD of the new copy: journal stored, LMT unchanged. */
    prepare(&ti->cb_handle, 5, TCAMWRAP_OPER_OVERWRITE, 1, make_word(2));
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 20), 0);
    EXPECT_EQ(ti->lmt[5], 9u);
    EXPECT_EQ(ti->rlmt[9], 5u);
    EXPECT_EQ(ti->rlmt[20], INV);
    ASSERT_EQ(fake::store().count(journal_key(0, 3)), 1u);
    EXPECT_EQ(fake::store()[journal_key(0, 3)], journal_value(5, 9, 20));
    EXPECT_EQ(fake::calls_of("kvs_store").size(), 1u);   /* the journal only, no segment */
    EXPECT_TRUE(traced("tcamwrap_kvs_store_ha_overwrite",
                       "storing overwrite info <0, 3>: loc 0x5 old_sloc 0x9 new_sloc 0x14\n"))
        << dump_traces();
    EXPECT_EQ(fake::ssram(0, FIB, 20), make_word(2));

    /* POST_ADD and PRE_DEL change nothing. */
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_ADD, INV, 20), 0);
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_DEL, 9, INV), 0);
    EXPECT_EQ(ti->lmt[5], 9u);
    EXPECT_EQ(fake::store().count(journal_key(0, 3)), 1u);

    /* POST_DEL of the old copy: LMT switched, segment stored, then journal deleted. */
    fake::clear_calls();
    fake::clear_traces();
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 9, INV), 0);
    EXPECT_EQ(ti->lmt[5], 20u);
    EXPECT_EQ(ti->rlmt[20], 5u);
    EXPECT_EQ(ti->rlmt[9], INV);
    EXPECT_EQ(fake::store().count(journal_key(0, 3)), 0u);
    EXPECT_EQ(fake::store()[seg_key(0, 3, 0)], words_image(ti->lmt, 1024));
    std::vector<std::string> kvs = fake::call_names({"kvs_store", "kvs_delete"});
    EXPECT_EQ(kvs, (std::vector<std::string>{"kvs_store", "kvs_delete"}));
    auto del = fake::calls_of("kvs_delete");
    ASSERT_EQ(del.size(), 1u);
    EXPECT_EQ(fake::key_str(del[0].in[0]), journal_key(0, 3));
    EXPECT_TRUE(traced("tcamwrap_lmt_post_del",
                       "POST_DEL: LMT<0 3>: moving from loc 0x5 --> sloc 0x9 to loc 0x5 --> sloc 0x14\n"))
        << dump_traces();
    EXPECT_TRUE(traced("tcamwrap_kvs_delete_ha_overwrite", "deleting overwrite info <0, 3>\n"));
    EXPECT_TRUE(traced("tcamwrap_ha_overwrite_restore", "restored loc 0x5 old_sloc 0x9 new_sloc 0x14\n"));
}

TEST_F(Mapping, JournalKeyOfInstanceOneFib)
{
    fake::card().num_insts = 2;
    ASSERT_EQ(start({3}, 0, 0), 0);
    tcam_info *ti = info(1, FIB);
    ASSERT_NE(ti, nullptr);
    add(ti, 1, 2);
    prepare(&ti->cb_handle, 1, TCAMWRAP_OPER_OVERWRITE, 1, make_word(2));
    cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 3);
    auto st = fake::calls_of("kvs_store");
    ASSERT_EQ(st.size(), 2u);
    const Bytes &k = st[1].in[0];
    ASSERT_EQ(k.size(), prefix_str().size() + 4);
    EXPECT_EQ(Bytes(k.end() - 4, k.end()), (Bytes{3, 1, 3, 0}));
}

TEST_F(Mapping, FailedJournalStoreLetsTheAddGoOn)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 5, 9);
    fake::clear_traces();
    fake::fail("kvs_store", 6, 0);
    prepare(&ti->cb_handle, 5, TCAMWRAP_OPER_OVERWRITE, 1, make_word(4));
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 11), 0);
    EXPECT_TRUE(traced("tcamwrap_kvs_store_ha_overwrite",
                       "*** overwrite info <0 3>: loc 0x5 old_sloc 0x9 new_sloc 0xb kvs_store() failed: kvs error 6 ***\n"))
        << dump_traces();
    EXPECT_EQ(fake::ssram(0, FIB, 11), make_word(4));
    EXPECT_EQ(ti->lmt[5], 9u);
}

TEST_F(Mapping, FailedJournalDeleteIsTheCallbacksOwnResultButIgnored)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 5, 9);
    prepare(&ti->cb_handle, 5, TCAMWRAP_OPER_OVERWRITE, 1, make_word(4));
    cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 11);
    fake::fail("kvs_delete", 4, 0);
    fake::clear_traces();
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 9, INV), 0);
    EXPECT_EQ(ti->lmt[5], 11u);
    EXPECT_TRUE(traced("tcamwrap_kvs_delete_ha_overwrite", "*** overwrite info <0 3> kvs_delete() failed: kvs error 4 ***\n"))
        << dump_traces();
    EXPECT_EQ(fake::store().count(journal_key(0, 3)), 1u);
}

TEST_F(Mapping, JournalValueOfSixteenBytesUsesTheFirstTwelve)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 5, 9);
    /* A longer record under the journal key: an assertion, then the first 12 bytes. */
    fake::store()[journal_key(0, 3)] = journal_value(5, 9, 30) + std::string("\x01\x02\x03\x04", 4);
    ti->cb_handle.oper = TCAMWRAP_OPER_OVERWRITE;
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 9, INV), 0);
    EXPECT_EQ(ti->lmt[5], 30u);
    EXPECT_EQ(ti->rlmt[30], 5u);
    EXPECT_EQ(ti->rlmt[9], INV);
}

TEST_F(Mapping, JournalOfAnotherTableIsNotRead)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 5, 9);
    /* The first key at or after {3,0,3,0} is another table's journal. */
    fake::store()[fake::store_key(prefix_str(), 3, 1, 3, 0)] = journal_value(5, 9, 30);
    fake::clear_traces();
    ti->cb_handle.oper = TCAMWRAP_OPER_OVERWRITE;
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 9, INV), 0);
    EXPECT_TRUE(traced("tcamwrap_ha_overwrite_restore", "restoring overwrite <0 3> info from kvs..\n"));
    EXPECT_FALSE(traced("tcamwrap_ha_overwrite_restore", "restored overwrite info <0 3>\n")) << dump_traces();
    /* Nothing may be indexed with the invalid marker: the LMT keeps no sloc
     * beyond the table and the RLMT stays the LMT's inverse. */
    for (uint32_t loc = 0; loc < ti->lmt_sz; ++loc)
        if (ti->lmt[loc] != INV) {
            ASSERT_LT(ti->lmt[loc], ti->lmt_sz);
            EXPECT_EQ(ti->rlmt[ti->lmt[loc]], loc);
        }
}

TEST_F(Mapping, SecondJournalStoreReplacesTheFirst)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 5, 9);
    add(ti, 6, 10);
    prepare(&ti->cb_handle, 5, TCAMWRAP_OPER_OVERWRITE, 1, make_word(4));
    cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 11);
    prepare(&ti->cb_handle, 6, TCAMWRAP_OPER_OVERWRITE, 1, make_word(4));
    cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 12);
    EXPECT_EQ(fake::store()[journal_key(0, 3)], journal_value(6, 10, 12));
    size_t journals = 0;
    for (const auto &kv : fake::store())
        journals += kv.first.size() == prefix_str().size() + 4 && kv.first[prefix_str().size()] == 3;
    EXPECT_EQ(journals, 1u);
}

/* ---- camindex: codes and oper checks ----------------------------------------------- */

TEST_F(Mapping, CamindexRejectsBadHandles)
{
    level(2);
    errno = 0;
    EXPECT_EQ(tcamwrap_cb_orvex_tcam_camindex(nullptr, 0, 0, 0, 1, 2), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{kCamindex, "*** tcamwrap_cb_orvex_tcam_camindex: handle is passed as NULL ***\n"}}));

    level(3);
    fake::clear_traces();
    tcamwrap_cb_handle h{};
    h.tbl_type = 7;
    errno = 0;
    EXPECT_EQ(tcamwrap_cb_orvex_tcam_camindex(&h, 0, 0, 0, 1, 2), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_validate_tbl_type", "*** tbl_type: 7 is not valid ***\n"}}));
    EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
}

TEST_F(Mapping, CamindexTracesOfEveryCode)
{
    tcam_info *ti = fresh(FIB, 64);
    ti->cb_handle.oper = 6;   /* POST_DEL and POST_MOVE stay without work */
    struct {
        uint32_t op;
        std::vector<Trace> want;
    } cases[] = {
        {1, {{"tcamwrap_print_camindex_cb_type", "POST_ADD: new_sloc: 0x7\n"},
             {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Post add for sloc is 0x7\n"}}},
        {2, {{"tcamwrap_print_camindex_cb_type", "PRE_DEL: old_sloc: 0x3\n"},
             {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Pre del for sloc is 0x3\n"}}},
        {3, {{"tcamwrap_print_camindex_cb_type", "POST_DEL: old_sloc: 0x3\n"},
             {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Post del for sloc is 0x3\n"}}},
        {6, {{"tcamwrap_print_camindex_cb_type", "UNKNOWN: old_sloc: 0x3 new_sloc: 0x7\n"},
             {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Unknown operation type 6\n"}}},
        {0xFFFFFFFFu, {{"tcamwrap_print_camindex_cb_type", "UNKNOWN: old_sloc: 0x3 new_sloc: 0x7\n"},
                       {kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Unknown operation type -1\n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op);
        fake::clear_traces();
        fake::clear_calls();
        EXPECT_EQ(cam(&ti->cb_handle, c.op, 3, 7), 0);
        EXPECT_EQ(fake::traces(), c.want) << dump_traces();
        EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
        EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
    }
}

TEST_F(Mapping, PostDelByOper)
{
    struct {
        uint32_t oper;
        bool invalidates;
        const char *unexpected;   /* trace of an unexpected oper, or null */
    } cases[] = {
        {TCAMWRAP_OPER_DELETE, true, nullptr},
        {TCAMWRAP_OPER_MOVE, false, nullptr},
        {TCAMWRAP_OPER_POST_RESTORE, false, nullptr},
        {TCAMWRAP_OPER_ADD, false, "*** POST_DEL is called with unexpected oper: 1 ***\n"},
        {TCAMWRAP_OPER_INIT, false, "*** POST_DEL is called with unexpected oper: 5 ***\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "oper " << c.oper);
        SetUp();
        tcam_info *ti = fresh(FIB, 64);
        add(ti, 12, 40);
        fake::clear_calls();
        fake::clear_traces();
        ti->cb_handle.oper = c.oper;
        EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 40, INV), 0);
        if (c.invalidates) {
            EXPECT_EQ(ti->lmt[12], INV);
            EXPECT_EQ(ti->rlmt[40], INV);
            ASSERT_EQ(fake::calls_of("kvs_store").size(), 1u);
            EXPECT_EQ(fake::store()[seg_key(0, 3, 0)], words_image(ti->lmt, 64));
            EXPECT_TRUE(traced("tcamwrap_lmt_post_del", "POST_DEL: LMT<0 3>: invalidating loc 0xc --> sloc 0x28\n"))
                << dump_traces();
        } else {
            EXPECT_EQ(ti->lmt[12], 40u);
            EXPECT_EQ(ti->rlmt[40], 12u);
            EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
        }
        EXPECT_EQ(c.unexpected != nullptr, c.unexpected && traced("tcamwrap_lmt_post_del", c.unexpected))
            << dump_traces();
    }
}

TEST_F(Mapping, PreAddWithAnUnexpectedOperStillWritesTheResults)
{
    tcam_info *ti = fresh(FIB, 64);
    prepare(&ti->cb_handle, 5, TCAMWRAP_OPER_DELETE, 1, make_word(6));
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 9), 0);
    EXPECT_TRUE(traced("tcamwrap_lmt_pre_add", "*** PRE_ADD is called with unexpected oper: 2 ***\n")) << dump_traces();
    EXPECT_EQ(ti->lmt[5], INV);
    EXPECT_EQ(ti->rlmt[9], INV);
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
    EXPECT_EQ(fake::ssram(0, FIB, 9), make_word(6));
}

TEST_F(Mapping, CallbacksOfATableWithoutTcamInfo)
{
    /* A handle of a table the library does not manage: the LMT work fails
     * (assertion), the result memories are still written. */
    level(3);
    tcamwrap_cb_handle h{};
    h.inst = 1;
    h.tbl_type = ACLO;
    h.loc = 3;
    h.oper = TCAMWRAP_OPER_ADD;
    h.acl_prio = 1;
    Bytes w = make_word(8);
    std::memcpy(h.ssram_data, w.data(), 5);
    EXPECT_EQ(cam(&h, TCAMWRAP_CB_PRE_ADD, INV, 4), 0);
    EXPECT_EQ(fake::ssram(1, ACLO, 4), w);
    h.oper = TCAMWRAP_OPER_DELETE;
    EXPECT_EQ(cam(&h, TCAMWRAP_CB_POST_DEL, 4, INV), 0);
    h.oper = TCAMWRAP_OPER_MOVE;
    EXPECT_EQ(cam(&h, TCAMWRAP_CB_POST_MOVE, 4, 5), 0);
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
}

/* ---- moves ----------------------------------------------------------------------- */

struct MoveCase {
    const char *name;
    uint32_t tbl;
    uint8_t aclp;   /* ACL-priority bit of the entry (ACLI) */
};

TEST_F(Mapping, EngineMoveCopiesResultMemoriesThenSwitchesTheLmt)
{
    const MoveCase cases[] = {
        {"FIB", FIB, 1}, {"ACLO", ACLO, 1}, {"ACLI flow result", ACLI, 0}, {"ACLI adjacency", ACLI, 1}};
    for (const MoveCase &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        tcam_info *ti = fresh(c.tbl, 64);
        Bytes w = make_word(0x33);
        add(ti, 3, 5, w, c.aclp);
        fake::clear_calls();
        fake::clear_traces();
        const uint32_t old_sloc = 5, new_sloc = 12;

        EXPECT_EQ(fake::engine_move(0, c.tbl, old_sloc, new_sloc), 0);

        EXPECT_EQ(ti->lmt[3], new_sloc);
        EXPECT_EQ(ti->rlmt[new_sloc], 3u);
        EXPECT_EQ(ti->rlmt[old_sloc], INV);
        EXPECT_EQ(ti->cb_handle.oper, TCAMWRAP_OPER_MOVE);
        EXPECT_EQ(ti->cb_handle.loc, 3u);
        EXPECT_EQ(fake::store()[seg_key(0, uint8_t(c.tbl), 0)], words_image(ti->lmt, 64));

        std::vector<std::string> want_calls;
        if (c.tbl == ACLI && c.aclp == 0) {
            want_calls = {"fwd_acl_prio_read", "fwd_flow_result_read", "fwd_acl_prio_write", "fwd_flow_result_write"};
            EXPECT_EQ(fake::flow(0, ACLI, new_sloc >> 1), w);
            EXPECT_EQ(fake::acl_prio(0, ACLI, new_sloc), uint8_t(0));
            EXPECT_EQ(fake::calls_of("fwd_flow_result_read")[0].p.start_addr, old_sloc >> 1);
            EXPECT_TRUE(traced("tcamwrap_cb_populate_handle", "reading flow ssram at sloc 0x2\n")) << dump_traces();
            EXPECT_TRUE(traced("tcamwrap_internal_ssram_update", "writing flow result SSRAM at loc: 0x6\n"));
        } else if (c.tbl == ACLI) {
            want_calls = {"fwd_acl_prio_read", "fwd_ssram_read", "fwd_acl_prio_write", "fwd_ssram_write"};
            EXPECT_EQ(fake::ssram(0, ACLI, new_sloc), w);
            EXPECT_EQ(fake::acl_prio(0, ACLI, new_sloc), uint8_t(1));
        } else {
            want_calls = {"fwd_ssram_read", "fwd_ssram_write"};
            EXPECT_EQ(fake::ssram(0, c.tbl, new_sloc), w);
            EXPECT_TRUE(traced("tcamwrap_cb_populate_handle", "reading adjacency ssram at sloc 0x5\n")) << dump_traces();
        }
        std::vector<std::string> names = fake::call_names({"fwd_"});
        EXPECT_EQ(names, want_calls);
        /* Every result-memory access names one entry; writes carry the sloc as opaque. */
        for (const fake::Call &call : fake::calls_with_prefix("fwd_")) {
            EXPECT_EQ(call.p.num_entries, 1u) << call.fn;
            bool write = call.fn.find("write") != std::string::npos;
            EXPECT_EQ(call.p.opaque, write ? new_sloc : old_sloc) << call.fn;
        }
        EXPECT_TRUE(traced("tcamwrap_cb_populate_handle",
                           fmt("tcamwrap_cb_populate_handle: inst 0 tbl_type %u old_sloc 0x5\n", c.tbl)));
        EXPECT_TRUE(traced("tcamwrap_cb_populate_handle", "found old_loc 0x3 for old_sloc 0x5\n"));
        EXPECT_TRUE(traced("tcamwrap_lmt_post_move", fmt("POST_MOVE: LMT<0 %u>: oper: 4 loc 0x3 --> new_sloc 0xc\n", c.tbl)));
        EXPECT_TRUE(traced("tcamwrap_print_camindex_cb_type", "PRE_MOVE: old_sloc: 0x5 new_sloc: 0xc\n"));
        EXPECT_TRUE(traced(kCamindex, "tcamwrap_cb_orvex_tcam_camindex: Post move for sloc is 0xc\n"));
    }
}

TEST_F(Mapping, MoveOfAnUnownedSlocWritesTheStaleHandle)
{
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 3, 5, make_word(9));
    fake::clear_calls();
    fake::clear_traces();
    /* sloc 20 has no owner: the handle keeps oper 1 and its data, loc becomes invalid. */
    EXPECT_EQ(fake::engine_move(0, FIB, 20, 21), 0);
    EXPECT_EQ(ti->cb_handle.loc, INV);
    EXPECT_EQ(ti->cb_handle.oper, TCAMWRAP_OPER_ADD);
    EXPECT_TRUE(fake::calls_of("fwd_ssram_read").empty());
    EXPECT_EQ(fake::ssram(0, FIB, 21), make_word(9));
    EXPECT_TRUE(traced("tcamwrap_lmt_post_move", "*** POST_MOVE is called with unexpected oper: 1 ***\n")) << dump_traces();
    EXPECT_EQ(ti->lmt[3], 5u);
    EXPECT_EQ(ti->rlmt[5], 3u);
    EXPECT_EQ(ti->rlmt[20], INV);
    EXPECT_EQ(ti->rlmt[21], INV);
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
}

TEST_F(Mapping, ResultMemoryFailuresAreTheCallbacksResult)
{
    struct {
        const char *name;
        uint32_t tbl;
        uint8_t aclp;
        const char *fn;
        std::string trace;
        bool pre_move;
    } cases[] = {
        {"adjacency write", FIB, 1, "fwd_ssram_write", "*** fwd_ssram_write() failed: %s. loc: 0x9 ***\n", false},
        {"acl prio write", ACLI, 0, "fwd_acl_prio_write", "*** fwd_acl_prio_write() failed: %s. loc: 0x9 ***\n", false},
        {"flow write", ACLI, 0, "fwd_flow_result_write", "*** fwd_flow_result_write() failed: %s. loc: 0x4 ***\n", false},
        {"acl prio read", ACLI, 0, "fwd_acl_prio_read", "*** fwd_acl_prio_read() failed: %s. sloc: 0x3 ***\n", true},
        {"flow read", ACLI, 0, "fwd_flow_result_read", "*** fwd_flow_result_read() failed: %s. sloc: 0x1 ***\n", true},
        {"adjacency read", ACLO, 1, "fwd_ssram_read", "*** fwd_ssram_read() failed: %s. sloc: 0x3 ***\n", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        tcam_info *ti = fresh(c.tbl, 64);
        int rc;
        if (c.pre_move) {
            add(ti, 2, 3, make_word(1), c.aclp);
            fake::fail(c.fn, 41, EBUSY);
            fake::clear_traces();
            rc = cam(&ti->cb_handle, TCAMWRAP_CB_PRE_MOVE, 3, 9);
            /* The populate failure is ignored: the handle data is still written. */
            EXPECT_EQ(rc, 0);
        } else {
            fake::fail(c.fn, 41, EBUSY);
            prepare(&ti->cb_handle, 2, TCAMWRAP_OPER_ADD, c.aclp, make_word(1));
            errno = 0;
            rc = cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 9);
            EXPECT_EQ(rc, 41);
            EXPECT_EQ(errno, EBUSY);
        }
        EXPECT_TRUE(traced(c.pre_move ? "tcamwrap_cb_populate_handle" : "tcamwrap_internal_ssram_update",
                           with_error(c.trace, err_text(EBUSY))))
            << dump_traces();
        if (std::string(c.fn) == "fwd_acl_prio_write") {
            EXPECT_TRUE(fake::calls_of("fwd_flow_result_write").empty());
        }
    }
}

TEST_F(Mapping, FlowResultWriteKeepsTheCallersAddressAtAnOddSloc)
{
    tcam_info *ti = fresh(ACLI, 64);
    Bytes w = make_word(0x71);
    add(ti, 8, 13, w, 0);
    EXPECT_EQ(fake::flow(0, ACLI, 6), w);
    EXPECT_EQ(fake::acl_prio(0, ACLI, 13), uint8_t(0));
    auto ap = fake::calls_of("fwd_acl_prio_write");
    auto fl = fake::calls_of("fwd_flow_result_write");
    ASSERT_EQ(ap.size(), 1u);
    ASSERT_EQ(fl.size(), 1u);
    EXPECT_EQ(ap[0].p.start_addr, 13u);
    EXPECT_EQ(fl[0].p.start_addr, 6u);
    EXPECT_EQ(fake::call_names({"fwd_"}), (std::vector<std::string>{"fwd_acl_prio_write", "fwd_flow_result_write"}));
    EXPECT_TRUE(traced("tcamwrap_internal_ssram_update", "writing acl priority 0 at loc: 0xd\n")) << dump_traces();
    EXPECT_TRUE(traced("tcamwrap_internal_ssram_update", "writing flow result SSRAM at loc: 0x6\n"));
}

/* ---- restore of the LMT from the store ------------------------------------------------ */

class LmtRestore : public Mapping {
protected:
    static void put_segment(uint8_t inst, uint8_t tbl, uint8_t seg, const std::vector<uint32_t> &words)
    {
        fake::store()[seg_key(inst, tbl, seg)] = words_image(words.data(), words.size());
    }
    /* Restart with the given hardware entries of (0, tbl). */
    static void restart(uint32_t tbl, const std::vector<uint32_t> &hw_slocs)
    {
        for (uint32_t s : hw_slocs)
            fake::hw_entry(0, tbl, s, make_key(tbl, s), uint16_t(s));
        ASSERT_EQ(start({int32_t(tbl)}, 1, 7), 0);
    }
};

TEST_F(LmtRestore, SegmentsOfOneTableAreRestoredAndTheWalkStopsAtTheNext)
{
    fake::card().size[FIB] = 1500;
    fake::card().size[ACLI] = 1024;
    std::vector<uint32_t> seg0(1024, INV), seg1(476, INV);
    seg0[0] = 7;
    seg0[1000] = 1;
    seg1[10] = 1499;   /* loc 1034 */
    put_segment(0, 3, 0, seg0);
    put_segment(0, 3, 1, seg1);
    std::vector<uint32_t> acli(1024, INV);
    acli[0] = 3;
    put_segment(0, 1, 0, acli);
    restart(FIB, {7, 1, 1499});

    tcam_info *ti = info(0, FIB);
    ASSERT_NE(ti, nullptr);
    EXPECT_EQ(ti->lmt[0], 7u);
    EXPECT_EQ(ti->lmt[1000], 1u);
    EXPECT_EQ(ti->lmt[1034], 1499u);
    EXPECT_EQ(ti->rlmt[7], 0u);
    EXPECT_EQ(ti->rlmt[1], 1000u);
    EXPECT_EQ(ti->rlmt[1499], 1034u);
    uint32_t mapped = 0;
    for (uint32_t i = 0; i < ti->lmt_sz; ++i)
        mapped += ti->lmt[i] != INV;
    EXPECT_EQ(mapped, 3u);
    EXPECT_EQ(fake::calls_of("kvs_getvalue").size(), 2u);   /* not the ACLI record */
    EXPECT_TRUE(traced("tcamwrap_lmt_restore", "restoring LMT<0 3> from kvs..\n")) << dump_traces();
    EXPECT_TRUE(traced("tcamwrap_lmt_restore", "restored LMT segment<0 3>: 1\n"));
    EXPECT_TRUE(traced("tcamwrap_lmt_restore", "restored kvs segment size: 1904\n"));
    EXPECT_TRUE(traced("tcamwrap_lmt_restore", "loc: 0x40a sloc: 0x5db\n"));
    auto mk = fake::calls_of("kvs_move2key");
    ASSERT_FALSE(mk.empty());
    EXPECT_EQ(fake::key_str(mk[0].in[0]), seg_key(0, 3, 0));
    for (const fake::Call &c : fake::calls_of("kvs_move2location"))
        EXPECT_EQ(c.a[1], 3u);
}

TEST_F(LmtRestore, EmptyStoreLeavesTheMapsInvalid)
{
    fake::card().size[FIB] = 64;
    restart(FIB, {});
    tcam_info *ti = info(0, FIB);
    ASSERT_NE(ti, nullptr);
    for (uint32_t i = 0; i < 64; ++i) {
        EXPECT_EQ(ti->lmt[i], INV);
        EXPECT_EQ(ti->rlmt[i], INV);
    }
    EXPECT_TRUE(fake::calls_of("kvs_getvalue").empty());
    EXPECT_EQ(ti->sloc_valid, nullptr);
}

TEST_F(LmtRestore, ReadFailureEndsTheRestoreEarlyButStartUpGoesOn)
{
    fake::card().size[FIB] = 2048;
    std::vector<uint32_t> seg0(1024, INV), seg1(1024, INV);
    seg0[2] = 4;
    seg1[0] = 5;
    put_segment(0, 3, 0, seg0);
    put_segment(0, 3, 1, seg1);
    fake::fail("kvs_getvalue", 8, 0, 2);
    restart(FIB, {4, 5});
    tcam_info *ti = info(0, FIB);
    ASSERT_NE(ti, nullptr);
    EXPECT_EQ(ti->lmt[2], 4u);
    EXPECT_EQ(ti->lmt[1024], INV);
    EXPECT_TRUE(traced("tcamwrap_lmt_restore", "*** kvs_getvalue() failed: kvs error 8 ***\n")) << dump_traces();
    EXPECT_FALSE(traced("tcamwrap_init", "*** restore failed for LMT<0 3> ***\n"));
}

/* Records that do not fit the table must restore without touching memory
 * outside the maps (the ASan build checks that) and leave consistent maps. */
TEST_F(LmtRestore, MalformedRecordsRestoreSafely)
{
    struct {
        const char *name;
        std::string seg0;
        std::string seg1;
    } cases[] = {
        {"value longer than the table", [] {
             std::vector<uint32_t> w(3000);
             for (uint32_t i = 0; i < w.size(); ++i)
                 w[i] = i;   /* distinct slocs: only the length is wrong */
             return words_image(w.data(), w.size());
         }(), ""},
        {"slocs beyond the table", [] {
             std::vector<uint32_t> w(100, INV);
             w[0] = 100;
             w[1] = 0x7FFFFFFF;
             w[2] = 0xFFFFFFFE;
             w[3] = 6;
             return words_image(w.data(), w.size());
         }(), ""},
        {"odd length", std::string(7, '\x01'), ""},
        {"empty value", std::string(), ""},
        {"segment beyond the table", "", words_image(std::vector<uint32_t>(1024, 1).data(), 1024)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        fake::card().size[FIB] = 100;
        if (!c.seg0.empty() || std::string(c.name) == "empty value")
            fake::store()[seg_key(0, 3, 0)] = c.seg0;
        if (!c.seg1.empty())
            fake::store()[seg_key(0, 3, 1)] = c.seg1;
        restart(FIB, {2, 6});
        tcam_info *ti = info(0, FIB);
        ASSERT_NE(ti, nullptr);
        for (uint32_t loc = 0; loc < ti->lmt_sz; ++loc) {
            uint32_t s = ti->lmt[loc];
            if (s == INV)
                continue;
            ASSERT_LT(s, ti->lmt_sz) << "loc " << loc;
            EXPECT_EQ(ti->rlmt[s], loc) << "loc " << loc;
        }
        for (uint32_t s = 0; s < ti->lmt_sz; ++s)
            if (ti->rlmt[s] != INV) {
                ASSERT_LT(ti->rlmt[s], ti->lmt_sz);
                EXPECT_EQ(ti->lmt[ti->rlmt[s]], s);
            }
        if (std::string(c.name) == "slocs beyond the table") {
            EXPECT_EQ(ti->lmt[3], 6u);
        }
    }
}

}  // namespace
}  // namespace tw
