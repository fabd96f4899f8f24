/*
 * Start-up and warm restart: tcamwrap_init, the restore and validate callbacks
 * and the reconciliation after a restart.
 */
#include "test_support.h"

namespace tw {
namespace {

const char *const kInit = "tcamwrap_init";
const char *const kPost = "tcamwrap_post_restore";

tcamwrap_cb_handle handle_of(const fake::Call &c)
{
    tcamwrap_cb_handle h{};
    if (c.handle.size() == sizeof h)
        std::memcpy(&h, c.handle.data(), sizeof h);
    return h;
}

uint64_t addr(const void *p) { return uint64_t(reinterpret_cast<uintptr_t>(p)); }
template <typename F>
uint64_t fn_addr(F *f) { return uint64_t(reinterpret_cast<uintptr_t>(reinterpret_cast<void *>(f))); }

class Startup : public LibTest {};

TEST_F(Startup, FreshStartOfTwoInstancesWithEveryTableOnOrvex)
{
    fake::card().num_insts = 2;
    fake::card().size[ACLI] = 300;
    fake::card().size[ACLO] = 200;
    fake::card().size[FIB] = 100;
    ASSERT_EQ(start({1, 2, 3}, 0, 7, 5, 0x15), 0);

    EXPECT_EQ(tcamwrap_gl_db.num_insts, 2u);
    EXPECT_EQ(tcamwrap_gl_db.debug_elem, 5u);
    EXPECT_EQ(tcamwrap_gl_db.debug_level, 7u);
    EXPECT_EQ(tcamwrap_gl_db.fac_num, 0x15u);
    EXPECT_EQ(tcamwrap_gl_db.init_type, 0u);
    EXPECT_EQ(tcamwrap_gl_db.kvs_handle, 0x51u);
    ASSERT_NE(tcamwrap_gl_db.kvs_key_prefix, nullptr);
    EXPECT_EQ(tcamwrap_gl_db.kvs_key_prefix->len, 4u);
    ASSERT_NE(tcamwrap_gl_db.kvs_key.data, nullptr);
    EXPECT_EQ(tcamwrap_gl_db.kvs_key.len, 4u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(tcamwrap_gl_db.kvs_key.data), 4), prefix_str());
    EXPECT_EQ(Bytes(tcamwrap_gl_db.is_orvex, tcamwrap_gl_db.is_orvex + 4), (Bytes{0, 1, 1, 1}));

    const uint32_t sizes[4] = {0, 300, 200, 100};
    for (unsigned inst = 0; inst < 2; ++inst)
        for (uint32_t t = 0; t < 10; ++t) {
            SCOPED_TRACE(testing::Message() << "inst " << inst << " tbl " << t);
            tcam_info *ti = info(inst, t);
            if (t < 1 || t > 3) {
                EXPECT_EQ(ti, nullptr);
                continue;
            }
            ASSERT_NE(ti, nullptr);
            EXPECT_EQ(ti->lmt_sz, sizes[t]);
            EXPECT_EQ(ti->sloc_valid, nullptr);
            for (uint32_t i = 0; i < sizes[t]; ++i) {
                ASSERT_EQ(ti->lmt[i], INV);
                ASSERT_EQ(ti->rlmt[i], INV);
            }
        }
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());

    EXPECT_EQ(fake::call_names({"fwd_", "get_card", "orvex_", "dbgsvc_hist_init"}),
              (std::vector<std::string>{"dbgsvc_hist_init_for_uuid", "fwd_get_cfg_info", "get_card_tcam_types",
                                        "fwd_get_cfg_info", "orvex_tcam_init", "orvex_tcam_init", "orvex_tcam_init",
                                        "fwd_get_cfg_info", "orvex_tcam_init", "orvex_tcam_init", "orvex_tcam_init"}));
    EXPECT_EQ(fake::calls_of("dbgsvc_hist_init_for_uuid")[0].a, (std::vector<uint64_t>{636, 0x10000}));
    std::vector<uint64_t> cfg_insts;
    for (const fake::Call &c : fake::calls_of("fwd_get_cfg_info"))
        cfg_insts.push_back(c.a[0]);
    EXPECT_EQ(cfg_insts, (std::vector<uint64_t>{0, 0, 1}));

