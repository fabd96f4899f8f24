/*
 * fake_platform.h - a recording, scriptable line-card platform for the tests.
 *
 * libtcamwrap_fake.so defines every platform symbol of tcamwrap_platform.h. A
 * test program links libtcamwrap.so and this library and drives the library
 * through its exported calls; the fake records every platform call, keeps the
 * driver's memories, the persistent store and a search engine in memory, and
 * lets the test script results and failures.
 *
 * Everything here is single-threaded, like the library. fake::reset() brings
 * the whole platform back to its initial state.
 */
#ifndef TCAMWRAP_FAKE_PLATFORM_H
#define TCAMWRAP_FAKE_PLATFORM_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tcamwrap_platform.h"

namespace fake {

using Bytes = std::vector<uint8_t>;

/* ---- call log ----------------------------------------------------------- */

/* One platform call as the callee saw it. */
struct Call {
    std::string fn;
    std::vector<uint64_t> a;   /* scalar arguments in order; pointers as addresses */
    tbl_params p{};            /* copy of the tbl_params record, when one was passed */
    std::vector<Bytes> in;     /* copies of the input buffers the callee read */
    Bytes handle;              /* engine calls: the table's callback handle at call time */
    std::string text;          /* trace sinks: the formatted text */
};

std::vector<Call> calls_of(const std::string &fn);
/* Calls whose name starts with prefix ("fwd_", "orvex_", "kvs_"). */
std::vector<Call> calls_with_prefix(const std::string &prefix);
/* Names of the calls whose name starts with one of the prefixes, in order. */
std::vector<std::string> call_names(const std::vector<std::string> &prefixes);
void clear_calls();

/* Bring the whole platform back to its initial state. */
void reset();

/* ---- failure injection -------------------------------------------------- */

/* Make calls of fn fail with result ret and errno err: every call when nth is
 * 0, otherwise only the nth call counted from now (1 = the next one). For the
 * store calls that return a pointer, ret is the error code put in *err and the
 * call returns NULL; for kvs_store / kvs_delete it is the returned code. */
void fail(const std::string &fn, int ret, int err, int nth = 0);

/* ---- card configuration ------------------------------------------------- */

struct Card {
    uint8_t num_insts = 1;
    uint32_t size[4] = {0, 1024, 1024, 1024};  /* by tbl_type: ACLI, ACLO, FIB */
    uint32_t tcam_type[3] = {1, 1, 1};         /* ACLI, ACLO, FIB; 1 = Orvex */
};
Card &card();

/* ---- forwarding driver memories ----------------------------------------- */

/* Key width in bytes (value + mask) of a table type: 18 for FIB, else 36. */
unsigned key_bytes(uint32_t tbl_type);

void set_ssram(unsigned inst, uint32_t tbl, uint32_t addr, const Bytes &word);
std::optional<Bytes> ssram(unsigned inst, uint32_t tbl, uint32_t addr);
void set_flow(unsigned inst, uint32_t tbl, uint32_t idx, const Bytes &word);
std::optional<Bytes> flow(unsigned inst, uint32_t tbl, uint32_t idx);
std::optional<uint8_t> acl_prio(unsigned inst, uint32_t tbl, uint32_t addr);

/* ---- trace sinks -------------------------------------------------------- */

struct HistEvent {          /* dbgsvc_hist_event */
    uint32_t subtype = 0;
    uint32_t len = 0;
    uint32_t elem = 0;
    std::string func;       /* name field without its trailing space */
    std::string text;       /* text up to its NUL */
    Bytes raw;              /* the len bytes of the record */
};
struct DbgOut {             /* dbgout_func */
    uint32_t a = 0, b = 0;
    const void *modname = nullptr;
    std::string func;
    std::string text;       /* the format expanded with its arguments */
};
struct LogEvent {           /* dbgsvc_his_log_event_for_uuid_inst */
    uint32_t uuid = 0, event_id = 0, a = 0, b = 0, len = 0;
    std::string text;
};
const std::vector<HistEvent> &hist_events();
const std::vector<DbgOut> &dbg_outs();
const std::vector<LogEvent> &log_events();

/* Results of the service's checks (defaults: 0 and 0). */
void set_subtype_check_result(int r);
void set_chk_int_result(int r);

/* ---- persistent key/value store ----------------------------------------- */

std::map<std::string, std::string> &store();
std::string key_str(const Bytes &b);
/* Prefix + {b0, b1, b2, b3}. */
std::string store_key(const std::string &prefix, uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3);
/* ---- search engine ------------------------------------------------------ */

struct EngineEntry {
    Bytes key;              /* caller layout: value then mask, key_bytes() long */
    uint16_t prio = 0;
    uint8_t bank = 0;
};

struct EngineTable {
    bool registered = false;
    uint32_t size = 0;
    uint32_t key_width = 0;
    orvex_validate_cb validate = nullptr;
    void *validate_handle = nullptr;
    orvex_camindex_cb camindex = nullptr;
    void *camindex_handle = nullptr;
    orvex_entry_cb restore_cb = nullptr;
    void *restore_handle = nullptr;
    std::map<uint32_t, EngineEntry> entries;   /* by sloc: what the engine holds */
};

EngineTable &engine(unsigned inst, uint32_t tbl);
/* Put an entry into the "hardware" without any callback (for restores). */
void hw_entry(unsigned inst, uint32_t tbl, uint32_t sloc, const Bytes &key, uint16_t prio,
              uint8_t bank = 0);
/* Ask the validate callback for each candidate sloc of an insert; a refused
 * candidate is skipped (no free accepted sloc: the insert fails, ENOSPC). */
void set_ask_validate(bool on);
/* Results of the validate calls made by inserts: (sloc, answer). */
const std::vector<std::pair<uint32_t, uint8_t>> &validate_answers();


struct Stats { uint32_t entries, groups, open, full, free, total; };
void set_stats(uint8_t bank, const Stats &s);

/* An entry that orvex_tcam_dump_tables reports to the walk callback. */
struct WalkEntry {
    uint32_t camindex;
    std::vector<uint32_t> value, mask;   /* least significant word first */
    uint32_t width, bank, tbl, priority;
};
void set_walk(const std::vector<WalkEntry> &entries, int result);

struct FixResult {
    int ret = 0;
    int err = 0;
    std::vector<uint32_t> unfixed;
};
void set_fix_result(const FixResult &r);

}  // namespace fake

#endif /* TCAMWRAP_FAKE_PLATFORM_H */
