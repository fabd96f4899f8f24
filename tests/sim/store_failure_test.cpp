// The library on the simulated card when a platform call fails: the public call
// that caused it reports the failure, the loc keeps what it had, nothing is
// crossed, and a restart finds exactly the card the calls reported.
#include <array>
#include <cerrno>
#include <map>
#include <vector>

#include <gtest/gtest.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "sim_hw.h"
#include "sim_kvs.h"
#include "sim_test_util.hpp"
#include "tcamwrap_api.h"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kFib = TCAMWRAP_TBL_FIB;
constexpr uint32_t kLocs = 64;
uint8_t kPrefixBytes[] = {'s', 'f', '/'};
kvs_buf kPrefix = {kPrefixBytes, sizeof kPrefixBytes};

// A new start drops the library's tables without freeing them, as a client
// process keeps them for its life: not a leak.
int start(uint32_t init_type, std::vector<int32_t> types = {1, 2, 3})
{
#if defined(__SANITIZE_ADDRESS__)
    for (auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (tcam_info *ti : per_inst)
            if (ti != nullptr)
                __lsan_ignore_object(ti);
#endif
    return tcamwrap_init(types.data(), (uint32_t)types.size(), 1, &kPrefix, init_type, 0, 0, 0);
}

// FIB entry `id`: 10.0.id.0/24, result word {1, 0, 0, 0, id}.
std::array<uint8_t, TCAMWRAP_FIB_KEY_BYTES> key_of(uint8_t id)
{
    return {4, 0, 0, 0, 0, 10, 0, id, 0, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0};
}

enum class Op { Write, Erase };
struct Step {
    Op op;
    uint32_t loc;
    uint8_t id;      // Write: the entry written
    int rc_errno;    // 0: the call succeeds; else it fails with this errno
};

int run(const Step &s)
{
    tbl_params p = {0, kFib, 1, s.loc, 0};
    if (s.op == Op::Erase)
        return tcamwrap_fwd_tcam_delete(&p);
    auto key = key_of(s.id);
    uint16_t prio = 24;
    uint8_t word[TCAMWRAP_RESULT_BYTES] = {1, 0, 0, 0, s.id};
    return tcamwrap_fwd_tcam_ssram_write(&p, key.data(), &prio, word, nullptr);
}

// The id of the entry loc holds through the library (0: none); its result word
// must belong to the same entry.
uint8_t held(uint32_t loc)
{
    tbl_params p = {0, kFib, 1, loc, 0};
    std::array<uint8_t, TCAMWRAP_FIB_KEY_BYTES> key{};
    EXPECT_EQ(tcamwrap_fwd_tcam_read(&p, key.data()), 0) << "loc " << loc;
    if (key[0] == 0xff)
        return 0;
    uint8_t word[TCAMWRAP_RESULT_BYTES] = {};
    EXPECT_EQ(tcamwrap_fwd_ssram_read(&p, word), 0) << "loc " << loc;
    EXPECT_EQ(key, key_of(key[7])) << "loc " << loc;
    EXPECT_EQ(word[4], key[7]) << "loc " << loc << " holds another entry's result";
    return key[7];
}

bool journal_in_store()
{
    uint8_t bytes[] = {'s', 'f', '/', 3, 0, kFib, 0};
    kvs_buf key = {bytes, sizeof bytes};
    int err = 0;
    const kvs_buf *at = kvs_move2key(1, &key, &err);
    return at != nullptr && at->len == key.len && std::equal(bytes, bytes + sizeof bytes, at->data);
}

// Every loc holds exactly `want`, the maps are inverse, the hardware holds one
// entry per mapped loc and no journal record is left.
void expect_card(const std::map<uint32_t, uint8_t> &want, const char *when)
{
    SCOPED_TRACE(when);
    const tcam_info *info = tcamwrap_gl_db.tcam_info[0][kFib];
    ASSERT_NE(info, nullptr);
    for (uint32_t loc = 0; loc < kLocs; loc++) {
        const auto it = want.find(loc);
        EXPECT_EQ(held(loc), it == want.end() ? 0 : it->second) << "loc " << loc;
        const uint32_t sloc = info->lmt[loc];
        if (sloc != TCAMWRAP_INVALID_LOC) {
            EXPECT_EQ(info->rlmt[sloc], loc);
        }
    }
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), want.size());
    EXPECT_FALSE(journal_in_store());
}

struct Case {
    const char *name;
    std::vector<Step> before;  // run before the fault is armed
    const char *fault;
    std::vector<Step> steps;
    std::map<uint32_t, uint8_t> want;
    const char *restart_fault = nullptr;  // armed for a first restart
};

