/*
 * Forwarding memory access: the exported calls that write, delete and read TCAM
 * entries and their result memories by logical location.
 *
 * Every call runs the same frame: NULL checks, table-parameter checks, the entry
 * trace, then the path chosen by the table type's TCAM kind: a tcam3 table goes
 * straight to the forwarding driver; an Orvex table translates each loc through
 * the LMT and works one entry at a time.
 */
#include "tcamwrap_internal.h"

namespace {

/* Frame, first half: required buffers present and parameters valid. Returns 0 to
 * go on, or the call's result with errno set. */
int tcamwrap_access_check(const char *func, const tbl_params *params, bool buffers_present)
{
    if (params == nullptr || !buffers_present) {
        TCAMWRAP_TRACE_AS(func, 3, "*** NULL params ***\n");
        errno = EINVAL;
        return -1;
    }
    const int rc = tcamwrap_validate_tbl_params(params);
    if (rc != 0)
        return tcamwrap_return_saved(rc);
    return 0;
}

/* Frame, entry trace. */
void tcamwrap_access_trace_entry(const char *func, const tbl_params *params)
{
    TCAMWRAP_TRACE_AS(func, 7, "inst: %d tbl_type: %d num_entries: %d start_addr: 0x%x\n",
                      params->inst, params->tbl_type, params->num_entries, params->start_addr);
}

/* Refuse a call with EINVAL and one error trace. */
int tcamwrap_refuse(const char *func, const char *text)
{
    TCAMWRAP_TRACE_AS(func, 3, "%s", text);
    errno = EINVAL;
    return -1;
}

/* An Orvex table the library does not manage on inst (not named at start-up,
 * or an instance the card does not have) has no map: its locs are not physical
 * places, so a write or delete there would hit whatever entry the engine keeps
 * at that place. Refused with EINVAL. */
int tcamwrap_refuse_unmanaged(const char *func, uint8_t inst, uint32_t tbl_type)
{
    if (tcamwrap_tcam_info(inst, tbl_type) != nullptr)
        return 0;
    TCAMWRAP_TRACE_AS(func, 3, "*** inst %d tbl_type %d is not managed by tcamwrap library ***\n",
                      inst, tbl_type);
    errno = EINVAL;
    return -1;
}

/* Result of a forwarding driver call: 0, or its result with its errno after the
 * failure trace "*** <driver>() failed: <error> ***". */
int tcamwrap_driver_result(const char *func, const char *driver, int rc)
{
    tcamwrap_save_errno();
    if (rc == 0)
        return 0;
    TCAMWRAP_TRACE_AS(func, 3, "*** %s() failed: %s ***\n", driver, strerror(tcamwrap_saved_errno));
    return tcamwrap_return_saved(rc);
}

/* The per-request copy of the caller's record: one entry. */
tbl_params tcamwrap_one_entry(const tbl_params *params)
{
    tbl_params copy = *params;
    copy.num_entries = 1;
    return copy;
}

/* sloc of loc on an Orvex table for a result-memory read; fails with EINVAL
 * (saved error word untouched) when loc has none. The flow-result read words
 * that trace without the stars of the other reads. */
int tcamwrap_translate_for_read(const char *func, const tbl_params *params, uint32_t loc,
                                bool starred, uint32_t *sloc)
{
    *sloc = (uint32_t)tcamwrap_lmt_get_sloc(params->inst, params->tbl_type, loc);
    if (*sloc == TCAMWRAP_INVALID_LOC) {
        if (starred)
            TCAMWRAP_TRACE_AS(func, 3, "*** could not find sloc for loc: 0x%x ***\n", loc);
        else
            TCAMWRAP_TRACE_AS(func, 3, "could not find sloc for loc: 0x%x\n", loc);
        errno = EINVAL;
        return -1;
    }
    TCAMWRAP_TRACE_AS(func, 7, "found sloc: 0x%x for loc: 0x%x\n", *sloc, loc);
    return 0;
}

/* Bank of an Orvex entry: lower half of the table in bank 0, upper in bank 1. */
uint8_t tcamwrap_get_bank(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    const tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr) {
        tcamwrap_saved_errno = EINVAL;
        return 0;
    }
    const uint8_t bank = loc < (info->lmt_sz >> 1) ? 0 : 1;
    TCAMWRAP_TRACE(7, "%s: bank selected for inst: %d tbl_type: %d loc: 0x%x is : %d\n", __func__,
                   inst, tbl_type, loc, bank);
    return bank;
}

