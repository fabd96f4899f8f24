/* Start-up and warm restart: tcamwrap_init, the restore and validate callbacks
 * and the reconciliation after a restart. */
#include "test_support.h"

/* A sanitizer brings its own allocator: the program cannot replace it. */
#if defined(__SANITIZE_ADDRESS__)
#define TW_OWN_ALLOCATOR 0
#elif defined(__has_feature)
#define TW_OWN_ALLOCATOR !__has_feature(address_sanitizer)
#else
#define TW_OWN_ALLOCATOR 1
#endif

#if TW_OWN_ALLOCATOR
/* The test program's allocator refuses one size of one allocator while armed,
 * so start-up meets a failed allocation. The table record is the only calloc of
 * a start; the test's own objects come from malloc, so a calloc size may equal one
 * of theirs on any target. The first `spared` mallocs of the size still succeed. */
namespace tw { size_t refused_malloc = 0, refused_calloc = 0; int spared = 0; }
extern "C" void *__libc_malloc(size_t n);
extern "C" void *__libc_calloc(size_t k, size_t n);
extern "C" void *malloc(size_t n)
{
    return n != 0 && n == tw::refused_malloc && tw::spared-- <= 0 ? nullptr : __libc_malloc(n);
}
extern "C" void *calloc(size_t k, size_t n)
{
    return n != 0 && k * n == tw::refused_calloc ? nullptr : __libc_calloc(k, n);
}
#endif

