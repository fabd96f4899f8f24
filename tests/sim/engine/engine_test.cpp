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

// A key that names its loc and priority, so an entry is known wherever it moves.
std::array<uint8_t, kKeyBytes> key_of(uint32_t loc, uint16_t prio) {
    std::array<uint8_t, kKeyBytes> k{};
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
        const auto key = key_of(loc, prio);
        uint32_t sloc = kNone;
        const int rc = table.insert(key.data(), prio, bank, &sloc);
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
        const uint64_t repeats = table.counters().repeat_group_moves;
        const uint64_t seen_repeats = client.repeats;
        const uint64_t before = client.moves;
        uint32_t n = 0;
        const int rc = table.groom(bank, &n);
        client.phase = Phase::kIdle;
        EXPECT_EQ(n, client.moves - before) << "groom's count of its moves";
        EXPECT_EQ(table.counters().repeat_group_moves - repeats, client.repeats - seen_repeats)
            << "groups moved twice";
        if (moves != nullptr) *moves = n;
        return rc;
    }

    // The engine's self-check, the client's maps and the image agree on every entry.
    void verify(const std::string &when) {
        SCOPED_TRACE(when);
        std::string why;
        EXPECT_TRUE(table.check(why)) << why;
        EXPECT_TRUE(client.errors.empty()) << client.errors.front();
        uint32_t mapped = 0;
        for (uint32_t s = 0; s < table.size(); ++s) mapped += client.rlmt[s] != kNone;
        ASSERT_EQ(mapped, live.size());
        for (const auto &[loc, prio] : live) {
            const uint32_t sloc = client.lmt[loc];
            ASSERT_NE(sloc, kNone) << "loc " << loc;
            ASSERT_EQ(client.rlmt[sloc], loc);
            const auto key = key_of(loc, prio);
            ASSERT_TRUE(client.valid(sloc));
            ASSERT_EQ(std::memcmp(client.key(sloc), key.data(), kKeyBytes), 0) << "loc " << loc;
            std::array<uint8_t, kKeyBytes> read{};
            uint16_t read_prio = 0;
            ASSERT_EQ(table.read(sloc, read.data(), &read_prio), 0);
            ASSERT_EQ(read, key);
            ASSERT_EQ(read_prio, prio);
        }
        uint32_t entries = 0;
        for (unsigned bank = 0; bank < 2; ++bank) {
            const orvex::BankStats s = table.stats(bank);
            const uint32_t bank_size = bank == 0 ? table.size() / 2 : table.size() - table.size() / 2;
            entries += s.entries;
            EXPECT_EQ(s.total_segs, (bank_size + Table::kSegment - 1) / Table::kSegment);
            EXPECT_EQ(s.open_segs + s.full_segs + s.free_segs, s.total_segs);
            // every full segment counts whole, every open one in part
            const uint32_t smallest = std::min(bank_size, Table::kSegment);
            EXPECT_GE(s.entries, s.full_segs * smallest + s.open_segs);
            EXPECT_LE(s.entries, (s.full_segs + s.open_segs) * Table::kSegment - s.open_segs);
        }
        EXPECT_EQ(entries, live.size());
    }

    FakeClient client;
    Table table;
    std::map<uint32_t, uint16_t> live;  // loc -> priority
};

}  // namespace

namespace {

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

// A realistic FIB (priority = prefix length) loaded in random order to 90%:
// no insert fails, no groom moves a group twice, and the moves stay below one
// per insert on average.
TEST(Engine, FibLoadStaysUnderOneMovePerInsertAndMovesAGroupAtMostOnce) {
    const uint64_t seed = 424242;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    std::discrete_distribution<int> len({0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3,
                                         0.3, 0.3, 0.3, 0.3, 0.3, 2.5, 2.5, 2.5, 2.5, 2.5, 2.5,
                                         7,   10,  60,  0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3, 0.3});
    const uint32_t size = 32768;
    Harness h(size);
    for (uint32_t loc = 0; loc < size * 9 / 10; ++loc) {
        ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(len(rng)), loc % 2), 0) << "loc " << loc;
        if (HasFatalFailure()) return;
    }
    h.verify("after the load");
    const auto &c = h.table.counters();
    EXPECT_EQ(c.repeat_group_moves, 0u);
    EXPECT_LT(double(c.moves) / double(c.inserts), 1.0);
}

// ---- insert, delete, read ----------------------------------------------------------