    auto inits = fake::calls_of("orvex_tcam_init");
    ASSERT_EQ(inits.size(), 6u);
    const uint32_t widths[4] = {0, 144, 144, 72};
    for (size_t i = 0; i < 6; ++i) {
        unsigned inst = unsigned(i / 3);
        uint32_t t = uint32_t(i % 3 + 1);
        SCOPED_TRACE(testing::Message() << "orvex_tcam_init #" << i);
        const void *h = &info(inst, t)->cb_handle;
        EXPECT_EQ(inits[i].a, (std::vector<uint64_t>{inst, t, widths[t], fn_addr(&tcamwrap_cb_validate), addr(h),
                                                     fn_addr(&tcamwrap_cb_orvex_tcam_camindex), addr(h), 0,
                                                     fn_addr(&tcamwrap_cb_orvex_tcam_restore), addr(h), 5, 7}));
        tcamwrap_cb_handle hs = handle_of(inits[i]);
        EXPECT_EQ(hs.inst, inst);
        EXPECT_EQ(hs.tbl_type, t);
        EXPECT_EQ(hs.loc, 0u);
        EXPECT_EQ(hs.acl_prio, 0);
        EXPECT_EQ(Bytes(hs.ssram_data, hs.ssram_data + 5), Bytes(5, 0));
        EXPECT_EQ(hs.oper, TCAMWRAP_OPER_INIT);
        EXPECT_EQ(hs.restored_entries, 0u);
    }

    /* Traces of a fresh start at level 7; the first one is judged by the level
     * the database held before the call (0 here). */
    EXPECT_FALSE(traced(kInit, "num_tcams: 3 init_type: 0x0 debug_elem: 5 fac_num: 21\n"));
    std::vector<Trace> check = fake::traces_of("tcamwrap_check_for_orvex_tcam");
    EXPECT_EQ(texts(check), (std::vector<std::string>{"querying tcam type by table type ...\n", "FIB tcam is Orvex!\n",
                                                      "ACLI tcam is Orvex!\n", "ACLO tcam is Orvex!\n"}));
    EXPECT_TRUE(traced(kInit, "total number of fwd instances in the linecard: 2\n")) << dump_traces();
    EXPECT_TRUE(traced(kInit, "checking for orvex tcam..\n"));
    EXPECT_TRUE(traced(kInit, "inst: 1 tbl_type: 2 lmt_sz: 200\n"));
    EXPECT_FALSE(traced(kInit, "!! <0, 1> restore complete !!\n"));
}

TEST_F(Startup, FirstTraceUsesThePreviousLevel)
{
    level(7);
    ASSERT_EQ(start({3}, 2, 0, 4, 9), 0);
    EXPECT_TRUE(traced(kInit, "num_tcams: 1 init_type: 0x2 debug_elem: 4 fac_num: 9\n")) << dump_traces();
    EXPECT_EQ(fake::traces().size(), 1u) << dump_traces();
}

TEST_F(Startup, Tcam3TypesAreSkipped)
{
    fake::card().tcam_type[0] = 0;
    fake::card().tcam_type[1] = 2;
    fake::card().tcam_type[2] = 0;
    ASSERT_EQ(start({1, 2, 3}, 1, 6), 0);
    EXPECT_EQ(texts(fake::traces_of("tcamwrap_check_for_orvex_tcam")),
              (std::vector<std::string>{"FIB tcam is tcam3!\n", "ACLI tcam is tcam3!\n", "ACLO tcam is tcam3!\n"}));
    EXPECT_EQ(texts(fake::traces_of(kInit)),
              (std::vector<std::string>{"total number of fwd instances in the linecard: 1\n",
                                        "Orvex TCAM is not present. Skipping remaining initialization ..\n",
                                        "Orvex TCAM is not present. Skipping remaining initialization ..\n",
                                        "Orvex TCAM is not present. Skipping remaining initialization ..\n"}));
    for (unsigned i = 0; i < 2; ++i)
        for (unsigned t = 0; t < 10; ++t)
            EXPECT_EQ(info(i, t), nullptr);
    EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
}

TEST_F(Startup, ZeroTablesIsRejectedBeforeTheDatabaseIsZeroed)
{
    level(3);
    tcamwrap_gl_db.fac_num = 77;
    const int32_t types[1] = {3};
    errno = 0;
    EXPECT_EQ(tcamwrap_init(types, 0, 1, nullptr, 0, 0, 7, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tcamwrap_gl_db.fac_num, 77u);
    EXPECT_EQ(tcamwrap_gl_db.debug_level, 3u);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{kInit, "*** number of tcams passed are 0 ***\n"}}));
    EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
}