/* One entry of a write on a tcam3 table: result memories first, then the key. */
int tcamwrap_write_tcam3_entry(tbl_params *copy, uint32_t loc, uint8_t *key, uint8_t *ssram,
                               uint8_t *acl_prio)
{
    copy->start_addr = loc;
    int rc = tcamwrap_internal_ssram_update(copy, acl_prio, ssram);
    if (rc != 0)
        return tcamwrap_return_saved(rc);
    TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 7, "writing inst %d TCAM at loc: 0x%x\n",
                      copy->inst, loc);
    rc = fwd_tcam_write(copy, key);
    tcamwrap_save_errno();
    if (rc != 0) {
        TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 3,
                          "*** fwd_tcam_write() failed: %s. inst: %d loc: 0x%x ***\n",
                          strerror(tcamwrap_saved_errno), copy->inst, loc);
        return tcamwrap_return_saved(rc);
    }
    return 0;
}

/* Try once more to store what the table's store refused earlier, so memory and
 * store converge as soon as the store works again; the error being reported is
 * kept. */
void tcamwrap_settle_pending(uint8_t inst, uint32_t tbl_type)
{
    const int reported = tcamwrap_saved_errno;
    (void)tcamwrap_kvs_flush_pending(inst, tbl_type);
    tcamwrap_saved_errno = reported;
}

/* The old copy of an overwrite could not be deleted, so the loc keeps it: the
 * new copy that nobody owns yet is deleted too (the callbacks leave the maps
 * alone), and its journal record goes, so no unowned copy of the loc stays
 * live and no record outlives the overwrite. The failure being reported is
 * kept. */
static void tcamwrap_take_back_new_copy(tbl_params *copy, uint32_t loc)
{
    uint32_t record[3];
    if (!tcamwrap_journal_inflight(copy->inst, copy->tbl_type, record) ||
        record[TCAMWRAP_OW_LOC] != loc)
        return;
    const int reported = tcamwrap_saved_errno;
    tcamwrap_set_cb_handle(copy->inst, copy->tbl_type, loc, 0, nullptr,
                           TCAMWRAP_OPER_POST_RESTORE);
    if (orvex_tcam_delete_entry(copy, &record[TCAMWRAP_OW_NEW_SLOC]) == 0)
        (void)tcamwrap_kvs_delete_ha_overwrite(copy->inst, copy->tbl_type);
    tcamwrap_saved_errno = reported;
}

/* The insert (and for an overwrite the delete of the old copy) of one entry;
 * the result with the saved error word set. */
