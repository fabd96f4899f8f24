// Tests of the placement engine over an in-memory image, driven by a fake
// client that judges every callback (fake_client.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "engine.h"
#include "fake_client.h"

namespace {

using orvex::Table;
using orvex::test::FakeClient;
using orvex::test::kNone;
using Phase = FakeClient::Phase;

constexpr uint32_t kKeyBytes = 18;
using Key = std::array<uint8_t, kKeyBytes>;

// A key that names its loc and priority, so an entry is known wherever it moves.
Key key_of(uint32_t loc, uint16_t prio) {
    Key k{};
    for (int i = 0; i < 4; ++i) k[i] = static_cast<uint8_t>(loc >> (8 * i));
    k[4] = static_cast<uint8_t>(prio);
    k[5] = static_cast<uint8_t>(prio >> 8);
    k[9] = 0xFF;  // a mask byte
    return k;
}

// The library's use of the engine: insert then groom of the same bank; delete
// by the loc's sloc. Tracks what must be live and checks it against both the
// client's maps and the image.
struct Harness {
    explicit Harness(uint32_t size) : client(size, kKeyBytes), table(size, kKeyBytes, client) {}

    int insert(uint32_t loc, uint16_t prio, unsigned bank, bool groom_after = true) {
        client.start(Phase::kInsert);
        client.loc = loc;
        uint32_t sloc = kNone;
        const int rc = table.insert(key_of(loc, prio).data(), prio, bank, &sloc);
        const int err = errno;
        client.phase = Phase::kIdle;
        if (rc == 0) {
            live[loc] = prio;
            EXPECT_EQ(client.lmt[loc], sloc) << "loc " << loc;
            EXPECT_EQ(table.bank_of(sloc), bank) << "loc " << loc;
            if (groom_after) groom(bank);
        }
        errno = err;
        return rc;
    }

    int remove(uint32_t loc) {
        client.start(Phase::kDelete);
        const int rc = table.remove(client.lmt[loc]);
        client.phase = Phase::kIdle;
        if (rc == 0) live.erase(loc);
        return rc;
    }

    int groom(unsigned bank, uint32_t *moves = nullptr) {
        client.start(Phase::kGroom);
        const uint64_t before = client.moves;
        uint32_t n = 0;
        const int rc = table.groom(bank, &n);
        client.phase = Phase::kIdle;
        EXPECT_EQ(n, client.moves - before) << "groom's count of its moves";
        if (moves != nullptr) *moves = n;
        return rc;
    }

    void learn_image() {  // as a restarted library learns the places
        for (uint32_t s = 0; s < table.size(); ++s)
            if (client.valid(s)) {
                client.lmt[table.size() + s] = s;
                client.rlmt[s] = table.size() + s;
            }
    }

    void expect_check(bool ok, const char *says = "") {
        std::string why;
        EXPECT_EQ(table.check(why), ok) << why;
        EXPECT_NE(why.find(says), std::string::npos) << why;
    }

    // The engine's self-check, the client's maps and the image agree on every entry.
    void verify(const std::string &when) {
        SCOPED_TRACE(when);
        expect_check(true);
        EXPECT_TRUE(client.errors.empty()) << client.errors.front();
        uint32_t mapped = 0;
        for (uint32_t s = 0; s < table.size(); ++s) mapped += client.rlmt[s] != kNone;
        ASSERT_EQ(mapped, live.size());
        for (const auto &[loc, prio] : live) {
            const uint32_t sloc = client.lmt[loc];
            ASSERT_NE(sloc, kNone) << "loc " << loc;
            ASSERT_EQ(client.rlmt[sloc], loc);
            Key read{};
            uint16_t read_prio = 0;
            ASSERT_EQ(table.read(sloc, read.data(), &read_prio), 0);
            ASSERT_EQ(read, key_of(loc, prio)) << "loc " << loc;
            ASSERT_EQ(read_prio, prio);
            ASSERT_TRUE(client.valid(sloc));
            ASSERT_EQ(std::memcmp(client.key(sloc), read.data(), kKeyBytes), 0) << "loc " << loc;
        }
        uint32_t entries = 0;
        for (unsigned bank = 0; bank < 2; ++bank) {
            const orvex::BankStats s = table.stats(bank);
            const uint32_t bank_size = bank == 0 ? table.size() / 2 : table.size() - table.size() / 2;
            entries += s.entries;
            EXPECT_EQ(s.total_segs, (bank_size + Table::kSegment - 1) / Table::kSegment);
            EXPECT_EQ(s.open_segs + s.full_segs + s.free_segs, s.total_segs);
            // every full segment counts whole, every open one in part
            EXPECT_GE(s.entries, s.full_segs * std::min(bank_size, Table::kSegment) + s.open_segs);
            EXPECT_LE(s.entries, (s.full_segs + s.open_segs) * Table::kSegment - s.open_segs);
        }
        EXPECT_EQ(entries, live.size());
    }

