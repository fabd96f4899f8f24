// Persistent key/value store of the simulated card.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <lmdb.h>

#include "sim_kvs.h"
#include "sim_test_util.hpp"
#include "tcamwrap_platform.h"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kHandle = 7;

// A test's own store: fresh state directory, store closed at both ends.
struct StoreState : ScopedSimState {
    StoreState() : ScopedSimState(nullptr, sim_kvs_close) {}
};

kvs_buf buf_of(std::string &s)
{
    return kvs_buf{reinterpret_cast<uint8_t *>(s.data()), static_cast<uint32_t>(s.size())};
}

int put(uint32_t handle, std::string key, std::string value)
{
    kvs_buf k = buf_of(key), v = buf_of(value);
    return kvs_store(handle, 1, &k, &v);
}

int del(uint32_t handle, std::string key)
{
    kvs_buf k = buf_of(key);
    return kvs_delete(handle, &k);
}

std::string text_of(const kvs_buf *b) { return std::string(reinterpret_cast<const char *>(b->data), b->len); }

// Every record from the first key not below from, walked as the library walks.
std::vector<std::pair<std::string, std::string>> walk(uint32_t handle, std::string from = {})
{
    std::vector<std::pair<std::string, std::string>> out;
    kvs_buf k = buf_of(from);
    int err = -1;
    for (kvs_buf *cur = kvs_move2key(handle, &k, &err); cur != nullptr && err == 0;
         cur = kvs_move2location(handle, KVS_MOVE_NEXT, &err)) {
        if (out.size() == 100000) {
            ADD_FAILURE() << "the walk does not end";
            break;
        }
        std::string key = text_of(cur);
        kvs_buf *value = kvs_getvalue(handle, &err);
        EXPECT_NE(value, nullptr);
        EXPECT_EQ(err, 0);
        if (value == nullptr)
            break;
        out.emplace_back(key, text_of(value));
    }
    EXPECT_EQ(err, 0) << "a walk ends at the last key, not on an error";
    return out;
}

std::vector<std::pair<std::string, std::string>> records(const std::map<std::string, std::string> &m)
{
    return {m.begin(), m.end()};
}

TEST(SimKvs, KeysWalkInByteOrderShorterFirst)
{
    StoreState state;
    const std::vector<std::string> keys = {
        "b", "a", "ab", std::string("a\0", 2), std::string("\0", 1), "\xff", "\x80x", "aa", "abc"};
    std::map<std::string, std::string> model;  // std::string compares as memcmp, shorter first
    for (const auto &k : keys) {
        ASSERT_EQ(put(kHandle, k, "v" + k), 0);
        model[k] = "v" + k;
    }
    EXPECT_EQ(walk(kHandle), records(model));
}

TEST(SimKvs, Move2KeyFindsTheFirstKeyNotBelow)
{
    StoreState state;
    for (std::string k : {"k10", "k20", "k30"})
        ASSERT_EQ(put(kHandle, k, "x"), 0);
    const struct {
        std::string seek;
        const char *want;  // nullptr: no record
    } cases[] = {
        {"k20", "k20"}, {"k2", "k20"}, {"k200", "k30"}, {"", "k10"}, {"a", "k10"}, {"k31", nullptr},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.seek);
        kvs_buf k = buf_of(c.seek);
        int err = -1;
        kvs_buf *cur = kvs_move2key(kHandle, &k, &err);
        EXPECT_EQ(err, 0);
        if (c.want == nullptr)
            EXPECT_EQ(cur, nullptr);
        else
            EXPECT_EQ(cur != nullptr ? text_of(cur) : "<none>", c.want);
    }
}

TEST(SimKvs, CursorBuffersOutliveGetValueAndCopyTheStore)
{
    StoreState state;
    ASSERT_EQ(put(kHandle, "key", "first"), 0);
    std::string seek = "key";
    kvs_buf k = buf_of(seek);
    int err = -1;
    kvs_buf *cur = kvs_move2key(kHandle, &k, &err);
    ASSERT_NE(cur, nullptr);
    kvs_buf *value = kvs_getvalue(kHandle, &err);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(text_of(cur), "key") << "the key descriptor stays valid across getvalue";
    EXPECT_EQ(text_of(value), "first");

    // A replace does not reach into what the caller holds; the next getvalue sees it.
    ASSERT_EQ(put(kHandle, "key", "second, longer"), 0);
    EXPECT_EQ(text_of(value), "first");
    value = kvs_getvalue(kHandle, &err);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(text_of(value), "second, longer");
}