int tcamwrap_place_orvex_entry(tbl_params *copy, uint32_t loc, uint8_t *key, uint16_t *prio,
                               const uint8_t *ssram, uint8_t acl_value)
{
    const uint8_t inst = copy->inst;
    const uint32_t tbl_type = copy->tbl_type;
    uint32_t old_sloc = (uint32_t)tcamwrap_lmt_get_sloc(inst, tbl_type, loc);
    const bool programmed = old_sloc != TCAMWRAP_INVALID_LOC;
    if (programmed)
        TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 5,
                          "inst %d TCAM entry already programmed at sloc: 0x%x for loc: 0x%x\n",
                          inst, old_sloc, loc);
    tcamwrap_set_cb_handle(inst, tbl_type, loc, acl_value, ssram,
                           programmed ? TCAMWRAP_OPER_OVERWRITE : TCAMWRAP_OPER_ADD);
    uint8_t bank = tcamwrap_get_bank(inst, tbl_type, loc);
    TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 7, "%s: loc: 0x%x entry_type: %d(0x%x)\n",
                      "tcamwrap_fwd_tcam_ssram_write", loc, *prio, *prio);

    int rc = orvex_tcam_insert_entry(copy, key, prio, &bank);
    tcamwrap_save_errno();
    if (rc != 0) {
        TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 3,
                          "*** inst %d orvex_tcam_insert_entry() failed: %s. could not find "
                          "suitable sloc for loc: 0x%x\n ***",
                          inst, strerror(tcamwrap_saved_errno), loc);
        return tcamwrap_return_saved(rc);
    }
    uint32_t scratch = 0;
    if (!programmed) {
        (void)orvex_tcam_groom(copy, 0, &scratch, bank);
        return 0;
    }

    old_sloc = (uint32_t)tcamwrap_lmt_get_sloc(inst, tbl_type, loc);
    TCAMWRAP_ASSERT(old_sloc != TCAMWRAP_INVALID_LOC, "tcamwrap_fwd_tcam_ssram_write", 2662);
    TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 5, "invalidating the entry at old_sloc: 0x%x\n",
                      old_sloc);
    /* The handle still says overwrite: the delete's POST_DEL switches the LMT. */
    rc = orvex_tcam_delete_entry(copy, &old_sloc);
    tcamwrap_save_errno();
    if (rc != 0) {
        TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 3,
                          "*** inst %d orvex_tcam_delete_entry() failed in case of overwrite: %s. "
                          "loc: 0x%x  old_sloc: 0x%x ***\n",
                          inst, strerror(tcamwrap_saved_errno), loc, old_sloc);
        tcamwrap_take_back_new_copy(copy, loc);
        return tcamwrap_return_saved(rc);
    }
    (void)orvex_tcam_groom(copy, 0, &scratch, bank);
    return 0;
}

/* One entry of a write on an Orvex table, on one instance. The search engine
 * chooses the sloc; the camindex callbacks map it and write the results there.
 * A loc that is already mapped is overwritten: the new copy goes live first,
 * then the old copy is deleted, so the loc never stops matching. */
int tcamwrap_write_orvex_entry(tbl_params *copy, uint32_t loc, uint8_t *key, uint16_t *prio,
                               const uint8_t *ssram, uint8_t acl_value)
{
    const uint8_t inst = copy->inst;
    const uint32_t tbl_type = copy->tbl_type;
    /* A loc the table does not have (or a table not set up on this instance) is
     * refused before the engine is called: no map index and no orphan entry. */
    if (tcamwrap_validate_loc(inst, tbl_type, loc) != 0)
        return tcamwrap_return_saved(-1);
    /* While the store holds a mapping older than memory, a new entry could be
     * given an sloc that the stale mapping still names: store it first, or
     * refuse the insert. */
    if (tcamwrap_kvs_flush_pending(inst, tbl_type) != 0) {
        TCAMWRAP_TRACE_AS("tcamwrap_fwd_tcam_ssram_write", 3,
                          "*** inst %d LMT<%d %d> changes are not in the store yet: "
                          "loc: 0x%x not written ***\n",
                          inst, inst, tbl_type, loc);
        return tcamwrap_return_saved(-1);
    }
    const int rc = tcamwrap_place_orvex_entry(copy, loc, key, prio, ssram, acl_value);
    tcamwrap_settle_pending(inst, tbl_type);
    return tcamwrap_return_saved(rc);
}

/* The Orvex read of keys (and priorities when prio is not NULL). */
int tcamwrap_fwd_orvex_tcam_read(tbl_params *params, uint8_t *keys, uint16_t *prio)
{
    const uint32_t stride = tcamwrap_key_stride(params->tbl_type);
    tbl_params copy = tcamwrap_one_entry(params);
    for (uint32_t i = 0; i < params->num_entries; i++) {
        const uint32_t loc = params->start_addr + i;
        uint8_t *key = keys + (size_t)i * stride;
        if (tcamwrap_validate_loc(copy.inst, copy.tbl_type, loc) != 0)
            return -1;
        uint32_t sloc = (uint32_t)tcamwrap_lmt_get_sloc(copy.inst, copy.tbl_type, loc);
        if (sloc == TCAMWRAP_INVALID_LOC) {
            TCAMWRAP_TRACE(6, "*** could not find sloc for loc: 0x%x returning invalid entry\n ***",
                           loc);
            memset(key, 0xFF, stride);
            /* Not advanced: priorities stay packed with the entries found. */
            if (prio != nullptr)
                *prio = 0xFFFF;
            continue;
        }
        TCAMWRAP_TRACE(7, "found sloc: 0x%x for loc: 0x%x\n", sloc, loc);
        uint16_t p = 0;
        const int rc = orvex_tcam_read_entry(&copy, &sloc, key, &p, 0);
        tcamwrap_save_errno();
        if (rc != 0) {
            TCAMWRAP_TRACE(3, "*** orvex_tcam_read_entry() failed: %s ***\n",
                           strerror(tcamwrap_saved_errno));
            return rc;
        }
        if (prio != nullptr)
            *prio++ = p;
    }
    return 0;
}

