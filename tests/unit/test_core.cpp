/*
 * Queries, parameter checks, the trace mechanism and the debug-control calls.
 */
#include "test_support.h"

namespace tw {
namespace {

class Core : public LibTest {};

/* ---- tcamwrap_is_orvex_tcam ------------------------------------------------ */

struct IsOrvexCase {
    const char *name;
    uint32_t tbl;
    bool null_out;
    const char *func;   /* expected trace at level 3 */
    std::string text;
};

TEST_F(Core, IsOrvexRejectsBadArguments)
{
    const IsOrvexCase cases[] = {
        {"type 0", 0, false, "tcamwrap_validate_tbl_type", "*** tbl_type: 0 is not valid ***\n"},
        {"type 4", 4, false, "tcamwrap_validate_tbl_type", "*** tbl_type: 4 is not valid ***\n"},
        {"huge type", 0x80000001u, false, "tcamwrap_validate_tbl_type",
         "*** tbl_type: -2147483647 is not valid ***\n"},
        {"null out, good type", 1, true, "tcamwrap_is_orvex_tcam", "*** NULL params ***\n"},
        /* The NULL test comes before the type test. */
        {"null out, bad type", 9, true, "tcamwrap_is_orvex_tcam", "*** NULL params ***\n"},
    };
    for (const IsOrvexCase &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        level(3);
        uint32_t out = 0x77;
        errno = 0;
        EXPECT_EQ(tcamwrap_is_orvex_tcam(c.tbl, c.null_out ? nullptr : &out), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(out, 0x77u);
        EXPECT_EQ(fake::traces(), (std::vector<Trace>{{c.func, c.text}})) << dump_traces();
    }
}

/* ---- tcamwrap_lmt_get_sloc -------------------------------------------------- */

TEST_F(Core, LmtGetSloc)
{
    Table &t = table(1, FIB, 64);
    t.map(0, 40);
    t.map(63, 7);
    struct {
        uint32_t inst, tbl, loc;
        int32_t want;
    } cases[] = {
        {1, FIB, 0, 40},
        {1, FIB, 63, 7},        /* lmt_sz - 1, mapped */
        {1, FIB, 62, -1},       /* unused */
        {1, FIB, 64, -1},       /* lmt_sz */
        {1, FIB, 0xFFFFFFFEu, -1},
        {0, FIB, 123456, 123456},           /* unmanaged: loc itself */
        {1, ACLI, 0x7FFFFFF0u, 0x7FFFFFF0}, /* far beyond any table */
        {0, 9, 5, 5},
    };
    level(7);
    for (const auto &c : cases) {
        errno = 1234;
        EXPECT_EQ(tcamwrap_lmt_get_sloc(c.inst, c.tbl, c.loc), c.want)
            << "inst " << c.inst << " tbl " << c.tbl << " loc " << c.loc;
        EXPECT_EQ(errno, 1234);
    }
    EXPECT_TRUE(fake::traces().empty());
}

/* ---- debug control ---------------------------------------------------------- */

TEST_F(Core, SetDebugLevel)
{
    struct {
        uint32_t current, asked;
        int rc;
        uint32_t after;
        bool traced;
    } cases[] = {
        {0, 7, 0, 7, false}, {5, 0, 0, 0, false}, {2, 8, -1, 2, false},
        {3, 8, -1, 3, true}, {7, 0xFFFFFFFFu, -1, 7, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "current " << c.current << " asked " << c.asked);
        fake::reset();
        level(c.current);
        errno = 0;
        EXPECT_EQ(tcamwrap_set_debug_level(c.asked), c.rc);
        EXPECT_EQ(tcamwrap_gl_db.debug_level, c.after);
        if (c.rc != 0) {
            EXPECT_EQ(errno, EINVAL);
        }
        std::vector<Trace> want;
        if (c.traced)
            want.push_back({"tcamwrap_set_debug_level",
                            fmt("*** invalid debug_level: %d ***\n", int(c.asked))});
        EXPECT_EQ(fake::traces(), want);
    }
}

/* ---- the trace mechanism ----------------------------------------------------- */

/* One trace of a known function and text: an invalid level at level 3. */
void fire_known_trace() { tcamwrap_set_debug_level(99); }
const char *const kFunc = "tcamwrap_set_debug_level";
const char *const kText = "*** invalid debug_level: 99 ***\n";

TEST_F(Core, TraceFeedsThreeSinksInOrder)
{
    level(3);
    tcamwrap_gl_db.debug_elem = 0x01020304;
    fake::set_chk_int_result(1);
    fire_known_trace();

    EXPECT_EQ(fake::call_names({"dbgsvc_hist", "dbgout", "dbgsvc_his_log"}),
              (std::vector<std::string>{"dbgsvc_hist_event_subtype_check", "dbgsvc_hist_event", "dbgout_func",
                                        "dbgsvc_his_log_event_for_uuid_inst"}));

    EXPECT_EQ(fake::calls_of("dbgsvc_hist_event_subtype_check")[0].a, (std::vector<uint64_t>{0x730000, 0x01020304}));
    /* The history record: the element in host order, function, a space, the text and its zero. */
    ASSERT_EQ(fake::hist_events().size(), 1u);
    const fake::HistEvent &h = fake::hist_events()[0];
    EXPECT_EQ(h.subtype, 0x730000u);
    uint32_t elem = 0x01020304;
    std::string raw(reinterpret_cast<const char *>(&elem), 4);
    raw += std::string(kFunc) + " " + kText + '\0';
    EXPECT_EQ(std::string(h.raw.begin(), h.raw.end()), raw);
    ASSERT_EQ(fake::dbg_outs().size(), 1u);
    const fake::DbgOut &d = fake::dbg_outs()[0];
    EXPECT_EQ(d.modname, static_cast<const void *>(&dbgsvc_dbg_modname));
    EXPECT_EQ(d.func + d.text, std::string(kFunc) + kText);
    ASSERT_EQ(fake::log_events().size(), 1u);
    const fake::LogEvent &l = fake::log_events()[0];
    EXPECT_EQ(l.uuid, 636u);
    EXPECT_EQ(l.event_id, 0x27C0000u);
    EXPECT_EQ(l.len, std::strlen(kText) + 1);
    EXPECT_EQ(l.text, kText);
    EXPECT_STREQ(tcamwrap_hist_str, kText);
}

TEST_F(Core, SinkSelection)
{
    struct {
        const char *name;
        uint32_t elem;
        int subtype_check, chk_int;
        bool hist, dbgout;
    } cases[] = {
        {"no element", 0, 0, 0, true, true},
        {"element, check says no", 9, 0, 0, true, false},
        {"element, check says yes", 9, 0, 1, true, true},
        {"history refused", 0, 1, 0, false, true},
        {"history refused, element no", 9, -1, 0, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        level(3);
        tcamwrap_gl_db.debug_elem = c.elem;
        fake::set_subtype_check_result(c.subtype_check);
        fake::set_chk_int_result(c.chk_int);
        fire_known_trace();
        EXPECT_EQ(fake::hist_events().size(), c.hist ? 1u : 0u);
        EXPECT_EQ(fake::dbg_outs().size(), c.dbgout ? 1u : 0u);
        if (c.elem != 0) {
            auto chk = fake::calls_of("dbgsvc_chk_int");
            ASSERT_EQ(chk.size(), 1u);
            EXPECT_EQ(chk[0].a, (std::vector<uint64_t>{c.elem, 0, 0, 1}));
        }
        /* The library's own log always gets the text. */
        ASSERT_EQ(fake::log_events().size(), 1u);
        EXPECT_EQ(fake::log_events()[0].text, kText);
        EXPECT_STREQ(tcamwrap_hist_str, kText);
    }
}

TEST_F(Core, ThresholdsOfErrorsAndDetail)
{
    const uint8_t key[18] = {};
    const uint16_t prio = 1;
    struct {
        const char *name;
        uint32_t level;
        size_t traces;
    } cases[] = {{"level 0", 0, 0}, {"level 2", 2, 0}, {"level 3", 3, 1}, {"level 6", 6, 1},
                 {"level 7", 7, 2}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        level(c.level);
        fire_known_trace();                              /* level 3 and above */
        tcamwrap_print_key("k", FIB, key, &prio);        /* level 7 and above */
        EXPECT_EQ(fake::traces().size(), c.traces) << dump_traces();
        EXPECT_EQ(fake::dbg_outs().size(), c.traces);
        EXPECT_EQ(fake::log_events().size(), c.traces);
        EXPECT_EQ(fake::calls_of("dbgsvc_hist_event_subtype_check").size(), c.traces);
    }
}

TEST_F(Core, LongTextIsCutAt511Characters)
{
    level(7);
    std::string prefix(600, 'p');
    uint8_t key[18];
    for (int i = 0; i < 18; ++i)
        key[i] = uint8_t(i);
    uint16_t prio = 0x1234;
    tcamwrap_print_key(prefix.c_str(), FIB, key, &prio);

    std::string full = prefix + ": val[000102030405060708] mask[090a0b0c0d0e0f1011] prio: 1234\n";
    std::string cut = full.substr(0, 511);
    EXPECT_EQ(std::string(tcamwrap_hist_str), cut);
    ASSERT_EQ(fake::hist_events().size(), 1u);
    EXPECT_EQ(fake::hist_events()[0].text, cut);
    ASSERT_EQ(fake::log_events().size(), 1u);
    EXPECT_EQ(fake::log_events()[0].len, 512u);
    /* The debug output formats on its side, uncut. */
    ASSERT_EQ(fake::dbg_outs().size(), 1u);
    EXPECT_EQ(fake::dbg_outs()[0].text, full);
}

/* ---- tcamwrap_print_key ------------------------------------------------------ */

std::string hex(const uint8_t *b, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += fmt("%2.2x", b[i]);
    return s;
}

TEST_F(Core, PrintKeyTexts)
{
    struct {
        uint32_t tbl;
        size_t half;
    } cases[] = {{FIB, 9}, {ACLI, 18}, {ACLO, 18}, {0, 18}, {77, 18}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "tbl_type " << c.tbl);
        fake::reset();
        level(7);
        Bytes key = make_key(c.tbl == FIB ? FIB : ACLI, 0x5A + c.tbl);
        key[0] = 0xF1;   /* a set top bit shows a sign mix-up */
        uint16_t prio = 0xBEEF;
        tcamwrap_print_key("pfx", c.tbl, key.data(), &prio);
        std::string want = "pfx: val[" + hex(key.data(), c.half) + "] mask[" +
                           hex(key.data() + c.half, c.half) + "] prio: beef\n";
        EXPECT_EQ(fake::traces(), (std::vector<Trace>{{"tcamwrap_print_key", want}}));
    }
}

/* ---- history hooks ------------------------------------------------------------ */

TEST_F(Core, ShowHistoryPassesThePair)
{
    uint32_t ctx[16];
    for (uint32_t i = 0; i < 16; ++i)
        ctx[i] = 0x100 + i;
    ctx[11] = 0x89ABCDEF;
    fake::set_show_hist_result(-7);
    EXPECT_EQ(tcamwrap_show_history(ctx), -7);
    auto c = fake::calls_of("dbgshim_show_hist_inst");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].a, (std::vector<uint64_t>{uint64_t(reinterpret_cast<uintptr_t>(ctx)), 0xFE000000u,
                                             0x89ABCDEFu, 636, 0, 0}));
}

TEST_F(Core, HistPrintEvent)
{
    const uint32_t stamp[2] = {0x11111111, 0x22222222};
    testing::internal::CaptureStdout();
    int rc = tcamwrap_hist_print_event("an event text", 7, 9, stamp, 3);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "    an event text\n");
    EXPECT_EQ(rc, int(out.size()));
    auto c = fake::calls_of("dbgsvc_hist_print_event_header");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].text, "tcamwrap");
    EXPECT_EQ(c[0].a[0], 3u);
    EXPECT_EQ(c[0].a[1], 7u);
    EXPECT_NE(c[0].a[2], uint64_t(reinterpret_cast<uintptr_t>(stamp)));   /* a local copy */
    EXPECT_EQ(c[0].a[3], 0x11111111u);
    EXPECT_EQ(c[0].a[4], 0x22222222u);
}

}  // namespace
}  // namespace tw
