// clients.cpp - the library's and the floor's way to program a table (see clients.hpp).
#include "clients.hpp"

#include <algorithm>
#include <cerrno>

#include "tcamwrap_platform.h"

namespace tcamwrap::bench
{

// ---- through the library -----------------------------------------------------------

int LibraryTable::write(uint32_t loc, const Entry &e)
{
    tbl_params p = params(loc);
    uint16_t prio = e.prio;
    uint8_t acl = e.acl_prio;
    auto key = e.key;
    auto result = e.result;
    return tcamwrap_fwd_tcam_ssram_write(&p, key.data(), &prio, result.data(),
                                         tbl_type_ == TCAMWRAP_TBL_ACLI ? &acl : nullptr);
}

int LibraryTable::remove(uint32_t loc)
{
    tbl_params p = params(loc);
    return tcamwrap_fwd_tcam_delete(&p);
}

int LibraryTable::read(uint32_t loc, uint8_t *key)
{
    tbl_params p = params(loc);
    return tcamwrap_fwd_tcam_read(&p, key);
}

uint32_t LibraryTable::sloc(uint32_t loc) const
{
    return static_cast<uint32_t>(tcamwrap_lmt_get_sloc(inst_, tbl_type_, loc));
}

// ---- the floor ------------------------------------------------------------------------

namespace
{
constexpr uint8_t kFloorRecord = 2; // the record type byte of a map segment
constexpr uint32_t kSegmentEntries = 1024;
} // namespace

FloorTable::FloorTable(uint8_t inst, uint32_t tbl_type, uint32_t size, bool orvex,
                       uint32_t kvs_handle)
    : inst_(inst), tbl_type_(tbl_type), size_(size), orvex_(orvex), kvs_handle_(kvs_handle),
      lmt_(size, TCAMWRAP_INVALID_LOC), rlmt_(size, TCAMWRAP_INVALID_LOC), results_(size),
      acl_prio_(size, 1)
{
    key_prefix_ = {'f', 'l', 'o', 'o', 'r', kFloorRecord, inst, static_cast<uint8_t>(tbl_type)};
    if (!orvex_)
        return;
    const uint32_t width = tbl_type == TCAMWRAP_TBL_FIB ? 72 : 144;
    start_rc_ = orvex_tcam_init(inst, tbl_type, width, validate_cb, this, camindex_cb, this, 0,
                                nullptr, nullptr, 0, 0);
}

// The pair rule of flow-result entries, answered from the floor's own copy.
int FloorTable::validate_cb(void *handle, uint32_t sloc, uint8_t *result)
{
    auto *t = static_cast<FloorTable *>(handle);
    *result = 1;
    if (t->tbl_type_ != TCAMWRAP_TBL_ACLI || t->acl_prio_[t->loc_] != 0)
        return 0;
    const uint32_t partner = t->rlmt_[sloc ^ 1u];
    if (partner != TCAMWRAP_INVALID_LOC && t->acl_prio_[partner] == 0)
        *result = 0;
    return 0;
}

int FloorTable::camindex_cb(void *handle, uint32_t, uint32_t, uint32_t op, uint32_t old_sloc,
                            uint32_t new_sloc)
{
    auto *t = static_cast<FloorTable *>(handle);
    switch (op) {
    case TCAMWRAP_CB_PRE_ADD: {
        const uint32_t loc = t->loc_;
        t->lmt_[loc] = new_sloc;
        t->rlmt_[new_sloc] = loc;
        const int rc = t->write_results(loc, new_sloc);
        return rc != 0 ? rc : t->store_segment(loc);
    }
    case TCAMWRAP_CB_PRE_MOVE:
        return t->write_results(t->rlmt_[old_sloc], new_sloc);
    case TCAMWRAP_CB_POST_MOVE: {
        const uint32_t loc = t->rlmt_[old_sloc];
        t->lmt_[loc] = new_sloc;
        t->rlmt_[new_sloc] = loc;
        t->rlmt_[old_sloc] = TCAMWRAP_INVALID_LOC;
        return t->store_segment(loc);
    }
    case TCAMWRAP_CB_POST_DEL: {
        const uint32_t loc = t->rlmt_[old_sloc];
        t->rlmt_[old_sloc] = TCAMWRAP_INVALID_LOC;
        if (t->dropping_old_copy_)
            return 0; // the new copy's segment is stored already
        t->lmt_[loc] = TCAMWRAP_INVALID_LOC;
        return t->store_segment(loc);
    }
    default:
        return 0;
    }
}

int FloorTable::write_results(uint32_t loc, uint32_t sloc)
{
    tbl_params p = params(sloc);
    uint8_t *word = results_[loc].data();
    if (tbl_type_ != TCAMWRAP_TBL_ACLI)
        return fwd_ssram_write(&p, word);
    if (int rc = fwd_acl_prio_write(&p, &acl_prio_[loc]); rc != 0)
        return rc;
    if (acl_prio_[loc] != 0)
        return fwd_ssram_write(&p, word);
    p.start_addr = sloc >> 1;
    return fwd_flow_result_write(&p, word);
}

int FloorTable::store_segment(uint32_t loc)
{
    const uint32_t seg = loc / kSegmentEntries;
    uint8_t key_bytes[sizeof key_prefix_ + 1];
    std::copy(key_prefix_.begin(), key_prefix_.end(), key_bytes);
    key_bytes[sizeof key_prefix_] = static_cast<uint8_t>(seg);
    const uint32_t first = seg * kSegmentEntries;
    const uint32_t words = std::min(kSegmentEntries, size_ - first);
    kvs_buf key{key_bytes, sizeof key_bytes};
    kvs_buf value{reinterpret_cast<uint8_t *>(&lmt_[first]), words * 4};
    const int rc = kvs_store(kvs_handle_, 1, &key, &value);
    if (rc != 0)
        errno = ENOSPC;
    return rc;
}

int FloorTable::write_tcam3(uint32_t loc, const Entry &e)
{
    results_[loc] = e.result;
    acl_prio_[loc] = e.acl_prio;
    if (int rc = write_results(loc, loc); rc != 0)
        return rc;
    tbl_params p = params(loc);
    auto key = e.key;
    if (int rc = fwd_tcam_write(&p, key.data()); rc != 0)
        return rc;
    lmt_[loc] = loc;
    return 0;
}

int FloorTable::write(uint32_t loc, const Entry &e)
{
    if (!orvex_)
        return write_tcam3(loc, e);
    uint32_t old_sloc = lmt_[loc];
    results_[loc] = e.result;
    acl_prio_[loc] = e.acl_prio;
    loc_ = loc;
    dropping_old_copy_ = false;
    tbl_params p = params(loc);
    auto key = e.key;
    uint16_t prio = e.prio;
    uint8_t bank = bank_of(loc);
    if (int rc = orvex_tcam_insert_entry(&p, key.data(), &prio, &bank); rc != 0)
        return rc;
    if (old_sloc != TCAMWRAP_INVALID_LOC) {
        dropping_old_copy_ = true;
        const int rc = orvex_tcam_delete_entry(&p, &old_sloc);
        dropping_old_copy_ = false;
        if (rc != 0)
            return rc;
    }
    uint32_t moves = 0;
    return orvex_tcam_groom(&p, 0, &moves, bank);
}

int FloorTable::remove(uint32_t loc)
{
    uint32_t sloc = lmt_[loc];
    if (sloc == TCAMWRAP_INVALID_LOC)
        return 0;
    tbl_params p = params(loc);
    if (!orvex_) {
        lmt_[loc] = TCAMWRAP_INVALID_LOC;
        return fwd_tcam_delete(&p);
    }
    loc_ = loc;
    return orvex_tcam_delete_entry(&p, &sloc);
}

int FloorTable::read(uint32_t loc, uint8_t *key)
{
    tbl_params p = params(loc);
    if (!orvex_)
        return fwd_tcam_read(&p, key);
    uint32_t sloc = lmt_[loc];
    uint16_t prio = 0;
    return orvex_tcam_read_entry(&p, &sloc, key, &prio, 0);
}

uint32_t FloorTable::sloc(uint32_t loc) const
{
    return lmt_[loc];
}

} // namespace tcamwrap::bench
