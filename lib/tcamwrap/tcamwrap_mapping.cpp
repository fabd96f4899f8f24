/*
 * Location mapping and persistence: the LMT's segments in the persistent store,
 * the one-record overwrite journal of each table, and the reconciliation of map
 * and hardware after a restart.
 *
 * Records live under the client's key prefix followed by four bytes
 * {record type, inst, tbl_type, segment or 0}, so the records of one table are
 * contiguous in key order and a restore walks them with one cursor.
 */
#include <algorithm>
#include <bitset>

#include "tcamwrap_internal.h"

namespace {

/* What the store has not taken yet, per table: LMT segments whose stored copy
 * differs from the LMT in memory, and a journal record that should be gone.
 * Each is stored (or deleted) again before the table's next store and around
 * every public write or delete, so memory and store converge as soon as the
 * store works again; until then inserts into the table are refused. Lost with
 * the process: a restart reconciles the store it finds. */
struct tcamwrap_pending_t {
    std::bitset<256> segs;
    bool journal = false;
    bool any() const { return journal || segs.any(); }
    /* The overwrite in flight as its PRE_ADD stored it, for its POST_DEL when
     * the store cannot give the record back. */
    uint32_t inflight[3] = {TCAMWRAP_INVALID_LOC, TCAMWRAP_INVALID_LOC, TCAMWRAP_INVALID_LOC};
    /* A read of the table's records ended on a store error: the restored map
     * may be missing locs, so no hardware entry may be judged an orphan. */
    bool unread = false;
};
tcamwrap_pending_t tcamwrap_pending[TCAMWRAP_MAX_INSTS][TCAMWRAP_MAX_TBLS];

/* Only a table the library manages has store debts; its lookup also keeps the
 * indices inside the array. */
tcamwrap_pending_t *tcamwrap_pending_of(uint8_t inst, uint32_t tbl_type)
{
    return tcamwrap_tcam_info(inst, tbl_type) == nullptr ? nullptr : &tcamwrap_pending[inst][tbl_type];
}

uint32_t tcamwrap_segment_of(uint32_t loc)
{
    return (loc >> TCAMWRAP_SEG_SHIFT) & 0xFF;
}

/* Build {prefix, type, inst, tbl_type, last} in the library's key buffer. */
kvs_buf *tcamwrap_kvs_build_key(uint8_t type, uint8_t inst, uint32_t tbl_type, uint8_t last)
{
    kvs_buf *key = &tcamwrap_gl_db.kvs_key;
    const uint32_t p = tcamwrap_kvs_prefix_len(tcamwrap_gl_db.kvs_key_prefix);
    key->data[p + 0] = type;
    key->data[p + 1] = inst;
    key->data[p + 2] = (uint8_t)tbl_type;
    key->data[p + 3] = last;
    key->len = p + 4;
    return key;
}

/* The four record bytes of a key the store's cursor stands on, or NULL when the
 * key is too short to hold them. */
const uint8_t *tcamwrap_kvs_record_bytes(const kvs_buf *cursor_key)
{
    const uint32_t p = tcamwrap_gl_db.kvs_key.len - 4;
    if (cursor_key == nullptr || cursor_key->data == nullptr || cursor_key->len < p + 4)
        return nullptr;
    return cursor_key->data + p;
}

bool tcamwrap_kvs_record_is(const kvs_buf *cursor_key, uint8_t type, uint8_t inst,
                            uint32_t tbl_type)
{
    const uint8_t *rec = tcamwrap_kvs_record_bytes(cursor_key);
    return rec != nullptr && rec[0] == type && rec[1] == inst && rec[2] == (uint8_t)tbl_type;
}

/* Words of segment seg that exist in a table of lmt_sz entries: 1024, or what
 * is left of the table in its last segment. */
uint32_t tcamwrap_segment_words(uint32_t lmt_sz, uint32_t seg)
{
    const uint32_t first = seg * TCAMWRAP_SEG_ENTRIES;
    if (first >= lmt_sz)
        return 0;
    const uint32_t left = lmt_sz - first;
    return std::min<uint32_t>(left, TCAMWRAP_SEG_ENTRIES);
}

/* Walk the stored records {type, inst, tbl_type, *} of one table from the
 * first on: found(last byte) announces a record, take(last byte, value) gets
 * the value read at the cursor. The walk ends at a record of anything else, at
 * the end of the store, or at a read error (traced under func). A failed seek
 * reads as no record. */
template <typename Found, typename Take>
void tcamwrap_kvs_walk_table(const char *func, uint8_t type, uint8_t inst, uint32_t tbl_type,
                             Found found, Take take)
{
    tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type);
    auto read_failed = [pending] {
        if (pending != nullptr)
            pending->unread = true;
    };
    int err = 0;
    kvs_buf *key = tcamwrap_kvs_build_key(type, inst, tbl_type, 0);
    kvs_buf *cursor = kvs_move2key(tcamwrap_gl_db.kvs_handle, key, &err);
    if (cursor == nullptr && err != 0)
        read_failed();
    err = 0;
    while (cursor != nullptr) {
        if (!tcamwrap_kvs_record_is(cursor, type, inst, tbl_type))
            return;
        const uint8_t last = tcamwrap_kvs_record_bytes(cursor)[3];
        found(last);
        const kvs_buf *value = kvs_getvalue(tcamwrap_gl_db.kvs_handle, &err);
        if (err != 0 || value == nullptr) {
            TCAMWRAP_TRACE_AS(func, 3, "*** kvs_getvalue() failed: %s ***\n", errcode2str(err));
            read_failed();
            return;
        }
        take(last, *value);
        cursor = kvs_move2location(tcamwrap_gl_db.kvs_handle, KVS_MOVE_NEXT, &err);
        if (err != 0) {
            read_failed();
            return;
        }
    }
}

