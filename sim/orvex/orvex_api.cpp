// orvex_api.cpp - the search-engine calls (orvex_tcam_*) of the simulated card:
// one placement engine per registered (instance, table type) over the card's
// hardware image, and the simulator's own orvex_sim_* calls.
//
// The engine's copy lives in process memory, as a real engine's software copy
// does; a new process rebuilds it from the hardware image (restore). Every
// call is for one thread at a time, like the library that calls it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "engine.h"
#include "orvex_sim.h"
#include "sim_fault.h"
#include "sim_hw.h"
#include "tcamwrap_platform.h"

namespace {

using orvex::Table;

constexpr uint32_t kTableTypes = 4;  // 1 ACLI, 2 ACLO, 3 FIB
constexpr uint32_t kAcli = 1;
constexpr uint32_t kMaxKeyWords = 5;

int fail(int err) {
    errno = err;
    return -1;
}

const char *fault_point(uint32_t op) {
    static const char *const names[] = {"camindex.PRE_ADD",  "camindex.POST_ADD",
                                        "camindex.PRE_DEL",  "camindex.POST_DEL",
                                        "camindex.PRE_MOVE", "camindex.POST_MOVE"};
    return op < 6 ? names[op] : "camindex";
}

// One registered table: the client's callbacks, and the engine over the
// table's part of the hardware image.
class Registration final : public orvex::Port {
public:
    Registration(uint8_t inst, uint32_t tbl_type, uint32_t size, uint32_t key_bytes,
                 orvex_validate_cb validate, void *vh, orvex_camindex_cb camindex, void *ch)
        : inst_(inst), tbl_type_(tbl_type), validate_(validate), vh_(vh), camindex_(camindex),
          ch_(ch), table(size, key_bytes, *this) {}

    int hw_write(uint32_t loc, const uint8_t *key, uint16_t prio) override {
        return sim_hw_tcam_write(inst_, tbl_type_, loc, key, prio);
    }
    int hw_clear(uint32_t loc) override { return sim_hw_tcam_clear(inst_, tbl_type_, loc); }
    int hw_get(uint32_t loc, bool *valid, uint8_t *key, uint16_t *prio) override {
        uint8_t v = 0;
        const int rc = sim_hw_tcam_get(inst_, tbl_type_, loc, &v, key, prio);
        *valid = v != 0;
        return rc;
    }
    int hw_get_range(uint32_t first, uint32_t count, uint8_t *valid, uint8_t *keys,
                     uint16_t *prio, uint32_t /*key_bytes*/) override {
        return sim_hw_tcam_get_range(inst_, tbl_type_, first, count, valid, keys, prio);
    }
    // The crash point is reached just before the client hears of the step.
    int camindex(uint32_t op, uint32_t old_sloc, uint32_t new_sloc) override {
        sim_fault_point(fault_point(op));
        return camindex_(ch_, 0, 0, op, old_sloc, new_sloc);
    }
    int validate(uint32_t sloc, bool *ok) override {
        if (validate_ == nullptr) {  // a client without a rule accepts every place
            *ok = true;
            return 0;
        }
        uint8_t answer = 0;
        const int rc = validate_(vh_, sloc, &answer);
        *ok = rc == 0 && answer != 0;
        return rc;
    }

    // ACLI entries whose ACL-priority byte is 0 keep their result in the
    // flow-result word that the two locations of a pair share: two of them
    // must never be partners. The card's ACL-priority memory tells.
    bool may_pair(uint32_t entry, uint32_t partner) override {
        if (tbl_type_ != kAcli) return true;
        uint8_t a = 0;
        uint8_t b = 0;
        if (sim_hw_mem_read(inst_, tbl_type_, SIM_MEM_ACL_PRIO, entry, 1, &a) != 0 ||
            sim_hw_mem_read(inst_, tbl_type_, SIM_MEM_ACL_PRIO, partner, 1, &b) != 0)
            return false;  // unknown: keep them apart
        return a != 0 || b != 0;
    }