TEST(SimKvs, WalkSurvivesDeletesAroundTheCursor)
{
    StoreState state;
    for (std::string k : {"a", "b", "c", "d", "e"})
        ASSERT_EQ(put(kHandle, k, k), 0);
    std::string seek = "b";
    kvs_buf k = buf_of(seek);
    int err = -1;
    ASSERT_NE(kvs_move2key(kHandle, &k, &err), nullptr);
    ASSERT_EQ(del(kHandle, "b"), 0);  // the current record
    ASSERT_EQ(del(kHandle, "c"), 0);  // and the next one
    EXPECT_EQ(kvs_getvalue(kHandle, &err), nullptr);
    EXPECT_EQ(err, MDB_NOTFOUND) << "the record under the cursor is gone";
    kvs_buf *next = kvs_move2location(kHandle, KVS_MOVE_NEXT, &err);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(text_of(next), "d");
    next = kvs_move2location(kHandle, KVS_MOVE_NEXT, &err);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(text_of(next), "e");
    EXPECT_EQ(kvs_move2location(kHandle, KVS_MOVE_NEXT, &err), nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kvs_move2location(kHandle, KVS_MOVE_NEXT, &err), nullptr) << "stays at the end";
    EXPECT_EQ(err, 0);
}

TEST(SimKvs, StoreReplaceDeleteAgainstAModel)
{
    StoreState state;
    const uint32_t seed = 20261121;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    std::map<std::string, std::string> model;
    for (int op = 0; op < 600; ++op) {
        std::string key(1 + rng() % 3, '\0');
        for (auto &c : key)
            c = static_cast<char>('a' + rng() % 3);
        if (rng() % 3 == 0) {
            int rc = del(kHandle, key);
            EXPECT_EQ(rc == 0, model.erase(key) == 1) << key;
        } else {
            std::string value(rng() % 5000, static_cast<char>(rng()));
            ASSERT_EQ(put(kHandle, key, value), 0);
            model[key] = value;
        }
    }
    EXPECT_EQ(walk(kHandle), records(model));
    uint64_t count = 0;
    ASSERT_EQ(sim_kvs_count(kHandle, &count), 0);
    EXPECT_EQ(count, model.size());
}

TEST(SimKvs, HandlesAreSeparateStores)
{
    StoreState state;
    ASSERT_EQ(put(1, "same", "one"), 0);
    ASSERT_EQ(put(2, "same", "two"), 0);
    ASSERT_EQ(put(2, "other", "x"), 0);
    EXPECT_EQ(walk(1), (std::vector<std::pair<std::string, std::string>>{{"same", "one"}}));
    EXPECT_EQ(walk(2), (std::vector<std::pair<std::string, std::string>>{{"other", "x"}, {"same", "two"}}));
    ASSERT_EQ(sim_kvs_drop(2), 0);
    EXPECT_TRUE(walk(2).empty());
    EXPECT_EQ(walk(1).size(), 1u);
}

TEST(SimKvs, BadRequestsAndErrorTexts)
{
    StoreState state;
    std::string key = "k", value = "v";
    kvs_buf k = buf_of(key), v = buf_of(value);
    EXPECT_EQ(kvs_store(kHandle, 0, &k, &v), EINVAL) << "mode 1 only";
    EXPECT_EQ(kvs_store(kHandle, 1, nullptr, &v), EINVAL);
    EXPECT_EQ(kvs_store(kHandle, 1, &k, nullptr), EINVAL);
    kvs_buf null_data{nullptr, 3};
    EXPECT_EQ(kvs_store(kHandle, 1, &null_data, &v), EINVAL);
    EXPECT_EQ(kvs_delete(kHandle, nullptr), EINVAL);
    EXPECT_EQ(del(kHandle, "missing"), MDB_NOTFOUND);
    std::string empty;
    EXPECT_NE(put(kHandle, empty, "v"), 0) << "the store takes no empty key";

    int err = 0;
    EXPECT_EQ(kvs_move2key(kHandle, nullptr, &err), nullptr);
    EXPECT_EQ(err, EINVAL);
    ASSERT_EQ(put(kHandle, "k", "v"), 0);
    ASSERT_NE(kvs_move2key(kHandle, &k, &err), nullptr);
    EXPECT_EQ(kvs_move2location(kHandle, 2, &err), nullptr);
    EXPECT_EQ(err, EINVAL) << "3 (next) is the only position code";
    EXPECT_EQ(kvs_getvalue(99, &err), nullptr) << "a handle whose cursor was never placed";
    EXPECT_EQ(err, MDB_NOTFOUND);

    for (int code : {0, EINVAL, ENOSPC, EIO, MDB_NOTFOUND, MDB_MAP_FULL, MDB_KEYEXIST, -12345, 99999}) {
        const char *text = errcode2str(code);
        ASSERT_NE(text, nullptr) << code;
        EXPECT_GT(std::strlen(text), 0u) << code;
    }
    EXPECT_STREQ(errcode2str(0), "success");
    EXPECT_STRNE(errcode2str(MDB_NOTFOUND), errcode2str(ENOSPC));
}

