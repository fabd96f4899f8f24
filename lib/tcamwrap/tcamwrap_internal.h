/*
 * tcamwrap_internal.h - what the library's modules share and nobody else sees.
 *
 * Every symbol declared here has hidden visibility (the library is compiled with
 * -fvisibility=hidden and linked with a version script), so only the calls of
 * tcamwrap_api.h leave the shared object.
 */
#ifndef TCAMWRAP_INTERNAL_H
#define TCAMWRAP_INTERNAL_H

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tcamwrap_api.h"
#include "tcamwrap_platform.h"

/* ---- constants ----------------------------------------------------------- */

inline constexpr uint32_t TCAMWRAP_HIST_UUID = 636;                  /* 0x27C */
inline constexpr uint32_t TCAMWRAP_HIST_EVENT_ID = TCAMWRAP_HIST_UUID << 16;
inline constexpr uint32_t TCAMWRAP_HIST_SUBTYPE = 0x730000;
inline constexpr uint32_t TCAMWRAP_HIST_SIZE = 0x10000;
inline constexpr size_t TCAMWRAP_TRACE_MAX = 512;

inline constexpr size_t TCAMWRAP_KVS_KEY_BUF = 128;
inline constexpr uint32_t TCAMWRAP_KVS_MODE = 1;
inline constexpr uint8_t TCAMWRAP_REC_LMT_SEGMENT = 2;
inline constexpr uint8_t TCAMWRAP_REC_OVERWRITE = 3;
inline constexpr uint32_t TCAMWRAP_SEG_ENTRIES = 1024;
inline constexpr uint32_t TCAMWRAP_SEG_SHIFT = 10;

inline constexpr uint32_t TCAMWRAP_FIB_KEY_BITS = 72;
inline constexpr uint32_t TCAMWRAP_ACL_KEY_BITS = 144;

/* Bytes of the caller's key prefix that the key buffer holds: the prefix must
 * leave room for the four record bytes, and a longer one (which the caller must
 * never pass) is cut so the buffer is never overrun. */
inline uint32_t tcamwrap_kvs_prefix_len(const kvs_buf *prefix)
{
    const uint32_t len = prefix != nullptr ? prefix->len : 0;
    return len > TCAMWRAP_KVS_KEY_BUF - 4 ? (uint32_t)(TCAMWRAP_KVS_KEY_BUF - 4) : len;
}

/* ---- saved error word ------------------------------------------------------ */

/* Holds the error number across tracing, which may itself change errno. */
extern int tcamwrap_saved_errno;

/* Return rc with errno taken from the saved error word. */
inline int tcamwrap_return_saved(int rc)
{
    errno = tcamwrap_saved_errno;
    return rc;
}

/* Keep errno of the platform call that just returned. */
inline void tcamwrap_save_errno(void) { tcamwrap_saved_errno = errno; }

/* ---- tracing -------------------------------------------------------------- */

/* The three sinks of one trace: the client's history, the debug output and the
 * library's own text buffer. The format is expanded at the trace site so that
 * dbgout_func() receives the format and its arguments unformatted. */
