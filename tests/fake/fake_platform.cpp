/* fake_platform.cpp - the recording platform of the tests (see fake_platform.h). */
#include "fake_platform.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace fake {
namespace {

using Addr = std::tuple<unsigned, uint32_t, uint32_t>;   /* inst, tbl, address */

struct Fault {
    std::string fn;
    int ret;
    int err;
    int nth;
    int seen;
};

/* The cursor's descriptors stay valid until the next cursor call. */
struct Cursor {
    std::optional<std::string> key;
    Bytes key_bytes;
    Bytes value_bytes;
    kvs_buf key_desc{};
    kvs_buf value_desc{};
};

struct State {
    std::vector<Call> calls;
    std::vector<Fault> faults;
    Card card;
    std::map<Addr, Bytes> tcam, ssram, flow;
    std::map<Addr, uint8_t> acl_prio;

    std::vector<HistEvent> hist;
    std::vector<DbgOut> dbgout;
    std::vector<LogEvent> log;
    int subtype_check_result = 0;
    int chk_int_result = 0;

    std::map<std::string, std::string> store;
    Cursor cursor;
    std::map<int, std::string> errtexts;

    std::map<std::pair<unsigned, uint32_t>, EngineTable> engines;
    bool ask_validate = false;
    std::vector<std::pair<uint32_t, uint8_t>> validate_answers;
    Stats stats[2] = {};
    std::vector<WalkEntry> walk;
    int walk_result = 0;
    FixResult fix;
};

State &st()
{
    static State s;
    return s;
}

/* Bound for driver requests: keeps a wild num_entries from eating the host. */
constexpr uint32_t kMaxRequest = 1u << 16;

Call &record(const char *fn, std::vector<uint64_t> a = {})
{
    Call c;
    c.fn = fn;
    c.a = std::move(a);
    st().calls.push_back(std::move(c));
    return st().calls.back();
}

Call &record_p(const char *fn, const tbl_params *p, std::vector<uint64_t> a = {})
{
    Call &c = record(fn, std::move(a));
    if (p)
        c.p = *p;
    return c;
}

uint64_t ptr(const void *p) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)); }

Bytes copy(const void *p, size_t n)
{
    if (!p)
        return {};
    const auto *b = static_cast<const uint8_t *>(p);
    return Bytes(b, b + n);
}

std::optional<std::pair<int, int>> injected(const std::string &fn)
{
    for (Fault &f : st().faults) {
        if (f.fn != fn)
            continue;
        ++f.seen;
        if (f.nth == 0 || f.seen == f.nth)
            return std::make_pair(f.ret, f.err);
    }
    return std::nullopt;
}

/* A failing driver or engine call: errno set, result returned. */
std::optional<int> fail_now(const std::string &fn)
{
    auto f = injected(fn);
    if (!f)
        return std::nullopt;
    errno = f->second;
    return f->first;
}

uint32_t count_of(const tbl_params *p) { return p->num_entries < kMaxRequest ? p->num_entries : kMaxRequest; }

/* A recorded driver write of `width`-byte words, unless a fault is injected into `fn`. */
int write_words(const char *fn, std::map<Addr, Bytes> &mem, const tbl_params *p,
                const uint8_t *src, unsigned width)
{
    Call &c = record_p(fn, p);
    if (auto r = fail_now(fn))
        return *r;
    uint32_t n = count_of(p);
    c.in.push_back(copy(src, size_t(n) * width));
    for (uint32_t i = 0; i < n; ++i)
        mem[{p->inst, p->tbl_type, p->start_addr + i}] = copy(src + size_t(i) * width, width);
    return 0;
}

/* A recorded driver read; words never written read as zeros. */
int read_words(const char *fn, const std::map<Addr, Bytes> &mem, const tbl_params *p,
               uint8_t *dst, unsigned width)
{
    record_p(fn, p);
    if (auto r = fail_now(fn))
        return *r;
    uint32_t n = count_of(p);
    for (uint32_t i = 0; i < n; ++i) {
        auto it = mem.find({p->inst, p->tbl_type, p->start_addr + i});
        if (it != mem.end() && it->second.size() == width)
            std::memcpy(dst + size_t(i) * width, it->second.data(), width);
        else
            std::memset(dst + size_t(i) * width, 0, width);
    }
    return 0;
}

