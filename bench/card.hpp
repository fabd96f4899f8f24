// card.hpp - the simulated card under the library benchmark: its shape, the state
// directories (all under one temporary directory, removed at exit), starting and
// restarting the library on it as a client process does, and saved copies of a
// programmed card that the restart benchmarks start from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tcamwrap_api.h"

namespace tcamwrap::bench
{

inline constexpr uint32_t kStoreHandle = 1;      // the library's records
inline constexpr uint32_t kFloorStoreHandle = 2; // the floor's
inline constexpr uint32_t kTableTypes[] = {TCAMWRAP_TBL_FIB, TCAMWRAP_TBL_ACLI,
                                           TCAMWRAP_TBL_ACLO};

struct CardShape {
    uint32_t insts = 2;
    uint32_t size = 0;      // locations of each table
    bool fib_tcam3 = false; // FIB on a tcam3 TCAM, the ACL tables on Orvex
    std::string profile() const;
    uint64_t locations() const { return uint64_t{insts} * 3 * size; }
};

// A new empty directory under the benchmark's temporary directory.
std::string fresh_dir(const std::string &name);

// Point this process at the card in dir (created from shape when new), as a new
// client process would find it: the simulator forgets its open card and store.
void sim_use(const std::string &dir, const CardShape &shape);
// Forget the open card and store (the next call opens them again).
void sim_forget();

// Free what the library allocated, so that the next tcamwrap_init starts from
// nothing as in a new process (the library has no shutdown call).
void library_forget();
// tcamwrap_init of all three table types (init_type 0 fresh, 1 restore).
int library_start(uint32_t init_type);

// Locations mapped by the library, over every table it manages.
uint64_t library_mapped();
// The library's maps, table after table, for comparisons across a restart.
std::vector<uint32_t> library_maps();

// Entries in the hardware, over every table of the card.
uint64_t hw_entries(const CardShape &shape);
// The search engine's self-check of every Orvex table: "" when all hold.
std::string engine_check(const CardShape &shape);

// Copy a card's hardware image, store and profile from one state directory to
// another (the simulator is made to forget the card first).
void copy_card(const std::string &from, const std::string &to);
// Remove the hardware image (as a power cycle would) or the store.
void clear_hardware(const std::string &dir);
void clear_store(const std::string &dir);

} // namespace tcamwrap::bench