TEST_F(Startup, ThreeInstancesAreRejectedAfterTheDatabaseWasSetUp)
{
    fake::card().num_insts = 3;
    tcamwrap_gl_db.reserved[0] = 0x1234;
    errno = 0;
    EXPECT_EQ(start({3}, 0, 2, 0, 0x33), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tcamwrap_gl_db.reserved[0], 0u);
    EXPECT_EQ(tcamwrap_gl_db.fac_num, 0x33u);
    EXPECT_EQ(tcamwrap_gl_db.kvs_key.len, 4u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(tcamwrap_gl_db.kvs_key.data), 4), prefix_str());
    EXPECT_EQ(fake::traces(),
              (std::vector<Trace>{{kInit, "*** total fwd instances 3 are more than supported by tcamwrap library 2 ***\n"}}));
    EXPECT_TRUE(fake::calls_of("get_card_tcam_types").empty());
}

TEST_F(Startup, InvalidTypeAfterAValidOne)
{
    level(0);
    errno = 0;
    EXPECT_EQ(start({3, 0}, 0, 3), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(info(0, FIB), nullptr);
    EXPECT_TRUE(fake::calls_of("orvex_tcam_init").empty());
    EXPECT_EQ(fake::calls_of("fwd_get_cfg_info").size(), 1u);
    EXPECT_TRUE(traced("tcamwrap_validate_tbl_type", "*** tbl_type: 0 is not valid ***\n")) << dump_traces();
}

TEST_F(Startup, PlatformFailures)
{
    struct {
        const char *name;
        const char *fn;
        int nth, ret, err;
        std::vector<Trace> want;
        size_t inits;   /* orvex_tcam_init calls made */
    } cases[] = {
        {"config of instance 0", "fwd_get_cfg_info", 1, 7, EIO,
         {{kInit, "*** fwd_get_cfg_info() failed for inst 0 ***\n"}}, 0},
        {"config of instance 1", "fwd_get_cfg_info", 3, 8, EBUSY,
         {{kInit, "*** fwd_get_cfg_info() failed for inst 1 ***\n"}}, 3},
        {"tcam types", "get_card_tcam_types", 1, 5, ENODEV,
         {{"tcamwrap_check_for_orvex_tcam", "*** get_card_tcam_types() failed: " + err_text(ENODEV) + " ***\n"},
          {kInit, "*** could not check for orvex tcam ***\n"}},
         0},
        {"engine", "orvex_tcam_init", 2, 3, ENOMEM,
         {{kInit, "*** orvex_tcam_init() failed: " + err_text(ENOMEM) + " ***\n"}}, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        fake::card().num_insts = 2;
        fake::fail(c.fn, c.ret, c.err, c.nth);
        errno = 0;
        EXPECT_EQ(start({1, 2, 3}, 0, 3), c.ret);
        EXPECT_EQ(errno, c.err);
        EXPECT_EQ(fake::traces(), c.want) << dump_traces();
        EXPECT_EQ(fake::calls_of("orvex_tcam_init").size(), c.inits);
    }
}

/* ---- the restore callback ------------------------------------------------------------ */

TEST_F(Startup, RestoreCallbackRecordsHardwareEntries)
{
    Table &t = table(0, FIB, 16, true);
    level(6);
    uint32_t w[5] = {1, 2, 3, 4, 5};
    for (uint32_t s : {3u, 9u, 3u})
        EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(t.handle(), s, w, w, 72, 0, 0, 0), 0);
    EXPECT_EQ(t.handle()->restored_entries, 3u);
    for (uint32_t s = 0; s < 16; ++s)
        EXPECT_EQ(t.sloc_valid[s], (s == 3 || s == 9) ? 1 : 0) << "sloc " << s;
    EXPECT_TRUE(fake::traces().empty()) << dump_traces();
}

TEST_F(Startup, RestoreCallbackTraceForms)
{
    Table &t = table(0, ACLI, 64, true);
    level(7);
    const uint32_t v[5] = {0x11111111, 0x22222222, 0x33333333, 0x44444444, 0xABCD};
    const uint32_t m[5] = {0xF0000000, 0x0F000000, 0x00F00000, 0x000F0000, 0x1};
    struct {
        uint32_t width;
        std::string want;
    } cases[] = {
        {72, ""},   /* filled in below from the words */
        {144, "restoring entry 2, camindex: 2a value:abcd44444444333333332222222211111111 mask: 0001000f000000f00000"
              "0f000000f0000000  bnk: 1 tbl: 1b priority:  abc\n"},
        {0, "restoring entry 3, camindex: 2a value:abcd44444444333333332222222211111111 mask: 0001000f000000f00000"
            "0f000000f0000000  bnk: 1 tbl: 1b priority:  abc\n"},
    };
    /* Narrow form: value words 2,1,0 with %2.2x%8.8x%8.8x. */
    cases[0].want = fmt("restoring entry 1, camindex: 2a value:%2.2x%8.8x%8.8x mask: %2.2x%8.8x%8.8x bnk: 1 tbl: 1b priority:  abc\n",
                        v[2], v[1], v[0], m[2], m[1], m[0]);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "width " << c.width);
        fake::clear_traces();
        EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(t.handle(), 0x2a, v, m, c.width, 1, 0x1b, 0xabc), 0);
        EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_cb_orvex_tcam_restore", c.want}}));
    }
}