TEST(SimKvs, InjectedFailuresReturnTheirCode)
{
    StoreState state;
    ASSERT_EQ(sim_fault_set("fail=kvs_store:2:ENOSPC,fail=kvs_move2key:1:EIO,fail=kvs_delete:1:EBUSY"), 0);
    ASSERT_EQ(put(kHandle, "a", "1"), 0);
    EXPECT_EQ(put(kHandle, "b", "2"), ENOSPC);
    EXPECT_EQ(del(kHandle, "a"), EBUSY);
    std::string from;
    kvs_buf k = buf_of(from);
    int err = 0;
    EXPECT_EQ(kvs_move2key(kHandle, &k, &err), nullptr);
    EXPECT_EQ(err, EIO);
    EXPECT_EQ(walk(kHandle), (std::vector<std::pair<std::string, std::string>>{{"a", "1"}}))
        << "failed calls changed nothing";
    sim_fault_set(nullptr);
}

TEST(SimKvs, RecordsOutliveTheProcessThatStoredThem)
{
    StoreState state;
    ASSERT_EQ(put(kHandle, "parent", "before"), 0);  // the parent has the store open
    int status = run_in_child([] {
        if (put(kHandle, "child", std::string(4096, 'c')) != 0 || del(kHandle, "parent") != 0)
            return 1;
        ::raise(SIGKILL);
        return 2;
    });
    ASSERT_TRUE(killed(status)) << status;
    state.forget();
    EXPECT_EQ(walk(kHandle),
              (std::vector<std::pair<std::string, std::string>>{{"child", std::string(4096, 'c')}}));
}

TEST(SimKvs, SynchronousCommitsKeepTheSameBehaviour)
{
    ::setenv(SIM_KVS_SYNC_ENV, "1", 1);
    {
        StoreState state;
        ASSERT_EQ(put(kHandle, "b", "2"), 0);
        ASSERT_EQ(put(kHandle, "a", "1"), 0);
        ASSERT_EQ(del(kHandle, "b"), 0);
        state.forget();
        EXPECT_EQ(walk(kHandle), (std::vector<std::pair<std::string, std::string>>{{"a", "1"}}));
    }
    ::unsetenv(SIM_KVS_SYNC_ENV);
}

// The sequence a crashing child runs: stores and deletes of LMT-like records.
struct Op {
    bool store;
    std::string key;
    std::string value;
};

std::vector<Op> crash_sequence()
{
    std::vector<Op> ops;
    for (int i = 0; i < 6; ++i)
        ops.push_back({true, "seg" + std::to_string(i % 3), std::string(4096, static_cast<char>('a' + i))});
    ops.push_back({true, "journal", "loc/old/new"});
    ops.push_back({false, "seg1", {}});
    ops.push_back({false, "journal", {}});
    ops.push_back({true, "seg1", "back"});
    return ops;
}

std::map<std::string, std::string> model_after(const std::vector<Op> &ops, std::size_t done)
{
    std::map<std::string, std::string> m;
    for (std::size_t i = 0; i < done; ++i) {
        if (ops[i].store)
            m[ops[i].key] = ops[i].value;
        else
            m.erase(ops[i].key);
    }
    return m;
}

// Crash before the n-th store call or the n-th delete call, for every n until a
// run completes; after each, the store holds exactly the calls completed.
TEST(SimKvs, ProcessKilledMidSequenceLeavesItsLastCompletedCall)
{
    const auto ops = crash_sequence();
    for (const char *point : {"kvs_store", "kvs_delete"}) {
        for (int n = 1;; ++n) {
            SCOPED_TRACE(std::string(point) + " #" + std::to_string(n));
            StoreState state;
            int fds[2];
            ASSERT_EQ(::pipe(fds), 0);
            std::string rule = "crash=" + std::string(point) + ":" + std::to_string(n);
            int status = run_in_child([&] {
                ::close(fds[0]);
                sim_fault_set(rule.c_str());
                for (const Op &op : ops) {
                    int rc = op.store ? put(kHandle, op.key, op.value) : del(kHandle, op.key);
                    if (rc != 0 || ::write(fds[1], "x", 1) != 1)
                        return 1;
                }
                return 0;
            });
            ::close(fds[1]);
            std::size_t done = 0;
            char c;
            while (::read(fds[0], &c, 1) == 1)
                ++done;
            ::close(fds[0]);

            state.forget();
            EXPECT_EQ(walk(kHandle), records(model_after(ops, done)));
            if (exited_with(status, 0)) {
                EXPECT_EQ(done, ops.size());
                break;
            }
            ASSERT_TRUE(killed(status)) << status;
            ASSERT_LT(done, ops.size());
        }
    }
}

}  // namespace
}  // namespace tcamwrap::sim::test
