// kvs.cpp - the persistent key/value store of the simulated card (libkvs.so), on
// LMDB. Keys are ordered byte strings (memcmp order, a prefix before its
// extensions). Each handle has one cursor: its position is kept as a copy of the
// current key, so no transaction stays open between calls, and each call that
// moves it reads in a short transaction of its own.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include <lmdb.h>

#include "sim_card.h"
#include "sim_fault.h"
#include "sim_kvs.h"
#include "tcamwrap_platform.h"

namespace tcamwrap::sim {
namespace {

constexpr std::size_t kMapBytes = std::size_t{256} << 20;
constexpr unsigned kMaxStores = 128;

// Owns an LMDB handle and releases it with `Release` unless it was handed over.
template <typename T, auto Release>
class OwnedHandle {
public:
    OwnedHandle() = default;
    OwnedHandle(const OwnedHandle &) = delete;
    OwnedHandle &operator=(const OwnedHandle &) = delete;
    ~OwnedHandle()
    {
        if (handle_ != nullptr)
            Release(handle_);
    }
    T *get() const { return handle_; }

protected:
    T *handle_ = nullptr;
};

// One LMDB transaction, aborted unless committed.
class Txn : public OwnedHandle<MDB_txn, mdb_txn_abort> {
public:
    int begin(MDB_env *env, unsigned flags) { return mdb_txn_begin(env, nullptr, flags, &handle_); }
    int commit()
    {
        int rc = mdb_txn_commit(handle_);
        handle_ = nullptr;  // freed by commit, whatever its result
        return rc;
    }
};

class CursorGuard : public OwnedHandle<MDB_cursor, mdb_cursor_close> {
public:
    int open(MDB_txn *txn, MDB_dbi dbi) { return mdb_cursor_open(txn, dbi, &handle_); }
};

// Per-handle cursor: the current key and the buffers handed to the caller.
struct Cursor {
    bool positioned = false;
    std::vector<uint8_t> key;
    std::vector<uint8_t> value;
    kvs_buf key_desc{};
    kvs_buf value_desc{};
};

// Result of a cursor call that returns no record: the code goes to *err.
kvs_buf *report(int *err, int code)
{
    if (err != nullptr)
        *err = code;
    return nullptr;
}

MDB_val val_of(const kvs_buf &b) { return MDB_val{b.len, b.data}; }

bool valid_buf(const kvs_buf *b) { return b != nullptr && (b->data != nullptr || b->len == 0); }

class Store {
public:
    Store() = default;
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store() { close(); }

    void close()
    {
        if (env_ != nullptr && pid_ == ::getpid())
            mdb_env_close(env_);
        env_ = nullptr;
        dbis_.clear();
        cursors_.clear();
    }

    // The database of a handle, opening the environment and creating the
    // database on first use: 0 or an error code.
    int dbi_of(uint32_t handle, MDB_dbi &out)
    {
        if (int rc = open_env(); rc != 0)
            return rc;
        if (auto it = dbis_.find(handle); it != dbis_.end()) {
            out = it->second;
            return 0;
        }
        Txn txn;
        if (int rc = txn.begin(env_, 0); rc != 0)
            return rc;
        std::string name = "h" + std::to_string(handle);
        MDB_dbi dbi = 0;
        if (int rc = mdb_dbi_open(txn.get(), name.c_str(), MDB_CREATE, &dbi); rc != 0)
            return rc;
        if (int rc = txn.commit(); rc != 0)
            return rc;
        dbis_[handle] = dbi;
        out = dbi;
        return 0;
    }