/* Copy one restored segment into the LMT and claim its slocs in the RLMT. */
void tcamwrap_lmt_restore_segment(uint8_t inst, uint32_t tbl_type, tcam_info *info,
                                  uint32_t seg, const kvs_buf *value, bool again)
{
    const uint32_t first = seg * TCAMWRAP_SEG_ENTRIES;
    /* A record longer than the segment's place in the table, or not a whole
     * number of words, is cut: the copy never writes past the LMT. */
    uint32_t words = value->len / sizeof(uint32_t);
    const uint32_t room = tcamwrap_segment_words(info->lmt_sz, seg);
    if (words > room) {
        TCAMWRAP_TRACE_AS("tcamwrap_lmt_restore", 3,
                          "*** LMT segment<%d %d>: %d holds %d words, table has room for %d ***\n",
                          inst, tbl_type, seg, words, room);
        words = room;
    }
    /* The same segment met again (a damaged store can hold it under two keys):
     * the later copy rules, so the slocs of the earlier one are released. */
    const auto lmt = tcamwrap_lmt_of(info);
    const auto rlmt = tcamwrap_rlmt_of(info);
    for (uint32_t loc = first; again && loc < first + words; loc++) {
        const uint32_t sloc = lmt[loc];
        if (sloc < info->lmt_sz && rlmt[sloc] == loc)
            rlmt[sloc] = TCAMWRAP_INVALID_LOC;
    }
    if (words != 0 && value->data != nullptr)
        memcpy(lmt.run(first, words), value->data, words * sizeof(uint32_t));

    for (uint32_t loc = first; loc < first + room; loc++) {
        const uint32_t sloc = lmt[loc];
        if (sloc == TCAMWRAP_INVALID_LOC)
            continue;
        if (sloc >= info->lmt_sz) {
            /* Beyond the table: no RLMT entry to claim; the LMT entry is dropped
             * so it cannot be used as an index later. */
            TCAMWRAP_TRACE_AS("tcamwrap_lmt_restore", 3,
                              "*** loc: 0x%x sloc: 0x%x is beyond the table, dropped ***\n", loc,
                              sloc);
            lmt[loc] = TCAMWRAP_INVALID_LOC;
            continue;
        }
        rlmt[sloc] = loc;
        TCAMWRAP_TRACE_AS("tcamwrap_lmt_restore", 7, "loc: 0x%x sloc: 0x%x\n", loc, sloc);
    }
}

} // namespace

/* ---- LMT segments ------------------------------------------------------------- */

