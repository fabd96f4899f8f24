/*
 * Search-engine callbacks: the engine calls these around every add, delete and
 * move it makes in an Orvex TCAM, to validate a candidate location, and for
 * every entry it finds in the hardware at a restart. They keep LMT and RLMT
 * inverse to each other, persist every change, and put an entry's result
 * memories at its new location before the entry goes live there.
 */
#include "tcamwrap_internal.h"

namespace {

void tcamwrap_print_camindex_cb_type(uint32_t op, uint32_t old_sloc, uint32_t new_sloc)
{
    switch (op) {
    case TCAMWRAP_CB_PRE_ADD:
        TCAMWRAP_TRACE(7, "PRE_ADD: new_sloc: 0x%x\n", new_sloc);
        break;
    case TCAMWRAP_CB_POST_ADD:
        TCAMWRAP_TRACE(7, "POST_ADD: new_sloc: 0x%x\n", new_sloc);
        break;
    case TCAMWRAP_CB_PRE_DEL:
        TCAMWRAP_TRACE(7, "PRE_DEL: old_sloc: 0x%x\n", old_sloc);
        break;
    case TCAMWRAP_CB_POST_DEL:
        TCAMWRAP_TRACE(7, "POST_DEL: old_sloc: 0x%x\n", old_sloc);
        break;
    case TCAMWRAP_CB_PRE_MOVE:
        TCAMWRAP_TRACE(7, "PRE_MOVE: old_sloc: 0x%x new_sloc: 0x%x\n", old_sloc, new_sloc);
        break;
    case TCAMWRAP_CB_POST_MOVE:
        TCAMWRAP_TRACE(7, "POST_MOVE: old_sloc: 0x%x new_sloc: 0x%x\n", old_sloc, new_sloc);
        break;
    default:
        TCAMWRAP_TRACE(7, "UNKNOWN: old_sloc: 0x%x new_sloc: 0x%x\n", old_sloc, new_sloc);
        break;
    }
}

/* LMT work before an entry is written at new_sloc, ahead of the write: an add
 * maps loc and stores its segment, an overwrite keeps serving the old copy and
 * journals the switch instead. 0 to go on; -1 (ENOSPC, or EINVAL for a loc the
 * table does not have) when the store refused: then nothing is changed, and the
 * engine must not program an entry that the store does not know. */
int tcamwrap_lmt_pre_add(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint32_t oper,
                         uint32_t new_sloc)
{
    tcam_info *info = tcamwrap_require_table(inst, tbl_type, __func__, 753);
    if (info == nullptr)
        return 0;
    TCAMWRAP_TRACE(7, "PRE_ADD: LMT<%d %d>: oper: %d loc 0x%x --> sloc 0x%x\n", inst, tbl_type,
                   oper, loc, new_sloc);
    if (oper == TCAMWRAP_OPER_ADD) {
        const uint32_t old_lmt = tcamwrap_lmt_at(info, loc);
        const uint32_t old_rlmt = tcamwrap_rlmt_at(info, new_sloc);
        tcamwrap_lmt_set(info, loc, new_sloc);
        tcamwrap_rlmt_set(info, new_sloc, loc);
        if (tcamwrap_store_changed_loc(info, inst, tbl_type, loc) == 0)
            return 0;
        /* The stored segment did not change: put memory back to match it, so
         * the segment owes nothing (a write stores its table's debts before
         * the insert, so it owed nothing before either). */
        tcamwrap_lmt_set(info, loc, old_lmt);
        tcamwrap_rlmt_set(info, new_sloc, old_rlmt);
        tcamwrap_segment_settled(inst, tbl_type, loc);
        return -1;
    }
    if (oper == TCAMWRAP_OPER_OVERWRITE) {
        const uint32_t old_sloc = tcamwrap_lmt_at(info, loc);
        TCAMWRAP_ASSERT(old_sloc != TCAMWRAP_INVALID_LOC, __func__, 785);
        return tcamwrap_kvs_store_ha_overwrite(inst, tbl_type, loc, old_sloc, new_sloc);
    }
    TCAMWRAP_TRACE(3, "*** PRE_ADD is called with unexpected oper: %d ***\n", oper);
    TCAMWRAP_ASSERT(false, __func__, 802);
    return 0;
}

/* The result memories of an insert could not be written: take back what
 * tcamwrap_lmt_pre_add() did, so the loc keeps exactly what it had. A store
 * that refuses the undo leaves it pending. The saved error word keeps the
 * failure being reported. */
void tcamwrap_lmt_pre_add_undo(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint32_t oper,
                               uint32_t new_sloc)
{
    tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr)
        return;
    const int reported = tcamwrap_saved_errno;
    if (oper == TCAMWRAP_OPER_ADD) {  /* the loc had no place before this add */
        tcamwrap_lmt_set(info, loc, TCAMWRAP_INVALID_LOC);
        if (tcamwrap_rlmt_at(info, new_sloc) == loc)
            tcamwrap_rlmt_set(info, new_sloc, TCAMWRAP_INVALID_LOC);
        (void)tcamwrap_store_changed_loc(info, inst, tbl_type, loc);
    } else if (oper == TCAMWRAP_OPER_OVERWRITE) {
        (void)tcamwrap_kvs_delete_ha_overwrite(inst, tbl_type);
    }
    tcamwrap_saved_errno = reported;
}

