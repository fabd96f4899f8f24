/*
 * sim_fault.h - fault injection of the simulated card, for tests and the demo.
 *
 * Configured by the environment variable TCAMWRAP_SIM_FAULT (read once), or by
 * sim_fault_set() (replaces the configuration and resets the counters):
 *
 *   fail=<names>:<n>:<errno>   the n-th call (1-based) of a platform function that
 *                              <names> matches fails with that errno
 *   crash=<names>:<n>          the process ends abruptly (no clean-up, as a crash
 *                              would) when a point that <names> matches is reached
 *                              for the n-th time
 *
 * Several rules are separated by ','; each counts on its own. <names> is one
 * pattern or several joined by '+'; a pattern is a glob (fnmatch: '*', '?',
 * '[...]') over the whole name, or a group: "camindex" matches every
 * "camindex.<step>". "*" alone matches everything.
 *
 * Points: every platform call, at its entry before it does anything (the name of
 * the function: "kvs_store", "fwd_ssram_write", "orvex_tcam_insert_entry", ...),
 * and the search engine's callback steps "camindex.PRE_ADD", "camindex.POST_ADD",
 * "camindex.PRE_DEL", "camindex.POST_DEL", "camindex.PRE_MOVE",
 * "camindex.POST_MOVE", reached just before the engine calls the client. Example:
 * every step that changes the card's state, counted together:
 *   crash=camindex+kvs_store+kvs_delete+fwd_*_write+fwd_tcam_delete:<n>
 */
#ifndef TCAMWRAP_SIM_FAULT_H
#define TCAMWRAP_SIM_FAULT_H

#include <stdint.h>

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
/* How often rule number `rule` (0-based, in the order given) has matched since
 * the configuration; 0 when there is no such rule. With a crash rule whose n is
 * never reached this counts the points a run passes. */
uint64_t sim_fault_rule_seen(unsigned rule);

#ifdef __cplusplus
}
#endif

#endif