void tcamwrap_trace_history(const char *func, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
bool tcamwrap_trace_wants_dbgout(void);
void tcamwrap_trace_log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Trace at `level` and above (fires when debug_level >= level, one comparison;
 * the arguments are evaluated only when it fires), under the name `func`. */
#define TCAMWRAP_TRACE_AS(func, level, ...)                                        \
    do {                                                                           \
        if (tcamwrap_gl_db.debug_level >= (uint32_t)(level)) {                     \
            tcamwrap_trace_history((func), __VA_ARGS__);                           \
            if (tcamwrap_trace_wants_dbgout())                                     \
                dbgout_func(1, &dbgsvc_dbg_modname, (func), 0, __VA_ARGS__);       \
            tcamwrap_trace_log(__VA_ARGS__);                                       \
        }                                                                          \
    } while (0)

/* Trace under the enclosing function's own name. */
#define TCAMWRAP_TRACE(level, ...) TCAMWRAP_TRACE_AS(__func__, level, __VA_ARGS__)

/* Assertion report: a time-stamped report with a backtrace is appended to the
 * assertion file and a line goes to the system log; execution goes on. The
 * report names the function and the source line that the site declares. */
void tcamwrap_assert_report(const char *func, int line);

#define TCAMWRAP_ASSERT(cond, func, line)                                          \
    do {                                                                           \
        if (!(cond))                                                               \
            tcamwrap_assert_report((func), (line));                                \
    } while (0)

/* ---- table model ----------------------------------------------------------- */

/* The table of (inst, tbl_type), or NULL when the library does not manage it.
 * Out-of-range indices give NULL too, so no caller can read past the array. */
inline tcam_info *tcamwrap_tcam_info(uint32_t inst, uint32_t tbl_type)
{
    if (inst >= TCAMWRAP_MAX_INSTS || tbl_type >= TCAMWRAP_MAX_TBLS)
        return nullptr;
    return tcamwrap_gl_db.tcam_info[inst][tbl_type];
}

/* The table of (inst, tbl_type) for code that cannot work without one: when it
 * is missing, the assertion (func, line) is reported and the saved error word
 * becomes EINVAL. */
tcam_info *tcamwrap_require_table(uint8_t inst, uint32_t tbl_type, const char *func, int line);

/* Kind of a table type; 0 (tcam3) for types outside the flag array. */
inline bool tcamwrap_tbl_is_orvex(uint32_t tbl_type)
{
    return tbl_type < sizeof(tcamwrap_gl_db.is_orvex) && tcamwrap_gl_db.is_orvex[tbl_type];
}

/* Bytes of one key (value and mask) of a table type. */
inline uint32_t tcamwrap_key_stride(uint32_t tbl_type)
{
    return tbl_type == TCAMWRAP_TBL_FIB ? TCAMWRAP_FIB_KEY_BYTES : TCAMWRAP_ACL_KEY_BYTES;
}

/* One map of a table (LMT, RLMT or the sloc-valid table) as lmt_sz elements.
 * Every index into a map goes through one of these: the callers check their
 * indices against the table, and a build with TCAMWRAP_BOUND_CHECKS (the
 * default) traps an index that got past such a check instead of touching the
 * memory beside the map. */
template <typename T> struct tcamwrap_map {
    T *elems;
    uint32_t size;
    T &operator[](uint32_t i) const
    {
#ifdef TCAMWRAP_BOUND_CHECKS
        if (i >= size)
            __builtin_trap();
#endif
        return elems[i];
    }
    /* The first of count elements from first on, all inside the table. */
    T *run(uint32_t first, uint32_t count) const
    {
#ifdef TCAMWRAP_BOUND_CHECKS
        if (first > size || count > size - first)
            __builtin_trap();
#endif
        return elems + first;
    }
};

inline tcamwrap_map<uint32_t> tcamwrap_lmt_of(const tcam_info *info)
{
    return {info->lmt, info->lmt_sz};
}

inline tcamwrap_map<uint32_t> tcamwrap_rlmt_of(const tcam_info *info)
{
    return {info->rlmt, info->lmt_sz};
}

inline tcamwrap_map<uint8_t> tcamwrap_sloc_valid_of(const tcam_info *info)
{
    return {info->sloc_valid, info->lmt_sz};
}

/* Map accessors that never leave the table: a read outside it gives the invalid
 * marker, a write outside it is skipped. The engine's callbacks can carry an
 * invalid loc (a move of an sloc nobody owns), and an assertion that reports it
 * does not stop the update that follows. */
inline uint32_t tcamwrap_lmt_at(const tcam_info *info, uint32_t loc)
{
    return loc < info->lmt_sz ? tcamwrap_lmt_of(info)[loc] : TCAMWRAP_INVALID_LOC;
}

inline uint32_t tcamwrap_rlmt_at(const tcam_info *info, uint32_t sloc)
{
    return sloc < info->lmt_sz ? tcamwrap_rlmt_of(info)[sloc] : TCAMWRAP_INVALID_LOC;
}

inline void tcamwrap_lmt_set(tcam_info *info, uint32_t loc, uint32_t sloc)
{
    if (loc < info->lmt_sz)
        tcamwrap_lmt_of(info)[loc] = sloc;
}

inline void tcamwrap_rlmt_set(tcam_info *info, uint32_t sloc, uint32_t loc)
{
    if (sloc < info->lmt_sz)
        tcamwrap_rlmt_of(info)[sloc] = loc;
}

/* The loc that owns sloc: sloc itself on an unmanaged table, invalid beyond the
 * table, else the RLMT entry. */
inline uint32_t tcamwrap_rlmt_get_loc(const tcam_info *info, uint32_t sloc)
{
    return info == nullptr ? sloc : tcamwrap_rlmt_at(info, sloc);
}

/* A big-endian 32-bit field of a key buffer. */
inline uint32_t tcamwrap_be32(const uint8_t *p)
{
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

int tcamwrap_validate_tbl_type(uint32_t tbl_type);
int tcamwrap_validate_tbl_params(const tbl_params *params);
int tcamwrap_validate_loc(uint8_t inst, uint32_t tbl_type, uint32_t loc);
void tcamwrap_get_inst_lo_hi(const tbl_params *params, uint8_t *lo, uint8_t *hi);

/* Clear the table's callback handle and describe the entry about to be handed
 * to the search engine. ssram may be NULL (zero result word). */
void tcamwrap_set_cb_handle(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint8_t acl_prio,
                            const uint8_t *ssram, uint32_t oper);

/* ---- mapping and persistence -------------------------------------------- */

int tcamwrap_kvs_store_lmt_segment(uint8_t inst, uint32_t tbl_type, uint32_t loc);
/* Persist the segment of a changed loc; a loc outside the table changed nothing
 * (-1, EINVAL). */
int tcamwrap_store_changed_loc(const tcam_info *info, uint8_t inst, uint32_t tbl_type,
                               uint32_t loc);
int tcamwrap_lmt_restore(uint8_t inst, uint32_t tbl_type);
int tcamwrap_kvs_store_ha_overwrite(uint8_t inst, uint32_t tbl_type, uint32_t loc,
                                    uint32_t old_sloc, uint32_t new_sloc);
int tcamwrap_kvs_delete_ha_overwrite(uint8_t inst, uint32_t tbl_type);
int tcamwrap_ha_overwrite_restore(uint8_t inst, uint32_t tbl_type, uint32_t *record);
int tcamwrap_post_restore(uint8_t inst, uint32_t tbl_type);

/* Store debt: a segment store that failed leaves its segment pending, a journal
 * delete that failed leaves the record pending; both are retried before the
 * table's next store and by tcamwrap_kvs_flush_pending(), which answers 0 once
 * nothing is pending (else -1, ENOSPC in the saved error word). */
void tcamwrap_pending_reset(void);
int tcamwrap_kvs_flush_pending(uint8_t inst, uint32_t tbl_type);
/* The segment of loc holds in the store what memory holds: nothing owed. */
void tcamwrap_segment_settled(uint8_t inst, uint32_t tbl_type, uint32_t loc);
void tcamwrap_journal_mark_pending(uint8_t inst, uint32_t tbl_type);
/* The overwrite record stored by the table's last PRE_ADD, until its delete. */
bool tcamwrap_journal_inflight(uint8_t inst, uint32_t tbl_type, uint32_t *record);

/* The overwrite record's words. */
enum { TCAMWRAP_OW_LOC = 0, TCAMWRAP_OW_OLD_SLOC = 1, TCAMWRAP_OW_NEW_SLOC = 2 };

/* ---- result memories -------------------------------------------------------- */

int tcamwrap_cb_populate_handle(tcamwrap_cb_handle *handle, uint32_t old_sloc, uint32_t oper);
int tcamwrap_internal_ssram_update(tbl_params *params, uint8_t *acl_prio, uint8_t *ssram);

#endif /* TCAMWRAP_INTERNAL_H */