TEST_F(Startup, RestoreCallbackRejectsANullHandle)
{
    level(3);
    errno = 0;
    EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(nullptr, 1, nullptr, nullptr, 72, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_cb_orvex_tcam_restore",
                                                   "*** Null handle passed to tcamwrap_cb_orvex_tcam_restore ***\n"}}));
}

TEST_F(Startup, RestoreCallbackStaysInsideTheTable)
{
    /* The sloc-valid table of the test is exactly 16 bytes: the ASan build
     * catches any write beyond it. */
    Table &t = table(0, FIB, 16, true);
    uint32_t w[3] = {};
    tcamwrap_cb_orvex_tcam_restore(t.handle(), 16, w, w, 72, 0, 0, 0);
    tcamwrap_cb_orvex_tcam_restore(t.handle(), 0xFFFFFFF0u, w, w, 72, 0, 0, 0);
    for (uint32_t s = 0; s < 16; ++s)
        EXPECT_EQ(t.sloc_valid[s], 0) << s;
}

/* ---- the validate callback ------------------------------------------------------------ */

TEST_F(Startup, ValidateDecisions)
{
    struct Case {
        const char *name;
        uint32_t tbl;
        uint8_t aclp;
        uint32_t sloc;
        uint32_t table_size;
        bool partner_owned;
        uint8_t partner_bit;
        uint8_t answer;
        bool reads;
        std::vector<std::string> texts;
    };
    const Case cases[] = {
        {"FIB", FIB, 0, 6, 16, true, 0, 1, false, {"tbl_type is not ACLI TCAM. returning TRUE.\n"}},
        {"ACLO", ACLO, 0, 6, 16, true, 0, 1, false, {"tbl_type is not ACLI TCAM. returning TRUE.\n"}},
        {"ACLI with the bit", ACLI, 1, 6, 16, true, 0, 1, false, {"acl_prio set. returning TRUE.\n"}},
        {"partner unowned", ACLI, 0, 6, 16, false, 0, 1, false, {"adj_sloc: 0x7 is not valid. returning TRUE."}},
        {"partner beyond the table", ACLI, 0, 14, 15, false, 0, 1, false,
         {"adj_sloc: 0xf is not valid. returning TRUE."}},
        {"partner without the bit", ACLI, 0, 7, 16, true, 0, 0, true,
         {"reading acl_prio bit of adj_loc: 0x3 adj_sloc: 0x6\n",
          "*** acl priority bit is NOT set for adj_sloc: 0x6. returning FALSE. ***\n"}},
        {"partner with the bit", ACLI, 0, 7, 16, true, 1, 1, true,
         {"reading acl_prio bit of adj_loc: 0x3 adj_sloc: 0x6\n", "acl_prio bit is set for adj_sloc: 0x6. returning TRUE.\n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        Table &acli = table(1, ACLI, c.table_size);
        uint32_t adj = c.sloc ^ 1u;
        if (c.partner_owned)
            acli.map(3, adj);
        fake::set_acl_prio(1, ACLI, adj, c.partner_bit);
        tcamwrap_cb_handle h{};
        h.inst = 1;
        h.tbl_type = c.tbl;
        h.loc = 0x21;
        h.acl_prio = c.aclp;
        level(7);
        uint8_t answer = 0xEE;
        EXPECT_EQ(tcamwrap_cb_validate(&h, c.sloc, &answer), 0);
        EXPECT_EQ(answer, c.answer);
        std::vector<std::string> want = {fmt("validation callback called for inst: 1 tbl_type: %u loc: 0x21 acl_prio: %u sloc: 0x%x\n",
                                             c.tbl, unsigned(c.aclp), c.sloc)};
        want.insert(want.end(), c.texts.begin(), c.texts.end());
        EXPECT_EQ(texts(fake::traces_of("tcamwrap_cb_validate")), want);
        auto reads = fake::calls_of("fwd_acl_prio_read");
        ASSERT_EQ(reads.size(), c.reads ? 1u : 0u);
        if (c.reads) {
            EXPECT_EQ(reads[0].p.inst, 1);
            EXPECT_EQ(reads[0].p.tbl_type, ACLI);
            EXPECT_EQ(reads[0].p.num_entries, 1u);
            EXPECT_EQ(reads[0].p.start_addr, adj);
            EXPECT_EQ(reads[0].p.opaque, 0u);
        }
        /* At level 5 only a refusal is traced. */
        fake::clear_traces();
        level(5);
        tcamwrap_cb_validate(&h, c.sloc, &answer);
        EXPECT_EQ(fake::traces().size(), c.answer == 0 ? 1u : 0u);
    }
}

TEST_F(Startup, ValidateFailures)
{
    level(3);
    uint8_t answer = 0xEE;
    errno = 0;
    EXPECT_EQ(tcamwrap_cb_validate(nullptr, 4, &answer), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_cb_validate", "*** handle is passed as NULL ***\n"}}));

    Table &acli = table(0, ACLI, 16);
    acli.map(2, 5);
    fake::fail("fwd_acl_prio_read", 12, ETIMEDOUT);
    tcamwrap_cb_handle h{};
    h.tbl_type = ACLI;
    fake::clear_traces();
    answer = 0xEE;
    errno = 0;
    EXPECT_EQ(tcamwrap_cb_validate(&h, 4, &answer), 12);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_cb_validate",
                                                   "*** fwd_acl_prio_read() failed: " + err_text(ETIMEDOUT) + " ***\n"}}));
}