    MDB_env *env() const { return env_; }
    Cursor &cursor(uint32_t handle) { return cursors_[handle]; }

private:
    int open_env()
    {
        if (env_ != nullptr && pid_ != ::getpid()) {
            // A forked child must not use its parent's environment (LMDB's rule);
            // it is left as it is, without closing what the parent still uses.
            env_ = nullptr;
            dbis_.clear();
            cursors_.clear();
        }
        if (env_ != nullptr)
            return 0;
        const char *dir = sim_state_dir();
        if (dir == nullptr)
            return errno;
        std::string path = std::string(dir) + "/kvs";
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
            return errno;
        MDB_env *env = nullptr;
        if (int rc = mdb_env_create(&env); rc != 0)
            return rc;
        const char *sync = std::getenv(SIM_KVS_SYNC_ENV);
        unsigned flags = (sync != nullptr && std::strcmp(sync, "1") == 0) ? 0u : MDB_NOSYNC;
        int rc = mdb_env_set_maxdbs(env, kMaxStores);
        if (rc == 0)
            rc = mdb_env_set_mapsize(env, kMapBytes);
        if (rc == 0)
            rc = mdb_env_open(env, path.c_str(), flags, 0644);
        if (rc != 0) {
            mdb_env_close(env);
            return rc;
        }
        env_ = env;
        pid_ = ::getpid();
        return 0;
    }