/* Read of one result memory by location, entry by entry through the LMT on an
 * Orvex table (flow results: at the halved location, on both kinds). */
struct tcamwrap_result_mem {
    int (*read)(tbl_params *, uint8_t *);
    const char *driver;
    uint32_t bytes;          /* per entry */
    bool halved;             /* one word per two locations (flow results) */
};

int tcamwrap_result_read_by_entry(const char *func, tbl_params *params, uint8_t *out,
                                  const tcamwrap_result_mem &mem)
{
    const bool orvex = tcamwrap_tbl_is_orvex(params->tbl_type);
    tbl_params copy = tcamwrap_one_entry(params);
    for (uint32_t i = 0; i < params->num_entries; i++) {
        const uint32_t loc = params->start_addr + i;
        uint32_t addr = loc;
        if (orvex && tcamwrap_translate_for_read(func, params, loc, !mem.halved, &addr) != 0)
            return -1;
        if (mem.halved) {
            addr >>= 1;
            if (orvex)
                TCAMWRAP_TRACE_AS(func, 7, "reading flow result SSRAM from loc: 0x%x\n", addr);
        }
        copy.start_addr = addr;
        const int rc = tcamwrap_driver_result(func, mem.driver,
                                              mem.read(&copy, out + (size_t)i * mem.bytes));
        if (rc != 0)
            return rc;
    }
    return 0;
}

constexpr tcamwrap_result_mem TCAMWRAP_ADJ_SSRAM = {
    fwd_ssram_read, "fwd_ssram_read", TCAMWRAP_RESULT_BYTES, false};
constexpr tcamwrap_result_mem TCAMWRAP_FLOW_RESULT = {
    fwd_flow_result_read, "fwd_flow_result_read", TCAMWRAP_RESULT_BYTES, true};
constexpr tcamwrap_result_mem TCAMWRAP_ACL_PRIO = {
    fwd_acl_prio_read, "fwd_acl_prio_read", 1, false};

/* The common read call: frame, ACLI-only rule, then the whole request to the
 * driver on tcam3 (unless per_entry) or entry by entry. */
int tcamwrap_result_read(const char *func, tbl_params *params, uint8_t *out,
                         const tcamwrap_result_mem &mem, const char *acli_only)
{
    int rc = tcamwrap_access_check(func, params, out != nullptr);
    if (rc != 0)
        return rc;
    if (acli_only != nullptr && params->tbl_type != TCAMWRAP_TBL_ACLI)
        return tcamwrap_refuse(func, acli_only);
    tcamwrap_access_trace_entry(func, params);
    if (!tcamwrap_tbl_is_orvex(params->tbl_type) && !mem.halved)
        return tcamwrap_driver_result(func, mem.driver, mem.read(params, out));
    return tcamwrap_result_read_by_entry(func, params, out, mem);
}

} // namespace

/* ---- entry write ------------------------------------------------------------------ */

