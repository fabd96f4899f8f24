/*
 * tcamwrap_platform.h - the line-card platform that libtcamwrap calls.
 *
 * libtcamwrap.so leaves every function below undefined: the program that loads
 * it brings an implementation (the card's own libraries, the host simulator in
 * sim/, or a test's fakes).  The types are fixed at the binary level so that the
 * same objects work on a 64-bit little-endian host and on the 32-bit big-endian
 * PowerPC card.
 *
 * Conventions of the platform:
 *  - forwarding driver calls return 0, or non-zero with errno set;
 *  - key/value store calls return 0 or a store error code (errcode2str() names it);
 *  - search-engine calls return 0, or non-zero with errno set.
 */
#ifndef TCAMWRAP_PLATFORM_H
#define TCAMWRAP_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Table parameters of every forwarding call: entries start_addr ..
 * start_addr + num_entries - 1 of table tbl_type on instance inst (254 = all).
 * opaque belongs to the forwarding driver and is carried unchanged. */
typedef struct tbl_params {
    uint8_t  inst;
    uint32_t tbl_type;
    uint32_t num_entries;
    uint32_t start_addr;
    uint32_t opaque;
} tbl_params;

/* A key or a value of the persistent store: len bytes at data. */
typedef struct kvs_buf {
    uint8_t *data;
    uint32_t len;
} kvs_buf;

/* Per-instance configuration record of the forwarding driver (80 bytes). Only
 * num_insts and the three table sizes are the library's business. */
typedef struct fwd_cfg_info {
    uint8_t  drv_byte0;
    uint8_t  num_insts;          /* number of forwarding instances of the card */
    uint8_t  drv_bytes[0x42];
    uint32_t acli_size;          /* offset 0x44 */
    uint32_t aclo_size;          /* offset 0x48 */
    uint32_t fib_size;           /* offset 0x4C */
} fwd_cfg_info;

/* ---- forwarding driver ------------------------------------------------- */
int fwd_get_cfg_info(uint8_t inst, void *cfg /* fwd_cfg_info */);
int fwd_tcam_write(tbl_params *p, uint8_t *key);
int fwd_tcam_read(tbl_params *p, uint8_t *keys);
int fwd_tcam_delete(tbl_params *p);
int fwd_ssram_write(tbl_params *p, uint8_t *words);
int fwd_ssram_read(tbl_params *p, uint8_t *words);
int fwd_flow_result_write(tbl_params *p, uint8_t *words);
int fwd_flow_result_read(tbl_params *p, uint8_t *words);
int fwd_acl_prio_write(tbl_params *p, uint8_t *values);
int fwd_acl_prio_read(tbl_params *p, uint8_t *values);

/* ---- line-card services ------------------------------------------------ */
/* types[0..2] = kind of ACLI, ACLO, FIB; 1 = Orvex, anything else = tcam3. */
int get_card_tcam_types(uint32_t types[3]);

/* ---- search-engine library --------------------------------------------- */
typedef int (*orvex_validate_cb)(void *handle, uint32_t sloc, uint8_t *result);
typedef int (*orvex_camindex_cb)(void *handle, uint32_t unused1, uint32_t unused2,
                                 uint32_t op, uint32_t old_sloc, uint32_t new_sloc);
typedef int (*orvex_entry_cb)(void *handle, uint32_t camindex, const uint32_t *value,
                              const uint32_t *mask, uint32_t width, uint32_t bank,
                              uint32_t tbl, uint32_t priority);

int orvex_tcam_init(uint8_t inst, uint32_t tbl_type, uint32_t key_width_bits,
                    orvex_validate_cb validate, void *validate_handle,
                    orvex_camindex_cb camindex, void *camindex_handle,
                    uint32_t restore, orvex_entry_cb restore_cb, void *restore_handle,
                    uint32_t debug_elem, uint32_t debug_level);
int orvex_tcam_insert_entry(tbl_params *p, uint8_t *key, uint16_t *prio, uint8_t *bank);
int orvex_tcam_delete_entry(tbl_params *p, uint32_t *sloc);
int orvex_tcam_read_entry(tbl_params *p, uint32_t *sloc, uint8_t *key, uint16_t *prio,
                          uint32_t zero);
int orvex_tcam_groom(tbl_params *p, uint32_t zero, uint32_t *scratch, uint8_t bank);
int orvex_tcam_get_stats(tbl_params *p, uint8_t bank, uint32_t *entries, uint32_t *groups,
                         uint32_t *open_segs, uint32_t *full_segs, uint32_t *free_segs,
                         uint32_t *total_segs);
int orvex_tcam_dump_tables(tbl_params *p, uint32_t from_hw, orvex_entry_cb walk,
                           void *walk_handle);
int orvex_tcam_fix_scan_errors(tbl_params *p, uint32_t count, uint32_t *locations,
                               uint32_t *num_unfixed, uint32_t *unfixed);

/* ---- persistent key/value store ---------------------------------------- */
#define KVS_MOVE_NEXT 3u          /* kvs_move2location(): step to the next key */

int         kvs_store(uint32_t handle, uint32_t mode, kvs_buf *key, kvs_buf *value);
int         kvs_delete(uint32_t handle, kvs_buf *key);
kvs_buf    *kvs_move2key(uint32_t handle, kvs_buf *key, int *err);
kvs_buf    *kvs_getvalue(uint32_t handle, int *err);
kvs_buf    *kvs_move2location(uint32_t handle, uint32_t where, int *err);
const char *errcode2str(int code);

/* ---- debug and history service ----------------------------------------- */
typedef struct dbgsvc_modname dbgsvc_modname;      /* opaque to the library */
extern dbgsvc_modname dbgsvc_dbg_modname;

int  dbgsvc_hist_init_for_uuid(uint32_t uuid, uint32_t size);
int  dbgsvc_hist_event_subtype_check(uint32_t subtype, uint32_t elem);
int  dbgsvc_hist_event(uint32_t subtype, uint32_t len, void *record);
int  dbgsvc_chk_int(uint32_t elem, uint32_t a, uint32_t b, uint32_t c);
int  dbgsvc_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t event_id, uint32_t a,
                                        uint32_t b, uint32_t len, const char *text);
void dbgsvc_hist_print_event_header(uint32_t value5, const char *modname, uint32_t value1,
                                    uint32_t *stamp);
void dbgout_func(uint32_t a, dbgsvc_modname *modname, const char *func, uint32_t b,
                 const char *fmt, ...);
int  dbgshim_show_hist_inst(void *ctx, uint32_t *pair, uint32_t uuid, uint32_t a, uint32_t b);

#ifdef __cplusplus
}
#endif

#endif /* TCAMWRAP_PLATFORM_H */
