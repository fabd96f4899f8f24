/*
 * sim_dbgsvc.h - the debug and history service of the simulated card
 * (libdbgsvc.so: debug output; libdbgsvchist.so: history rings), and its
 * simulator-only calls.
 *
 * Debug output (dbgout_func) goes to stderr, or is appended to the file named by
 * TCAMWRAP_SIM_DEBUG_FILE. dbgsvc_chk_int() answers yes for the elements listed in
 * TCAMWRAP_SIM_DEBUG_ELEMS ("all", or numbers separated by ','; default none).
 *
 * History: one ring per uuid (dbgsvc_hist_init_for_uuid, then
 * dbgsvc_his_log_event_for_uuid_inst) and one per client element (dbgsvc_hist_event,
 * whose record starts with the element as a u32). A ring keeps the newest events
 * whose texts fit its size in bytes (64 KiB for a ring that was never initialised).
 */
#ifndef TCAMWRAP_SIM_DBGSVC_H
#define TCAMWRAP_SIM_DBGSVC_H

#include <stdint.h>

#include "tcamwrap_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The module-name object of the debug service. */
struct dbgsvc_modname {
    char name[32];
};

#define SIM_DEBUG_FILE_ENV  "TCAMWRAP_SIM_DEBUG_FILE"
#define SIM_DEBUG_ELEMS_ENV "TCAMWRAP_SIM_DEBUG_ELEMS"

/* Replace the element list of dbgsvc_chk_int (same syntax as the variable; NULL or
 * "" = none): 0, or -1 with EINVAL for a malformed list (the old list stays). */
int sim_dbgsvc_set_debug_elems(const char *list);
/* Send debug output to this file (appended) from now on; NULL = stderr. 0 or -1. */
int sim_dbgsvc_set_debug_file(const char *path);

/* ---- history (libdbgsvchist.so) ---------------------------------------- */
#define SIM_HIST_UUID 0u   /* rings of dbgsvc_his_log_event_for_uuid_inst */
#define SIM_HIST_ELEM 1u   /* rings of dbgsvc_hist_event, by client element */

/* A per-event printer of a uuid's ring, as the library exports one: text, event id,
 * first value, time stamp {seconds, microseconds}, sequence number in the ring. */
typedef int (*sim_hist_printer)(const char *text, uint32_t value1, uint32_t value2,
                                const uint32_t *stamp, uint32_t value5);

/* dbgshim_show_hist_inst() prints the ring of uuid through fn (NULL: plain texts). */
int sim_hist_set_printer(uint32_t uuid, sim_hist_printer fn);
/* Events held by a ring (0 when there is no such ring). */
uint32_t sim_hist_count(uint32_t kind, uint32_t id);
/* Text of an event, back = 0 for the newest; NULL when there is none. Valid until
 * the next history call. */
const char *sim_hist_text(uint32_t kind, uint32_t id, uint32_t back);
/* Drops every ring and printer. */
void sim_hist_clear(void);

#ifdef __cplusplus
}
#endif

#endif