    MDB_env *env_ = nullptr;
    pid_t pid_ = 0;
    std::unordered_map<uint32_t, MDB_dbi> dbis_;
    std::unordered_map<uint32_t, Cursor> cursors_;
};

struct Shared {
    std::mutex mu;
    Store store;
};

Shared &shared()
{
    static Shared s;
    return s;
}

// One transaction on a handle's database: op(txn, dbi), then commit unless read-only
// (a read-only one is aborted when it goes out of scope).
template <typename Op>
int in_txn(uint32_t handle, unsigned flags, Op op)
{
    Shared &s = shared();
    std::lock_guard lock(s.mu);
    MDB_dbi dbi = 0;
    if (int rc = s.store.dbi_of(handle, dbi); rc != 0)
        return rc;
    Txn txn;
    if (int rc = txn.begin(s.store.env(), flags); rc != 0)
        return rc;
    if (int rc = op(txn.get(), dbi); rc != 0)
        return rc;
    return (flags & MDB_RDONLY) != 0 ? 0 : txn.commit();
}

template <typename Op>
int write_txn(uint32_t handle, Op op)
{
    return in_txn(handle, 0, op);
}

// Positions the handle's cursor with one cursor operation in a read transaction
// and returns the key descriptor, or NULL (*err 0 at the end, else the error).
kvs_buf *position(uint32_t handle, int *err, MDB_val start, MDB_cursor_op op, bool skip_equal)
{
    Shared &s = shared();
    std::lock_guard lock(s.mu);
    int rc = 0;
    auto fail = [err, &rc]() { return report(err, rc); };
    MDB_dbi dbi = 0;
    if ((rc = s.store.dbi_of(handle, dbi)) != 0)
        return fail();
    Cursor &c = s.store.cursor(handle);
    Txn txn;
    CursorGuard cur;
    if ((rc = txn.begin(s.store.env(), MDB_RDONLY)) != 0 || (rc = cur.open(txn.get(), dbi)) != 0)
        return fail();
    MDB_val k = start;
    MDB_val v{};
    rc = mdb_cursor_get(cur.get(), &k, &v, op);
    if (rc == 0 && skip_equal && k.mv_size == start.mv_size &&
        std::memcmp(k.mv_data, start.mv_data, k.mv_size) == 0)
        rc = mdb_cursor_get(cur.get(), &k, &v, MDB_NEXT);
    if (rc == MDB_NOTFOUND) {
        c.positioned = false;
        rc = 0;
        return fail();
    }
    if (rc != 0)
        return fail();
    auto *bytes = static_cast<const uint8_t *>(k.mv_data);
    c.key.assign(bytes, bytes + k.mv_size);
    c.positioned = true;
    c.key_desc = kvs_buf{c.key.data(), static_cast<uint32_t>(c.key.size())};
    report(err, 0);
    return &c.key_desc;
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

int kvs_store(uint32_t handle, uint32_t mode, kvs_buf *key, kvs_buf *value)
{
    if (sim_fault_should_fail("kvs_store"))
        return errno;
    // Mode 1 writes the record or replaces the one with the same key; the store
    // knows no other mode.
    if (mode != 1 || !valid_buf(key) || !valid_buf(value))
        return EINVAL;
    return write_txn(handle, [key, value](MDB_txn *txn, MDB_dbi dbi) {
        MDB_val k = val_of(*key);
        MDB_val v = val_of(*value);
        return mdb_put(txn, dbi, &k, &v, 0);
    });
}

int kvs_delete(uint32_t handle, kvs_buf *key)
{
    if (sim_fault_should_fail("kvs_delete"))
        return errno;
    if (!valid_buf(key))
        return EINVAL;
    return write_txn(handle, [key](MDB_txn *txn, MDB_dbi dbi) {
        MDB_val k = val_of(*key);
        return mdb_del(txn, dbi, &k, nullptr);  // MDB_NOTFOUND when there is no such key
    });
}

kvs_buf *kvs_move2key(uint32_t handle, kvs_buf *key, int *err)
{
    if (sim_fault_should_fail("kvs_move2key"))
        return report(err, errno);
    if (!valid_buf(key))
        return report(err, EINVAL);
    // LMDB refuses an empty search key; an empty key is below every key.
    if (key->len == 0)
        return position(handle, err, MDB_val{0, nullptr}, MDB_FIRST, false);
    return position(handle, err, val_of(*key), MDB_SET_RANGE, false);
}

kvs_buf *kvs_move2location(uint32_t handle, uint32_t where, int *err)
{
    if (sim_fault_should_fail("kvs_move2location"))
        return report(err, errno);
    if (where != KVS_MOVE_NEXT)
        return report(err, EINVAL);
    std::vector<uint8_t> current;
    {
        Shared &s = shared();
        std::lock_guard lock(s.mu);
        Cursor &c = s.store.cursor(handle);
        if (!c.positioned)  // walked off the end, or never placed: nothing follows
            return report(err, 0);
        current = c.key;
    }
    // The first key above the current one, even if the current record was deleted
    // since the cursor reached it.
    return position(handle, err, MDB_val{current.size(), current.data()}, MDB_SET_RANGE, true);
}

kvs_buf *kvs_getvalue(uint32_t handle, int *err)
{
    auto fail = [err](int rc) { return report(err, rc); };
    if (sim_fault_should_fail("kvs_getvalue"))
        return fail(errno);
    Shared &s = shared();
    std::lock_guard lock(s.mu);
    MDB_dbi dbi = 0;
    if (int rc = s.store.dbi_of(handle, dbi); rc != 0)
        return fail(rc);
    Cursor &c = s.store.cursor(handle);
    if (!c.positioned)
        return fail(MDB_NOTFOUND);
    Txn txn;
    if (int rc = txn.begin(s.store.env(), MDB_RDONLY); rc != 0)
        return fail(rc);
    MDB_val k{c.key.size(), c.key.data()};
    MDB_val v{};
    if (int rc = mdb_get(txn.get(), dbi, &k, &v); rc != 0)
        return fail(rc);  // MDB_NOTFOUND when the record was deleted meanwhile
    auto *bytes = static_cast<const uint8_t *>(v.mv_data);
    c.value.assign(bytes, bytes + v.mv_size);
    c.value_desc = kvs_buf{c.value.data(), static_cast<uint32_t>(c.value.size())};
    report(err, 0);
    return &c.value_desc;
}

const char *errcode2str(int code)
{
    if (code == 0)
        return "success";
    // LMDB names its own codes and hands every other one to strerror(), which
    // also covers unknown codes ("Unknown error N").
    return mdb_strerror(code);
}

void sim_kvs_close(void)
{
    Shared &s = shared();
    std::lock_guard lock(s.mu);
    s.store.close();
}

int sim_kvs_count(uint32_t handle, uint64_t *count)
{
    if (count == nullptr)
        return EINVAL;
    return in_txn(handle, MDB_RDONLY, [count](MDB_txn *txn, MDB_dbi dbi) {
        MDB_stat st{};
        if (int rc = mdb_stat(txn, dbi, &st); rc != 0)
            return rc;
        *count = st.ms_entries;
        return 0;
    });
}

int sim_kvs_drop(uint32_t handle)
{
    int rc = write_txn(handle, [](MDB_txn *txn, MDB_dbi dbi) { return mdb_drop(txn, dbi, 0); });
    Shared &s = shared();
    std::lock_guard lock(s.mu);
    s.store.cursor(handle).positioned = false;
    return rc;
}

}  // extern "C"