Bytes handle_bytes(const void *h)
{
    /* The callback handle record is 28 bytes (abi.md). */
    return copy(h, 28);
}

int call_camindex(unsigned, uint32_t, EngineTable &t, uint32_t op, uint32_t old_sloc, uint32_t new_sloc)
{
    return t.camindex ? t.camindex(t.camindex_handle, 0, 0, op, old_sloc, new_sloc) : 0;
}

bool bank_range(const EngineTable &t, uint8_t bank, uint32_t &lo, uint32_t &hi)
{
    uint32_t half = t.size / 2;
    if (bank == 0) {
        lo = 0;
        hi = half;
    } else if (bank == 1) {
        lo = half;
        hi = t.size;
    } else {
        lo = 0;
        hi = t.size;
    }
    return lo < hi;
}

bool accepted(EngineTable &t, uint32_t sloc)
{
    if (!st().ask_validate || !t.validate)
        return true;
    uint8_t ok = 0xAA;
    t.validate(t.validate_handle, sloc, &ok);
    st().validate_answers.emplace_back(sloc, ok);
    return ok != 0;
}

std::optional<uint32_t> choose_sloc(EngineTable &t, uint8_t bank)
{
    uint32_t lo = 0, hi = 0;
    if (!bank_range(t, bank, lo, hi))
        return std::nullopt;
    for (uint32_t s = lo; s < hi; ++s)
        if (!t.entries.count(s) && accepted(t, s))
            return s;
    return std::nullopt;
}

/* One big-endian half of a key as host-order words, least significant first. */
std::vector<uint32_t> half_to_words(const uint8_t *half, unsigned width_bits)
{
    /* The half is one big-endian number of width_bits / 8 bytes. */
    size_t nbytes = width_bits / 8;
    size_t nwords = (nbytes + 3) / 4;
    std::vector<uint32_t> w(nwords, 0);
    for (size_t i = 0; i < nbytes; ++i) {
        size_t bit = (nbytes - 1 - i) * 8;   /* weight of byte i */
        w[bit / 32] |= uint32_t(half[i]) << (bit % 32);
    }
    return w;
}

void entry_words(const EngineEntry &e, unsigned width_bits, std::vector<uint32_t> &value,
                 std::vector<uint32_t> &mask)
{
    size_t half = e.key.size() / 2;
    value = half_to_words(e.key.data(), width_bits);
    mask = half_to_words(e.key.data() + half, width_bits);
}

}  // namespace

/* ---- public helpers ------------------------------------------------------ */

std::vector<Call> calls_of(const std::string &fn)
{
    std::vector<Call> out;
    for (const Call &c : st().calls)
        if (c.fn == fn)
            out.push_back(c);
    return out;
}

std::vector<Call> calls_with_prefix(const std::string &prefix)
{
    std::vector<Call> out;
    for (const Call &c : st().calls)
        if (c.fn.rfind(prefix, 0) == 0)
            out.push_back(c);
    return out;
}

std::vector<std::string> call_names(const std::vector<std::string> &prefixes)
{
    std::vector<std::string> out;
    for (const Call &c : st().calls)
        for (const std::string &p : prefixes)
            if (c.fn.rfind(p, 0) == 0) {
                out.push_back(c.fn);
                break;
            }
    return out;
}

void clear_calls() { st().calls.clear(); }

void reset() { st() = State{}; }

void fail(const std::string &fn, int ret, int err, int nth)
{
    st().faults.push_back({fn, ret, err, nth, 0});
}

Card &card() { return st().card; }

unsigned key_bytes(uint32_t tbl_type) { return tbl_type == 3 ? 18u : 36u; }