TEST_F(Startup, ValidateWithoutAnAcliTableReadsThePartner)
{
    tcamwrap_cb_handle h{};
    h.tbl_type = ACLI;
    fake::set_acl_prio(0, ACLI, 9, 1);
    level(7);
    uint8_t answer = 0;
    EXPECT_EQ(tcamwrap_cb_validate(&h, 8, &answer), 0);
    EXPECT_EQ(answer, 1);
    EXPECT_TRUE(traced("tcamwrap_cb_validate", "reading acl_prio bit of adj_loc: 0x9 adj_sloc: 0x9\n")) << dump_traces();
}

/* ---- restart and reconciliation ---------------------------------------------------------- */

class Restart : public LibTest {
protected:
    static constexpr uint32_t kSize = 64;

    void SetUp() override
    {
        LibTest::SetUp();
        fake::card().size[FIB] = kSize;
        lmt.assign(kSize, INV);
    }
    void store_lmt()
    {
        fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)] = words_image(lmt.data(), lmt.size());
    }
    static void store_journal(uint32_t loc, uint32_t old_sloc, uint32_t new_sloc)
    {
        uint32_t w[3] = {loc, old_sloc, new_sloc};
        fake::store()[fake::store_key(prefix_str(), 3, 0, 3, 0)] = words_image(w, 3);
    }
    static void hardware(std::initializer_list<uint32_t> slocs)
    {
        for (uint32_t s : slocs)
            fake::hw_entry(0, FIB, s, make_key(FIB, s), uint16_t(s));
    }
    int restart(uint32_t lvl = 3)
    {
        store_lmt();
        fake::clear_calls();
        return start({3}, 1, lvl);
    }
    std::vector<std::string> post_texts() { return texts(fake::traces_of(kPost)); }
    static bool journal_present() { return fake::store().count(fake::store_key(prefix_str(), 3, 0, 3, 0)) != 0; }
    std::vector<uint32_t> lmt;
};