    FakeClient client;
    Table table;
    std::map<uint32_t, uint16_t> live;  // loc -> priority
};

// ---- long random runs ----------------------------------------------------------

struct RunCase {
    const char *name;
    uint32_t size;
    uint32_t priorities;  // distinct priorities, skewed toward a few
    uint32_t refuse_pct;  // places validate refuses
    int ops;
    double top_fill;         // the run turns to deleting there
    uint32_t max_failed_pct; // of the inserts; near full a bank may refuse some
};

class RandomRun : public ::testing::TestWithParam<RunCase> {};

// Inserts and deletes in random order between a quarter and full, with the
// library's groom after every insert, sometimes skipped (a client that died
// between the two); every invariant is checked along the way and at the end.
TEST_P(RandomRun, KeepsEveryInvariant) {
    const RunCase rc = GetParam();
    const uint64_t seed = 0x5eed0000 + rc.size + rc.priorities + rc.refuse_pct;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Harness h(rc.size);
    h.client.refuse_pct = rc.refuse_pct;
    std::vector<uint32_t> free_locs;
    for (uint32_t l = 0; l < 2 * rc.size; ++l) free_locs.push_back(l);
    std::shuffle(free_locs.begin(), free_locs.end(), rng);

    uint64_t failed = 0;
    uint64_t inserts = 0;
    bool filling = true;
    for (int op = 0; op < rc.ops; ++op) {
        const double fill = double(h.live.size()) / rc.size;
        if (fill > rc.top_fill) filling = false;
        if (fill < 0.25) filling = true;
        const bool insert = h.live.empty() || (rng() % 100) < (filling ? 75u : 30u);
        if (insert) {
            ++inserts;
            const uint32_t loc = free_locs.back();
            // skewed: priority 0 is half the load, the rest spread
            const uint16_t prio = static_cast<uint16_t>(
                rng() % 2 ? 1000 : 1000 + 7 * (1 + rng() % (rc.priorities - 1)));
            h.client.refuse_salt = rng();
            if (h.insert(loc, prio, static_cast<unsigned>(rng() % 2), rng() % 50 != 0) == 0) {
                free_locs.pop_back();
            } else {
                ASSERT_EQ(errno, ENOSPC) << "op " << op;
                ++failed;
            }
        } else {
            auto it = h.live.begin();
            std::advance(it, rng() % h.live.size());
            const uint32_t loc = it->first;
            ASSERT_EQ(h.remove(loc), 0) << "op " << op;
            free_locs.insert(free_locs.begin() + static_cast<long>(rng() % (free_locs.size() + 1)), loc);
        }
        if (op % 997 == 0) h.verify("op " + std::to_string(op));
        if (HasFatalFailure()) return;
    }
    h.verify("end of run");
    EXPECT_GT(h.table.counters().moves, 0u) << "the run never made groom move anything";
    if (rc.refuse_pct > 0) {
        EXPECT_GT(h.table.counters().validate_refusals, 0u);
    }
    EXPECT_LE(failed * 100, inserts * rc.max_failed_pct) << failed << " of " << inserts;
}

INSTANTIATE_TEST_SUITE_P(
    Engine, RandomRun,
    ::testing::Values(RunCase{"few_groups", 2048, 8, 0, 30000, 0.97, 1},
                      RunCase{"many_groups", 8192, 300, 0, 30000, 0.85, 1},
                      RunCase{"refusals", 2048, 40, 20, 30000, 0.9, 5},
                      RunCase{"cramped", 2048, 300, 0, 20000, 0.97, 60},
                      RunCase{"tiny_table", 16, 4, 10, 5000, 0.97, 60}),
    [](const ::testing::TestParamInfo<RunCase> &p) { return std::string(p.param.name); });

// ---- failures -----------------------------------------------------------------------

TEST(Engine, AFullBankOrRefusedPlacesFailTheInsertWithoutWriting) {
    Harness h(32);  // banks of 16
    for (uint32_t loc = 0; loc < 16; ++loc) ASSERT_EQ(h.insert(loc, 7, 1), 0) << loc;
    for (uint16_t prio : {7, 9}) {
        EXPECT_EQ(h.insert(16, prio, 1), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(h.insert(18, 9, 0), 0) << "the other bank has room";
    EXPECT_EQ(h.table.stats(1).full_segs, 1u);

    h.client.refuse_pct = 100;
    const uint64_t calls = h.table.counters().validate_calls;
    EXPECT_EQ(h.insert(19, 5, 0), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_GT(h.table.counters().validate_calls - calls, 1u) << "tries more than one place";
    h.verify("after the refusals");
}

// A failing PRE callback or validate (op -1) stops the call with the callback's
// errno and leaves engine, image and client maps consistent; nothing is half done.
TEST(Engine, ACallbackFailureStopsTheCallAndChangesNothing) {
    for (int op : {int{orvex::kPreAdd}, int{orvex::kPreDel}, int{orvex::kPreMove}, -1}) {
        SCOPED_TRACE("failing op " + std::to_string(op));
        Harness h(128);  // banks of 64
        std::mt19937_64 rng(7);
        uint32_t loc = 0;
        for (; loc < 30; ++loc) ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(rng() % 6), loc % 2), 0);
        const std::map<uint32_t, uint16_t> before = h.live;
        h.client.fail_op = op;
        h.client.validate_errno = op < 0 ? EIO : 0;
        int rc = 0;
        errno = 0;
        if (op == orvex::kPreDel) {
            rc = h.remove(h.live.begin()->first);
        } else if (op == orvex::kPreMove) {
            // Inserts never move; the groom after one moves once a gap runs low.
            for (int i = 0; i < 45 && rc == 0; ++i, ++loc) {
                ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(rng() % 6), 0, false), 0);
                uint32_t moves = 1;
                rc = h.groom(0, &moves);
                EXPECT_TRUE(rc == 0 || moves == 0) << "a failed first move counts none";
            }
        } else {
            rc = h.insert(loc, 3, 0, false);
        }
        EXPECT_EQ(rc, -1) << "the failure was never reached";
        EXPECT_EQ(errno, EIO);
        h.client.fail_op = -1;
        h.client.validate_errno = 0;
        h.verify("after the failure");
        if (op != orvex::kPreMove) {
            EXPECT_EQ(h.live, before);
        }
    }
}