namespace {

/* Store one segment as the LMT in memory holds it now, and keep the table's
 * pending set in step with the outcome. */
int tcamwrap_kvs_put_segment(const tcam_info *info, uint8_t inst, uint32_t tbl_type, uint32_t seg)
{
    kvs_buf *key = tcamwrap_kvs_build_key(TCAMWRAP_REC_LMT_SEGMENT, inst, tbl_type, (uint8_t)seg);
    const uint32_t words = tcamwrap_segment_words(info->lmt_sz, seg);
    kvs_buf value = {reinterpret_cast<uint8_t *>(
                         tcamwrap_lmt_of(info).run(seg * TCAMWRAP_SEG_ENTRIES, words)),
                     (uint32_t)(words * sizeof(uint32_t))};
    TCAMWRAP_TRACE_AS("tcamwrap_kvs_store_lmt_segment", 7, "storing LMT segment<%d %d>: %d \n",
                      inst, tbl_type, seg);
    const int rc = kvs_store(tcamwrap_gl_db.kvs_handle, TCAMWRAP_KVS_MODE, key, &value);
    tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type);
    if (pending != nullptr)
        pending->segs.set(seg, rc != 0);
    if (rc == 0)
        return 0;
    TCAMWRAP_TRACE_AS("tcamwrap_kvs_store_lmt_segment", 3,
                      "*** LMT segment<%d %d>: %d kvs_store() failed: %s ***\n", inst, tbl_type,
                      seg, errcode2str(rc));
    tcamwrap_saved_errno = ENOSPC;
    return -1;
}

/* Store again every pending segment of the table except `skip`. */
void tcamwrap_kvs_retry_segments(const tcam_info *info, uint8_t inst, uint32_t tbl_type,
                                 uint32_t skip)
{
    const tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type);
    if (pending == nullptr || pending->segs.none())
        return;
    const std::bitset<256> segs = pending->segs;
    for (uint32_t seg = 0; seg < segs.size(); seg++)
        if (segs.test(seg) && seg != skip)
            (void)tcamwrap_kvs_put_segment(info, inst, tbl_type, seg);
}

} // namespace

int tcamwrap_kvs_store_lmt_segment(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    tcam_info *info = tcamwrap_require_table(inst, tbl_type, __func__, 395);
    if (info == nullptr)
        return -1;
    const uint32_t seg = tcamwrap_segment_of(loc);
    tcamwrap_kvs_retry_segments(info, inst, tbl_type, seg);
    return tcamwrap_kvs_put_segment(info, inst, tbl_type, seg);
}

int tcamwrap_store_changed_loc(const tcam_info *info, uint8_t inst, uint32_t tbl_type,
                               uint32_t loc)
{
    if (loc >= info->lmt_sz) {
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    return tcamwrap_kvs_store_lmt_segment(inst, tbl_type, loc);
}

void tcamwrap_pending_reset(void)
{
    for (auto &per_inst : tcamwrap_pending)
        for (auto &table : per_inst)
            table = tcamwrap_pending_t{};
}

void tcamwrap_segment_settled(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    tcamwrap_pending_t *p = tcamwrap_pending_of(inst, tbl_type);
    const uint32_t seg = tcamwrap_segment_of(loc);
    if (p != nullptr && seg < p->segs.size())
        p->segs.reset(seg);
}

void tcamwrap_journal_mark_pending(uint8_t inst, uint32_t tbl_type)
{
    tcamwrap_pending_t *p = tcamwrap_pending_of(inst, tbl_type);
    if (p != nullptr)
        p->journal = true;
}

bool tcamwrap_journal_inflight(uint8_t inst, uint32_t tbl_type, uint32_t *record)
{
    const tcamwrap_pending_t *p = tcamwrap_pending_of(inst, tbl_type);
    if (p == nullptr)
        return false;
    std::memcpy(record, p->inflight, sizeof(p->inflight));
    return record[TCAMWRAP_OW_LOC] != TCAMWRAP_INVALID_LOC;
}

int tcamwrap_kvs_flush_pending(uint8_t inst, uint32_t tbl_type)
{
    tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type);
    const tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (pending == nullptr)
        return 0;
    if (info != nullptr)
        tcamwrap_kvs_retry_segments(info, inst, tbl_type, TCAMWRAP_SEG_ENTRIES);
    /* The record goes only once the segments that finish its overwrite are in
     * the store, as at the end of an overwrite. */
    if (pending->journal && pending->segs.none() &&
        tcamwrap_kvs_delete_ha_overwrite(inst, tbl_type) != 0) {
        uint32_t record[3];
        (void)tcamwrap_ha_overwrite_restore(inst, tbl_type, record);
        if (record[TCAMWRAP_OW_LOC] == TCAMWRAP_INVALID_LOC)
            pending->journal = false; /* already gone */
    }
    if (!pending->any())
        return 0;
    tcamwrap_saved_errno = ENOSPC;
    return -1;
}