namespace tw {
namespace {

uint64_t addr(const void *p) { return uint64_t(reinterpret_cast<uintptr_t>(p)); }
template <typename F>
uint64_t fn_addr(F *f) { return uint64_t(reinterpret_cast<uintptr_t>(reinterpret_cast<void *>(f))); }

class Startup : public LibTest {};

TEST_F(Startup, FreshStartOfTwoInstancesWithEveryTableOnOrvex)
{
    fake::card().num_insts = 2;
    const uint32_t sizes[4] = {0, 300, 200, 100}, widths[4] = {0, 144, 144, 72};
    for (uint32_t t = 1; t <= 3; ++t)
        fake::card().size[t] = sizes[t];
    ASSERT_EQ(start({1, 2, 3}, 0, 7, 5, 0x15), 0);
    EXPECT_EQ(tcamwrap_gl_db.num_insts, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(tcamwrap_gl_db.kvs_key.data), tcamwrap_gl_db.kvs_key.len),
              prefix_str());
    EXPECT_EQ(Bytes(tcamwrap_gl_db.is_orvex, tcamwrap_gl_db.is_orvex + 4), (Bytes{0, 1, 1, 1}));
    EXPECT_TRUE(fake::calls_with_prefix("kvs_").empty());
    auto inits = fake::calls_of("orvex_tcam_init");
    ASSERT_EQ(inits.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        unsigned inst = unsigned(i / 3);
        uint32_t t = uint32_t(i % 3 + 1);
        SCOPED_TRACE(testing::Message() << "inst " << inst << " tbl " << t);
        tcam_info *ti = info(inst, t);
        EXPECT_EQ(ti->lmt_sz, sizes[t]);
        EXPECT_EQ(std::count(ti->lmt, ti->lmt + sizes[t], INV), sizes[t]);
        EXPECT_EQ(std::count(ti->rlmt, ti->rlmt + sizes[t], INV), sizes[t]);
        const void *h = &ti->cb_handle;
        EXPECT_EQ(inits[i].a, (std::vector<uint64_t>{inst, t, widths[t], fn_addr(&tcamwrap_cb_validate), addr(h),
                                                     fn_addr(&tcamwrap_cb_orvex_tcam_camindex), addr(h), 0,
                                                     fn_addr(&tcamwrap_cb_orvex_tcam_restore), addr(h), 5, 7}));
        tcamwrap_cb_handle hs = handle_of(inits[i]);
        EXPECT_EQ(hs.tbl_type, t);
        EXPECT_EQ(hs.oper, TCAMWRAP_OPER_INIT);
    }
}

TEST_F(Startup, Tcam3TypesAreSkipped)
{
    fake::card().tcam_type[0] = 0;
    fake::card().tcam_type[1] = 2;
    fake::card().tcam_type[2] = 0;
    ASSERT_EQ(start({1, 2, 3}, 1, 6), 0);
    EXPECT_EQ(tcamwrap_gl_db.tcam_info[0][FIB], nullptr);
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
    EXPECT_TRUE(fake::calls_with_prefix("fwd_").empty());
}

TEST_F(Startup, PlatformFailures)
{
    struct {
        const char *name;
        const char *fn;
        int nth, ret, err;
        size_t inits;   /* orvex_tcam_init calls made */
    } cases[] = {
        {"config of instance 0", "fwd_get_cfg_info", 1, 7, EIO, 0},
        {"config of instance 1", "fwd_get_cfg_info", 3, 8, EBUSY, 3},
        {"tcam types", "get_card_tcam_types", 1, 5, ENODEV, 0},
        {"engine", "orvex_tcam_init", 2, 3, ENOMEM, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        fake::card().num_insts = 2;
        fake::fail(c.fn, c.ret, c.err, c.nth);
        errno = 0;
        EXPECT_EQ(start({1, 2, 3}, 0, 3), c.ret);
        EXPECT_EQ(errno, c.err);
        EXPECT_EQ(fake::calls_of("orvex_tcam_init").size(), c.inits);
    }
    SCOPED_TRACE("more instances than the library holds");
    SetUp();
    fake::card().num_insts = TCAMWRAP_MAX_INSTS + 1;
    errno = 0;
    EXPECT_EQ(start({1, 2, 3}, 0, 3), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(fake::calls_of("orvex_tcam_init").empty());
}

TEST_F(Startup, FailedAllocationsFailTheStartWithEnomem)
{
#if !TW_OWN_ALLOCATOR
    GTEST_SKIP() << "the sanitizer owns the allocator";
#else
    constexpr uint32_t kSize = 1001;    /* sizes no other allocation of a start has */
    const struct {
        const char *what;
        size_t *refused;
        size_t size;
        uint32_t init_type;
        int spared;
    } cases[] = {
        {"table record", &refused_calloc, sizeof(tcam_info), 0, 0},
        {"LMT and RLMT", &refused_malloc, 4 * kSize, 0, 0},
        {"RLMT alone", &refused_malloc, 4 * kSize, 0, 1},
        {"sloc-valid table of a restart", &refused_malloc, kSize, 1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        fake::card().size[FIB] = kSize;
        *c.refused = c.size;
        spared = c.spared;
        errno = 0;
        const int rc = start({3}, c.init_type, 3);
        *c.refused = 0;
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(fake::calls_of("orvex_tcam_init").empty());
    }
#endif
}

/* ---- the restore callback ------------------------------------------------------------ */

TEST_F(Startup, RestoreCallbackRecordsHardwareEntriesInsideTheTable)
{
    /* The sloc-valid table of the test is exactly 16 bytes: the ASan build
     * catches any write beyond it. */
    Table &t = table(0, FIB, 16, true);
    level(6);
    uint32_t w[5] = {1, 2, 3, 4, 5};
    for (uint32_t s : {3u, 9u, 3u})
        EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(t.handle(), s, w, w, 72, 0, 0, 0), 0);
    EXPECT_EQ(t.handle()->restored_entries, 3u);
    EXPECT_TRUE(fake::hist_events().empty());
    for (uint32_t s : {16u, 0xFFFFFFF0u})
        EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(t.handle(), s, w, w, 72, 0, 0, 0), -1) << s;
    EXPECT_EQ(t.handle()->restored_entries, 3u);
    for (uint32_t s = 0; s < 16; ++s)
        EXPECT_EQ(t.sloc_valid[s], (s == 3 || s == 9) ? 1 : 0) << "sloc " << s;
}

/* ---- callbacks without a handle ------------------------------------------------------ */

TEST_F(Startup, CallbacksWithoutAHandleRefuse)
{
    uint8_t answer = 0xEE;
    EXPECT_EQ(tcamwrap_cb_validate(nullptr, 4, &answer), -1);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(tcamwrap_cb_validate(nullptr, 4, nullptr), -1);
    const uint32_t w[3] = {1, 2, 3};
    EXPECT_EQ(tcamwrap_cb_orvex_tcam_restore(nullptr, 3, w, w, 72, 0, 0, 0), -1);
    EXPECT_EQ(tcamwrap_cb_orvex_tcam_walk(nullptr, 3, w, w, 72, 0, 0, 0), -1);
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
    void store_lmt() { fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)] = words_image(lmt.data(), lmt.size()); }
    static void store_journal(uint32_t loc, uint32_t old_sloc, uint32_t new_sloc)
    {
        uint32_t w[3] = {loc, old_sloc, new_sloc};
        fake::store()[fake::store_key(prefix_str(), 3, 0, 3, 0)] = words_image(w, 3);
    }
    static void hardware(const std::vector<uint32_t> &slocs)
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
    static bool journal_present() { return fake::store().count(fake::store_key(prefix_str(), 3, 0, 3, 0)) != 0; }
    std::vector<uint32_t> lmt;
};