TEST(Engine, BadArgumentsAndEmptyPlaces) {
    Harness h(64);
    const auto key = key_of(1, 5);
    uint32_t sloc = 0;
    uint16_t prio = 0;
    std::array<uint8_t, kKeyBytes> out{};
    h.client.loc = 1;
    struct Case {
        const char *what;
        std::function<int()> call;
        int err;
    };
    const Case cases[] = {
        {"insert into bank 2", [&] { return h.table.insert(key.data(), 5, 2, &sloc); }, EINVAL},
        {"delete beyond the table", [&] { return h.table.remove(64); }, EINVAL},
        {"delete an empty place", [&] { return h.table.remove(3); }, ENOENT},
        {"read beyond the table", [&] { return h.table.read(64, out.data(), &prio); }, EINVAL},
        {"read an empty place", [&] { return h.table.read(3, out.data(), &prio); }, ENOENT},
        {"repair an empty place", [&] { return h.table.repair(3); }, ENOENT},
        {"repair beyond the table", [&] { return h.table.repair(64); }, ENOENT},
        {"groom bank 2", [&] { return h.table.groom(2, nullptr); }, EINVAL},
    };
    for (const Case &c : cases) {
        errno = 0;
        EXPECT_EQ(c.call(), -1) << c.what;
        EXPECT_EQ(errno, c.err) << c.what;
    }
    EXPECT_TRUE(h.client.errors.empty()) << h.client.errors.front();
}