/* Rebuild the LMT and the RLMT of a table from its stored segments. Always 0: a
 * store that cannot be read leaves the table as far as it was restored, and the
 * hardware restore that follows carries on. */
int tcamwrap_lmt_restore(uint8_t inst, uint32_t tbl_type)
{
    tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr)
        return 0;
    TCAMWRAP_TRACE(7, "restoring LMT<%d %d> from kvs..\n", inst, tbl_type);
    std::bitset<256> seen;
    tcamwrap_kvs_walk_table(
        "tcamwrap_lmt_restore", TCAMWRAP_REC_LMT_SEGMENT, inst, tbl_type,
        [&](uint8_t seg) {
            TCAMWRAP_TRACE_AS("tcamwrap_lmt_restore", 7, "restored LMT segment<%d %d>: %d\n", inst,
                              tbl_type, seg);
        },
        [&](uint8_t seg, const kvs_buf &value) {
            TCAMWRAP_TRACE_AS("tcamwrap_lmt_restore", 7, "restored kvs segment size: %d\n",
                              value.len);
            tcamwrap_lmt_restore_segment(inst, tbl_type, info, seg, &value, seen.test(seg));
            seen.set(seg);
        });
    return 0;
}

/* ---- overwrite journal --------------------------------------------------------- */

int tcamwrap_kvs_store_ha_overwrite(uint8_t inst, uint32_t tbl_type, uint32_t loc,
                                    uint32_t old_sloc, uint32_t new_sloc)
{
    kvs_buf *key = tcamwrap_kvs_build_key(TCAMWRAP_REC_OVERWRITE, inst, tbl_type, 0);
    uint32_t record[3] = {loc, old_sloc, new_sloc};
    kvs_buf value = {reinterpret_cast<uint8_t *>(record), sizeof(record)};
    TCAMWRAP_TRACE(7, "storing overwrite info <%d, %d>: loc 0x%x old_sloc 0x%x new_sloc 0x%x\n",
                   inst, tbl_type, loc, old_sloc, new_sloc);
    const int rc = kvs_store(tcamwrap_gl_db.kvs_handle, TCAMWRAP_KVS_MODE, key, &value);
    if (rc == 0) {
        /* The live record replaced any stale one. */
        if (tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type)) {
            pending->journal = false;
            std::memcpy(pending->inflight, record, sizeof(record));
        }
        return 0;
    }
    TCAMWRAP_TRACE(3,
                   "*** overwrite info <%d %d>: loc 0x%x old_sloc 0x%x new_sloc 0x%x "
                   "kvs_store() failed: %s ***\n",
                   inst, tbl_type, loc, old_sloc, new_sloc, errcode2str(rc));
    tcamwrap_saved_errno = ENOSPC;
    return -1;
}

int tcamwrap_kvs_delete_ha_overwrite(uint8_t inst, uint32_t tbl_type)
{
    kvs_buf *key = tcamwrap_kvs_build_key(TCAMWRAP_REC_OVERWRITE, inst, tbl_type, 0);
    TCAMWRAP_TRACE(7, "deleting overwrite info <%d, %d>\n", inst, tbl_type);
    const int rc = kvs_delete(tcamwrap_gl_db.kvs_handle, key);
    if (tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type)) {
        pending->journal = rc != 0;
        if (rc == 0)
            pending->inflight[TCAMWRAP_OW_LOC] = TCAMWRAP_INVALID_LOC;
    }
    if (rc == 0)
        return 0;
    TCAMWRAP_TRACE(3, "*** overwrite info <%d %d> kvs_delete() failed: %s ***\n", inst, tbl_type,
                   errcode2str(rc));
    tcamwrap_saved_errno = ENOSPC;
    return -1;
}

/* Read the table's overwrite record into record[3]; all 0xFFFFFFFF when there is
 * none. A store that cannot be read counts as an empty journal. */