TEST_F(Restart, JournalStates)
{
    asserts_expected_ = true;   /* "neither copy" is reported */
    struct Case {
        const char *name;
        std::vector<uint32_t> hw;
        uint32_t lmt_at;               /* LMT[5] before */
        uint32_t lmt_after;
        bool engine_delete;
    };
    const Case cases[] = {
        {"old copy only, LMT at old", {9}, 9, 9, false},
        {"old copy only, LMT at new", {9}, 20, 9, false},
        {"new copy only", {20}, 9, 20, false},
        {"both copies", {9, 20}, 9, 20, true},
        {"neither copy", {}, 9, INV, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        lmt[5] = c.lmt_at;
        lmt[7] = 30;   /* stray: no entry at 30; the scans run after the record */
        for (uint32_t s : c.hw)
            fake::hw_entry(0, FIB, s, make_key(FIB, s), 1);
        store_journal(5, 9, 20);
        ASSERT_EQ(restart(), 0);

        tcam_info *ti = info(0, FIB);
        EXPECT_EQ(ti->lmt[5], c.lmt_after);
        for (uint32_t s : {9u, 20u})
            EXPECT_EQ(ti->rlmt[s], s == c.lmt_after ? 5u : INV);
        EXPECT_EQ(ti->lmt[7], INV);
        EXPECT_FALSE(journal_present());
        /* The switch is stored before the record goes, the scan's changes once after it. */
        bool changed = c.lmt_at != c.lmt_after && c.lmt_after != INV;
        EXPECT_EQ(fake::calls_of("kvs_store").size(), changed ? 2u : 1u);
        EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(ti->lmt, kSize));
        auto del = fake::calls_of("orvex_tcam_delete_entry");
        ASSERT_EQ(del.size(), c.engine_delete ? 1u : 0u);
        if (c.engine_delete) {
            EXPECT_EQ(del[0].a[0], 9u);
            tcamwrap_cb_handle h = handle_of(del[0]);
            EXPECT_EQ(h.oper, TCAMWRAP_OPER_POST_RESTORE);
            EXPECT_EQ(h.loc, 5u);
            EXPECT_EQ(fake::engine(0, FIB).entries.count(9), 0u);
        }
    }
}

TEST_F(Restart, StaleJournalRecordsNeverTakeAnotherLocsEntry)
{
    struct Case {
        const char *name;
        uint32_t lmt5;            /* where the restored LMT puts the journalled loc 5 */
        uint32_t lmt8;            /* loc 8, which may own one of the record's places */
        std::vector<uint32_t> hw;
        std::vector<uint32_t> deleted;
        uint32_t new_sloc = 20;   /* the record's new place */
    } cases[] = {
        /* The record outlived its overwrite and the engine gave old_sloc 9 to loc 8. */
        {"old place reused", 20, 9, {9, 20}, {}},
        /* Loc 5 moved on (deleted); new_sloc 20 now belongs to loc 8. */
        {"new place reused", INV, 20, {9, 20}, {9}},
        /* Loc 5 lost its mapping: the unowned copy is nobody's. */
        {"loc unmapped", INV, INV, {20}, {20}},
        /* A record whose new place lies at the table's end names nothing. */
        {"new place beyond the table", 9, INV, {9}, {}, kSize},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        lmt[5] = c.lmt5;
        lmt[8] = c.lmt8;
        hardware(c.hw);
        store_journal(5, 9, c.new_sloc);
        ASSERT_EQ(restart(), 0);
        tcam_info *ti = info(0, FIB);
        EXPECT_EQ(ti->lmt[5], c.lmt5);
        EXPECT_EQ(ti->lmt[8], c.lmt8);
        if (c.lmt8 != INV) {
            EXPECT_EQ(ti->rlmt[c.lmt8], 8u);
        }
        std::vector<uint32_t> deleted;
        for (const auto &call : fake::calls_of("orvex_tcam_delete_entry"))
            deleted.push_back(call.a[0]);
        EXPECT_EQ(deleted, c.deleted);
        EXPECT_FALSE(journal_present());
    }
}

TEST_F(Restart, StrayMappingsAndOrphanEntriesAreRepaired)
{
    /* A segment stored for places the table does not have is left alone. */
    const uint32_t beyond[2] = {3, 4};
    fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 1)] = words_image(beyond, 2);
    lmt[5] = 9;     /* no entry at 9 */
    lmt[6] = 10;    /* consistent */
    hardware({10, 12});   /* 12 has no owner */
    ASSERT_EQ(restart(), 0);
    tcam_info *ti = info(0, FIB);
    EXPECT_EQ(ti->lmt[5], INV);
    EXPECT_EQ(ti->rlmt[9], INV);
    EXPECT_EQ(ti->lmt[6], 10u);
    EXPECT_EQ(fake::store()[fake::store_key(prefix_str(), 2, 0, 3, 0)], words_image(ti->lmt, kSize));
    auto del = fake::calls_of("orvex_tcam_delete_entry");
    ASSERT_EQ(del.size(), 1u);
    EXPECT_EQ(del[0].a[0], 12u);
    EXPECT_EQ(handle_of(del[0]).oper, TCAMWRAP_OPER_POST_RESTORE);
    EXPECT_EQ(fake::engine(0, FIB).entries.count(12), 0u);
}

}  // namespace
}  // namespace tw