// ---- restore ------------------------------------------------------------------------

TEST(Engine, RestoreTakesTheImageAsItIsAndGoesOnFromThere) {
    Harness h(256);  // banks of 128: two segments each
    // bank 0: priorities 9 (0..63, a full segment), 5 (64..69); bank 1: a copy
    // left twice by a move that was cut short, and one more group
    for (uint32_t s = 0; s < 70; ++s) h.client.put(s, key_of(1000 + s, s < 64 ? 9 : 5).data(), s < 64 ? 9 : 5);
    h.client.put(130, key_of(2000, 4).data(), 4);
    h.client.put(131, key_of(2000, 4).data(), 4);
    h.client.put(200, key_of(2001, 2).data(), 2);
    ASSERT_EQ(h.table.restore(), 0);
    h.expect_check(true);

    const orvex::BankStats b0 = h.table.stats(0), b1 = h.table.stats(1);
    EXPECT_EQ((std::array<uint32_t, 6>{b0.entries, b0.groups, b0.full_segs, b0.open_segs, b1.entries, b1.groups}),
              (std::array<uint32_t, 6>{70, 2, 1, 1, 3, 2}));
    std::vector<uint32_t> seen;
    h.table.for_each_entry([&](uint32_t s) { seen.push_back(s); });
    EXPECT_EQ(seen.size(), 73u);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));

    // The client learns the places as a restarted library would, then works on.
    h.learn_image();
    h.client.start(Phase::kDelete);
    ASSERT_EQ(h.table.remove(131), 0);  // the stray copy
    h.client.phase = Phase::kIdle;
    for (uint32_t loc = 0; loc < 40; ++loc) ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(loc % 11), loc % 2), 0);
    h.expect_check(true);
    EXPECT_TRUE(h.client.errors.empty()) << h.client.errors.front();
}

// Only entries that can match the same packet must keep priority order; keys
// of locs 1 and 257 overlap (the mask compares the low byte of the loc).
TEST(Engine, RestoreOfAnImageOutOfOrderIsReportedByTheCheckWhenTheKeysOverlap) {
    for (const uint32_t second : {257u, 2u}) {
        SCOPED_TRACE("second loc " + std::to_string(second));
        Harness h(64);
        h.client.put(3, key_of(1, 2).data(), 2);
        h.client.put(5, key_of(second, 8).data(), 8);  // higher priority below a lower one
        h.client.put(7, key_of(3, 9).data(), 9);
        ASSERT_EQ(h.table.restore(), 0);
        h.expect_check(second == 2u, second == 2u ? "" : "out of order");
    }
}

}  // namespace