int tcamwrap_ha_overwrite_restore(uint8_t inst, uint32_t tbl_type, uint32_t *record)
{
    if (record == nullptr) {
        TCAMWRAP_ASSERT(record != nullptr, __func__, 636);
        TCAMWRAP_TRACE(3, "*** %s: overwrite_info_p is NULL ***\n", __func__);
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    record[0] = record[1] = record[2] = TCAMWRAP_INVALID_LOC;
    TCAMWRAP_TRACE(7, "restoring overwrite <%d %d> info from kvs..\n", inst, tbl_type);

    tcamwrap_kvs_walk_table(
        "tcamwrap_ha_overwrite_restore", TCAMWRAP_REC_OVERWRITE, inst, tbl_type,
        [&](uint8_t) {
            TCAMWRAP_TRACE_AS("tcamwrap_ha_overwrite_restore", 7,
                              "restored overwrite info <%d %d>\n", inst, tbl_type);
        },
        [&](uint8_t, const kvs_buf &value) {
            TCAMWRAP_ASSERT(value.len == 3 * sizeof(uint32_t), "tcamwrap_ha_overwrite_restore",
                            694);
            /* A short value fills only the words it has. */
            const uint32_t bytes = std::min<uint32_t>(value.len, 3 * sizeof(uint32_t));
            if (bytes != 0 && value.data != nullptr)
                memcpy(record, value.data, bytes);
            TCAMWRAP_TRACE_AS("tcamwrap_ha_overwrite_restore", 7,
                              "restored loc 0x%x old_sloc 0x%x new_sloc 0x%x\n",
                              record[TCAMWRAP_OW_LOC], record[TCAMWRAP_OW_OLD_SLOC],
                              record[TCAMWRAP_OW_NEW_SLOC]);
        });
    return 0;
}

/* ---- reconciliation after a restart ----------------------------------------------- */

namespace {

/* LMT segments changed by a reconciliation: each is stored once, after the
 * scan. The store ends as one store per changed loc would leave it, and a
 * restart that dies before the stores finds the same differences again. */
using tcamwrap_segment_set = std::bitset<256>;

void tcamwrap_store_segments(uint8_t inst, uint32_t tbl_type, const tcamwrap_segment_set &segs)
{
    for (uint32_t seg = 0; seg < segs.size(); seg++)
        if (segs.test(seg))
            (void)tcamwrap_kvs_store_lmt_segment(inst, tbl_type, seg << TCAMWRAP_SEG_SHIFT);
}

/* Delete the hardware entry at *sloc through the search engine with the handle
 * set for a reconciliation delete (the callbacks leave the maps alone). */
int tcamwrap_post_restore_delete(tbl_params *params, uint32_t loc, uint32_t start_addr,
                                 uint32_t *sloc)
{
    tcamwrap_set_cb_handle(params->inst, params->tbl_type, loc, 0, nullptr,
                           TCAMWRAP_OPER_POST_RESTORE);
    params->start_addr = start_addr;
    const int rc = orvex_tcam_delete_entry(params, sloc);
    tcamwrap_save_errno();
    if (rc != 0)
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                          "*** <%d, %d> orvex_tcam_delete_entry() failed: %s ***\n", params->inst,
                          params->tbl_type, strerror(tcamwrap_saved_errno));
    return rc;
}

/* Point loc at target, releasing the sloc it had. */
void tcamwrap_post_restore_switch(tcam_info *info, uint8_t inst, uint32_t tbl_type, uint32_t loc,
                                  uint32_t lmt_sloc, uint32_t target)
{
    if (lmt_sloc == target)
        return;
    TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3, "<%d, %d> Changing LMT to loc: 0x%x -> sloc: 0x%x\n",
                      inst, tbl_type, loc, target);
    /* Indices outside the table (a journal that does not fit it, or an LMT that
     * lost the mapping) are not written. */
    tcamwrap_lmt_set(info, loc, target);
    tcamwrap_rlmt_set(info, target, loc);
    tcamwrap_rlmt_set(info, lmt_sloc, TCAMWRAP_INVALID_LOC);
    /* Stored before the record goes, as at the end of an overwrite. */
    (void)tcamwrap_store_changed_loc(info, inst, tbl_type, loc);
}

bool tcamwrap_sloc_in_hw(const tcam_info *info, uint32_t sloc)
{
    return sloc < info->lmt_sz && tcamwrap_sloc_valid_of(info)[sloc] != 0;
}

/* A copy named by the journal is the overwritten loc's only while the hardware
 * holds it and the restored LMT gives it to no other loc: a record that outlived
 * its overwrite (its delete failed) may name a place the engine reused since. */
