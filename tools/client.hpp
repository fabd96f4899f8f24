// client.hpp - tcamwrap-sim as a client process of libtcamwrap on the simulated
// card: the state directory, the start of the library (fresh or restart with
// restore), its persistent-store identity, and what a restart repaired.
//
// Store identity: every record of the library lives under store handle 1 with the
// key prefix "tcamwrap-sim/" (13 bytes), followed by the library's four record
// bytes: {2, inst, tbl_type, segment} for an LMT segment, {3, inst, tbl_type, 0}
// for the overwrite journal.
//
// The state directory ($TCAMWRAP_SIM_STATE, default ./tcamwrap-sim-state) holds,
// besides the simulator's files (profile, hw.img, kvs/):
//   tcamwrap-sim.client       marker: a client has started the library on this card,
//                             so the next start is a restart with restore
//   tcamwrap-sim.debug-level  the debug level set by 'tcamwrap-sim debug N'
//   tcamwrap-sim.debug.log    the library's debug output (unless --verbose)
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

inline constexpr uint32_t kKvsHandle = 1;
inline constexpr char kKeyPrefix[] = "tcamwrap-sim/";
inline constexpr uint32_t kKeyPrefixLen = sizeof kKeyPrefix - 1;
inline constexpr uint8_t kRecLmtSegment = 2;
inline constexpr uint8_t kRecOverwrite = 3;
inline constexpr uint32_t kSegmentEntries = 1024;
inline constexpr uint32_t kFacility = 29;
inline constexpr uint32_t kDefaultDebugLevel = 3; // errors and reconciliation reports
inline constexpr uint32_t kLibraryUuid = 636;     // the library's history ring

inline constexpr char kMarkerFile[] = "tcamwrap-sim.client";
inline constexpr char kDebugLevelFile[] = "tcamwrap-sim.debug-level";
inline constexpr char kDebugLogFile[] = "tcamwrap-sim.debug.log";

// The key-prefix descriptor handed to tcamwrap_init (it must outlive the library).
kvs_buf *store_key_prefix();

// Absolute state directory, created when missing (Failure when it cannot be).
std::string state_dir();
// The state directory that TCAMWRAP_SIM_STATE names, made absolute; never created.
std::string state_dir_named();
// Refused unless the state directory holds a card: a mistyped --state, an empty
// directory or a card removed by 'card reset' must not become a new card.
void require_card();
// Opens (or, for card create and demo, creates) the card; Failure with the
// simulator's reason.
void open_card();
// Makes this process the card's one client; Refused naming the process that
// holds the card already. The hold ends with the process.
void claim_card();
std::string state_path(const char *name);
bool card_exists();    // the hardware image is there
bool client_started(); // the marker is there

// The level saved by 'debug N' (default 3); Failure when the file holds
// anything but a level 0..7.
uint32_t saved_debug_level();
void save_debug_level(uint32_t level);

struct StartOptions {
    int debug_level = -1; // -1: the saved level
    bool debug_to_stderr = false;
};

// What post-restore reconciliation did, read back from the library's history.
struct Repairs {
    uint32_t journal_records = 0;    // overwrite records found and completed
    uint32_t lmt_switched = 0;       // LMT entries moved to another sloc by the journal
    uint32_t lmt_invalidated = 0;    // locs whose sloc held nothing in hardware
    uint32_t orphans_deleted = 0;    // hardware entries that no loc owned
    uint32_t old_copies_deleted = 0; // old copies of a journalled overwrite
    std::vector<std::string> lines;  // the library's own report lines
    uint32_t total() const { return journal_records + lmt_invalidated + orphans_deleted; }
};

struct StartReport {
    uint32_t init_type = 0;
    uint32_t debug_level = 0;
    // restored entries per (inst, tbl_type), as the library reported them
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> restored;
    Repairs repairs;
    double seconds = 0;
};

// Starts the library as the card's client process does: tcamwrap_init with all
// three table types, fresh (init_type 0) when no client has started on this card
// yet, else restart with restore (1). Claims the card first (claim_card);
// Failure when tcamwrap_init fails.
StartReport start_library(const StartOptions &options);

// Reads the library's history ring (texts of this process's traces) into a
// repair summary. Needs a debug level of 3 or more at the time of the restart.
Repairs parse_repairs(const std::vector<std::string> &history);
std::vector<std::string> library_history();

// The library's table of (inst, tbl_type); nullptr when it does not manage it.
const tcam_info *managed_table(uint32_t inst, uint32_t tbl_type);

} // namespace tcamwrap::cli
