/*
 * tcamwrap_api.h - location mapping between a line card's table clients and its
 * TCAM search engine.
 *
 * Conventions (read these first):
 *  1. One client thread. The library takes no lock and has no thread of its own;
 *     every call, and every search-engine callback, runs on the caller's thread.
 *     Per-table callback handles, the saved error word, the trace buffer and the
 *     dump buffer are shared unguarded.
 *  2. Results. Calls return 0 on success. On failure they return -1 with errno
 *     set (EINVAL for bad arguments, ENOMEM when memory runs out, ENOSPC when the
 *     persistent store refuses a write), or the failing driver or search-engine
 *     call's own non-zero result with that call's errno. The first failure ends an
 *     access call; entries written before it stay written.
 *  3. Buffers belong to the caller and are only used during the call. Keys are
 *     value then mask, big-endian fields: 18 bytes per FIB entry, 36 per ACL
 *     entry. Result words are 5 bytes; ACL-priority values 1 byte.
 *  4. Locations. Clients address entries by loc = start_addr + i. For a table on
 *     an Orvex search engine the library maps loc to the physical sloc the engine
 *     chose; for a tcam3 table loc is the hardware address.
 *  5. Lifetime. tcamwrap_init() allocates everything once; there is no shutdown.
 *  6. The platform (forwarding driver, line-card services, search engine,
 *     key/value store, debug service) is declared in tcamwrap_platform.h and is
 *     brought by the program that loads the library.
 */
#ifndef TCAMWRAP_API_H
#define TCAMWRAP_API_H

#include <stdint.h>
#include "tcamwrap_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this header, which is the package version (CMake reads it
 * from here). TCAMWRAP_VERSION is major * 10000 + minor * 100 + patch. */
#define TCAMWRAP_VERSION_MAJOR 1
#define TCAMWRAP_VERSION_MINOR 0
#define TCAMWRAP_VERSION_PATCH 0
#define TCAMWRAP_VERSION_STR_(x) #x
#define TCAMWRAP_VERSION_XSTR_(x) TCAMWRAP_VERSION_STR_(x)
#define TCAMWRAP_VERSION_STRING                                  \
    TCAMWRAP_VERSION_XSTR_(TCAMWRAP_VERSION_MAJOR) "."           \
    TCAMWRAP_VERSION_XSTR_(TCAMWRAP_VERSION_MINOR) "."           \
    TCAMWRAP_VERSION_XSTR_(TCAMWRAP_VERSION_PATCH)
#define TCAMWRAP_VERSION \
    (TCAMWRAP_VERSION_MAJOR * 10000 + TCAMWRAP_VERSION_MINOR * 100 + TCAMWRAP_VERSION_PATCH)

#if defined(__GNUC__)
#define TCAMWRAP_EXPORT __attribute__((visibility("default")))
#else
#define TCAMWRAP_EXPORT
#endif

/* Table types. */
#define TCAMWRAP_TBL_ACLI 1u
#define TCAMWRAP_TBL_ACLO 2u
#define TCAMWRAP_TBL_FIB  3u

#define TCAMWRAP_ALL_INSTS   254u         /* tbl_params.inst: every instance */
#define TCAMWRAP_MAX_INSTS   2u
#define TCAMWRAP_MAX_TBLS    10u
#define TCAMWRAP_INVALID_LOC 0xFFFFFFFFu  /* unused loc / sloc in the maps */

#define TCAMWRAP_FIB_KEY_BYTES 18u
#define TCAMWRAP_ACL_KEY_BYTES 36u
#define TCAMWRAP_RESULT_BYTES  5u

/* Wrapper operation in progress, carried in the callback handle. */
#define TCAMWRAP_OPER_ADD          1u
#define TCAMWRAP_OPER_DELETE       2u
#define TCAMWRAP_OPER_OVERWRITE    3u
#define TCAMWRAP_OPER_MOVE         4u
#define TCAMWRAP_OPER_INIT         5u
#define TCAMWRAP_OPER_POST_RESTORE 6u

/* Camindex callback operation codes (op argument). */
#define TCAMWRAP_CB_PRE_ADD   0u
#define TCAMWRAP_CB_POST_ADD  1u
#define TCAMWRAP_CB_PRE_DEL   2u
#define TCAMWRAP_CB_POST_DEL  3u
#define TCAMWRAP_CB_PRE_MOVE  4u
#define TCAMWRAP_CB_POST_MOVE 5u

/* The context of every search-engine callback of one table (28 bytes). */
typedef struct tcamwrap_cb_handle {
    uint8_t  inst;
    uint32_t tbl_type;
    uint32_t loc;               /* logical location being worked on */
    uint8_t  acl_prio;          /* ACL-priority bit of that entry (ACLI) */
    uint8_t  ssram_data[5];     /* its result word */
    uint32_t oper;              /* TCAMWRAP_OPER_* */
    uint32_t restored_entries;  /* entries reported by the hardware restore */
} tcamwrap_cb_handle;