TEST(Engine, ABankFillsToTheLastPlaceWithOnePriorityThenRefuses) {
    Harness h(32);  // banks of 16
    for (uint32_t loc = 0; loc < 16; ++loc) ASSERT_EQ(h.insert(loc, 7, 1), 0) << loc;
    EXPECT_EQ(h.insert(16, 7, 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(h.insert(17, 9, 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(h.insert(18, 9, 0), 0) << "the other bank has room";
    h.verify("full bank");
    EXPECT_EQ(h.table.stats(1).entries, 16u);
    EXPECT_EQ(h.table.stats(1).full_segs, 1u);
}

TEST(Engine, EveryPlaceRefusedFailsTheInsertWithoutWriting) {
    Harness h(256);
    h.client.refuse_pct = 100;
    EXPECT_EQ(h.insert(1, 5, 0), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(h.table.counters().validate_calls, h.table.counters().validate_refusals);
    EXPECT_GT(h.table.counters().validate_calls, 1u) << "tries more than one place";
    h.verify("after refusals");
}

struct FailCase {
    const char *name;
    int op;         // camindex op that fails
    bool validate;  // or: validate fails
};

class CallbackFailure : public ::testing::TestWithParam<FailCase> {};

// A failing PRE callback or validate stops the call with the callback's errno
// and leaves engine, image and client maps consistent; nothing is half done.
TEST_P(CallbackFailure, StopsTheCallAndChangesNothing) {
    const FailCase fc = GetParam();
    Harness h(128);  // banks of 64
    std::mt19937_64 rng(7);
    uint32_t loc = 0;
    for (; loc < 30; ++loc) ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(rng() % 6), loc % 2), 0);
    h.verify("before");
    const std::map<uint32_t, uint16_t> before = h.live;

    if (fc.validate)
        h.client.validate_errno = EIO;
    else
        h.client.fail_op = fc.op;
    int rc = 0;
    errno = 0;
    if (fc.op == orvex::kPreDel) {
        rc = h.remove(h.live.begin()->first);
    } else if (fc.op == orvex::kPreMove) {
        // Inserts never move; the groom after one moves once a gap runs low.
        for (int i = 0; i < 45 && rc == 0; ++i, ++loc) {
            ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(rng() % 6), 0, false), 0);
            uint32_t moves = 1;
            rc = h.groom(0, &moves);
            if (rc != 0) {
                EXPECT_EQ(moves, 0u);
            }
        }
    } else {
        rc = h.insert(loc, 3, 0, false);
    }
    EXPECT_EQ(rc, -1) << "the failure was never reached";
    EXPECT_EQ(errno, EIO);
    h.client.fail_op = -1;
    h.client.validate_errno = 0;
    h.verify("after the failure");
    if (fc.op != orvex::kPreMove) {
        EXPECT_EQ(h.live, before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Engine, CallbackFailure,
    ::testing::Values(FailCase{"pre_add", orvex::kPreAdd, false},
                      FailCase{"pre_del", orvex::kPreDel, false},
                      FailCase{"pre_move", orvex::kPreMove, false},
                      FailCase{"validate", -1, true}),
    [](const ::testing::TestParamInfo<FailCase> &p) { return std::string(p.param.name); });

// ---- restore, repair, statistics ----------------------------------------------------

TEST(Engine, RestoreTakesTheImageAsItIsAndGoesOnFromThere) {
    Harness h(256);  // banks of 128: two segments each
    // bank 0: priorities 9 (0..63, a full segment), 5 (64..69); bank 1: a copy
    // left twice by a move that was cut short, and one more group
    for (uint32_t s = 0; s < 64; ++s) h.client.put(s, key_of(1000 + s, 9).data(), 9);
    for (uint32_t s = 64; s < 70; ++s) h.client.put(s, key_of(1000 + s, 5).data(), 5);
    h.client.put(130, key_of(2000, 4).data(), 4);
    h.client.put(131, key_of(2000, 4).data(), 4);
    h.client.put(200, key_of(2001, 2).data(), 2);
    ASSERT_EQ(h.table.restore(), 0);
    std::string why;
    EXPECT_TRUE(h.table.check(why)) << why;

    const orvex::BankStats b0 = h.table.stats(0);
    EXPECT_EQ(b0.entries, 70u);
    EXPECT_EQ(b0.groups, 2u);
    EXPECT_EQ(b0.full_segs, 1u);
    EXPECT_EQ(b0.open_segs, 1u);
    EXPECT_EQ(b0.free_segs, 0u);
    EXPECT_EQ(b0.total_segs, 2u);
    const orvex::BankStats b1 = h.table.stats(1);
    EXPECT_EQ(b1.entries, 3u);
    EXPECT_EQ(b1.groups, 2u);
    EXPECT_EQ(b1.open_segs, 2u);

    std::vector<uint32_t> seen;
    h.table.for_each_entry([&](uint32_t s) { seen.push_back(s); });
    EXPECT_EQ(seen.size(), 73u);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    uint16_t prio = 0;
    std::array<uint8_t, kKeyBytes> out{};
    ASSERT_EQ(h.table.read(131, out.data(), &prio), 0);
    EXPECT_EQ(out, key_of(2000, 4));

    // The client learns the places as a restarted library would, then works on.
    for (uint32_t s = 0; s < 256; ++s)
        if (h.client.valid(s)) {
            const uint32_t loc = 256 + s;
            h.client.lmt[loc] = s;
            h.client.rlmt[s] = loc;
        }
    h.client.start(Phase::kDelete);
    ASSERT_EQ(h.table.remove(131), 0);  // the stray copy
    h.client.phase = Phase::kIdle;
    for (uint32_t loc = 0; loc < 40; ++loc) ASSERT_EQ(h.insert(loc, static_cast<uint16_t>(loc % 11), loc % 2), 0);
    EXPECT_TRUE(h.table.check(why)) << why;
    EXPECT_TRUE(h.client.errors.empty()) << h.client.errors.front();
}

TEST(Engine, RestoreOfAnImageOutOfOrderIsReportedByTheCheck) {
    Harness h(64);
    h.client.put(3, key_of(1, 2).data(), 2);
    h.client.put(5, key_of(2, 8).data(), 8);  // higher priority below a lower one
    ASSERT_EQ(h.table.restore(), 0);
    std::string why;
    EXPECT_FALSE(h.table.check(why));
    EXPECT_NE(why.find("out of order"), std::string::npos) << why;
}

TEST(Engine, ResetClearsTheImageWithoutCallbacks) {
    Harness h(64);
    h.client.put(3, key_of(1, 2).data(), 2);
    h.client.put(40, key_of(2, 8).data(), 8);
    ASSERT_EQ(h.table.reset_hardware(), 0);
    EXPECT_FALSE(h.client.valid(3));
    EXPECT_FALSE(h.client.valid(40));
    EXPECT_EQ(h.table.stats(0).entries + h.table.stats(1).entries, 0u);
    EXPECT_TRUE(h.client.errors.empty());
}

TEST(Engine, RepairRewritesTheImageFromTheCopy) {
    Harness h(64);
    ASSERT_EQ(h.insert(1, 5, 0), 0);
    const uint32_t sloc = h.client.lmt[1];
    h.client.key(sloc)[2] ^= 0x40;  // a parity error
    std::string why;
    EXPECT_FALSE(h.table.check(why));
    ASSERT_EQ(h.table.repair(sloc), 0);
    EXPECT_TRUE(h.table.check(why)) << why;
    EXPECT_EQ(h.table.repair(sloc + 1), -1);
    EXPECT_EQ(errno, ENOENT);
}

// ---- key words ----------------------------------------------------------------------

TEST(KeyWords, HalvesBecomeLeastSignificantWordFirst) {
    const uint8_t narrow[9] = {0xAB, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    uint32_t w[5] = {};
    ASSERT_EQ(orvex::key_half_words(narrow, 9, w, 5), 3u);
    EXPECT_EQ(w[0], 0x05060708u);
    EXPECT_EQ(w[1], 0x01020304u);
    EXPECT_EQ(w[2], 0xABu);

    uint8_t wide[18];
    for (int i = 0; i < 18; ++i) wide[i] = static_cast<uint8_t>(0x10 + i);
    ASSERT_EQ(orvex::key_half_words(wide, 18, w, 5), 5u);
    EXPECT_EQ(w[0], 0x1E1F2021u);
    EXPECT_EQ(w[1], 0x1A1B1C1Du);
    EXPECT_EQ(w[2], 0x16171819u);
    EXPECT_EQ(w[3], 0x12131415u);
    EXPECT_EQ(w[4], 0x1011u);
}

}  // namespace