TEST_F(Restart, JournalStates)
{
    struct Case {
        const char *name;
        std::vector<uint32_t> hw;
        uint32_t lmt_at;               /* LMT[5] before */
        uint32_t lmt_after;
        bool engine_delete;
        std::vector<std::string> extra;   /* traces after the two report lines */
    };
    const Case cases[] = {
        {"old copy only, LMT at old", {9}, 9, 9, false, {"<0, 3> Deleting Overwrite KVS record..\n"}},
        {"old copy only, LMT at new", {9}, 20, 9, false,
         {"<0, 3> Changing LMT to loc: 0x5 -> sloc: 0x9\n", "<0, 3> Deleting Overwrite KVS record..\n"}},
        {"new copy only", {20}, 9, 20, false,
         {"<0, 3> Changing LMT to loc: 0x5 -> sloc: 0x14\n", "<0, 3> Deleting Overwrite KVS record..\n"}},
        {"both copies", {9, 20}, 9, 20, true,
         {"<0, 3> Changing LMT to loc: 0x5 -> sloc: 0x14\n", "<0, 3> invalidating the entry at old_sloc: 0x9\n",
          "<0, 3> Deleting Overwrite KVS record..\n"}},
        {"neither copy", {}, 9, 9, false,
         {"*** <0, 3> found overwrite kvs record loc: 0x5 old_sloc: 0x9 new_sloc: 0x14 where both old and new slocs "
          "are invalid in hw..!! ***\n",
          "<0, 3> Deleting Overwrite KVS record..\n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        lmt[5] = c.lmt_at;
        lmt[7] = 30;   /* stray: no entry at 30; a journal start-up repairs only the record */
        for (uint32_t s : c.hw)
            fake::hw_entry(0, FIB, s, make_key(FIB, s), 1);
        store_journal(5, 9, 20);
        ASSERT_EQ(restart(), 0);

        tcam_info *ti = info(0, FIB);
        ASSERT_NE(ti, nullptr);
        EXPECT_EQ(ti->sloc_valid, nullptr);
        bool old_valid = std::find(c.hw.begin(), c.hw.end(), 9u) != c.hw.end();
        bool new_valid = std::find(c.hw.begin(), c.hw.end(), 20u) != c.hw.end();
        std::vector<std::string> want = {
            fmt("<0, 3> Overwrite KVS record found..!! loc: 0x5 old_sloc: 0x9 valid: %d new_sloc: 0x14 valid: %d\n",
                int(old_valid), int(new_valid)),
            fmt("<0, 3> Corresponding LMT information: loc: 0x5 sloc: 0x%x\n", c.lmt_at)};
        want.insert(want.end(), c.extra.begin(), c.extra.end());
        EXPECT_EQ(post_texts(), want) << dump_traces();

        EXPECT_EQ(ti->lmt[5], c.lmt_after);
        EXPECT_EQ(ti->rlmt[c.lmt_after], 5u);
        uint32_t other = c.lmt_after == 9 ? 20 : 9;
        EXPECT_EQ(ti->rlmt[other], INV);
        EXPECT_EQ(ti->lmt[7], 30u) << "the LMT scan must not run in the journal case";
        EXPECT_FALSE(journal_present());
        bool changed = c.lmt_at != c.lmt_after;
        EXPECT_EQ(fake::calls_of("kvs_store").size(), changed ? 1u : 0u);
        if (changed) {
            EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(ti->lmt, kSize));
        }
        auto del = fake::calls_of("orvex_tcam_delete_entry");
        ASSERT_EQ(del.size(), c.engine_delete ? 1u : 0u);
        if (c.engine_delete) {
            EXPECT_EQ(del[0].a[0], 9u);
            EXPECT_EQ(del[0].p.num_entries, 1u);
            EXPECT_EQ(del[0].p.start_addr, 9u);
            EXPECT_EQ(del[0].p.opaque, 0u);
            tcamwrap_cb_handle h = handle_of(del[0]);
            EXPECT_EQ(h.oper, TCAMWRAP_OPER_POST_RESTORE);
            EXPECT_EQ(h.loc, 5u);
            EXPECT_EQ(fake::engine(0, FIB).entries.count(9), 0u);
            EXPECT_EQ(ti->lmt[5], 20u) << "the engine's callbacks under oper 6 leave the LMT alone";
        }
        EXPECT_TRUE(traced(kInit, fmt("inst: 0 tbl_type: 3 restored %zu entries from HW\n", c.hw.size())));
    }
}

TEST_F(Restart, JournalWithALostMappingIsRepairedSafely)
{
    /* LMT[5] is invalid: the RLMT must not be written at the invalid index. */
    hardware({20});
    store_journal(5, 9, 20);
    ASSERT_EQ(restart(), 0);
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[5], 20u);
    EXPECT_EQ(ti->rlmt[20], 5u);
    EXPECT_FALSE(journal_present());
}