int tcamwrap_lmt_post_move(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint32_t old_sloc,
                           uint32_t new_sloc, uint32_t oper)
{
    tcam_info *info = tcamwrap_require_table(inst, tbl_type, __func__, 828);
    if (info == nullptr)
        return -1;
    TCAMWRAP_TRACE(7, "POST_MOVE: LMT<%d %d>: oper: %d loc 0x%x --> new_sloc 0x%x\n", inst,
                   tbl_type, oper, loc, new_sloc);
    if (oper != TCAMWRAP_OPER_MOVE) {
        TCAMWRAP_TRACE(3, "*** POST_MOVE is called with unexpected oper: %d ***\n", oper);
        TCAMWRAP_ASSERT(false, __func__, 862);
        return -1;
    }
    TCAMWRAP_ASSERT(tcamwrap_lmt_at(info, loc) == old_sloc, __func__, 843);
    TCAMWRAP_ASSERT(tcamwrap_rlmt_at(info, old_sloc) == loc, __func__, 844);
    TCAMWRAP_ASSERT(tcamwrap_rlmt_at(info, new_sloc) == TCAMWRAP_INVALID_LOC, __func__, 846);
    tcamwrap_lmt_set(info, loc, new_sloc);
    tcamwrap_rlmt_set(info, new_sloc, loc);
    tcamwrap_rlmt_set(info, old_sloc, TCAMWRAP_INVALID_LOC);
    return tcamwrap_store_changed_loc(info, inst, tbl_type, loc);
}

/* The old copy of an overwritten entry is gone: switch loc to the new copy,
 * persist, then drop the journal record. */
int tcamwrap_lmt_post_del_overwrite(tcam_info *info, uint8_t inst, uint32_t tbl_type,
                                    uint32_t old_sloc)
{
    const uint32_t loc = tcamwrap_rlmt_at(info, old_sloc);
    TCAMWRAP_ASSERT(loc != TCAMWRAP_INVALID_LOC, "tcamwrap_lmt_post_del", 929);

    uint32_t record[3];
    const int rc = tcamwrap_ha_overwrite_restore(inst, tbl_type, record);
    if (rc != 0)
        return rc;
    /* A store that cannot give the record back must not unmap the loc: the
     * record is the one this overwrite's PRE_ADD stored. */
    if (record[TCAMWRAP_OW_LOC] == TCAMWRAP_INVALID_LOC &&
        tcamwrap_journal_inflight(inst, tbl_type, record))
        TCAMWRAP_TRACE_AS("tcamwrap_lmt_post_del", 3,
                          "*** overwrite info <%d %d> could not be read back; the record stored "
                          "for loc 0x%x is used ***\n",
                          inst, tbl_type, record[TCAMWRAP_OW_LOC]);
    const uint32_t new_sloc = record[TCAMWRAP_OW_NEW_SLOC];
    TCAMWRAP_TRACE_AS("tcamwrap_lmt_post_del", 7,
                      "POST_DEL: LMT<%d %d>: moving from loc 0x%x --> sloc 0x%x to loc 0x%x --> "
                      "sloc 0x%x\n",
                      inst, tbl_type, loc, old_sloc, loc, new_sloc);
    TCAMWRAP_ASSERT(record[TCAMWRAP_OW_OLD_SLOC] == old_sloc, "tcamwrap_lmt_post_del", 943);
    TCAMWRAP_ASSERT(tcamwrap_lmt_at(info, loc) == old_sloc, "tcamwrap_lmt_post_del", 944);
    TCAMWRAP_ASSERT(tcamwrap_rlmt_at(info, new_sloc) == TCAMWRAP_INVALID_LOC,
                    "tcamwrap_lmt_post_del", 946);
    tcamwrap_lmt_set(info, loc, new_sloc);
    tcamwrap_rlmt_set(info, old_sloc, TCAMWRAP_INVALID_LOC);
    tcamwrap_rlmt_set(info, new_sloc, loc);
    const int stored = tcamwrap_store_changed_loc(info, inst, tbl_type, loc);
    if (stored != 0) {
        /* The record stays until the segment is in the store. */
        tcamwrap_journal_mark_pending(inst, tbl_type);
        return stored;
    }
    return tcamwrap_kvs_delete_ha_overwrite(inst, tbl_type);
}