/* One Orvex table of one instance. lmt[loc] = sloc, rlmt[sloc] = loc, both
 * TCAMWRAP_INVALID_LOC when unused. sloc_valid exists only during a restart. */
typedef struct tcam_info {
    uint32_t  lmt_sz;
    uint32_t *lmt;
    uint32_t *rlmt;
    uint8_t  *sloc_valid;
    tcamwrap_cb_handle cb_handle;
} tcam_info;

/* The library's one global object. */
typedef struct tcamwrap_gl_db_t {
    uint8_t   is_orvex[4];      /* by tbl_type: 1 = Orvex, 0 = tcam3 */
    uint32_t  reserved[2];
    uint32_t  num_insts;
    uint32_t  debug_elem;
    uint32_t  debug_level;      /* 0..7 */
    uint32_t  fac_num;
    uint32_t  init_type;        /* 0 = fresh start, else restart with restore */
    uint32_t  kvs_handle;
    kvs_buf  *kvs_key_prefix;
    kvs_buf   kvs_key;          /* the library's 128-byte key buffer */
    struct tcam_info *tcam_info[2][10];   /* [inst][tbl_type]; NULL = unmanaged */
} tcamwrap_gl_db_t;

/* Parity report, request and reply alike (53 bytes, packed). */
typedef struct __attribute__((packed)) tcamwrap_parity_msg {
    uint32_t hdr;
    uint32_t status;            /* reply: 0 all repaired, 1 some failed */
    uint32_t error_code;        /* reply: 0 or the failure code */
    uint8_t  inst;
    uint32_t tbl_type;
    uint32_t num_entries;       /* request: locations given; reply: unrepaired */
    uint32_t locations[8];
} tcamwrap_parity_msg;

TCAMWRAP_EXPORT extern tcamwrap_gl_db_t tcamwrap_gl_db;
/* Text of the most recent trace, NUL-terminated. */
TCAMWRAP_EXPORT extern char tcamwrap_hist_str[512];

/* ---- start-up ----------------------------------------------------------- */

/* Start the library; call once before anything else. tbl_types names the
 * num_tcams table types to manage (1 ACLI, 2 ACLO, 3 FIB). init_type 0 is a
 * fresh start; non-zero restores every Orvex table from the store and the
 * hardware and reconciles them. key_prefix (at most 124 bytes) prefixes every
 * record the library stores and must outlive the library.
 * Errors: EINVAL (num_tcams 0, a bad table type, more than 2 instances), ENOMEM,
 * or the driver's, line-card service's or search engine's own failure. */
TCAMWRAP_EXPORT int tcamwrap_init(const int32_t *tbl_types, uint32_t num_tcams,
                                  uint32_t kvs_handle, kvs_buf *key_prefix,
                                  uint32_t init_type, uint32_t debug_elem,
                                  uint32_t debug_level, uint32_t fac_num);

/* ---- forwarding access ------------------------------------------------- */

/* Write num_entries entries (key, priority, result word, and for ACLI the
 * ACL-priority byte) at locs start_addr.. on params->inst (254: every instance).
 * acl_prio is required for ACLI and must be NULL otherwise. Writing a mapped loc
 * on an Orvex table is an overwrite: the new copy goes live before the old one
 * is removed. Errors: EINVAL (NULL buffer, bad params, acl_prio rule), or the
 * driver's / search engine's failure. */
TCAMWRAP_EXPORT int tcamwrap_fwd_tcam_ssram_write(tbl_params *params, uint8_t *keys,
                                                  uint16_t *prio, uint8_t *ssram,
                                                  uint8_t *acl_prio);
/* Rewrite the adjacency result word of existing entries.
 * Errors: EINVAL (NULL buffer, bad params, Orvex loc not mapped), driver's. */
TCAMWRAP_EXPORT int tcamwrap_fwd_ssram_write(tbl_params *params, uint8_t *ssram);
/* Delete entries; an unmapped Orvex loc is skipped. Errors: EINVAL, engine's. */
TCAMWRAP_EXPORT int tcamwrap_fwd_tcam_delete(tbl_params *params);
/* Read keys back; an unmapped Orvex loc reads as all 0xFF bytes.
 * Errors: EINVAL (NULL buffer, bad params, loc beyond the table), engine's. */
TCAMWRAP_EXPORT int tcamwrap_fwd_tcam_read(tbl_params *params, uint8_t *keys);
/* As tcamwrap_fwd_tcam_read, with priorities. On an Orvex table the priorities
 * of unmapped locs are not stored: prio is packed with those found, followed by
 * one 0xFFFF when the last entries were unmapped. A tcam3 table reads 0xFFFF. */
