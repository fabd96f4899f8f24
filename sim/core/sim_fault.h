/*
 * sim_fault.h - fault injection of the simulated card, for tests and the demo.
 *
 * Configured by the environment variable TCAMWRAP_SIM_FAULT (read once), or by
 * sim_fault_set() (replaces the configuration and resets the counters):
 *
 *   fail=<function>:<n>:<errno>    the n-th call (1-based) of the named platform
 *                                  function fails with that errno
 *   crash=<point>:<n>              the process ends abruptly (no clean-up, as a
 *                                  crash would) when the named point is reached
 *                                  for the n-th time
 *
 * Several rules are separated by ','. Points: "camindex.PRE_ADD", "camindex.POST_ADD",
 * "camindex.PRE_DEL", "camindex.POST_DEL", "camindex.PRE_MOVE", "camindex.POST_MOVE"
 * (reached just before the search engine calls that callback), "camindex" (any of
 * them), "kvs_store", "kvs_delete" (reached just before the store call runs).
 */
#ifndef TCAMWRAP_SIM_FAULT_H
#define TCAMWRAP_SIM_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Called at the entry of every platform function with its own name: counts the
 * call and returns non-zero (errno set) when this call is to fail. */
int sim_fault_should_fail(const char *function);
/* Counts a crash point and ends the process when its rule says so. */
void sim_fault_point(const char *point);
/* Replace the configuration (same syntax as the variable; NULL or "" clears). */
int sim_fault_set(const char *config);

#ifdef __cplusplus
}
#endif

#endif
