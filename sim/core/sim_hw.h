/*
 * sim_hw.h - the simulated line card's hardware image, shared by the simulator's
 * platform libraries (forwarding driver, search engine, line-card services).
 *
 * One image per card lives in a memory-mapped file of the state directory, so its
 * content outlives a client process as real hardware does. Per instance and table:
 * the TCAM (valid, value/mask key bytes as the forwarding driver takes them,
 * 16-bit priority per location), the adjacency SSRAM (5 bytes per location), the
 * flow-result SSRAM (5 bytes per two locations) and the ACL-priority memory (1
 * byte per location).  Calls return 0, or -1 with errno (EINVAL outside a memory).
 */
#ifndef TCAMWRAP_SIM_HW_H
#define TCAMWRAP_SIM_HW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_MAX_INSTS   2u
#define SIM_MAX_ENTRIES 262144u
#define SIM_KEY_MAX     36u     /* value then mask; 18 bytes for FIB, 36 for ACL */

/* TCAM kinds of the card profile. */
#define SIM_KIND_TCAM3 0u
#define SIM_KIND_ORVEX 1u

/* The card: opened (and created from the profile when new) on first use. */
uint32_t sim_card_num_insts(void);
uint32_t sim_card_table_size(uint32_t tbl_type);      /* 0 for an unknown type */
uint32_t sim_card_tcam_kind(uint32_t tbl_type);       /* SIM_KIND_* */
uint32_t sim_key_bytes(uint32_t tbl_type);            /* 18 FIB, 36 ACL */

/* TCAM locations (physical). key: sim_key_bytes(tbl_type) bytes, value then mask. */
int sim_hw_tcam_write(uint8_t inst, uint32_t tbl_type, uint32_t loc, const uint8_t *key,
                      uint16_t prio);
int sim_hw_tcam_clear(uint8_t inst, uint32_t tbl_type, uint32_t loc);
int sim_hw_tcam_get(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint8_t *valid,
                    uint8_t *key, uint16_t *prio);
/* Locations first..first+count-1 at once, laid end to end (a restore reads a
 * whole bank under one lock instead of one call per location). */
int sim_hw_tcam_get_range(uint8_t inst, uint32_t tbl_type, uint32_t first, uint32_t count,
                          uint8_t *valid, uint8_t *keys, uint16_t *prio);

/* Search the hardware as the forwarding pipeline does: among the valid entries
 * whose (key & mask) == (value & mask), the highest priority wins, then the
 * lowest location. search: the value half only (9 bytes FIB, 18 ACL). Returns 1
 * and *loc when an entry matches, 0 when none, -1 with errno on bad arguments. */
int sim_hw_lookup(uint8_t inst, uint32_t tbl_type, const uint8_t *search, uint32_t *loc);

/* ---- result memories (simulator additions) -------------------------------
 * Adjacency SSRAM: 5 bytes per TCAM location. Flow-result SSRAM: 5 bytes per two
 * locations (word i serves locations 2i and 2i+1). ACL-priority memory: 1 byte
 * per location. Words start..start+count-1 of one memory, laid end to end. */
#define SIM_MEM_SSRAM    0u
#define SIM_MEM_FLOW     1u
#define SIM_MEM_ACL_PRIO 2u
#define SIM_RESULT_BYTES 5u

uint32_t sim_hw_mem_words(uint32_t tbl_type, uint32_t mem);   /* 0 for a bad argument */
uint32_t sim_hw_mem_width(uint32_t mem);                      /* bytes per word, 0 if bad */
int sim_hw_mem_read(uint8_t inst, uint32_t tbl_type, uint32_t mem, uint32_t start,
                    uint32_t count, uint8_t *out);
int sim_hw_mem_write(uint8_t inst, uint32_t tbl_type, uint32_t mem, uint32_t start,
                     uint32_t count, const uint8_t *in);

/* sim_hw_lookup, and the result word of the entry found, as the pipeline picks it:
 * for ACLI an ACL-priority byte of 0 selects the flow-result word at loc / 2,
 * otherwise (and for ACLO and FIB) the adjacency word at loc. Same results. */
int sim_hw_lookup_result(uint8_t inst, uint32_t tbl_type, const uint8_t *search,
                         uint32_t *loc, uint8_t result[SIM_RESULT_BYTES]);

/* Number of valid TCAM locations of a table (a scan; for tools and checks). */
uint32_t sim_hw_tcam_count(uint8_t inst, uint32_t tbl_type);

#ifdef __cplusplus
}
#endif

#endif