TEST_F(Restart, FailingDeleteOfTheOldCopyKeepsTheJournal)
{
    lmt[5] = 9;
    hardware({9, 20});
    store_journal(5, 9, 20);
    fake::fail("orvex_tcam_delete_entry", 2, EIO);
    ASSERT_EQ(restart(), 0);
    EXPECT_TRUE(journal_present());
    EXPECT_TRUE(traced(kPost, "*** <0, 3> orvex_tcam_delete_entry() failed: " + err_text(EIO) + " ***\n")) << dump_traces();
    EXPECT_EQ(info(0, FIB)->sloc_valid, nullptr);
}

TEST_F(Restart, ConsistentTablesAreLeftAlone)
{
    lmt[0] = 3;
    lmt[40] = 41;
    hardware({3, 41});
    ASSERT_EQ(restart(), 0);
    EXPECT_TRUE(post_texts().empty()) << dump_traces();
    EXPECT_TRUE(fake::calls_of("kvs_store").empty());
    EXPECT_TRUE(fake::calls_of("orvex_tcam_delete_entry").empty());
    EXPECT_EQ(info(0, FIB)->lmt[40], 41u);
    EXPECT_EQ(info(0, FIB)->rlmt[41], 40u);
    EXPECT_EQ(info(0, FIB)->cb_handle.restored_entries, 2u);
}

TEST_F(Restart, StrayMappingsAndOrphanEntriesAreRepaired)
{
    lmt[5] = 9;     /* no entry at 9 */
    lmt[6] = 10;    /* consistent */
    hardware({10, 12});   /* 12 has no owner */
    ASSERT_EQ(restart(), 0);
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[5], INV);
    EXPECT_EQ(ti->rlmt[9], INV);
    EXPECT_EQ(ti->lmt[6], 10u);
    EXPECT_EQ(post_texts(), (std::vector<std::string>{"<0, 3> LMT inconsistency found at loc: 0x5 sloc: 0x9 ..!!\n",
                                                      "<0, 3> Invalidating LMT entry at loc: 0x5\n",
                                                      "<0, 3> RLMT inconsistency found at sloc: 0xc ..!!\n",
                                                      "<0, 3> invalidating the entry at sloc: 0xc\n"}));
    EXPECT_EQ(fake::calls_of("kvs_store").size(), 1u);
    EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(ti->lmt, kSize));
    auto del = fake::calls_of("orvex_tcam_delete_entry");
    ASSERT_EQ(del.size(), 1u);
    EXPECT_EQ(del[0].a[0], 12u);
    EXPECT_EQ(del[0].p.start_addr, INV);
    tcamwrap_cb_handle h = handle_of(del[0]);
    EXPECT_EQ(h.oper, TCAMWRAP_OPER_POST_RESTORE);
    EXPECT_EQ(h.loc, INV);
    EXPECT_EQ(fake::engine(0, FIB).entries.count(12), 0u);
    for (uint32_t loc = 0; loc < kSize; ++loc) {
        if (ti->lmt[loc] != INV) {
            EXPECT_EQ(ti->rlmt[ti->lmt[loc]], loc);
        }
    }
}