    uint32_t tbl_type() const { return tbl_type_; }

private:
    uint8_t inst_;
    uint32_t tbl_type_;
    orvex_validate_cb validate_;
    void *vh_;
    orvex_camindex_cb camindex_;
    void *ch_;

public:
    Table table;  // last: it keeps a reference to this port
};

std::unique_ptr<Registration> g_tables[SIM_MAX_INSTS][kTableTypes];

Registration *find_table(uint8_t inst, uint32_t tbl_type) {
    if (inst >= SIM_MAX_INSTS || tbl_type == 0 || tbl_type >= kTableTypes) return nullptr;
    return g_tables[inst][tbl_type].get();
}

Registration *table_of(const tbl_params *p) {
    Registration *r = p == nullptr ? nullptr : find_table(p->inst, p->tbl_type);
    if (r == nullptr) errno = EINVAL;
    return r;
}

// Calls fn(sloc, key, prio) for every valid entry, from the copy or the image.
// Stops at the first non-zero result of fn and returns it.
template <typename Fn>
int for_each_valid(Registration &r, bool from_hw, Fn fn) {
    const Table &t = r.table;
    if (!from_hw) {
        int rc = 0;
        t.for_each_entry([&](uint32_t sloc) {
            if (rc == 0) rc = fn(sloc, t.key_at(sloc), t.prio_at(sloc));
        });
        return rc;
    }
    uint8_t key[SIM_KEY_MAX];
    for (uint32_t loc = 0; loc < t.size(); ++loc) {
        bool valid = false;
        uint16_t prio = 0;
        if (r.hw_get(loc, &valid, key, &prio) != 0) return -1;
        if (!valid) continue;
        if (const int rc = fn(loc, key, prio); rc != 0) return rc;
    }
    return 0;
}

// The restore and walk callbacks' form of an entry.
int report_entry(Registration &r, orvex_entry_cb cb, void *handle, uint32_t sloc,
                 const uint8_t *key, uint16_t prio) {
    const uint32_t half = r.table.key_bytes() / 2;
    uint32_t value[kMaxKeyWords] = {};
    uint32_t mask[kMaxKeyWords] = {};
    orvex::key_half_words(key, half, value, kMaxKeyWords);
    orvex::key_half_words(key + half, half, mask, kMaxKeyWords);
    return cb(handle, sloc, value, mask, half * 8, r.table.bank_of(sloc), r.tbl_type(), prio);
}

}  // namespace

// Only the calls of the platform header and of orvex_sim.h leave the library.
#define ORVEX_EXPORT __attribute__((visibility("default")))