bool tcamwrap_journal_copy_ours(const tcam_info *info, uint32_t sloc, uint32_t loc)
{
    if (!tcamwrap_sloc_in_hw(info, sloc))
        return false;
    const uint32_t owner = tcamwrap_rlmt_at(info, sloc);
    return owner == TCAMWRAP_INVALID_LOC || owner == loc;
}

/* Finish or undo the overwrite that the journal says was in flight. */
int tcamwrap_post_restore_journal(tcam_info *info, tbl_params *params, uint32_t *record)
{
    const uint8_t inst = params->inst;
    const uint32_t tbl_type = params->tbl_type;
    const uint32_t loc = record[TCAMWRAP_OW_LOC];
    const uint32_t old_sloc = record[TCAMWRAP_OW_OLD_SLOC];
    const uint32_t new_sloc = record[TCAMWRAP_OW_NEW_SLOC];
    const bool old_valid = tcamwrap_sloc_in_hw(info, old_sloc);
    const bool new_valid = tcamwrap_sloc_in_hw(info, new_sloc);
    const uint32_t lmt_sloc = (uint32_t)tcamwrap_lmt_get_sloc(inst, tbl_type, loc);

    TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                      "<%d, %d> Overwrite KVS record found..!! loc: 0x%x old_sloc: 0x%x valid: %d "
                      "new_sloc: 0x%x valid: %d\n",
                      inst, tbl_type, loc, old_sloc, old_valid, new_sloc, new_valid);
    TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                      "<%d, %d> Corresponding LMT information: loc: 0x%x sloc: 0x%x\n", inst,
                      tbl_type, loc, lmt_sloc);

    /* An overwrite in flight leaves its loc at one of its two copies; a loc
     * anywhere else has moved on and the record is stale. */
    const bool in_flight = lmt_sloc == old_sloc || lmt_sloc == new_sloc;
    const bool old_ours = in_flight && tcamwrap_journal_copy_ours(info, old_sloc, loc);
    const bool new_ours = in_flight && tcamwrap_journal_copy_ours(info, new_sloc, loc);
    if (old_ours && !new_ours) {
        tcamwrap_post_restore_switch(info, inst, tbl_type, loc, lmt_sloc, old_sloc);
    } else if (new_ours) {
        tcamwrap_post_restore_switch(info, inst, tbl_type, loc, lmt_sloc, new_sloc);
        if (old_ours) {
            TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                              "<%d, %d> invalidating the entry at old_sloc: 0x%x\n", inst,
                              tbl_type, old_sloc);
            const int rc = tcamwrap_post_restore_delete(params, loc, old_sloc,
                                                        &record[TCAMWRAP_OW_OLD_SLOC]);
            if (rc != 0)
                return rc; /* the record stays for the next start */
            tcamwrap_sloc_valid_of(info)[old_sloc] = 0; /* gone: the orphan scan must not see it */
        }
    } else if (!old_valid && !new_valid) {
        TCAMWRAP_ASSERT(false, "tcamwrap_post_restore", 1364);
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 2,
                          "*** <%d, %d> found overwrite kvs record loc: 0x%x old_sloc: 0x%x "
                          "new_sloc: 0x%x where both old and new slocs are invalid in hw..!! ***\n",
                          inst, tbl_type, loc, old_sloc, new_sloc);
    } else {
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                          "*** <%d, %d> stale overwrite kvs record loc: 0x%x old_sloc: 0x%x "
                          "new_sloc: 0x%x: its copies belong to other locs ***\n",
                          inst, tbl_type, loc, old_sloc, new_sloc);
    }

    TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3, "<%d, %d> Deleting Overwrite KVS record..\n",
                      inst, tbl_type);
    (void)tcamwrap_kvs_delete_ha_overwrite(inst, tbl_type);
    return 0;
}

void tcamwrap_post_restore_drop_loc(tcam_info *info, uint8_t inst, uint32_t tbl_type, uint32_t loc,
                                    uint32_t sloc, tcamwrap_segment_set &changed)
{
    TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3, "<%d, %d> Invalidating LMT entry at loc: 0x%x\n",
                      inst, tbl_type, loc);
    tcamwrap_rlmt_set(info, sloc, TCAMWRAP_INVALID_LOC);
    tcamwrap_lmt_of(info)[loc] = TCAMWRAP_INVALID_LOC;
    changed.set(tcamwrap_segment_of(loc));
}

