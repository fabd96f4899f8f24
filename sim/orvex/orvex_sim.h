/*
 * orvex_sim.h - simulator-only calls of the search engine (liborvex_tcam.so):
 * its self-check, parity-error injection and work counters. Tests, tools and
 * benchmarks use them; the library never does.
 *
 * Like the orvex_tcam_* calls, these are for one thread at a time.
 */
#ifndef ORVEX_SIM_H
#define ORVEX_SIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Work of one table since its orvex_tcam_init (or the last reset). */
typedef struct orvex_sim_counters {
    uint64_t inserts;            /* successful inserts */
    uint64_t insert_failures;
    uint64_t deletes;
    uint64_t grooms;             /* groom calls */
    uint64_t moves;              /* entries moved (only groom moves) */
    uint64_t max_groom_moves;    /* most moves made by one groom call */
    uint64_t repeat_group_moves; /* moves of a group already moved in the same groom */
    uint64_t validate_calls;
    uint64_t validate_refusals;
} orvex_sim_counters;

/* Self-check of a registered table: every bank in priority order (higher
 * priority at lower locations), no location used twice, each group's span and
 * count right, and the hardware image equal to the engine's copy at every
 * location. 0 when all holds; 1 with the first violation in why (n bytes, NUL
 * terminated); -1 with errno EINVAL for a table that is not registered. */
int orvex_sim_check(uint8_t inst, uint32_t tbl_type, char *why, size_t n);

/* Damage the hardware entry at sloc as a parity error would: one value bit
 * under the mask flips (when the mask is all zero, the top value and mask bits
 * are set instead), so the entry stops matching what it matched. The engine's
 * copy is untouched, so orvex_tcam_fix_scan_errors() can repair it. 0, or -1
 * with errno: EINVAL bad table or location, ENOENT no valid entry there. */
int orvex_sim_corrupt(uint8_t inst, uint32_t tbl_type, uint32_t sloc);

/* 0, or -1 with errno EINVAL for a table that is not registered. */
int orvex_sim_counters_get(uint8_t inst, uint32_t tbl_type, orvex_sim_counters *out);
int orvex_sim_counters_reset(uint8_t inst, uint32_t tbl_type);

#ifdef __cplusplus
}
#endif

#endif