void set_ssram(unsigned inst, uint32_t tbl, uint32_t addr, const Bytes &w) { st().ssram[{inst, tbl, addr}] = w; }
void set_flow(unsigned inst, uint32_t tbl, uint32_t idx, const Bytes &w) { st().flow[{inst, tbl, idx}] = w; }

template <typename M>
static auto lookup(const M &m, unsigned inst, uint32_t tbl, uint32_t addr)
    -> std::optional<typename M::mapped_type>
{
    auto it = m.find({inst, tbl, addr});
    if (it == m.end())
        return std::nullopt;
    return it->second;
}

std::optional<Bytes> ssram(unsigned inst, uint32_t tbl, uint32_t addr) { return lookup(st().ssram, inst, tbl, addr); }
std::optional<Bytes> flow(unsigned inst, uint32_t tbl, uint32_t idx) { return lookup(st().flow, inst, tbl, idx); }
std::optional<uint8_t> acl_prio(unsigned inst, uint32_t tbl, uint32_t addr) { return lookup(st().acl_prio, inst, tbl, addr); }

const std::vector<HistEvent> &hist_events() { return st().hist; }
const std::vector<DbgOut> &dbg_outs() { return st().dbgout; }
const std::vector<LogEvent> &log_events() { return st().log; }

void set_subtype_check_result(int r) { st().subtype_check_result = r; }
void set_chk_int_result(int r) { st().chk_int_result = r; }

std::map<std::string, std::string> &store() { return st().store; }

std::string key_str(const Bytes &b) { return std::string(b.begin(), b.end()); }

std::string store_key(const std::string &prefix, uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3)
{
    std::string k = prefix;
    k.push_back(char(b0));
    k.push_back(char(b1));
    k.push_back(char(b2));
    k.push_back(char(b3));
    return k;
}

EngineTable &engine(unsigned inst, uint32_t tbl) { return st().engines[{inst, tbl}]; }

void hw_entry(unsigned inst, uint32_t tbl, uint32_t sloc, const Bytes &key, uint16_t prio, uint8_t bank)
{
    engine(inst, tbl).entries[sloc] = EngineEntry{key, prio, bank};
}

void set_ask_validate(bool on) { st().ask_validate = on; }

const std::vector<std::pair<uint32_t, uint8_t>> &validate_answers() { return st().validate_answers; }

void set_stats(uint8_t bank, const Stats &s)
{
    if (bank < 2)
        st().stats[bank] = s;
}

void set_walk(const std::vector<WalkEntry> &entries, int result)
{
    st().walk = entries;
    st().walk_result = result;
}

void set_fix_result(const FixResult &r) { st().fix = r; }


}  // namespace fake

using namespace fake;

/* ---- the platform, as the library sees it ------------------------------- */

struct dbgsvc_modname {
    char name[16];
};

