// client.cpp - start of libtcamwrap by tcamwrap-sim (see client.hpp).
#include "client.hpp"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "cli_args.hpp"
#include "output.hpp"
#include "sim_card.h"
#include "sim_dbgsvc.h"

namespace tcamwrap::cli
{

kvs_buf *store_key_prefix()
{
    static uint8_t bytes[kKeyPrefixLen];
    static kvs_buf prefix = {bytes, kKeyPrefixLen};
    std::memcpy(bytes, kKeyPrefix, kKeyPrefixLen);
    return &prefix;
}

std::string state_dir()
{
    const char *dir = sim_state_dir();
    if (dir == nullptr)
        throw Failure(sim_card_error());
    return dir;
}

void open_card()
{
    if (sim_card_open() != 0)
        throw Failure(std::string("cannot open the card: ") + sim_card_error());
}

std::string state_dir_named()
{
    const char *setting = std::getenv(SIM_STATE_ENV);
    const std::filesystem::path dir =
        setting != nullptr && *setting != '\0' ? setting : SIM_STATE_DEFAULT;
    std::error_code ec;
    const std::filesystem::path full = std::filesystem::absolute(dir, ec);
    return (ec ? dir : full).lexically_normal().string();
}

void require_card()
{
    const std::string dir = state_dir_named();
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::path(dir) / "hw.img", ec))
        throw Refused("no card in " + dir +
                      ": 'tcamwrap-sim card create' makes one (or name another with --state)");
}

void claim_card()
{
    long holder = 0;
    if (sim_card_claim(&holder) == 0)
        return;
    if (errno == EBUSY)
        throw Refused("the card in " + state_dir() + " has a client already: process " +
                      std::to_string(holder) +
                      " (one client process per card; wait for it to end)");
    throw Failure("cannot lock the card in " + state_dir() + ": " + std::strerror(errno));
}

std::string state_path(const char *name)
{
    return state_dir() + "/" + name;
}

namespace
{

bool file_exists(const std::string &path)
{
    struct stat st {
    };
    return ::stat(path.c_str(), &st) == 0;
}

} // namespace

bool card_exists()
{
    return file_exists(state_path("hw.img"));
}
bool client_started()
{
    return file_exists(state_path(kMarkerFile));
}

uint32_t saved_debug_level()
{
    const std::string path = state_path(kDebugLevelFile);
    std::ifstream in(path);
    if (!in.is_open())
        return kDefaultDebugLevel;
    std::string text, rest;
    in >> text >> rest;
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '7' && rest.empty())
        return static_cast<uint32_t>(text[0] - '0');
    throw Failure(path + " holds '" + text + (rest.empty() ? "" : " " + rest) +
                  "', not a debug level 0..7 ('tcamwrap-sim debug N' sets it again)");
}

void save_debug_level(uint32_t level)
{
    std::ofstream out(state_path(kDebugLevelFile), std::ios::trunc);
    out << level << "\n";
    if (!out)
        throw Failure("cannot write " + state_path(kDebugLevelFile));
}

namespace
{

void write_marker()
{
    std::ofstream out(state_path(kMarkerFile), std::ios::trunc);
    out << "libtcamwrap client started on this card at " << std::time(nullptr) << " by pid "
        << ::getpid() << "\n";
    if (!out)
        throw Failure("cannot write " + state_path(kMarkerFile));
}

bool contains(const std::string &text, const char *what)
{
    return text.find(what) != std::string::npos;
}

// "inst: %d tbl_type: %d restored %u entries from HW"
bool parse_restored(const std::string &line, uint32_t *inst, uint32_t *tbl, uint32_t *count)
{
    return std::sscanf(line.c_str(), "inst: %u tbl_type: %u restored %u entries", inst, tbl,
                       count) == 3;
}

} // namespace

std::vector<std::string> library_history()
{
    std::vector<std::string> lines;
    const uint32_t n = sim_hist_count(SIM_HIST_UUID, kLibraryUuid);
    for (uint32_t back = n; back-- > 0;) {
        const char *text = sim_hist_text(SIM_HIST_UUID, kLibraryUuid, back);
        if (text == nullptr)
            continue;
        std::string line(text);
        while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
            line.pop_back();
        lines.push_back(std::move(line));
    }
    return lines;
}

Repairs parse_repairs(const std::vector<std::string> &history)
{
    Repairs r;
    for (const std::string &line : history) {
        bool report = true;
        if (contains(line, "Overwrite KVS record found"))
            ++r.journal_records;
        else if (contains(line, "Changing LMT to loc"))
            ++r.lmt_switched;
        else if (contains(line, "RLMT inconsistency found"))
            ++r.orphans_deleted;
        else if (contains(line, "LMT inconsistency found"))
            ++r.lmt_invalidated;
        else if (contains(line, "invalidating the entry at old_sloc"))
            ++r.old_copies_deleted;
        else
            report = contains(line, "Corresponding LMT information") ||
                     contains(line, "Invalidating LMT entry") ||
                     contains(line, "invalidating the entry at sloc") ||
                     contains(line, "Deleting Overwrite KVS record") || line.rfind("***", 0) == 0;
        if (report)
            r.lines.push_back(line);
    }
    return r;
}

StartReport start_library(const StartOptions &options)
{
    claim_card();
    StartReport report;
    const std::string dir = state_dir();
    report.debug_level =
        options.debug_level >= 0 ? static_cast<uint32_t>(options.debug_level) : saved_debug_level();
    if (!options.debug_to_stderr &&
        sim_dbgsvc_set_debug_file((dir + "/" + kDebugLogFile).c_str()) != 0)
        throw Failure("cannot open " + dir + "/" + kDebugLogFile);
    report.init_type = client_started() ? 1u : 0u;

    static const int32_t types[] = {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO, TCAMWRAP_TBL_FIB};
    const auto start = std::chrono::steady_clock::now();
    const int rc = tcamwrap_init(types, 3, kKvsHandle, store_key_prefix(), report.init_type,
                                 /*debug_elem=*/0, report.debug_level, kFacility);
    report.seconds = seconds_since(start);
    if (rc != 0)
        throw Failure(std::string("tcamwrap_init (") +
                      (report.init_type == 0 ? "fresh start" : "restart with restore") +
                      ") failed: " + std::strerror(errno));
    if (report.init_type == 0)
        write_marker();

    const auto history = library_history();
    for (const std::string &line : history) {
        uint32_t inst = 0, tbl = 0, count = 0;
        if (parse_restored(line, &inst, &tbl, &count))
            report.restored[{inst, tbl}] = count;
    }
    report.repairs = parse_repairs(history);
    return report;
}

const tcam_info *managed_table(uint32_t inst, uint32_t tbl_type)
{
    if (inst >= TCAMWRAP_MAX_INSTS || tbl_type >= TCAMWRAP_MAX_TBLS)
        return nullptr;
    return tcamwrap_gl_db.tcam_info[inst][tbl_type];
}

} // namespace tcamwrap::cli
