// probe.hpp - what the library benchmark sees of a process from inside it:
// allocations (this program replaces malloc and operator new, so every
// allocation of the library, the simulator and the C++ runtime passes here and is
// charged to the shared object that asked for it), and the time a restart spends
// in each phase (this program interposes the store's and the search engine's
// calls that a restart makes, and forwards them to the simulator).
#pragma once

#include <cstdint>

namespace tcamwrap::bench::probe
{

// Finds the shared objects once (call from main before anything is measured).
void init();

// Allocations (malloc, calloc, realloc, operator new) counted while counting is on,
// by the object that made the call.
struct Allocations {
    uint64_t library = 0;   // libtcamwrap.so
    uint64_t store = 0;     // the simulated key/value store (libkvs.so and LMDB)
    uint64_t simulator = 0; // the other simulated platform libraries
    uint64_t runtime = 0;   // anything else (mostly the C++ runtime on behalf of a caller)
    uint64_t total() const { return library + store + simulator + runtime; }
};
void count_allocations(bool on);
Allocations allocations(); // since the last reset
void reset_allocations();

// Bytes that libtcamwrap.so holds (allocated and not freed), and the most it held
// since reset_library_peak().
uint64_t library_live_bytes();
uint64_t library_peak_bytes();
void reset_library_peak();

// Seconds of a restart (tcamwrap_init with restore) by phase. The search engine's
// own work happens inside orvex_tcam_init, so engine_init holds the engine's
// restore plus the library's restore callbacks.
struct RestartPhases {
    double setup = 0;        // start-up before the first table's maps
    double maps = 0;         // allocating and clearing LMT, RLMT and sloc-valid tables
    double lmt_restore = 0;  // copying stored segments into the LMT, rebuilding the RLMT
    double engine_init = 0;  // inside orvex_tcam_init
    double reconcile = 0;    // journal check and the LMT and RLMT scans
    double store_read = 0;   // inside kvs_move2key, kvs_getvalue, kvs_move2location
    double store_write = 0;  // inside kvs_store and kvs_delete
    double engine_delete = 0; // inside orvex_tcam_delete_entry
    double total() const
    {
        return setup + maps + lmt_restore + engine_init + reconcile + store_read + store_write +
               engine_delete;
    }
};
void restart_tap_start();
RestartPhases restart_tap_stop();

} // namespace tcamwrap::bench::probe