extern "C" {

dbgsvc_modname dbgsvc_dbg_modname = {"fake-dbg"};

int fwd_get_cfg_info(uint8_t inst, void *cfg)
{
    record("fwd_get_cfg_info", {inst, ptr(cfg)});
    if (auto r = fail_now("fwd_get_cfg_info"))
        return *r;
    fwd_cfg_info info;
    std::memset(&info, 0, sizeof info);
    info.num_insts = card().num_insts;
    info.acli_size = card().size[1];
    info.aclo_size = card().size[2];
    info.fib_size = card().size[3];
    std::memcpy(cfg, &info, sizeof info);
    return 0;
}

int fwd_tcam_write(tbl_params *p, uint8_t *key)
{
    return write_words("fwd_tcam_write", st().tcam, p, key, key_bytes(p->tbl_type));
}

int fwd_tcam_read(tbl_params *p, uint8_t *keys)
{
    return read_words("fwd_tcam_read", st().tcam, p, keys, key_bytes(p->tbl_type));
}

int fwd_tcam_delete(tbl_params *p)
{
    record_p("fwd_tcam_delete", p);
    if (auto r = fail_now("fwd_tcam_delete"))
        return *r;
    for (uint32_t i = 0; i < count_of(p); ++i)
        st().tcam.erase({p->inst, p->tbl_type, p->start_addr + i});
    return 0;
}

int fwd_ssram_write(tbl_params *p, uint8_t *words)
{
    return write_words("fwd_ssram_write", st().ssram, p, words, 5);
}

int fwd_ssram_read(tbl_params *p, uint8_t *words)
{
    return read_words("fwd_ssram_read", st().ssram, p, words, 5);
}

int fwd_flow_result_write(tbl_params *p, uint8_t *words)
{
    return write_words("fwd_flow_result_write", st().flow, p, words, 5);
}

int fwd_flow_result_read(tbl_params *p, uint8_t *words)
{
    return read_words("fwd_flow_result_read", st().flow, p, words, 5);
}

int fwd_acl_prio_write(tbl_params *p, uint8_t *values)
{
    Call &c = record_p("fwd_acl_prio_write", p);
    if (auto r = fail_now("fwd_acl_prio_write"))
        return *r;
    c.in.push_back(copy(values, count_of(p)));
    for (uint32_t i = 0; i < count_of(p); ++i)
        st().acl_prio[{p->inst, p->tbl_type, p->start_addr + i}] = values[i];
    return 0;
}

int fwd_acl_prio_read(tbl_params *p, uint8_t *values)
{
    record_p("fwd_acl_prio_read", p);
    if (auto r = fail_now("fwd_acl_prio_read"))
        return *r;
    for (uint32_t i = 0; i < count_of(p); ++i) {
        auto v = acl_prio(p->inst, p->tbl_type, p->start_addr + i);
        values[i] = v ? *v : 0;
    }
    return 0;
}

int get_card_tcam_types(uint32_t types[3])
{
    record("get_card_tcam_types", {ptr(types)});
    if (auto r = fail_now("get_card_tcam_types"))
        return *r;
    for (int i = 0; i < 3; ++i)
        types[i] = card().tcam_type[i];
    return 0;
}

/* ---- search engine ------------------------------------------------------ */

int orvex_tcam_init(uint8_t inst, uint32_t tbl_type, uint32_t key_width_bits,
                    orvex_validate_cb validate, void *validate_handle,
                    orvex_camindex_cb camindex, void *camindex_handle, uint32_t restore,
                    orvex_entry_cb restore_cb, void *restore_handle, uint32_t debug_elem,
                    uint32_t debug_level)
{
    Call &c = record("orvex_tcam_init",
                     {inst, tbl_type, key_width_bits, ptr(reinterpret_cast<void *>(validate)),
                      ptr(validate_handle), ptr(reinterpret_cast<void *>(camindex)),
                      ptr(camindex_handle), restore, ptr(reinterpret_cast<void *>(restore_cb)),
                      ptr(restore_handle), debug_elem, debug_level});
    c.handle = handle_bytes(camindex_handle);
    if (auto r = fail_now("orvex_tcam_init"))
        return *r;
    EngineTable &t = engine(inst, tbl_type);
    t.registered = true;
    t.size = tbl_type < 4 ? card().size[tbl_type] : 0;
    t.key_width = key_width_bits;
    t.validate = validate;
    t.validate_handle = validate_handle;
    t.camindex = camindex;
    t.camindex_handle = camindex_handle;
    t.restore_cb = restore_cb;
    t.restore_handle = restore_handle;
    if (!restore) {
        t.entries.clear();      /* a fresh start finds an empty TCAM */
        return 0;
    }
    for (const auto &[sloc, e] : t.entries) {
        std::vector<uint32_t> value, mask;
        entry_words(e, key_width_bits, value, mask);
        if (restore_cb)
            restore_cb(restore_handle, sloc, value.data(), mask.data(), key_width_bits, e.bank,
                       tbl_type, e.prio);
    }
    return 0;
}

int orvex_tcam_insert_entry(tbl_params *p, uint8_t *key, uint16_t *prio, uint8_t *bank)
{
    Call &c = record_p("orvex_tcam_insert_entry", p, {prio ? *prio : 0u, bank ? *bank : 0u});
    unsigned kb = key_bytes(p->tbl_type);
    c.in.push_back(copy(key, kb));
    EngineTable &t = engine(p->inst, p->tbl_type);
    c.handle = handle_bytes(t.camindex_handle);
    if (auto r = fail_now("orvex_tcam_insert_entry"))
        return *r;
    if (!t.registered) {
        errno = ENODEV;
        return -1;
    }
    auto sloc = choose_sloc(t, bank ? *bank : 0);
    if (!sloc) {
        errno = ENOSPC;
        return -1;
    }
    if (call_camindex(p->inst, p->tbl_type, t, 0, 0xFFFFFFFFu, *sloc) != 0) {
        errno = EIO;
        return -1;
    }
    t.entries[*sloc] = EngineEntry{copy(key, kb), prio ? *prio : uint16_t(0), bank ? *bank : uint8_t(0)};
    call_camindex(p->inst, p->tbl_type, t, 1, 0xFFFFFFFFu, *sloc);
    return 0;
}

int orvex_tcam_delete_entry(tbl_params *p, uint32_t *sloc)
{
    Call &c = record_p("orvex_tcam_delete_entry", p, {sloc ? *sloc : 0xFFFFFFFFu});
    EngineTable &t = engine(p->inst, p->tbl_type);
    c.handle = handle_bytes(t.camindex_handle);
    if (auto r = fail_now("orvex_tcam_delete_entry"))
        return *r;
    if (!sloc || !t.entries.count(*sloc)) {
        errno = ENOENT;
        return -1;
    }
    uint32_t s = *sloc;
    call_camindex(p->inst, p->tbl_type, t, 2, s, 0xFFFFFFFFu);
    t.entries.erase(s);
    call_camindex(p->inst, p->tbl_type, t, 3, s, 0xFFFFFFFFu);
    return 0;
}

int orvex_tcam_read_entry(tbl_params *p, uint32_t *sloc, uint8_t *key, uint16_t *prio, uint32_t zero)
{
    record_p("orvex_tcam_read_entry", p, {sloc ? *sloc : 0xFFFFFFFFu, zero});
    if (auto r = fail_now("orvex_tcam_read_entry"))
        return *r;
    EngineTable &t = engine(p->inst, p->tbl_type);
    auto it = sloc ? t.entries.find(*sloc) : t.entries.end();
    if (it == t.entries.end()) {
        errno = ENOENT;
        return -1;
    }
    std::memcpy(key, it->second.key.data(), it->second.key.size());
    *prio = it->second.prio;
    return 0;
}

int orvex_tcam_groom(tbl_params *p, uint32_t zero, uint32_t *scratch, uint8_t bank)
{
    record_p("orvex_tcam_groom", p, {zero, bank});
    if (auto r = fail_now("orvex_tcam_groom"))
        return *r;
    if (scratch)
        *scratch = 0x6A6A6A6Au;
    return 0;
}

int orvex_tcam_get_stats(tbl_params *p, uint8_t bank, uint32_t *entries, uint32_t *groups,
                         uint32_t *open_segs, uint32_t *full_segs, uint32_t *free_segs,
                         uint32_t *total_segs)
{
    record_p("orvex_tcam_get_stats", p, {bank});
    if (auto r = fail_now("orvex_tcam_get_stats"))
        return *r;
    Stats s = bank < 2 ? st().stats[bank] : Stats{};
    *entries = s.entries;
    *groups = s.groups;
    *open_segs = s.open;
    *full_segs = s.full;
    *free_segs = s.free;
    *total_segs = s.total;
    return 0;
}

int orvex_tcam_dump_tables(tbl_params *p, uint32_t from_hw, orvex_entry_cb walk, void *walk_handle)
{
    record_p("orvex_tcam_dump_tables", p, {from_hw, ptr(reinterpret_cast<void *>(walk)), ptr(walk_handle)});
    if (auto r = fail_now("orvex_tcam_dump_tables"))
        return *r;
    for (const WalkEntry &e : st().walk)
        walk(walk_handle, e.camindex, e.value.data(), e.mask.data(), e.width, e.bank, e.tbl,
             e.priority);
    return st().walk_result;
}

int orvex_tcam_fix_scan_errors(tbl_params *p, uint32_t count, uint32_t *locations,
                               uint32_t *num_unfixed, uint32_t *unfixed)
{
    /* The library's arrays hold 8 locations: never look further. */
    Call &c = record_p("orvex_tcam_fix_scan_errors", p, {count});
    c.in.push_back(copy(locations, size_t(count < 8 ? count : 8) * 4));
    if (auto r = fail_now("orvex_tcam_fix_scan_errors"))
        return *r;
    const FixResult &f = st().fix;
    if (f.ret == 0) {
        *num_unfixed = 0;
        return 0;
    }
    uint32_t n = uint32_t(f.unfixed.size() < 8 ? f.unfixed.size() : 8);
    *num_unfixed = n;
    for (uint32_t i = 0; i < n; ++i)
        unfixed[i] = f.unfixed[i];
    errno = f.err;
    return f.ret;
}

/* ---- persistent key/value store ----------------------------------------- */

int kvs_store(uint32_t handle, uint32_t mode, kvs_buf *key, kvs_buf *value)
{
    Call &c = record("kvs_store", {handle, mode});
    Bytes k = copy(key->data, key->len), v = copy(value->data, value->len);
    c.in = {k, v};
    if (auto f = injected("kvs_store"))
        return f->first;
    st().store[key_str(k)] = key_str(v);
    return 0;
}

int kvs_delete(uint32_t handle, kvs_buf *key)
{
    Call &c = record("kvs_delete", {handle});
    Bytes k = copy(key->data, key->len);
    c.in = {k};
    if (auto f = injected("kvs_delete"))
        return f->first;
    st().store.erase(key_str(k));
    return 0;
}

static kvs_buf *cursor_at(std::map<std::string, std::string>::iterator it, int *err)
{
    Cursor &cur = st().cursor;
    *err = 0;
    if (it == st().store.end()) {
        cur.key.reset();
        return nullptr;
    }
    cur.key = it->first;
    cur.key_bytes.assign(it->first.begin(), it->first.end());
    cur.key_desc = kvs_buf{cur.key_bytes.data(), uint32_t(cur.key_bytes.size())};
    return &cur.key_desc;
}

kvs_buf *kvs_move2key(uint32_t handle, kvs_buf *key, int *err)
{
    Call &c = record("kvs_move2key", {handle});
    Bytes k = copy(key->data, key->len);
    c.in = {k};
    if (auto f = injected("kvs_move2key")) {
        st().cursor.key.reset();
        *err = f->first;
        return nullptr;
    }
    return cursor_at(st().store.lower_bound(key_str(k)), err);
}

kvs_buf *kvs_getvalue(uint32_t handle, int *err)
{
    record("kvs_getvalue", {handle});
    if (auto f = injected("kvs_getvalue")) {
        *err = f->first;
        return nullptr;
    }
    Cursor &cur = st().cursor;
    auto it = cur.key ? st().store.find(*cur.key) : st().store.end();
    if (it == st().store.end()) {
        *err = 7;   /* no record at the cursor */
        return nullptr;
    }
    *err = 0;
    cur.value_bytes.assign(it->second.begin(), it->second.end());
    cur.value_desc = kvs_buf{cur.value_bytes.data(), uint32_t(cur.value_bytes.size())};
    return &cur.value_desc;
}

kvs_buf *kvs_move2location(uint32_t handle, uint32_t where, int *err)
{
    record("kvs_move2location", {handle, where});
    if (auto f = injected("kvs_move2location")) {
        st().cursor.key.reset();
        *err = f->first;
        return nullptr;
    }
    Cursor &cur = st().cursor;
    if (where != KVS_MOVE_NEXT || !cur.key) {
        *err = 9;   /* unsupported move or no cursor */
        return nullptr;
    }
    return cursor_at(st().store.upper_bound(*cur.key), err);
}

const char *errcode2str(int code)
{
    record("errcode2str", {uint64_t(uint32_t(code))});
    auto &texts = st().errtexts;
    auto it = texts.find(code);
    if (it == texts.end())
        it = texts.emplace(code, "kvs error " + std::to_string(code)).first;
    return it->second.c_str();
}

/* ---- debug and history service ------------------------------------------ */

int dbgsvc_hist_init_for_uuid(uint32_t uuid, uint32_t size)
{
    record("dbgsvc_hist_init_for_uuid", {uuid, size});
    return 0;
}

int dbgsvc_hist_event_subtype_check(uint32_t subtype, uint32_t elem)
{
    record("dbgsvc_hist_event_subtype_check", {subtype, elem});
    return st().subtype_check_result;
}

int dbgsvc_hist_event(uint32_t subtype, uint32_t len, void *rec)
{
    Call &c = record("dbgsvc_hist_event", {subtype, len});
    HistEvent h;
    h.subtype = subtype;
    h.len = len;
    h.raw = copy(rec, len);
    if (h.raw.size() >= 4)
        std::memcpy(&h.elem, h.raw.data(), 4);
    size_t i = 4;
    while (i < h.raw.size() && h.raw[i] != ' ')
        h.func.push_back(char(h.raw[i++]));
    for (++i; i < h.raw.size() && h.raw[i] != 0; ++i)
        h.text.push_back(char(h.raw[i]));
    c.text = h.text;
    st().hist.push_back(std::move(h));
    return 0;
}

int dbgsvc_chk_int(uint32_t elem, uint32_t a, uint32_t b, uint32_t c)
{
    record("dbgsvc_chk_int", {elem, a, b, c});
    return st().chk_int_result;
}

int dbgsvc_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t event_id, uint32_t a, uint32_t b,
                                        uint32_t len, const char *text)
{
    Call &c = record("dbgsvc_his_log_event_for_uuid_inst", {uuid, event_id, a, b, len});
    LogEvent e{uuid, event_id, a, b, len, text ? std::string(text, strnlen(text, len)) : ""};
    c.text = e.text;
    st().log.push_back(std::move(e));
    return 0;
}

