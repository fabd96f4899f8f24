// Tests of liborvex_tcam.so on the simulated card: argument checks, the words a
// restore reports, statistics, dumps and parity repair. Crashes at every callback
// point, restores of whole tables, lookups and the flow-result pair rule are the
// crash sweep's part.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "orvex_sim.h"
#include "sim_hw.h"
#include "sim_test_util.hpp"
#include "tcamwrap_platform.h"

namespace {

using tcamwrap::sim::test::ScopedSimState;

constexpr const char *kProfile =
    "insts=2,fib=1024,acli=256,aclo=256,fib_kind=orvex,acli_kind=orvex,aclo_kind=tcam3";
constexpr uint32_t kAcli = 1;
constexpr uint32_t kAclo = 2;
constexpr uint32_t kFib = 3;
constexpr uint32_t kFibSize = 1024;

// A client whose callbacks accept everything.
struct Accepting {
    static int camindex(void *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }
    static int validate(void *, uint32_t, uint8_t *ok) {
        *ok = 1;
        return 0;
    }
};

// An entry as the restore and walk callbacks report it:
// sloc, value, mask, width, bank, table type, priority.
using Words = std::vector<uint32_t>;
using Reported = std::tuple<uint32_t, Words, Words, uint32_t, uint32_t, uint32_t, uint32_t>;
struct Collector {
    std::vector<Reported> entries;
    int answer = 0;
    static int cb(void *h, uint32_t sloc, const uint32_t *v, const uint32_t *m, uint32_t width,
                  uint32_t bank, uint32_t tbl, uint32_t prio) {
        auto *c = static_cast<Collector *>(h);
        const std::size_t n = width == 72 ? 3 : 5;
        c->entries.emplace_back(sloc, Words(v, v + n), Words(m, m + n), width, bank, tbl, prio);
        return c->answer;
    }
};

// FIB key: value then mask, each one byte and two big-endian words (the address first).
std::array<uint8_t, 18> fib_key(uint32_t addr, int len, uint8_t top = 0) {
    const uint32_t mask = len == 0 ? 0 : ~uint32_t{0} << (32 - len);
    std::array<uint8_t, 18> k{};
    k[0] = top;
    k[9] = 0xFF;
    for (int i = 0; i < 4; ++i) {
        k[1 + i] = static_cast<uint8_t>((addr & mask) >> (24 - 8 * i));
        k[10 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
    }
    return k;
}

// The valid locations of a table's image.
std::vector<uint32_t> used_slocs(uint8_t inst, uint32_t tbl) {
    std::vector<uint32_t> out;
    for (uint32_t loc = 0; loc < sim_card_table_size(tbl); ++loc) {
        uint8_t valid = 0, key[SIM_KEY_MAX];
        uint16_t prio = 0;
        EXPECT_EQ(sim_hw_tcam_get(inst, tbl, loc, &valid, key, &prio), 0);
        if (valid != 0) out.push_back(loc);
    }
    return out;
}

class OrvexApi : public ::testing::Test {
protected:
    OrvexApi() : state_(kProfile) {}

    int init(uint8_t inst, uint32_t tbl, uint32_t restore, Collector *restored = nullptr) {
        return orvex_tcam_init(inst, tbl, tbl == kFib ? 72 : 144, Accepting::validate, nullptr,
                               Accepting::camindex, nullptr, restore, restored != nullptr ? Collector::cb : nullptr, restored, 0, 0);
    }
    // The library's write: insert, then groom of the bank.
    int write(tbl_params &p, uint8_t *key, uint16_t prio, uint8_t bank) {
        const int rc = orvex_tcam_insert_entry(&p, key, &prio, &bank);
        uint32_t scratch = 0;
        if (rc == 0) {
            EXPECT_EQ(orvex_tcam_groom(&p, 0, &scratch, bank), 0);
        }
        return rc;
    }
    static void expect_consistent(uint8_t inst, uint32_t tbl) {
        char why[256] = "";
        EXPECT_EQ(orvex_sim_check(inst, tbl, why, sizeof why), 0) << why;
    }
    static void expect_fails(const char *what, const std::function<int()> &call, int err) {
        errno = 0;
        EXPECT_EQ(call(), -1) << what;
        EXPECT_EQ(errno, err) << what;
    }

    ScopedSimState state_;
};

TEST_F(OrvexApi, BadArgumentsBanksAndUnregisteredTablesFailWithEinval) {
    const auto init_width = [&](uint32_t width, orvex_camindex_cb cb) {
        return orvex_tcam_init(0, kFib, width, Accepting::validate, nullptr, cb, nullptr, 0, nullptr, nullptr, 0, 0);
    };
    uint8_t key[36] = {};
    uint16_t prio = 1;
    uint8_t bank = 0;
    uint32_t sloc = 0, v[6];
    uint8_t two = 2;
    tbl_params never{1, kAcli, 1, 0, 0}, fib{0, kFib, 1, 0, 0};
    ASSERT_EQ(init(0, kFib, 0), 0);
    const std::pair<const char *, std::function<int()>> cases[] = {
        {"insert into bank 2", [&] { return orvex_tcam_insert_entry(&fib, key, &prio, &two); }},
        {"groom of bank 2", [&] { return orvex_tcam_groom(&fib, 0, &sloc, 2); }},
        {"statistics of bank 2", [&] { return orvex_tcam_get_stats(&fib, 2, v, v + 1, v + 2, v + 3, v + 4, v + 5); }},
        {"instance beyond the card", [&] { return init(2, kFib, 0); }},
        {"table type 0", [&] { return init(0, 0, 0); }},
        {"table type 4", [&] { return init(0, 4, 0); }},
        {"a tcam3 table", [&] { return init(0, kAclo, 0); }},
        {"FIB with a wide key", [&] { return init_width(144, Accepting::camindex); }},
        {"no camindex callback", [&] { return init_width(72, nullptr); }},
        {"insert into a table never registered",
         [&] { return orvex_tcam_insert_entry(&never, key, &prio, &bank); }},
        {"NULL table parameters", [&] { return orvex_tcam_delete_entry(nullptr, &sloc); }},
    };
    for (const auto &[what, call] : cases) expect_fails(what, call, EINVAL);
}

TEST_F(OrvexApi, RestoreWordsOfOneKnownEntryOfEachWidth) {
    ASSERT_EQ(init(0, kFib, 0), 0);
    ASSERT_EQ(init(0, kAcli, 0), 0);
    tbl_params fib{0, kFib, 1, 0, 0}, acl{0, kAcli, 1, 0, 0};
    auto k = fib_key(0xC0A80100, 24, 0x5A);
    ASSERT_EQ(write(fib, k.data(), 24, 0), 0);
    std::array<uint8_t, 36> wide{};
    for (int i = 0; i < 36; ++i) wide[i] = static_cast<uint8_t>(i + 1);
    ASSERT_EQ(write(acl, wide.data(), 300, 1), 0);

    Collector f, a;
    ASSERT_EQ(init(0, kFib, 1, &f), 0);
    ASSERT_EQ(init(0, kAcli, 1, &a), 0);
    ASSERT_EQ(f.entries.size(), 1u);
    ASSERT_EQ(a.entries.size(), 1u);
    EXPECT_EQ(f.entries[0], Reported(std::get<0>(f.entries[0]), {0x00000000, 0xC0A80100, 0x5A},
                                     {0x00000000, 0xFFFFFF00, 0xFF}, 72, 0, kFib, 24));
    EXPECT_EQ(a.entries[0],
              Reported(std::get<0>(a.entries[0]), {0x0F101112, 0x0B0C0D0E, 0x0708090A, 0x03040506, 0x0102},
                       {0x21222324, 0x1D1E1F20, 0x191A1B1C, 0x15161718, 0x1314}, 144, 1, kAcli, 300));
}

TEST_F(OrvexApi, StatisticsDumpsAndParityRepair) {
    ASSERT_EQ(init(0, kFib, 0), 0);
    tbl_params p{0, kFib, 1, 0, 0};
    for (uint32_t i = 0; i < 40; ++i) {
        auto k = fib_key(0x0A000000 + (i << 8), 24);
        ASSERT_EQ(write(p, k.data(), static_cast<uint16_t>(16 + i % 9), i < 30 ? 0 : 1), 0);
    }
    std::vector<uint32_t> slocs = used_slocs(0, kFib);
    ASSERT_EQ(slocs.size(), 40u);
    uint32_t v[6] = {};
    for (uint8_t bank : {0, 1}) {
        ASSERT_EQ(orvex_tcam_get_stats(&p, bank, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]), 0);
        EXPECT_EQ(v[0], bank == 0 ? 30u : 10u);
        EXPECT_EQ(v[1], 9u);
        EXPECT_EQ(v[5], kFibSize / 2 / 64);
        EXPECT_EQ(v[2] + v[3] + v[4], v[5]);
    }

    // Two parity errors: the hardware walk shows them, the copy does not.
    ASSERT_EQ(orvex_sim_corrupt(0, kFib, slocs[3]), 0);
    ASSERT_EQ(orvex_sim_corrupt(0, kFib, slocs[30]), 0);
    char why[256] = "";
    EXPECT_EQ(orvex_sim_check(0, kFib, why, sizeof why), 1);
    EXPECT_NE(std::string(why).find(std::to_string(slocs[3])), std::string::npos) << why;
    Collector sw, hw, refusing;
    EXPECT_EQ(orvex_tcam_dump_tables(&p, 0, Collector::cb, &sw), 40);
    EXPECT_EQ(orvex_tcam_dump_tables(&p, 7, Collector::cb, &hw), 40);
    ASSERT_EQ(sw.entries.size(), hw.entries.size());
    std::set<uint32_t> differ;
    for (std::size_t i = 0; i < sw.entries.size(); ++i)
        if (sw.entries[i] != hw.entries[i]) differ.insert(std::get<0>(sw.entries[i]));
    EXPECT_EQ(differ, (std::set<uint32_t>{slocs[3], slocs[30]}));
    refusing.answer = -1;  // a walk that refuses stops the dump
    EXPECT_LT(orvex_tcam_dump_tables(&p, 0, Collector::cb, &refusing), 0);
    EXPECT_EQ(refusing.entries.size(), 1u);

    // Known places are rewritten from the copy; an empty place and one beyond
    // the table stay unfixed, in the order given.
    uint32_t empty = 0;
    while (std::find(slocs.begin(), slocs.end(), empty) != slocs.end()) ++empty;
    uint32_t locations[4] = {slocs[3], empty, slocs[30], kFibSize + 5};
    uint32_t unfixed[4] = {};
    uint32_t num_unfixed = 99;
    errno = 0;
    EXPECT_NE(orvex_tcam_fix_scan_errors(&p, 4, locations, &num_unfixed, unfixed), 0);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(num_unfixed, 2u);
    EXPECT_EQ((std::array<uint32_t, 2>{unfixed[0], unfixed[1]}), (std::array<uint32_t, 2>{empty, kFibSize + 5}));
    expect_consistent(0, kFib);
    ASSERT_EQ(orvex_sim_corrupt(0, kFib, slocs[7]), 0);
    EXPECT_EQ(orvex_tcam_fix_scan_errors(&p, 1, &slocs[7], &num_unfixed, unfixed), 0);
    EXPECT_EQ(num_unfixed, 0u);
    expect_consistent(0, kFib);
}

}  // namespace