extern "C" int tcamwrap_fwd_tcam_ssram_write(tbl_params *params, uint8_t *keys, uint16_t *prio,
                                             uint8_t *ssram, uint8_t *acl_prio)
{
    int rc = tcamwrap_access_check(__func__, params,
                                   keys != nullptr && prio != nullptr && ssram != nullptr);
    if (rc != 0)
        return rc;
    const bool acli = params->tbl_type == TCAMWRAP_TBL_ACLI;
    if (acl_prio == nullptr && acli)
        return tcamwrap_refuse(__func__, "*** acl prio buff is not passed for ACLI TCAM ***\n");
    if (acl_prio != nullptr && !acli)
        return tcamwrap_refuse(__func__, "*** acl prio buff is passed for non ACLI TCAM ***\n");
    tcamwrap_access_trace_entry(__func__, params);

    tbl_params copy = tcamwrap_one_entry(params);
    uint8_t lo = 0, hi = 0;
    tcamwrap_get_inst_lo_hi(params, &lo, &hi);
    const bool orvex = tcamwrap_tbl_is_orvex(params->tbl_type);
    const uint32_t stride = tcamwrap_key_stride(params->tbl_type);

    for (uint32_t i = 0; i < params->num_entries; i++) {
        const uint32_t loc = params->start_addr + i;
        const uint8_t acl_value = acl_prio != nullptr ? *acl_prio : 1; /* ACLI only, checked above */
        for (uint8_t inst = lo; inst < hi; inst++) {
            copy.inst = inst;
            rc = orvex ? tcamwrap_write_orvex_entry(&copy, loc, keys, prio, ssram, acl_value)
                       : tcamwrap_write_tcam3_entry(&copy, loc, keys, ssram, acl_prio);
            if (rc != 0)
                return rc;
        }
        keys += stride;
        prio++;
        ssram += TCAMWRAP_RESULT_BYTES;
        if (acli)
            acl_prio++;
    }
    return 0;
}

/* ---- SSRAM write ----------------------------------------------------------------------- */

extern "C" int tcamwrap_fwd_ssram_write(tbl_params *params, uint8_t *ssram)
{
    int rc = tcamwrap_access_check(__func__, params, ssram != nullptr);
    if (rc != 0)
        return rc;
    tcamwrap_access_trace_entry(__func__, params);
    if (!tcamwrap_tbl_is_orvex(params->tbl_type))
        return tcamwrap_driver_result(__func__, "fwd_ssram_write", fwd_ssram_write(params, ssram));

    tbl_params copy = tcamwrap_one_entry(params);
    uint8_t lo = 0, hi = 0;
    tcamwrap_get_inst_lo_hi(params, &lo, &hi);
    for (uint32_t i = 0; i < params->num_entries; i++, ssram += TCAMWRAP_RESULT_BYTES) {
        const uint32_t loc = params->start_addr + i;
        for (uint8_t inst = lo; inst < hi; inst++) {
            copy.inst = inst;
            if (tcamwrap_refuse_unmanaged(__func__, inst, params->tbl_type) != 0)
                return -1;
            const uint32_t sloc = (uint32_t)tcamwrap_lmt_get_sloc(inst, params->tbl_type, loc);
            if (sloc == TCAMWRAP_INVALID_LOC) {
                TCAMWRAP_TRACE(3, "*** inst %d could not find sloc for loc: 0x%x ***\n", inst, loc);
                errno = EINVAL;
                return -1;
            }
            TCAMWRAP_TRACE(7, "inst %d found sloc: 0x%x for loc: 0x%x\n", inst, sloc, loc);
            copy.start_addr = sloc;
            rc = fwd_ssram_write(&copy, ssram);
            tcamwrap_save_errno();
            if (rc != 0) {
                TCAMWRAP_TRACE(3, "*** inst %d fwd_ssram_write() failed: %s ***\n", inst,
                               strerror(tcamwrap_saved_errno));
                return tcamwrap_return_saved(rc);
            }
        }
    }
    return 0;
}

/* ---- entry delete ------------------------------------------------------------------------ */