/* Drop mappings to locations that hold no entry in the hardware, and mappings
 * of several locs to one location: the store cannot say whose entry it holds,
 * so none of them keeps it (the orphan scan then deletes it). */
void tcamwrap_post_restore_lmt_scan(tcam_info *info, uint8_t inst, uint32_t tbl_type,
                                    tcamwrap_segment_set &changed)
{
    for (uint32_t loc = 0; loc < info->lmt_sz; loc++) {
        const uint32_t sloc = tcamwrap_lmt_of(info)[loc];
        if (sloc == TCAMWRAP_INVALID_LOC)
            continue;
        if (!tcamwrap_sloc_in_hw(info, sloc)) {
            TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                              "<%d, %d> LMT inconsistency found at loc: 0x%x sloc: 0x%x ..!!\n",
                              inst, tbl_type, loc, sloc);
            tcamwrap_post_restore_drop_loc(info, inst, tbl_type, loc, sloc, changed);
            continue;
        }
        const uint32_t owner = tcamwrap_rlmt_of(info)[sloc];
        if (owner == loc)
            continue;
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3,
                          "<%d, %d> LMT inconsistency found at loc: 0x%x sloc: 0x%x claimed by "
                          "loc: 0x%x too ..!!\n",
                          inst, tbl_type, loc, sloc, owner);
        if (owner < info->lmt_sz)
            tcamwrap_post_restore_drop_loc(info, inst, tbl_type, owner, sloc, changed);
        tcamwrap_post_restore_drop_loc(info, inst, tbl_type, loc, sloc, changed);
    }
}

/* Delete hardware entries that no location owns; stops at the first failure. */
int tcamwrap_post_restore_rlmt_scan(tcam_info *info, tbl_params *params)
{
    for (uint32_t sloc = 0; sloc < info->lmt_sz; sloc++) {
        if (tcamwrap_sloc_valid_of(info)[sloc] != 1 ||
            tcamwrap_rlmt_get_loc(info, sloc) != TCAMWRAP_INVALID_LOC)
            continue;
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3, "<%d, %d> RLMT inconsistency found at sloc: 0x%x ..!!\n",
                          params->inst, params->tbl_type, sloc);
        TCAMWRAP_TRACE_AS("tcamwrap_post_restore", 3, "<%d, %d> invalidating the entry at sloc: 0x%x\n",
                          params->inst, params->tbl_type, sloc);
        uint32_t target = sloc;
        const int rc = tcamwrap_post_restore_delete(params, TCAMWRAP_INVALID_LOC,
                                                    TCAMWRAP_INVALID_LOC, &target);
        if (rc != 0)
            return rc;
    }
    return 0;
}

} // namespace

/* Make LMT, RLMT, journal and hardware agree after a restart: finish the
 * journalled overwrite, then drop mappings the hardware does not back and
 * delete entries no loc owns. */
int tcamwrap_post_restore(uint8_t inst, uint32_t tbl_type)
{
    tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    TCAMWRAP_ASSERT(info != nullptr, __func__, 1249);
    TCAMWRAP_ASSERT(info == nullptr || info->sloc_valid != nullptr, __func__, 1250);
    if (info == nullptr || info->sloc_valid == nullptr) {
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }

    tbl_params params = {inst, tbl_type, 1, 0, 0};
    uint32_t record[3];
    int rc = tcamwrap_ha_overwrite_restore(inst, tbl_type, record);
    if (rc != 0)
        return rc;
    if (record[TCAMWRAP_OW_LOC] != TCAMWRAP_INVALID_LOC) {
        rc = tcamwrap_post_restore_journal(info, &params, record);
        if (rc != 0)
            return rc;
    }

    tcamwrap_segment_set changed;
    tcamwrap_post_restore_lmt_scan(info, inst, tbl_type, changed);
    tcamwrap_store_segments(inst, tbl_type, changed);
    const tcamwrap_pending_t *pending = tcamwrap_pending_of(inst, tbl_type);
    if (pending != nullptr && pending->unread) {
        TCAMWRAP_TRACE(3, "*** <%d, %d> the store could not be read whole: hardware entries "
                          "without an owner are kept ***\n",
                       inst, tbl_type);
        return 0;
    }
    return tcamwrap_post_restore_rlmt_scan(info, &params);
}
