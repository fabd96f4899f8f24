/*
 * test_support.h - what every unit test of libtcamwrap shares: a fixture that
 * resets the fake platform and the library's global state, tables built
 * directly in tcamwrap_gl_db, card start-up through tcamwrap_init, and small
 * byte helpers.
 */
#ifndef TCAMWRAP_TEST_SUPPORT_H
#define TCAMWRAP_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "fake_platform.h"
#include "tcamwrap_api.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace tw {

using fake::Bytes;

constexpr uint32_t INV = 0xFFFFFFFFu;
constexpr uint32_t ACLI = TCAMWRAP_TBL_ACLI;
constexpr uint32_t ACLO = TCAMWRAP_TBL_ACLO;
constexpr uint32_t FIB = TCAMWRAP_TBL_FIB;

inline std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char *f, ...)
{
    va_list ap;
    va_start(ap, f);
    char buf[2048];
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

/* The library keeps its tables for the life of the process and a new start
 * (or a test's reset of the database) drops them without freeing: tell the
 * leak checker that they are kept on purpose. Their maps are reached through
 * them. */
inline void keep_library_tables()
{
#if defined(__SANITIZE_ADDRESS__)
    for (auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (tcam_info *ti : per_inst)
            if (ti)
                __lsan_ignore_object(ti);
#endif
}

/* A table the test owns, hung into tcamwrap_gl_db.tcam_info[inst][tbl]. */
struct Table {
    tcam_info info{};
    std::vector<uint32_t> lmt, rlmt;
    std::vector<uint8_t> sloc_valid;

    Table(uint8_t inst, uint32_t tbl, uint32_t size, bool with_sloc_valid = false)
        : lmt(size, INV), rlmt(size, INV), sloc_valid(size, 0)
    {
        info.lmt_sz = size, info.lmt = lmt.data(), info.rlmt = rlmt.data();
        info.sloc_valid = with_sloc_valid ? sloc_valid.data() : nullptr;
        info.cb_handle.inst = inst, info.cb_handle.tbl_type = tbl;
        tcamwrap_gl_db.tcam_info[inst][tbl] = &info;
    }
    void map(uint32_t loc, uint32_t sloc) { lmt[loc] = sloc, rlmt[sloc] = loc; }
    tcamwrap_cb_handle *handle() { return &info.cb_handle; }
};

/* Every test starts from an empty platform and a zeroed library. */
class LibTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        keep_library_tables();
        std::memset(&tcamwrap_gl_db, 0, sizeof tcamwrap_gl_db);
        std::memset(tcamwrap_hist_str, 0, sizeof tcamwrap_hist_str);
        errno = 0;
        /* A report file of this process: an assertion no test asked for fails the test. */
        setenv("TCAMWRAP_ASSERT_FILE", report_.c_str(), 1);
    }
    void TearDown() override
    {
        EXPECT_TRUE(asserts_expected_ || access(report_.c_str(), F_OK) != 0)
            << "the library reported an assertion:\n" << std::ifstream(report_).rdbuf();
        std::remove(report_.c_str());
        /* Tables owned by the test die with it: nothing may point at them. */
        keep_library_tables();
        std::memset(&tcamwrap_gl_db, 0, sizeof tcamwrap_gl_db);
    }

    static void level(uint32_t l) { tcamwrap_gl_db.debug_level = l; }

    /* Mark table types as Orvex (1) or tcam3 (0). */
    static void orvex(uint32_t tbl, bool on = true) { tcamwrap_gl_db.is_orvex[tbl] = on ? 1 : 0; }

    Table &table(uint8_t inst, uint32_t tbl, uint32_t size, bool with_sloc_valid = false)
    {
        tables_.push_back(std::make_unique<Table>(inst, tbl, size, with_sloc_valid));
        return *tables_.back();
    }

    std::vector<std::unique_ptr<Table>> tables_;
    bool asserts_expected_ = false;
    const std::string report_ = "/tmp/tcamwrap-unit-assert-" + std::to_string(getpid());
};

/* The store key prefix used by every test that starts the library. */
inline const std::string &prefix_str() { static const std::string p = "tcw/"; return p; }

/* Start the library on the fake card (fake::card() describes it). */
inline int start(const std::vector<int32_t> &types, uint32_t init_type, uint32_t level,
                 uint32_t elem = 0, uint32_t fac = 0x15)
{
    static std::string prefix_bytes;
    static kvs_buf prefix;
    prefix_bytes = prefix_str();
    prefix.data = reinterpret_cast<uint8_t *>(prefix_bytes.data());
    prefix.len = uint32_t(prefix_bytes.size());
    keep_library_tables();
    return tcamwrap_init(types.data(), uint32_t(types.size()), 0x51, &prefix, init_type, elem,
                         level, fac);
}

/* The library's table that the test started: a missing one fails the test. */
inline tcam_info *info(unsigned inst, uint32_t tbl)
{
    if (tcam_info *t = tcamwrap_gl_db.tcam_info[inst][tbl])
        return t;
    throw std::runtime_error("the library has no such table");
}

inline tbl_params params(uint8_t inst, uint32_t tbl, uint32_t n, uint32_t start, uint32_t opaque = 0)
{
    tbl_params p{};
    p.inst = inst, p.tbl_type = tbl, p.num_entries = n, p.start_addr = start, p.opaque = opaque;
    return p;
}

/* A distinct key of the table's width, derived from seed. */
inline Bytes make_key(uint32_t tbl, uint32_t seed)
{
    Bytes k(fake::key_bytes(tbl));
    for (size_t i = 0; i < k.size(); ++i)
        k[i] = uint8_t(seed * 31u + i * 7u + (seed >> 8));
    return k;
}

inline Bytes make_word(uint32_t seed)
{
    return Bytes{uint8_t(seed), uint8_t(seed >> 8), uint8_t(0xA0 ^ seed), uint8_t(seed * 3), 0x5C};
}

/* The LMT and RLMT are each other's inverse and name nothing beyond the table. */
inline void expect_maps_consistent(const tcam_info *ti)
{
    for (uint32_t i = 0; i < ti->lmt_sz; ++i) {
        if (ti->lmt[i] != INV) {
            ASSERT_LT(ti->lmt[i], ti->lmt_sz) << "loc " << i;
            EXPECT_EQ(ti->rlmt[ti->lmt[i]], i) << "loc " << i;
        }
        if (ti->rlmt[i] != INV) {
            ASSERT_LT(ti->rlmt[i], ti->lmt_sz) << "sloc " << i;
            EXPECT_EQ(ti->lmt[ti->rlmt[i]], i) << "sloc " << i;
        }
    }
}

/* The handle an engine call was given, as it was at the call. */
inline tcamwrap_cb_handle handle_of(const fake::Call &c)
{
    tcamwrap_cb_handle h{};
    EXPECT_EQ(c.handle.size(), sizeof h);
    if (c.handle.size() == sizeof h)
        std::memcpy(&h, c.handle.data(), sizeof h);
    return h;
}

/* Host-order memory image of u32 words, as the library stores them. */
inline std::string words_image(const uint32_t *w, size_t n)
{
    return std::string(reinterpret_cast<const char *>(w), n * 4);
}

/* Split at the zero bytes; the last element is what follows the last zero (often empty). */
inline std::vector<std::string> split_at_nul(const std::string &s)
{
    std::vector<std::string> out(1);
    for (char c : s)
        if (c)
            out.back().push_back(c);
        else
            out.emplace_back();
    return out;
}

}  // namespace tw

#endif /* TCAMWRAP_TEST_SUPPORT_H */