extern "C" int tcamwrap_fwd_tcam_delete(tbl_params *params)
{
    int rc = tcamwrap_access_check(__func__, params, true);
    if (rc != 0)
        return rc;
    tcamwrap_access_trace_entry(__func__, params);
    tbl_params copy = *params;
    uint8_t lo = 0, hi = 0;
    tcamwrap_get_inst_lo_hi(params, &lo, &hi);
    if (!tcamwrap_tbl_is_orvex(params->tbl_type))
        return tcamwrap_driver_result(__func__, "fwd_tcam_delete", fwd_tcam_delete(params));

    copy.num_entries = 1;
    for (uint32_t i = 0; i < params->num_entries; i++) {
        const uint32_t loc = params->start_addr + i;
        for (uint8_t inst = lo; inst < hi; inst++) {
            copy.inst = inst;
            if (tcamwrap_refuse_unmanaged(__func__, inst, params->tbl_type) != 0)
                return -1;
            uint32_t sloc = (uint32_t)tcamwrap_lmt_get_sloc(inst, params->tbl_type, loc);
            if (sloc == TCAMWRAP_INVALID_LOC) {
                TCAMWRAP_TRACE(4, "*** inst %d delete could not find sloc for loc: 0x%x. ignored.. ***\n",
                               inst, loc);
                continue;
            }
            TCAMWRAP_TRACE(7, "inst %d found sloc: 0x%x for loc: 0x%x\n", inst, sloc, loc);
            tcamwrap_set_cb_handle(inst, params->tbl_type, loc, 0, nullptr, TCAMWRAP_OPER_DELETE);
            rc = orvex_tcam_delete_entry(&copy, &sloc);
            tcamwrap_save_errno();
            tcamwrap_settle_pending(inst, params->tbl_type);
            if (rc != 0) {
                TCAMWRAP_TRACE(3, "*** inst %d orvex_tcam_delete_entry() failed: %s ***\n", inst,
                               strerror(tcamwrap_saved_errno));
                return tcamwrap_return_saved(rc);
            }
        }
    }
    return 0;
}

/* ---- entry reads ---------------------------------------------------------------------------- */

extern "C" int tcamwrap_fwd_tcam_read(tbl_params *params, uint8_t *keys)
{
    const int rc = tcamwrap_access_check(__func__, params, keys != nullptr);
    if (rc != 0)
        return rc;
    tcamwrap_access_trace_entry(__func__, params);
    if (tcamwrap_tbl_is_orvex(params->tbl_type))
        return tcamwrap_return_saved(tcamwrap_fwd_orvex_tcam_read(params, keys, nullptr));
    return tcamwrap_driver_result(__func__, "fwd_tcam_read", fwd_tcam_read(params, keys));
}

extern "C" int tcamwrap_fwd_tcam_read_with_priority(tbl_params *params, uint8_t *keys,
                                                    uint16_t *prio)
{
    const int rc = tcamwrap_access_check(__func__, params, keys != nullptr && prio != nullptr);
    if (rc != 0)
        return rc;
    tcamwrap_access_trace_entry(__func__, params);
    if (tcamwrap_tbl_is_orvex(params->tbl_type))
        return tcamwrap_return_saved(tcamwrap_fwd_orvex_tcam_read(params, keys, prio));
    /* A tcam3 table keeps no priorities. */
    memset(prio, 0xFF, (size_t)params->num_entries * sizeof(uint16_t));
    return tcamwrap_driver_result(__func__, "fwd_tcam_read", fwd_tcam_read(params, keys));
}

/* ---- result memory reads ------------------------------------------------------------------------ */

extern "C" int tcamwrap_fwd_ssram_read(tbl_params *params, uint8_t *ssram)
{
    return tcamwrap_result_read(__func__, params, ssram, TCAMWRAP_ADJ_SSRAM, nullptr);
}

extern "C" int tcamwrap_fwd_flow_result_read(tbl_params *params, uint8_t *flow_result)
{
    return tcamwrap_result_read(__func__, params, flow_result, TCAMWRAP_FLOW_RESULT,
                                "*** cannot read flow result SSRAM on a non ACLI TCAM ***\n");
}

extern "C" int tcamwrap_fwd_acl_prio_read(tbl_params *params, uint8_t *acl_prio)
{
    return tcamwrap_result_read(__func__, params, acl_prio, TCAMWRAP_ACL_PRIO,
                                "*** cannot read ACL priority memory on a non ACLI TCAM ***\n");
}
