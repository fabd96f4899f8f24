/* LMT persistence and the camindex callback, driven the way the search engine drives them. */
#include "test_support.h"

namespace tw {
namespace {

std::string seg_key(uint8_t inst, uint8_t tbl, uint8_t seg) { return fake::store_key(prefix_str(), 2, inst, tbl, seg); }

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
        uint32_t sloc = c.size - 1 - c.loc / 2;
        add(ti, c.loc, sloc);
        EXPECT_EQ(ti->lmt[c.loc], sloc);
        EXPECT_EQ(ti->rlmt[sloc], c.loc);
        auto st = fake::calls_of("kvs_store");
        ASSERT_EQ(st.size(), 1u);
        EXPECT_EQ(st[0].a, (std::vector<uint64_t>{0x51, 1}));
        EXPECT_EQ(fake::key_str(st[0].in[0]), seg_key(0, 3, c.seg));
        EXPECT_EQ(fake::key_str(st[0].in[1]), words_image(ti->lmt + c.seg * 1024u, c.words));
        /* The segment is stored before the result memories are written. */
        EXPECT_EQ(fake::call_names({"kvs_", "fwd_"}), (std::vector<std::string>{"kvs_store", "fwd_ssram_write"}));
        EXPECT_EQ(fake::ssram(0, FIB, sloc), make_word(1));
    }
}

/* ---- camindex: oper checks ----------------------------------------------- */

TEST_F(Mapping, PostDelByOper)
{
    asserts_expected_ = true;   /* an unexpected oper is reported */
    struct {
        uint32_t oper;
        bool invalidates;
    } cases[] = {
        {TCAMWRAP_OPER_DELETE, true}, {TCAMWRAP_OPER_MOVE, false}, {TCAMWRAP_OPER_POST_RESTORE, false},
        {TCAMWRAP_OPER_ADD, false}, {TCAMWRAP_OPER_INIT, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "oper " << c.oper);
        SetUp();
        tcam_info *ti = fresh(FIB, 64);
        add(ti, 12, 40);
        fake::clear_calls();
        ti->cb_handle.oper = c.oper;
        EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_DEL, 40, INV), 0);
        if (c.invalidates) {
            EXPECT_EQ(ti->lmt[12], INV);
            EXPECT_EQ(ti->rlmt[40], INV);
            ASSERT_EQ(fake::calls_of("kvs_store").size(), 1u);
            EXPECT_EQ(fake::store()[seg_key(0, 3, 0)], words_image(ti->lmt, 64));
        } else {
            EXPECT_EQ(ti->lmt[12], 40u);
            EXPECT_EQ(ti->rlmt[40], 12u);
            EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
        }
    }
}

/* Callbacks of an oper they do not expect are reported and change nothing. */
TEST_F(Mapping, UnexpectedOpersChangeNothing)
{
    asserts_expected_ = true;
    tcam_info *ti = fresh(FIB, 64);
    add(ti, 12, 40);
    ti->cb_handle.oper = TCAMWRAP_OPER_MOVE;
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 41), 0);
    ti->cb_handle.oper = TCAMWRAP_OPER_ADD;
    EXPECT_EQ(cam(&ti->cb_handle, TCAMWRAP_CB_POST_MOVE, 40, 41), 0);   /* the engine's move is done */
    tcamwrap_cb_handle unmanaged = ti->cb_handle;   /* no table on instance 1 */
    unmanaged.inst = 1, unmanaged.oper = TCAMWRAP_OPER_ADD;
    EXPECT_EQ(cam(&unmanaged, TCAMWRAP_CB_PRE_ADD, INV, 41), 0);
    errno = 0;
    EXPECT_EQ(cam(nullptr, TCAMWRAP_CB_PRE_ADD, INV, 41), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ti->lmt[12], 40u);
    EXPECT_EQ(ti->rlmt[41], INV);
    expect_maps_consistent(ti);
}

/* An index at the table's end (lmt_sz) in any callback changes no map and
 * touches nothing beside it (the bound-checked build traps such an access). */