TCAMWRAP_EXPORT int tcamwrap_fwd_tcam_read_with_priority(tbl_params *params, uint8_t *keys,
                                                         uint16_t *prio);
/* Read adjacency result words (5 bytes each). Errors: EINVAL (also an unmapped
 * Orvex loc), driver's. */
TCAMWRAP_EXPORT int tcamwrap_fwd_ssram_read(tbl_params *params, uint8_t *ssram);
/* Read flow-result words (ACLI only; one word per two locations). */
TCAMWRAP_EXPORT int tcamwrap_fwd_flow_result_read(tbl_params *params, uint8_t *flow_result);
/* Read ACL-priority bytes (ACLI only). */
TCAMWRAP_EXPORT int tcamwrap_fwd_acl_prio_read(tbl_params *params, uint8_t *acl_prio);

/* ---- search-engine callbacks (registered by tcamwrap_init) --------------- */

/* An entry is added, deleted or moved (op = TCAMWRAP_CB_*); keeps the maps,
 * the store and the result memories in step. handle: the table's cb_handle. */
TCAMWRAP_EXPORT int tcamwrap_cb_orvex_tcam_camindex(void *handle, uint32_t unused1,
                                                    uint32_t unused2, uint32_t op,
                                                    uint32_t old_sloc, uint32_t new_sloc);
/* May the entry described by handle stand at sloc? *result = 1 yes, 0 no. */
TCAMWRAP_EXPORT int tcamwrap_cb_validate(void *handle, uint32_t sloc, uint8_t *result);
/* The hardware holds an entry at camindex (restart only). */
TCAMWRAP_EXPORT int tcamwrap_cb_orvex_tcam_restore(void *handle, uint32_t camindex,
                                                   const uint32_t *value,
                                                   const uint32_t *mask, uint32_t width,
                                                   uint32_t bank, uint32_t tbl,
                                                   uint32_t priority);
/* One entry of a table dump; walk_handle is the dump's own. */
TCAMWRAP_EXPORT int tcamwrap_cb_orvex_tcam_walk(void *walk_handle, uint32_t camindex,
                                                const uint32_t *value, const uint32_t *mask,
                                                uint32_t width, uint32_t bank, uint32_t tbl,
                                                uint32_t priority);

/* ---- queries ------------------------------------------------------------- */

/* *is_orvex = 1 when tbl_type is served by an Orvex TCAM. Errors: EINVAL. */
TCAMWRAP_EXPORT int tcamwrap_is_orvex_tcam(uint32_t tbl_type, uint32_t *is_orvex);
/* sloc of loc; loc itself on an unmanaged table; -1 when unused or beyond the
 * table. Unchecked fast path: inst < 2 and tbl_type < 10 are the caller's duty. */
TCAMWRAP_EXPORT int32_t tcamwrap_lmt_get_sloc(uint32_t inst, uint32_t tbl_type, uint32_t loc);

/* ---- diagnostics --------------------------------------------------------- */

/* Send the LMT and the engine's utilisation of params' table to socket fd; every
 * text piece is followed by one NUL byte. */
TCAMWRAP_EXPORT void tcamwrap_lmt_dump(int fd, tbl_params *params);
/* Send the table's entries to fd, from the hardware when from_hw is non-zero. */
TCAMWRAP_EXPORT void tcamwrap_orvex_tcam_dump(int fd, tbl_params *params, int from_hw);
/* Repair reported parity-error locations; tcam3 tables go to tcam3_fn. Returns 0
 * or the failure code, which is also put in reply->error_code. */
TCAMWRAP_EXPORT int32_t tcamwrap_parity_correction(tcamwrap_parity_msg *request,
                                                   tcamwrap_parity_msg *reply,
                                                   int (*tcam3_fn)(tcamwrap_parity_msg *request,
                                                                   tcamwrap_parity_msg *reply));
/* Trace one key at debug level 7. */
TCAMWRAP_EXPORT void tcamwrap_print_key(const char *prefix, uint32_t tbl_type,
                                        const uint8_t *key, const uint16_t *prio);

/* ---- debug control -------------------------------------------------------- */

/* 0..7; 8 and above: -1, EINVAL, level unchanged. */
TCAMWRAP_EXPORT int tcamwrap_set_debug_level(uint32_t level);
TCAMWRAP_EXPORT int tcamwrap_set_debug_elem(uint32_t elem);
/* History service hooks. ctx: the service's context (its word 11 is read). */
TCAMWRAP_EXPORT int tcamwrap_show_history(void *ctx);
TCAMWRAP_EXPORT int tcamwrap_hist_print_event(const char *text, uint32_t value1,
                                              uint32_t value2, const uint32_t *stamp,
                                              uint32_t value5);

#ifdef __cplusplus
}
#endif

#endif /* TCAMWRAP_API_H */