void dbgsvc_hist_print_event_header(uint32_t value5, const char *modname, uint32_t value1,
                                    uint32_t *stamp)
{
    Call &c = record("dbgsvc_hist_print_event_header",
                     {value5, value1, ptr(stamp), stamp ? stamp[0] : 0u, stamp ? stamp[1] : 0u});
    c.text = modname ? modname : "";
}

void dbgout_func(uint32_t a, dbgsvc_modname *modname, const char *func, uint32_t b, const char *fmt, ...)
{
    va_list ap, ap2;
    va_start(ap, fmt);
    va_copy(ap2, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    std::string text(n > 0 ? size_t(n) : 0u, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), size_t(n) + 1, fmt, ap2);
    va_end(ap2);
    va_end(ap);
    Call &c = record("dbgout_func", {a, ptr(modname), b});
    c.text = text;
    st().dbgout.push_back(DbgOut{a, b, modname, func ? func : "", text});
}

int dbgshim_show_hist_inst(void *ctx, uint32_t *pair, uint32_t uuid, uint32_t a, uint32_t b)
{
    record("dbgshim_show_hist_inst",
           {ptr(ctx), pair ? pair[0] : 0u, pair ? pair[1] : 0u, uuid, a, b});
    return 0;
}

/* The library's system-log calls land here (the test program binds them before
 * the C library does): a test never writes the host's log, and sees what the
 * card's log would get. */
void openlog(const char *ident, int, int) { record("openlog").text = ident != nullptr ? ident : ""; }

void syslog(int priority, const char *fmt, ...)
{
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    record("syslog", {uint64_t(priority)}).text = text;
}

void closelog(void) { record("closelog"); }

}  // extern "C"
