/* Queries, parameter checks, the trace mechanism and the debug-control calls. */
#include "test_support.h"

namespace tw {
namespace {

class Core : public LibTest {};

TEST_F(Core, IsOrvexAnswersAndRejectsBadArguments)
{
    orvex(ACLO);
    uint32_t out = 0x77;
    ASSERT_EQ(tcamwrap_is_orvex_tcam(ACLO, &out), 0);
    EXPECT_EQ(out, 1u);
    ASSERT_EQ(tcamwrap_is_orvex_tcam(FIB, &out), 0);
    EXPECT_EQ(out, 0u);
    const struct {
        uint32_t tbl;
        bool null_out;
    } bad[] = {{0, false}, {4, false}, {0x80000001u, false}, {1, true}, {9, true}};
    for (const auto &c : bad) {
        out = 0x77;
        errno = 0;
        EXPECT_EQ(tcamwrap_is_orvex_tcam(c.tbl, c.null_out ? nullptr : &out), -1) << c.tbl;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(out, 0x77u);
    }
}

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
    for (const auto &c : cases) {
        errno = 1234;
        EXPECT_EQ(tcamwrap_lmt_get_sloc(c.inst, c.tbl, c.loc), c.want)
            << "inst " << c.inst << " tbl " << c.tbl << " loc " << c.loc;
        EXPECT_EQ(errno, 1234);
    }
}

TEST_F(Core, SetDebugLevel)
{
    struct {
        uint32_t current, asked;
        int rc;
        uint32_t after;
    } cases[] = {{0, 7, 0, 7}, {5, 0, 0, 0}, {2, 8, -1, 2}, {7, 0xFFFFFFFFu, -1, 7}};
    for (const auto &c : cases) {
        level(c.current);
        errno = 0;
        EXPECT_EQ(tcamwrap_set_debug_level(c.asked), c.rc) << c.asked;
        EXPECT_EQ(tcamwrap_gl_db.debug_level, c.after);
        EXPECT_EQ(errno, c.rc ? EINVAL : 0);
    }
    EXPECT_EQ(tcamwrap_set_debug_elem(0x51), 0);
    EXPECT_EQ(tcamwrap_gl_db.debug_elem, 0x51u);
}

/* ---- the trace mechanism ----------------------------------------------------- */

/* One trace of a known function and text: an invalid level at level 3. */
void fire_known_trace() { tcamwrap_set_debug_level(99); }
const char *const kFunc = "tcamwrap_set_debug_level";
const char *const kText = "*** invalid debug_level: 99 ***\n";

TEST_F(Core, TraceRecordAndSinkSelection)
{
    struct {
        const char *name;
        uint32_t level, elem;
        int subtype_check, chk_int;
        bool traced, hist, dbgout;
    } cases[] = {
        {"below its level", 2, 0, 0, 1, false, false, false},
        {"no element", 3, 0, 0, 0, true, true, true},
        {"element, check says no", 3, 0x01020304, 0, 0, true, true, false},
        {"element, check says yes", 7, 0x01020304, 0, 1, true, true, true},
        {"history refused", 3, 0, 1, 0, true, false, true},
        {"history refused, element no", 3, 9, -1, 0, true, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        level(c.level);
        tcamwrap_gl_db.debug_elem = c.elem;
        fake::set_subtype_check_result(c.subtype_check);
        fake::set_chk_int_result(c.chk_int);
        fire_known_trace();
        ASSERT_EQ(fake::hist_events().size(), c.hist ? 1u : 0u);
        ASSERT_EQ(fake::dbg_outs().size(), c.dbgout ? 1u : 0u);
        /* The library's own log gets every trace of its level. */
        ASSERT_EQ(fake::log_events().size(), c.traced ? 1u : 0u);
        if (!c.traced)
            continue;
        EXPECT_EQ(fake::log_events()[0].text, kText);
        EXPECT_EQ(fake::log_events()[0].len, std::strlen(kText) + 1);
        EXPECT_STREQ(tcamwrap_hist_str, kText);
        if (c.hist) {
            /* The history record: the element in host order, function, a space, the text and its zero. */
            std::string raw(reinterpret_cast<const char *>(&c.elem), 4);
            raw += std::string(kFunc) + " " + kText + '\0';
            EXPECT_EQ(std::string(fake::hist_events()[0].raw.begin(), fake::hist_events()[0].raw.end()), raw);
        }
        if (c.dbgout) {
            EXPECT_EQ(fake::dbg_outs()[0].func + fake::dbg_outs()[0].text, std::string(kFunc) + kText);
        }
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
}

TEST_F(Core, PrintKeyIsBigEndianHex)
{
    level(7);
    uint8_t key[36];
    for (int i = 0; i < 36; ++i)
        key[i] = uint8_t(0xF0 + i);   /* a set top bit shows a sign mix-up */
    uint16_t prio = 0xBEEF;
    tcamwrap_print_key("a", ACLI, key, &prio);
    tcamwrap_print_key("f", FIB, key, &prio);
    std::vector<std::string> got;
    for (const fake::HistEvent &h : fake::hist_events())
        got.push_back(h.text);
    EXPECT_EQ(got,
              (std::vector<std::string>{
                  "a: val[f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff0001] mask[02030405060708090a0b0c0d0e0f10111213] "
                  "prio: beef\n",
                  "f: val[f0f1f2f3f4f5f6f7f8] mask[f9fafbfcfdfeff0001] prio: beef\n"}));
}

}  // namespace
}  // namespace tw
