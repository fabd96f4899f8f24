// Persistent key/value store of the simulated card.
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
using Model = std::map<std::string, std::string>;
using Records = std::vector<std::pair<std::string, std::string>>;

// A test's own store: fresh state directory, store closed at both ends.
struct StoreState : ScopedSimState {
    StoreState() : ScopedSimState(nullptr, sim_kvs_close) {}
};

kvs_buf buf_of(std::string &s) { return kvs_buf{reinterpret_cast<uint8_t *>(s.data()), static_cast<uint32_t>(s.size())}; }
std::string text_of(const kvs_buf *b) { return b != nullptr ? std::string(reinterpret_cast<const char *>(b->data), b->len) : "<none>"; }

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

kvs_buf *seek(uint32_t handle, std::string from, int &err)
{
    kvs_buf k = buf_of(from);
    return kvs_move2key(handle, &k, &err);
}

// Every record in the order the library walks them.
Records walk(uint32_t handle)
{
    Records out;
    int err = -1;
    for (kvs_buf *cur = seek(handle, {}, err); cur != nullptr && err == 0;
         cur = kvs_move2location(handle, KVS_MOVE_NEXT, &err)) {
        std::string key = text_of(cur);
        kvs_buf *value = kvs_getvalue(handle, &err);
        if (value == nullptr || out.size() == 100000) {
            ADD_FAILURE() << "no value at " << key << " or the walk does not end";
            break;
        }
        out.emplace_back(key, text_of(value));
    }
    EXPECT_EQ(err, 0) << "a walk ends at the last key, not on an error";
    return out;
}

// std::string orders as the store must: memcmp order, a key before its extensions.
Records records(const Model &m) { return {m.begin(), m.end()}; }

TEST(SimKvs, WalkSurvivesDeletesAroundTheCursorAndCopiesItsBuffers)
{
    StoreState state;
    for (std::string k : {"a", "b", "c", "d"})
        ASSERT_EQ(put(kHandle, k, k), 0);
    int err = -1;
    kvs_buf *cur = seek(kHandle, "b", err);
    kvs_buf *value = kvs_getvalue(kHandle, &err);
    EXPECT_EQ(text_of(cur), "b") << "the key stays valid across getvalue";
    ASSERT_EQ(put(kHandle, "b", "replaced"), 0);
    EXPECT_EQ(text_of(value), "b") << "a replace does not reach into what the caller holds";

    ASSERT_EQ(del(kHandle, "b"), 0);  // the current record
    ASSERT_EQ(del(kHandle, "c"), 0);  // and the next one
    EXPECT_EQ(kvs_getvalue(kHandle, &err), nullptr);
    EXPECT_EQ(err, MDB_NOTFOUND) << "the record under the cursor is gone";
    EXPECT_EQ(text_of(kvs_move2location(kHandle, KVS_MOVE_NEXT, &err)), "d");
    for (int i = 0; i < 2; ++i) {  // and stays at the end
        EXPECT_EQ(kvs_move2location(kHandle, KVS_MOVE_NEXT, &err), nullptr);
        EXPECT_EQ(err, 0);
    }
}

TEST(SimKvs, StoreReplaceDeleteAgainstAModelOnSeparateHandles)
{
    StoreState state;
    std::mt19937 rng(20261121);
    Model model[2];
    for (int op = 0; op < 600; ++op) {
        uint32_t h = rng() % 2;
        std::string key(1 + rng() % 3, '\0');
        for (auto &c : key)
            c = static_cast<char>('a' + rng() % 3);
        if (rng() % 3 == 0) {
            EXPECT_EQ(del(h, key) == 0, model[h].erase(key) == 1) << key;
        } else {
            std::string value(rng() % 5000, static_cast<char>(rng()));
            ASSERT_EQ(put(h, key, value), 0);
            model[h][key] = value;
        }
    }
    for (uint32_t h : {0u, 1u}) {
        EXPECT_EQ(walk(h), records(model[h])) << "handle " << h;
        uint64_t count = 0;
        ASSERT_EQ(sim_kvs_count(h, &count), 0);
        EXPECT_EQ(count, model[h].size());
    }
    ASSERT_EQ(sim_kvs_drop(1), 0);
    EXPECT_TRUE(walk(1).empty());
    EXPECT_EQ(walk(0), records(model[0]));
}

TEST(SimKvs, BadRequestsAndInjectedFailuresChangeNothing)
{
    StoreState state;
    ASSERT_EQ(put(kHandle, "a", "1"), 0);
    std::string key = "k", value = "v", empty;
    kvs_buf k = buf_of(key), v = buf_of(value), null_data{nullptr, 3};
    int err = 0;
    EXPECT_EQ(kvs_store(kHandle, 0, &k, &v), EINVAL) << "mode 1 only";
    EXPECT_EQ(kvs_store(kHandle, 1, &null_data, &v), EINVAL);
    EXPECT_EQ(kvs_delete(kHandle, nullptr), EINVAL);
    EXPECT_EQ(del(kHandle, "missing"), MDB_NOTFOUND);
    EXPECT_NE(put(kHandle, empty, "v"), 0) << "the store takes no empty key";
    EXPECT_EQ(kvs_move2key(kHandle, nullptr, &err), nullptr);
    EXPECT_EQ(err, EINVAL);
    ASSERT_NE(seek(kHandle, "a", err), nullptr);
    EXPECT_EQ(kvs_move2location(kHandle, 2, &err), nullptr);
    EXPECT_EQ(err, EINVAL) << "3 (next) is the only position code";

    ASSERT_EQ(sim_fault_set("fail=kvs_store:1:ENOSPC,fail=kvs_move2key:1:EIO,fail=kvs_delete:1:EBUSY"), 0);
    EXPECT_EQ(put(kHandle, "b", "2"), ENOSPC);
    EXPECT_EQ(del(kHandle, "a"), EBUSY);
    EXPECT_EQ(seek(kHandle, {}, err), nullptr);
    EXPECT_EQ(err, EIO);
    EXPECT_EQ(walk(kHandle), (Records{{"a", "1"}})) << "failed calls changed nothing";

    for (int code : {MDB_MAP_FULL, -12345, 99999})
        EXPECT_GT(std::strlen(errcode2str(code)), 0u) << code;
    EXPECT_STREQ(errcode2str(0), "success");
    EXPECT_STRNE(errcode2str(MDB_NOTFOUND), errcode2str(ENOSPC));
}

}  // namespace
}  // namespace tcamwrap::sim::test
