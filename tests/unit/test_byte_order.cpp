/*
 * Byte order. The store's records and the parity record are memory images of
 * u32 words: big-endian on the PowerPC card, little-endian on an x86 host. Keys
 * are big-endian fields on every host (the key printout of test_core pins
 * that). These tests spell the expected bytes out for the host they run on, so
 * the same test pins both.
 */
#include <bit>
#include <cstddef>

#include "test_support.h"

namespace tw {
namespace {

constexpr bool kBigEndian = std::endian::native == std::endian::big;

/* The bytes of a u32 as this machine keeps it in memory. */
std::string native(uint32_t v)
{
    const char be[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    const char le[4] = {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
    return std::string(kBigEndian ? be : le, 4);
}

class ByteOrder : public LibTest {
protected:
    tcam_info *fresh_fib()
    {
        fake::card().num_insts = 1;
        fake::card().size[FIB] = 1024;
        EXPECT_EQ(start({int32_t(FIB)}, 0, 3), 0);   /* level 3: errors are traced */
        return info(0, FIB);
    }

    static void pre_add(tcam_info *ti, uint32_t loc, uint32_t oper, uint32_t new_sloc)
    {
        ti->cb_handle.loc = loc;
        ti->cb_handle.oper = oper;
        ti->cb_handle.acl_prio = 1;
        ASSERT_EQ(tcamwrap_cb_orvex_tcam_camindex(&ti->cb_handle, 0, 0, TCAMWRAP_CB_PRE_ADD, INV, new_sloc), 0);
    }
};

TEST_F(ByteOrder, LmtSegmentValueIsTheMemoryImageOfItsWords)
{
    tcam_info *ti = fresh_fib();
    pre_add(ti, 2, TCAMWRAP_OPER_ADD, 0x0301);

    const std::string value = fake::store()[fake::store_key(prefix_str(), 2, 0, FIB, 0)];
    ASSERT_EQ(value.size(), 4096u);
    EXPECT_EQ(value.substr(0, 8), std::string(8, '\xFF'));       /* loc 0 and 1 unused */
    EXPECT_EQ(value.substr(8, 4), native(0x0301));               /* loc 2 -> sloc 0x301 */
    EXPECT_EQ(value.substr(8, 4), kBigEndian ? std::string("\x00\x00\x03\x01", 4)
                                             : std::string("\x01\x03\x00\x00", 4));
}

TEST_F(ByteOrder, JournalValueIsThreeWordsInMemoryOrder)
{
    tcam_info *ti = fresh_fib();
    pre_add(ti, 0x11, TCAMWRAP_OPER_ADD, 0x0203);
    pre_add(ti, 0x11, TCAMWRAP_OPER_OVERWRITE, 0x0304);

    const std::string key = fake::store_key(prefix_str(), 3, 0, FIB, 0);
    EXPECT_EQ(fake::store()[key], native(0x11) + native(0x0203) + native(0x0304));
    /* The old copy's delete ends the overwrite: its record goes, without a complaint. */
    ASSERT_EQ(tcamwrap_cb_orvex_tcam_camindex(&ti->cb_handle, 0, 0, TCAMWRAP_CB_POST_DEL, 0x0203, INV), 0);
    EXPECT_EQ(fake::store().count(key), 0u);
    for (const fake::HistEvent &h : fake::hist_events())
        EXPECT_EQ(h.text.find("***"), std::string::npos) << h.text;
}

TEST_F(ByteOrder, ParityReplyFieldsAreInTheCardsByteOrder)
{
    orvex(FIB);
    tcamwrap_gl_db.fac_num = 0x10;
    fake::set_fix_result({-1, 0x05, {0x0A0B0C0D}});
    tcamwrap_parity_msg req{};
    req.hdr = 0x11223344;
    req.inst = 1;
    req.tbl_type = FIB;
    req.num_entries = 1;
    req.locations[0] = 0x0A0B0C0D;
    tcamwrap_parity_msg reply{};

    const uint32_t code = 0x80000000u | ((0x10u << 13) & 0x0FFF0000u) | 0x05u;
    ASSERT_EQ(code, 0x80020005u);
    ASSERT_EQ(tcamwrap_parity_correction(&req, &reply, nullptr), int32_t(code));

    ASSERT_EQ(sizeof reply, 53u);
    std::string raw(reinterpret_cast<const char *>(&reply), sizeof reply);
    const std::string want = native(0x11223344) + native(1) + native(code) + std::string("\x01", 1) +
                             native(FIB) + native(1) + native(0x0A0B0C0D) +
                             std::string(28, '\0');
    EXPECT_EQ(raw, want);
    if (kBigEndian) {
        EXPECT_EQ(raw.substr(8, 4), std::string("\x80\x02\x00\x05", 4));  /* error_code */
    }
}

} // namespace
} // namespace tw
