/*
 * sim_kvs.h - simulator-only calls of the key/value store (libkvs.so).
 *
 * The store is one LMDB environment in <state dir>/kvs; every handle value is a
 * database of its own inside it. Each kvs_store and kvs_delete is one committed
 * write transaction: a process that dies at any instant leaves the store as of its
 * last completed call. Commits are not flushed to disk unless TCAMWRAP_SIM_KVS_SYNC
 * is "1" when the store is opened: then a completed call also survives a crash of
 * the machine or a power loss; without it only the death of processes.
 *
 * Error codes of the store calls: 0, a positive errno value, or one of LMDB's
 * (negative) codes; errcode2str() names each of them.
 */
#ifndef TCAMWRAP_SIM_KVS_H
#define TCAMWRAP_SIM_KVS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_KVS_SYNC_ENV "TCAMWRAP_SIM_KVS_SYNC"

/* Closes the store of this process and forgets every cursor; the next store call
 * opens it again in the then current state directory (see sim_card_close()). */
void sim_kvs_close(void);

/* Number of records under a handle: 0, or a store error code. */
int sim_kvs_count(uint32_t handle, uint64_t *count);

/* Deletes every record under a handle (one transaction): 0 or a store error code. */
int sim_kvs_drop(uint32_t handle);

#ifdef __cplusplus
}
#endif

#endif