const Case kCases[] = {
    {"add whose segment store fails", {}, "fail=kvs_store:1:ENOSPC",
     {{Op::Write, 5, 1, ENOSPC}, {Op::Write, 6, 2, 0}}, {{6, 2}}},
    {"overwrite whose journal store fails", {{Op::Write, 5, 1, 0}}, "fail=kvs_store:1:ENOSPC",
     {{Op::Write, 5, 2, ENOSPC}}, {{5, 1}}},
    {"add whose result write fails, then its sloc is reused",
     {}, "fail=fwd_ssram_write:1:EIO",
     {{Op::Write, 5, 1, EIO}, {Op::Write, 6, 2, 0}, {Op::Write, 5, 3, 0}}, {{5, 3}, {6, 2}}},
    {"overwrite whose result write fails", {{Op::Write, 5, 1, 0}}, "fail=fwd_ssram_write:1:EIO",
     {{Op::Write, 5, 2, EIO}, {Op::Write, 6, 3, 0}}, {{5, 1}, {6, 3}}},
    {"overwrite whose final segment store fails", {{Op::Write, 5, 1, 0}},
     "fail=kvs_store:2:ENOSPC", {{Op::Write, 5, 2, 0}, {Op::Write, 6, 3, 0}}, {{5, 2}, {6, 3}}},
    {"overwrite whose journal delete fails", {{Op::Write, 5, 1, 0}}, "fail=kvs_delete:1:EIO",
     {{Op::Write, 5, 2, 0}, {Op::Write, 6, 3, 0}}, {{5, 2}, {6, 3}}},
    {"journal delete fails until the next write, which is refused",
     {{Op::Write, 5, 1, 0}}, "fail=kvs_delete:1:EIO,fail=kvs_delete:2:EIO,fail=kvs_delete:3:EIO",
     {{Op::Write, 5, 2, 0}, {Op::Write, 6, 3, ENOSPC}, {Op::Write, 6, 3, 0}}, {{5, 2}, {6, 3}}},
    {"delete whose segment store fails", {{Op::Write, 5, 1, 0}}, "fail=kvs_store:1:ENOSPC",
     {{Op::Erase, 5, 0, 0}, {Op::Write, 7, 4, 0}}, {{7, 4}}},
    {"store down for three calls: inserts refused until it takes the delete",
     {{Op::Write, 5, 1, 0}},
     "fail=kvs_store:1:ENOSPC,fail=kvs_store:2:ENOSPC,fail=kvs_store:3:ENOSPC",
     {{Op::Erase, 5, 0, 0}, {Op::Write, 6, 2, ENOSPC}, {Op::Write, 6, 2, 0}}, {{6, 2}}},
    {"overwrite whose old copy cannot be deleted", {{Op::Write, 5, 1, 0}},
     "fail=orvex_tcam_delete_entry:1:EIO", {{Op::Write, 5, 2, EIO}}, {{5, 1}}},
    {"overwrite whose journal read-back fails", {{Op::Write, 5, 1, 0}}, "fail=kvs_getvalue:1:EIO",
     {{Op::Write, 5, 2, 0}}, {{5, 2}}},
    /* A restart that cannot read the store keeps the entries it cannot place;
     * the next restart finds them all. */
    {"restart whose segment read fails", {{Op::Write, 5, 1, 0}, {Op::Write, 6, 2, 0}}, "",
     {}, {{5, 1}, {6, 2}}, "fail=kvs_getvalue:1:EIO"},
};

TEST(StoreFailure, TheCallReportsItAndTheCardStaysExact)
{
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        ScopedSimState state("insts=1,fib=64,acli=64,aclo=64", sim_kvs_close);
        ASSERT_EQ(start(0), 0);
        for (const Step &s : c.before)
            ASSERT_EQ(run(s), 0);
        ASSERT_EQ(sim_fault_set(c.fault), 0);
        for (const Step &s : c.steps) {
            errno = 0;
            const int rc = run(s);
            EXPECT_EQ(rc == 0 ? 0 : errno, s.rc_errno) << "loc " << s.loc << " rc " << rc;
        }
        sim_fault_set(nullptr);
        expect_card(c.want, "running");
        if (c.restart_fault != nullptr) {
            ASSERT_EQ(sim_fault_set(c.restart_fault), 0);
            ASSERT_EQ(start(1), 0);
            EXPECT_EQ(sim_hw_tcam_count(0, kFib), c.want.size());
            sim_fault_set(nullptr);
        }
        ASSERT_EQ(start(1), 0);
        expect_card(c.want, "after a restart");
    }
}

// A table on the Orvex engine that the client did not name has no map: its locs
// are not places, so writes and deletes are refused rather than hitting
// whatever the engine keeps there.
TEST(StoreFailure, AnUnnamedOrvexTableIsNotWritten)
{
    ScopedSimState state("insts=1,fib=64,acli=64,aclo=64", sim_kvs_close);
    ASSERT_EQ(start(0), 0);
    ASSERT_EQ(run({Op::Write, 5, 1, 0}), 0);
    const uint32_t sloc = tcamwrap_gl_db.tcam_info[0][kFib]->lmt[5];
    ASSERT_EQ(start(1, {TCAMWRAP_TBL_ACLI}), 0);
    tbl_params p = {0, kFib, 1, sloc, 0};
    uint8_t word[TCAMWRAP_RESULT_BYTES] = {1, 0, 0, 0, 9};
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_ssram_write(&p, word), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(tcamwrap_fwd_tcam_delete(&p), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sim_hw_tcam_count(0, kFib), 1u);
    ASSERT_EQ(start(1), 0);
    expect_card({{5, 1}}, "named again");
}

}  // namespace
}  // namespace tcamwrap::sim::test
