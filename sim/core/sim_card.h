/*
 * sim_card.h - simulator-only calls: the card's state directory, its profile,
 * and counters of platform calls. Tools, tests and benchmarks use these; the
 * library never does.
 *
 * State directory: $TCAMWRAP_SIM_STATE, default "./tcamwrap-sim-state", made
 * absolute and created on first use. It holds the saved profile ("profile"), the
 * hardware image ("hw.img") and the key/value store ("kvs/"). Deleting the
 * directory resets the card.
 *
 * Profile: $TCAMWRAP_SIM_PROFILE names a file, or is itself the profile text:
 *   insts=2,fib=131072,acli=8192,aclo=8192,fib_kind=orvex,acli_kind=orvex,aclo_kind=orvex
 * (',' or new lines between settings, '#' starts a comment; omitted settings keep
 * the defaults shown). It is read only when the card is created; afterwards the
 * profile saved in the state directory rules.
 *
 * One client per card: the first call that changes the card (a TCAM write or
 * clear, a memory write) makes the calling process the card's client, until
 * sim_card_close() or the death of the process (a kill -9 included: the lock
 * is an fcntl record lock on "client.lock" in the state directory, which the
 * kernel drops with the process). A change from any other process is then
 * refused with EBUSY, and the simulator says once, on stderr, which process
 * holds the card. A forked child is a process of its own: it does not inherit
 * its parent's hold. Processes that only read the card are not refused; they
 * may see a change half made. A client that must not start on a held card at
 * all (one that restores from the hardware, say) calls sim_card_claim() first.
 *
 * Every call here is for one thread at a time, like the platform calls.
 */
#ifndef TCAMWRAP_SIM_CARD_H
#define TCAMWRAP_SIM_CARD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_STATE_ENV   "TCAMWRAP_SIM_STATE"
#define SIM_PROFILE_ENV "TCAMWRAP_SIM_PROFILE"
#define SIM_STATE_DEFAULT "./tcamwrap-sim-state"
#define SIM_CLIENT_LOCK_FILE "client.lock"

/* Absolute path of the state directory, created when missing; NULL (errno set)
 * when it cannot be created. The text stays valid until sim_card_close(). */
const char *sim_state_dir(void);

/* Open (creating from the profile when new) the card now; 0, or -1 with errno
 * (EINVAL: bad profile or a damaged image; other: file system errors) and the
 * reason in sim_card_error(). Every other call opens the card on first use and
 * says on stderr, once, why it cannot; sim_card_open() and sim_state_dir() say
 * nothing, so their caller reports the failure in its own words. */
int sim_card_open(void);

/* The text of the last failure to find or open the card ("" after a success);
 * valid until the next call. */
const char *sim_card_error(void);

/* Forget the card and the state directory of this process (unmaps the image).
 * The next call reads TCAMWRAP_SIM_STATE and TCAMWRAP_SIM_PROFILE again: tests
 * use this to switch to a fresh directory. The hardware content stays in the
 * image file. */
void sim_card_close(void);

/* Makes this process the card's client now; 0, or -1 with errno (EBUSY: another
 * process holds the card). *holder, when given, receives the pid of the holder
 * (this process on success; 0 when the holder could not be seen). */
int sim_card_claim(long *holder);

/* The pid of the process holding the card, 0 when none; -1 with errno. */
long sim_card_holder(void);

/* The profile in effect, as text in the profile syntax; 0, or -1 with errno. */
int sim_card_profile_text(char *buf, uint32_t size);

/* Platform-call counters: every call that passes sim_fault_should_fail() counts
 * under its name. They are per process and never reset by sim_fault_set(). */
uint64_t sim_calls_get(const char *function);   /* 0 for a name never called */
uint64_t sim_calls_total(void);
void     sim_calls_reset(void);
/* Calls fn once per counted name, in name order. */
void     sim_calls_foreach(void (*fn)(const char *function, uint64_t calls, void *ctx),
                           void *ctx);

#ifdef __cplusplus
}
#endif

#endif