int tcamwrap_lmt_post_del(uint8_t inst, uint32_t tbl_type, uint32_t old_sloc, uint32_t oper)
{
    tcam_info *info = tcamwrap_require_table(inst, tbl_type, __func__, 896);
    if (info == nullptr)
        return -1;
    switch (oper) {
    case TCAMWRAP_OPER_DELETE: {
        const uint32_t loc = tcamwrap_rlmt_at(info, old_sloc);
        TCAMWRAP_ASSERT(loc != TCAMWRAP_INVALID_LOC, __func__, 909);
        TCAMWRAP_TRACE(7, "POST_DEL: LMT<%d %d>: invalidating loc 0x%x --> sloc 0x%x\n", inst,
                       tbl_type, loc, old_sloc);
        tcamwrap_rlmt_set(info, old_sloc, TCAMWRAP_INVALID_LOC);
        tcamwrap_lmt_set(info, loc, TCAMWRAP_INVALID_LOC);
        return tcamwrap_store_changed_loc(info, inst, tbl_type, loc);
    }
    case TCAMWRAP_OPER_OVERWRITE:
        return tcamwrap_lmt_post_del_overwrite(info, inst, tbl_type, old_sloc);
    case TCAMWRAP_OPER_MOVE:
    case TCAMWRAP_OPER_POST_RESTORE:
        return 0; /* their bookkeeping is done elsewhere */
    default:
        TCAMWRAP_TRACE(3, "*** POST_DEL is called with unexpected oper: %d ***\n", oper);
        TCAMWRAP_ASSERT(false, __func__, 976);
        return -1;
    }
}

/* Write the handle's result memories at sloc (the new place of an entry). */
int tcamwrap_write_results_at(tcamwrap_cb_handle *h, tbl_params *params, uint32_t sloc)
{
    params->start_addr = sloc;
    params->opaque = sloc;
    return tcamwrap_internal_ssram_update(params, &h->acl_prio, h->ssram_data);
}

/* Read one result memory of the entry at old_sloc; trace a failure. */
int tcamwrap_populate_read(int (*read)(tbl_params *, uint8_t *), const char *what,
                           tbl_params *params, uint8_t *out, uint32_t shown_sloc)
{
    const int rc = read(params, out);
    tcamwrap_save_errno();
    if (rc != 0)
        TCAMWRAP_TRACE_AS("tcamwrap_cb_populate_handle", 3, "*** %s() failed: %s. sloc: 0x%x ***\n",
                          what, strerror(tcamwrap_saved_errno), shown_sloc);
    return rc;
}

/* Write one result memory of an entry; trace a failure. */
int tcamwrap_ssram_write_one(int (*write)(tbl_params *, uint8_t *), const char *what,
                             tbl_params *params, uint8_t *data, uint32_t shown_loc)
{
    const int rc = write(params, data);
    tcamwrap_save_errno();
    if (rc != 0)
        TCAMWRAP_TRACE_AS("tcamwrap_internal_ssram_update", 3, "*** %s() failed: %s. loc: 0x%x ***\n",
                          what, strerror(tcamwrap_saved_errno), shown_loc);
    return rc;
}

} // namespace

/* ---- result memories ------------------------------------------------------------ */