TEST_F(Mapping, IndicesAtTheTableEndChangeNoMap)
{
    asserts_expected_ = true;
    const struct {
        const char *name;
        uint32_t op, oper, loc, old_sloc, new_sloc;
        int rc;
    } cases[] = {
        {"add of loc 64", TCAMWRAP_CB_PRE_ADD, TCAMWRAP_OPER_ADD, 64, INV, 41, -1},
        {"add at sloc 64", TCAMWRAP_CB_PRE_ADD, TCAMWRAP_OPER_ADD, 13, INV, 64, -1},
        {"delete of sloc 64", TCAMWRAP_CB_POST_DEL, TCAMWRAP_OPER_DELETE, 0, 64, INV, 0},
        {"move from sloc 64", TCAMWRAP_CB_PRE_MOVE, TCAMWRAP_OPER_MOVE, 0, 64, 41, 0},
        {"move of loc 12 to sloc 64", TCAMWRAP_CB_PRE_MOVE, TCAMWRAP_OPER_MOVE, 0, 40, 64, -1},
        {"move done from sloc 64", TCAMWRAP_CB_POST_MOVE, TCAMWRAP_OPER_MOVE, INV, 64, 41, 0},
        {"move done to sloc 64", TCAMWRAP_CB_POST_MOVE, TCAMWRAP_OPER_MOVE, 12, 40, 64, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        tcam_info *ti = fresh(FIB, 64);
        add(ti, 12, 40);
        prepare(&ti->cb_handle, c.loc, c.oper, 1, make_word(2));
        errno = 0;
        EXPECT_EQ(cam(&ti->cb_handle, c.op, c.old_sloc, c.new_sloc), c.rc);
        if (c.rc != 0) {
            EXPECT_EQ(errno, EINVAL);
        }
        for (uint32_t i = 0; i < 64; ++i) {
            EXPECT_EQ(ti->lmt[i], i == 12 ? 40u : INV) << "loc " << i;
            EXPECT_EQ(ti->rlmt[i], i == 40 ? 12u : INV) << "sloc " << i;
        }
    }
}

TEST_F(Mapping, ResultMemoryFailuresAreTheCallbacksResult)
{
    struct {
        const char *name;
        uint32_t tbl;
        uint8_t aclp;
        const char *fn;
        bool pre_move;
    } cases[] = {
        {"adjacency write", FIB, 1, "fwd_ssram_write", false},
        {"flow write", ACLI, 0, "fwd_flow_result_write", false},
        {"ACL-priority write", ACLI, 1, "fwd_acl_prio_write", false},
        {"flow read", ACLI, 0, "fwd_flow_result_read", true},
        {"adjacency read", ACLO, 1, "fwd_ssram_read", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        tcam_info *ti = fresh(c.tbl, 64);
        int rc;
        errno = 0;
        if (c.pre_move) {
            add(ti, 2, 3, make_word(1), c.aclp);
            fake::fail(c.fn, 41, EBUSY);
            fake::clear_calls();
            /* An owned entry whose results cannot be read is not moved. */
            rc = cam(&ti->cb_handle, TCAMWRAP_CB_PRE_MOVE, 3, 9);
            EXPECT_TRUE(fake::calls_of("fwd_ssram_write").empty());
            EXPECT_TRUE(fake::calls_of("fwd_flow_result_write").empty());
        } else {
            fake::fail(c.fn, 41, EBUSY);
            prepare(&ti->cb_handle, 2, TCAMWRAP_OPER_ADD, c.aclp, make_word(1));
            rc = cam(&ti->cb_handle, TCAMWRAP_CB_PRE_ADD, INV, 9);
            /* Nothing was programmed: the add is taken back. */
            EXPECT_EQ(ti->lmt[2], INV);
            EXPECT_EQ(ti->rlmt[9], INV);
        }
        EXPECT_EQ(rc, 41);
        EXPECT_EQ(errno, EBUSY);
        size_t said = 0;   /* the failing call is named once, at level 3 */
        for (const fake::HistEvent &h : fake::hist_events())
            said += h.text.find(std::string("*** ") + c.fn + "() failed") != std::string::npos;
        EXPECT_EQ(said, 1u);
    }
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
    EXPECT_EQ(ti->lmt[0], 7u);
    EXPECT_EQ(ti->lmt[1000], 1u);
    EXPECT_EQ(ti->lmt[1034], 1499u);
    EXPECT_EQ(ti->rlmt[1499], 1034u);
    EXPECT_EQ(std::count_if(ti->lmt, ti->lmt + ti->lmt_sz, [](uint32_t s) { return s != INV; }), 3);
    EXPECT_EQ(fake::calls_of("kvs_getvalue").size(), 2u);   /* not the ACLI record */
    for (const fake::HistEvent &h : fake::hist_events())   /* whole segments: no complaint */
        EXPECT_EQ(h.text.find("***"), std::string::npos) << h.text;
}

/* A store that cannot be read whole may hide owners: no hardware entry is
 * judged an orphan then, whichever read of the walk failed. */
TEST_F(LmtRestore, AnUnreadableStoreKeepsUnownedEntries)
{
    for (const char *fn : {"kvs_move2key", "kvs_getvalue", "kvs_move2location"}) {
        SCOPED_TRACE(fn);
        SetUp();
        fake::card().size[FIB] = 100;
        std::vector<uint32_t> seg(100, INV);
        seg[0] = 7;
        seg[1] = 8;
        put_segment(0, 3, 0, seg);
        fake::fail(fn, 5, EIO);
        restart(FIB, {7, 8, 9});
        EXPECT_EQ(fake::engine(0, FIB).entries.count(9), 1u);
        EXPECT_TRUE(fake::calls_of("orvex_tcam_delete_entry").empty());
    }
}

/* A damaged store can hold one segment under two keys: the later copy rules. */
TEST_F(LmtRestore, ASegmentUnderTwoKeysTakesTheLaterCopy)
{
    fake::card().size[FIB] = 100;
    std::vector<uint32_t> earlier(100, INV), later(100, INV);
    earlier[0] = 2, later[1] = 6;
    put_segment(0, 3, 0, earlier);
    fake::store()[seg_key(0, 3, 0) + "x"] = words_image(later.data(), later.size());
    restart(FIB, {2, 6});
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[0], INV);
    EXPECT_EQ(ti->lmt[1], 6u);
    expect_maps_consistent(ti);
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
        expect_maps_consistent(ti);
        if (std::string(c.name) == "slocs beyond the table") {
            EXPECT_EQ(ti->lmt[3], 6u);
        }
    }
}

}  // namespace
}  // namespace tw