extern "C" {

ORVEX_EXPORT int orvex_tcam_init(uint8_t inst, uint32_t tbl_type, uint32_t key_width_bits,
                    orvex_validate_cb validate, void *validate_handle, orvex_camindex_cb camindex,
                    void *camindex_handle, uint32_t restore, orvex_entry_cb restore_cb,
                    void *restore_handle, uint32_t /*debug_elem*/, uint32_t /*debug_level*/) {
    if (sim_fault_should_fail("orvex_tcam_init") != 0) return -1;
    if (inst >= SIM_MAX_INSTS || inst >= sim_card_num_insts() || tbl_type == 0 ||
        tbl_type >= kTableTypes || camindex == nullptr)
        return fail(EINVAL);
    const uint32_t size = sim_card_table_size(tbl_type);
    const uint32_t key_bytes = sim_key_bytes(tbl_type);
    if (size == 0 || sim_card_tcam_kind(tbl_type) != SIM_KIND_ORVEX ||
        key_width_bits != key_bytes / 2 * 8)
        return fail(EINVAL);

    // A new registration replaces the old one, as a new client process would.
    g_tables[inst][tbl_type].reset();
    auto reg = std::make_unique<Registration>(inst, tbl_type, size, key_bytes, validate,
                                              validate_handle, camindex, camindex_handle);
    if (restore == 0) {
        if (reg->table.reset_hardware() != 0) return -1;
    } else {
        if (reg->table.restore() != 0) return -1;
        // The client's answer to each entry is its own affair: every entry is reported.
        if (restore_cb != nullptr)
            for_each_valid(*reg, false, [&](uint32_t sloc, const uint8_t *key, uint16_t prio) {
                report_entry(*reg, restore_cb, restore_handle, sloc, key, prio);
                return 0;
            });
    }
    g_tables[inst][tbl_type] = std::move(reg);
    return 0;
}

ORVEX_EXPORT int orvex_tcam_insert_entry(tbl_params *p, uint8_t *key, uint16_t *prio, uint8_t *bank) {
    if (sim_fault_should_fail("orvex_tcam_insert_entry") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (key == nullptr || prio == nullptr || bank == nullptr) return fail(EINVAL);
    uint32_t sloc = 0;
    return r->table.insert(key, *prio, *bank, &sloc);
}

ORVEX_EXPORT int orvex_tcam_delete_entry(tbl_params *p, uint32_t *sloc) {
    if (sim_fault_should_fail("orvex_tcam_delete_entry") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (sloc == nullptr) return fail(EINVAL);
    return r->table.remove(*sloc);
}

ORVEX_EXPORT int orvex_tcam_read_entry(tbl_params *p, uint32_t *sloc, uint8_t *key, uint16_t *prio,
                          uint32_t /*zero*/) {
    if (sim_fault_should_fail("orvex_tcam_read_entry") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (sloc == nullptr || key == nullptr || prio == nullptr) return fail(EINVAL);
    return r->table.read(*sloc, key, prio);
}

ORVEX_EXPORT int orvex_tcam_groom(tbl_params *p, uint32_t /*zero*/, uint32_t *scratch, uint8_t bank) {
    if (sim_fault_should_fail("orvex_tcam_groom") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    uint32_t moves = 0;
    const int rc = r->table.groom(bank, &moves);
    if (scratch != nullptr) *scratch = moves;
    return rc;
}

ORVEX_EXPORT int orvex_tcam_get_stats(tbl_params *p, uint8_t bank, uint32_t *entries, uint32_t *groups,
                         uint32_t *open_segs, uint32_t *full_segs, uint32_t *free_segs,
                         uint32_t *total_segs) {
    if (sim_fault_should_fail("orvex_tcam_get_stats") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (bank > 1 || entries == nullptr || groups == nullptr || open_segs == nullptr ||
        full_segs == nullptr || free_segs == nullptr || total_segs == nullptr)
        return fail(EINVAL);
    const orvex::BankStats s = r->table.stats(bank);
    *entries = s.entries;
    *groups = s.groups;
    *open_segs = s.open_segs;
    *full_segs = s.full_segs;
    *free_segs = s.free_segs;
    *total_segs = s.total_segs;
    return 0;
}

ORVEX_EXPORT int orvex_tcam_dump_tables(tbl_params *p, uint32_t from_hw, orvex_entry_cb walk,
                           void *walk_handle) {
    if (sim_fault_should_fail("orvex_tcam_dump_tables") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (walk == nullptr) return fail(EINVAL);
    int count = 0;
    const int rc = for_each_valid(*r, from_hw != 0,
                                  [&](uint32_t sloc, const uint8_t *key, uint16_t prio) {
                                      const int w = report_entry(*r, walk, walk_handle, sloc, key, prio);
                                      if (w == 0) ++count;
                                      return w;
                                  });
    return rc != 0 ? -1 : count;  // a refusing walk keeps its own errno
}

ORVEX_EXPORT int orvex_tcam_fix_scan_errors(tbl_params *p, uint32_t count, uint32_t *locations,
                               uint32_t *num_unfixed, uint32_t *unfixed) {
    if (sim_fault_should_fail("orvex_tcam_fix_scan_errors") != 0) return -1;
    Registration *r = table_of(p);
    if (r == nullptr) return -1;
    if (num_unfixed == nullptr || (count > 0 && (locations == nullptr || unfixed == nullptr)))
        return fail(EINVAL);
    *num_unfixed = 0;
    bool unknown = false;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t loc = locations[i];
        if (r->table.repair(loc) == 0) continue;
        unknown = unknown || !r->table.holds(loc);
        unfixed[(*num_unfixed)++] = loc;
    }
    if (*num_unfixed == 0) return 0;
    // ENOENT: a location the engine holds no entry for; EIO: a rewrite failed.
    return fail(unknown ? ENOENT : EIO);
}

// ---- simulator-only calls -------------------------------------------------------

ORVEX_EXPORT int orvex_sim_check(uint8_t inst, uint32_t tbl_type, char *why, size_t n) {
    Registration *r = find_table(inst, tbl_type);
    if (r == nullptr) return fail(EINVAL);
    std::string text;
    if (r->table.check(text)) return 0;
    if (why != nullptr && n > 0) std::snprintf(why, n, "%s", text.c_str());
    return 1;
}

ORVEX_EXPORT int orvex_sim_corrupt(uint8_t inst, uint32_t tbl_type, uint32_t sloc) {
    Registration *r = find_table(inst, tbl_type);
    if (r == nullptr || sloc >= r->table.size()) return fail(EINVAL);
    uint8_t key[SIM_KEY_MAX];
    bool valid = false;
    uint16_t prio = 0;
    if (r->hw_get(sloc, &valid, key, &prio) != 0) return -1;
    if (!valid) return fail(ENOENT);
    const uint32_t half = r->table.key_bytes() / 2;
    uint8_t *value = key;
    uint8_t *mask = key + half;
    uint32_t i = 0;
    while (i < half && mask[i] == 0) ++i;
    if (i < half) {
        uint8_t top = 0x80;  // the most significant bit the entry compares
        while ((mask[i] & top) == 0) top >>= 1;
        value[i] ^= top;
    } else {
        value[0] |= 0x80;  // the entry matched everything: now it needs that bit
        mask[0] |= 0x80;
    }
    return r->hw_write(sloc, key, prio);
}

ORVEX_EXPORT int orvex_sim_counters_get(uint8_t inst, uint32_t tbl_type, orvex_sim_counters *out) {
    Registration *r = find_table(inst, tbl_type);
    if (r == nullptr || out == nullptr) return fail(EINVAL);
    const orvex::Counters &c = r->table.counters();
    out->inserts = c.inserts;
    out->insert_failures = c.insert_failures;
    out->deletes = c.deletes;
    out->grooms = c.grooms;
    out->moves = c.moves;
    out->max_groom_moves = c.max_groom_moves;
    out->repeat_group_moves = c.repeat_group_moves;
    out->validate_calls = c.validate_calls;
    out->validate_refusals = c.validate_refusals;
    return 0;
}

ORVEX_EXPORT int orvex_sim_counters_reset(uint8_t inst, uint32_t tbl_type) {
    Registration *r = find_table(inst, tbl_type);
    if (r == nullptr) return fail(EINVAL);
    r->table.reset_counters();
    return 0;
}

}  // extern "C"