TEST_F(Restart, FailingDeleteStopsTheRlmtScan)
{
    hardware({1, 2, 3, 4, 5});
    fake::fail("orvex_tcam_delete_entry", 4, ENOENT, 3);
    ASSERT_EQ(restart(), 0);
    std::vector<uint64_t> deleted;
    for (const fake::Call &c : fake::calls_of("orvex_tcam_delete_entry"))
        deleted.push_back(c.a[0]);
    EXPECT_EQ(deleted, (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_TRUE(traced(kPost, "*** <0, 3> orvex_tcam_delete_entry() failed: " + err_text(ENOENT) + " ***\n"))
        << dump_traces();
    EXPECT_EQ(fake::engine(0, FIB).entries.count(4), 1u);
    EXPECT_EQ(info(0, FIB)->sloc_valid, nullptr);
}

TEST_F(Restart, RestartTracesAndRestoreEntryTexts)
{
    lmt[1] = 9;
    hardware({9});
    ASSERT_EQ(restart(7), 0);
    Bytes k = make_key(FIB, 9);
    auto hex = [](const uint8_t *b, size_t n) {
        std::string s;
        for (size_t i = 0; i < n; ++i)
            s += fmt("%2.2x", b[i]);
        return s;
    };
    EXPECT_TRUE(traced("tcamwrap_cb_orvex_tcam_restore",
                       "restoring entry 1, camindex: 9 value:" + hex(k.data(), 9) + " mask: " + hex(k.data() + 9, 9) +
                           " bnk: 0 tbl:  3 priority:    9\n"))
        << dump_traces();
    std::vector<std::string> init = texts(fake::traces_of(kInit));
    auto at = std::find(init.begin(), init.end(), "!! <0, 3> restore complete !!\n");
    ASSERT_NE(at, init.end()) << dump_traces();
    ASSERT_GE(init.end() - at, 3);
    EXPECT_EQ(at[1], "inst: 0 tbl_type: 3 restored 1 entries from HW\n");
    EXPECT_EQ(at[2], "!! <0, 3> post restore complete !!\n");
    EXPECT_TRUE(traced("tcamwrap_ha_overwrite_restore", "restoring overwrite <0 3> info from kvs..\n"));
    auto inits = fake::calls_of("orvex_tcam_init");
    ASSERT_EQ(inits.size(), 1u);
    EXPECT_EQ(inits[0].a[7], 1u);   /* the restore flag */
}

}  // namespace
}  // namespace tw

namespace tw {
namespace {

/* A crash at every step of an overwrite: the store and the hardware are taken
 * as they were at that step, and a restart must end with exactly one copy of
 * the entry, mapped, readable, with its own result word, and no journal. */
TEST_F(Restart, CrashAtEveryStepOfAnOverwrite)
{
    const Bytes key_a = make_key(FIB, 0xA), key_b = make_key(FIB, 0xB);
    const Bytes word_a = make_word(0xA), word_b = make_word(0xB);
    for (int cut = 0; cut < 8; ++cut) {
        SCOPED_TRACE(testing::Message() << "crash at camindex event " << cut);
        SetUp();
        ASSERT_EQ(start({3}, 0, 0), 0);
        uint16_t prio = 0x40;
        tbl_params p = params(0, FIB, 1, 10);
        ASSERT_EQ(tcamwrap_fwd_tcam_ssram_write(&p, const_cast<uint8_t *>(key_a.data()), &prio,
                                                const_cast<uint8_t *>(word_a.data()), nullptr),
                  0);
        std::map<std::string, std::string> store_then;
        std::map<uint32_t, fake::EngineEntry> hw_then;
        int events = 0;
        fake::set_camindex_observer([&](const fake::CamindexEvent &) {
            if (events++ == cut) {
                store_then = fake::store();
                hw_then = fake::engine(0, FIB).entries;
            }
        });
        ASSERT_EQ(tcamwrap_fwd_tcam_ssram_write(&p, const_cast<uint8_t *>(key_b.data()), &prio,
                                                const_cast<uint8_t *>(word_b.data()), nullptr),
                  0);
        fake::set_camindex_observer(nullptr);
        ASSERT_EQ(events, 8);

        fake::store() = store_then;
        fake::engine(0, FIB).entries = hw_then;
        ASSERT_EQ(start({3}, 1, 0), 0);

        tcam_info *ti = info(0, FIB);
        ASSERT_NE(ti, nullptr);
        uint32_t sloc = ti->lmt[10];
        ASSERT_NE(sloc, INV);
        EXPECT_EQ(ti->rlmt[sloc], 10u);
        EXPECT_EQ(fake::engine(0, FIB).entries.size(), 1u);
        Bytes key(18);
        ASSERT_EQ(tcamwrap_fwd_tcam_read(&p, key.data()), 0);
        ASSERT_TRUE(key == key_a || key == key_b);
        EXPECT_EQ(fake::ssram(0, FIB, sloc), key == key_a ? word_a : word_b);
        if (cut == 7) {
            EXPECT_EQ(key, key_b);
        }
        EXPECT_EQ(fake::store().count(fake::store_key(prefix_str(), 3, 0, 3, 0)), 0u);
    }
}

}  // namespace
}  // namespace tw