int tcamwrap_cb_populate_handle(tcamwrap_cb_handle *handle, uint32_t old_sloc, uint32_t oper)
{
    TCAMWRAP_ASSERT(handle != nullptr, __func__, 1687);
    if (handle == nullptr) {
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    TCAMWRAP_TRACE(7, "%s: inst %d tbl_type %d old_sloc 0x%x\n", __func__, handle->inst,
                   handle->tbl_type, old_sloc);
    const tcam_info *info = tcamwrap_tcam_info(handle->inst, handle->tbl_type);
    const uint32_t old_loc = tcamwrap_rlmt_get_loc(info, old_sloc);
    if (old_loc == TCAMWRAP_INVALID_LOC) {
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    tbl_params params = {handle->inst, handle->tbl_type, 1, old_sloc, old_sloc};
    TCAMWRAP_TRACE(7, "found old_loc 0x%x for old_sloc 0x%x\n", old_loc, old_sloc);
    handle->loc = old_loc;
    handle->acl_prio = 1;
    handle->oper = oper;

    const bool acli = handle->tbl_type == TCAMWRAP_TBL_ACLI;
    if (acli) {
        TCAMWRAP_TRACE(7, "reading acl priority at sloc 0x%x\n", old_sloc);
        const int rc = tcamwrap_populate_read(fwd_acl_prio_read, "fwd_acl_prio_read", &params,
                                              &handle->acl_prio, old_sloc);
        if (rc != 0)
            return rc;
        TCAMWRAP_TRACE(7, "acl_prio at sloc 0x%x is %d\n", old_sloc, handle->acl_prio);
    }
    if (acli && handle->acl_prio == 0) {
        params.start_addr = old_sloc >> 1;
        TCAMWRAP_TRACE(7, "reading flow ssram at sloc 0x%x\n", params.start_addr);
        return tcamwrap_populate_read(fwd_flow_result_read, "fwd_flow_result_read", &params,
                                      handle->ssram_data, params.start_addr);
    }
    TCAMWRAP_TRACE(7, "reading adjacency ssram at sloc 0x%x\n", old_sloc);
    return tcamwrap_populate_read(fwd_ssram_read, "fwd_ssram_read", &params, handle->ssram_data,
                                  old_sloc);
}

int tcamwrap_internal_ssram_update(tbl_params *params, uint8_t *acl_prio, uint8_t *ssram)
{
    if (params == nullptr) {
        TCAMWRAP_TRACE(2, "*** %s: tbl_params is passed as NULL ***\n", __func__);
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    const bool acli = params->tbl_type == TCAMWRAP_TBL_ACLI;
    /* Every ACLI writer passes a priority byte; should one not, the entry is
     * written as one whose bit is set rather than read through NULL. */
    uint8_t default_prio = 1;
    if (acli && acl_prio == nullptr)
        acl_prio = &default_prio;
    if (acli) {
        TCAMWRAP_TRACE(7, "writing acl priority %d at loc: 0x%x\n", *acl_prio, params->start_addr);
        const int rc = tcamwrap_ssram_write_one(fwd_acl_prio_write, "fwd_acl_prio_write", params,
                                                acl_prio, params->start_addr);
        if (rc != 0)
            return rc;
    }
    const uint8_t prio_value = acli ? *acl_prio : 1;
    if (acli && prio_value == 0) {
        const uint32_t loc = params->start_addr;
        params->start_addr = loc >> 1;
        TCAMWRAP_TRACE(7, "writing flow result SSRAM at loc: 0x%x\n", params->start_addr);
        const int rc = tcamwrap_ssram_write_one(fwd_flow_result_write, "fwd_flow_result_write",
                                                params, ssram, params->start_addr);
        params->start_addr = loc;
        return rc;
    }
    TCAMWRAP_TRACE(7, "writing adjacency SSRAM at loc: 0x%x\n", params->start_addr);
    return tcamwrap_ssram_write_one(fwd_ssram_write, "fwd_ssram_write", params, ssram,
                                    params->start_addr);
}

/* ---- camindex callback ------------------------------------------------------------ */

namespace {

/* A place beyond a managed table cannot be a place of the engine's: an add or a
 * move there is refused before any map or result memory is touched. */
bool tcamwrap_sloc_beyond_table(const tcamwrap_cb_handle *h, uint32_t sloc)
{
    const tcam_info *info = tcamwrap_tcam_info(h->inst, h->tbl_type);
    if (info == nullptr || sloc < info->lmt_sz)
        return false;
    TCAMWRAP_TRACE(3, "*** sloc 0x%x is beyond LMT<%d %d> of %d entries ***\n", sloc, h->inst,
                   h->tbl_type, info->lmt_sz);
    tcamwrap_saved_errno = EINVAL;
    return true;
}

} // namespace

extern "C" int tcamwrap_cb_orvex_tcam_camindex(void *handle, uint32_t unused1, uint32_t unused2,
                                               uint32_t op, uint32_t old_sloc, uint32_t new_sloc)
{
    (void)unused1;
    (void)unused2;
    if (handle == nullptr) {
        TCAMWRAP_TRACE(2, "*** %s: handle is passed as NULL ***\n", __func__);
        errno = EINVAL;
        return -1;
    }
    auto *h = static_cast<tcamwrap_cb_handle *>(handle);
    if (tcamwrap_validate_tbl_type(h->tbl_type) != 0)
        return tcamwrap_return_saved(-1);

    tbl_params params = {h->inst, h->tbl_type, 1, 0, 0};
    tcamwrap_print_camindex_cb_type(op, old_sloc, new_sloc);

    const bool to_place = op == TCAMWRAP_CB_PRE_ADD || op == TCAMWRAP_CB_PRE_MOVE ||
                          op == TCAMWRAP_CB_POST_MOVE;
    if (to_place && tcamwrap_sloc_beyond_table(h, new_sloc))
        return tcamwrap_return_saved(-1);

    int rc = 0;
    switch (op) {
    case TCAMWRAP_CB_PRE_ADD:
        TCAMWRAP_TRACE(7, "%s: new sloc is 0x%x\n", __func__, new_sloc);
        rc = tcamwrap_lmt_pre_add(h->inst, h->tbl_type, h->loc, h->oper, new_sloc);
        if (rc != 0)
            break; /* the store refused: the engine must not program the entry */
        rc = tcamwrap_write_results_at(h, &params, new_sloc);
        if (rc != 0)
            tcamwrap_lmt_pre_add_undo(h->inst, h->tbl_type, h->loc, h->oper, new_sloc);
        break;
    case TCAMWRAP_CB_POST_ADD:
        TCAMWRAP_TRACE(7, "%s: Post add for sloc is 0x%x\n", __func__, new_sloc);
        break;
    case TCAMWRAP_CB_PRE_DEL:
        TCAMWRAP_TRACE(7, "%s: Pre del for sloc is 0x%x\n", __func__, old_sloc);
        break;
    case TCAMWRAP_CB_POST_DEL:
        TCAMWRAP_TRACE(7, "%s: Post del for sloc is 0x%x\n", __func__, old_sloc);
        (void)tcamwrap_lmt_post_del(h->inst, h->tbl_type, old_sloc, h->oper);
        break;
    case TCAMWRAP_CB_PRE_MOVE: {
        const tcam_info *info = tcamwrap_tcam_info(h->inst, h->tbl_type);
        const int populated = tcamwrap_cb_populate_handle(h, old_sloc, TCAMWRAP_OPER_MOVE);
        h->loc = tcamwrap_rlmt_get_loc(info, old_sloc);
        /* An owned entry whose results could not be read must not move: its
         * copy would carry the handle's stale results. */
        if (populated != 0 && h->loc != TCAMWRAP_INVALID_LOC) {
            rc = populated;
            break;
        }
        rc = tcamwrap_write_results_at(h, &params, new_sloc);
        break;
    }
    case TCAMWRAP_CB_POST_MOVE:
        TCAMWRAP_TRACE(7, "%s: Post move for sloc is 0x%x\n", __func__, new_sloc);
        (void)tcamwrap_lmt_post_move(h->inst, h->tbl_type, h->loc, old_sloc, new_sloc, h->oper);
        break;
    default:
        TCAMWRAP_TRACE(7, "%s: Unknown operation type %d\n", __func__, op);
        break;
    }
    return tcamwrap_return_saved(rc);
}

/* ---- validate callback -------------------------------------------------------------- */

extern "C" int tcamwrap_cb_validate(void *handle, uint32_t sloc, uint8_t *result)
{
    if (handle == nullptr) {
        TCAMWRAP_TRACE(2, "*** handle is passed as NULL ***\n");
        if (result != nullptr)
            *result = 0;
        errno = EINVAL;
        return -1;
    }
    const auto *h = static_cast<const tcamwrap_cb_handle *>(handle);
    TCAMWRAP_TRACE(7,
                   "validation callback called for inst: %d tbl_type: %d loc: 0x%x acl_prio: %d "
                   "sloc: 0x%x\n",
                   h->inst, h->tbl_type, h->loc, h->acl_prio, sloc);
    if (h->tbl_type != TCAMWRAP_TBL_ACLI) {
        TCAMWRAP_TRACE(7, "tbl_type is not ACLI TCAM. returning TRUE.\n");
        *result = 1;
        return 0;
    }
    if (h->acl_prio != 0) {
        TCAMWRAP_TRACE(7, "acl_prio set. returning TRUE.\n");
        *result = 1;
        return 0;
    }
    /* A flow-result entry shares its flow-result word with its pair partner, so
     * the partner must be free or hold an entry that uses the adjacency word. */
    const uint32_t adj_sloc = sloc ^ 1u;
    const uint32_t adj_loc =
        tcamwrap_rlmt_get_loc(tcamwrap_tcam_info(h->inst, TCAMWRAP_TBL_ACLI), adj_sloc);
    if (adj_loc == TCAMWRAP_INVALID_LOC) {
        TCAMWRAP_TRACE(7, "adj_sloc: 0x%x is not valid. returning TRUE.", adj_sloc);
        *result = 1;
        return 0;
    }
    TCAMWRAP_TRACE(7, "reading acl_prio bit of adj_loc: 0x%x adj_sloc: 0x%x\n", adj_loc, adj_sloc);
    tbl_params params = {h->inst, h->tbl_type, 1, adj_sloc, 0};
    uint8_t bit = 0;
    const int rc = fwd_acl_prio_read(&params, &bit);
    tcamwrap_save_errno();
    if (rc != 0) {
        TCAMWRAP_TRACE(3, "*** fwd_acl_prio_read() failed: %s ***\n",
                       strerror(tcamwrap_saved_errno));
        *result = 0;
        return tcamwrap_return_saved(rc);
    }
    if (bit != 0) {
        TCAMWRAP_TRACE(7, "acl_prio bit is set for adj_sloc: 0x%x. returning TRUE.\n", adj_sloc);
        *result = 1;
        return 0;
    }
    TCAMWRAP_TRACE(5, "*** acl priority bit is NOT set for adj_sloc: 0x%x. returning FALSE. ***\n",
                   adj_sloc);
    *result = 0;
    return 0;
}

/* ---- restore callback -------------------------------------------------------------- */

extern "C" int tcamwrap_cb_orvex_tcam_restore(void *handle, uint32_t camindex,
                                              const uint32_t *value, const uint32_t *mask,
                                              uint32_t width, uint32_t bank, uint32_t tbl,
                                              uint32_t priority)
{
    if (handle == nullptr) {
        TCAMWRAP_TRACE(3, "*** Null handle passed to %s ***\n", __func__);
        errno = EINVAL;
        return -1;
    }
    auto *h = static_cast<tcamwrap_cb_handle *>(handle);
    tcam_info *info = tcamwrap_tcam_info(h->inst, h->tbl_type);
    TCAMWRAP_ASSERT(info != nullptr, __func__, 1483);
    TCAMWRAP_ASSERT(info == nullptr || info->sloc_valid != nullptr, __func__, 1484);
    if (info == nullptr || info->sloc_valid == nullptr) {
        errno = EINVAL;
        return -1;
    }
    /* A location beyond the table is refused and not counted: the restored-entry
     * count is the number of locations recorded in the sloc-valid table. */
    if (camindex >= info->lmt_sz) {
        TCAMWRAP_TRACE(3, "*** camindex 0x%x is not less than lmt_sz %d ***\n", camindex,
                       info->lmt_sz);
        errno = EINVAL;
        return -1;
    }
    h->restored_entries++;
    tcamwrap_sloc_valid_of(info)[camindex] = 1;
    if (width == TCAMWRAP_FIB_KEY_BITS)
        TCAMWRAP_TRACE(7,
                       "restoring entry %u, camindex: %x value:%2.2x%8.8x%8.8x mask: "
                       "%2.2x%8.8x%8.8x bnk: %1u tbl: %2x priority: %4x\n",
                       h->restored_entries, camindex, value[2], value[1], value[0], mask[2],
                       mask[1], mask[0], bank, tbl, priority);
    else
        TCAMWRAP_TRACE(7,
                       "restoring entry %u, camindex: %x value:%4.4x%8.8x%8.8x%8.8x%8.8x mask: "
                       "%4.4x%8.8x%8.8x%8.8x%8.8x  bnk: %1u tbl: %2x priority: %4x\n",
                       h->restored_entries, camindex, value[4], value[3], value[2], value[1],
                       value[0], mask[4], mask[3], mask[2], mask[1], mask[0], bank, tbl, priority);
    return 0;
}
