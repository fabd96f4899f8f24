// cmd_card.cpp - 'tcamwrap-sim card create|show|reset'.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "commands.hpp"
#include "profile.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "sim_kvs.h"

namespace tcamwrap::cli
{

namespace
{

const char *const kProfileOptions[] = {"insts",    "fib",       "acli",     "aclo",
                                       "fib-kind", "acli-kind", "aclo-kind"};

// The profile text of the options (each value already checked), checked as a
// whole by the simulator's own parser so that its complaint names the option.
std::string profile_from_options(const Args &args)
{
    if (!args.has("profile") && std::none_of(std::begin(kProfileOptions), std::end(kProfileOptions),
                                             [&](const char *o) { return args.has(o); })) {
        sim::Profile p;
        if (auto err = sim::profile_from_setting(std::getenv(SIM_PROFILE_ENV), p); !err.empty())
            throw Refused(std::string(SIM_PROFILE_ENV) + ": " + err);
        return {};
    }
    if (auto whole = args.value("profile")) {
        sim::Profile p;
        if (auto err = sim::parse_profile(*whole, p); !err.empty())
            args.def("profile").refuse(*whole, err);
        return *whole;
    }
    std::string text;
    for (const char *option : kProfileOptions)
        if (auto v = args.value(option)) {
            std::string setting = option;
            std::replace(setting.begin(), setting.end(), '-', '_');
            text += (text.empty() ? "" : ",") + setting + "=" + *v;
        }
    return text;
}

// A fill bar: '#' for the share of used locations.
std::string fill_bar(uint32_t used, uint32_t size)
{
    constexpr uint32_t kWidth = 20;
    const uint32_t filled =
        size == 0 ? 0 : static_cast<uint32_t>((uint64_t{used} * kWidth + size - 1) / size);
    std::string bar(filled, '#');
    bar.resize(kWidth, '.');
    char pct[16];
    std::snprintf(pct, sizeof pct, " %3u%%",
                  size == 0 ? 0u : static_cast<unsigned>(uint64_t{used} * 100 / size));
    return "[" + bar + "]" + pct;
}

Json card_json(const StartReport &start)
{
    Json j = Json::object();
    char profile[512] = "";
    (void)sim_card_profile_text(profile, sizeof profile);
    j.set("state_dir", state_dir()).set("profile", std::string(profile));
    j.set("instances", sim_card_num_insts());
    Json tables = Json::array();
    for (uint32_t tbl : {TCAMWRAP_TBL_FIB, TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO}) {
        Json t = Json::object();
        t.set("table", table_name(tbl)).set("kind", is_orvex(tbl) ? "orvex" : "tcam3");
        t.set("size", table_size(tbl));
        Json per_inst = Json::array();
        for (uint8_t inst : instances_of(TCAMWRAP_ALL_INSTS)) {
            Json i = Json::object();
            i.set("inst", inst).set("hw_entries", sim_hw_tcam_count(inst, tbl));
            if (const tcam_info *info = managed_table(inst, tbl)) {
                uint32_t mapped = 0;
                for (uint32_t loc = 0; loc < info->lmt_sz; ++loc)
                    mapped += info->lmt[loc] != TCAMWRAP_INVALID_LOC ? 1 : 0;
                i.set("mapped_locs", mapped);
            }
            per_inst.push(std::move(i));
        }
        t.set("instances", std::move(per_inst));
        tables.push(std::move(t));
    }
    j.set("tables", std::move(tables));
    uint64_t records = 0;
    j.set("store",
          Json::object()
              .set("handle", kKvsHandle)
              .set("key_prefix", kKeyPrefix)
              .set("records", sim_kvs_count(kKvsHandle, &records) == 0 ? Json(records) : Json()));
    j.set("start", start_json(start));
    return j;
}

std::string card_text(const StartReport &start)
{
    std::string out;
    char profile[512] = "";
    (void)sim_card_profile_text(profile, sizeof profile);
    out += "state directory: " + state_dir() + "\n";
    out += "profile:         " + std::string(profile) + "\n";
    out += "client start:    " + start_summary(start) + "\n";
    uint64_t records = 0;
    out += "store:           handle " + std::to_string(kKvsHandle) + ", prefix \"" + kKeyPrefix +
           "\", " +
           (sim_kvs_count(kKvsHandle, &records) == 0 ? std::to_string(records) : std::string("?")) +
           " records\n\n";
    char line[160];
    std::snprintf(line, sizeof line, "%-6s %-6s %8s %5s %12s %12s  %s\n", "table", "kind", "size",
                  "inst", "hw entries", "mapped locs", "fill");
    out += line;
    for (uint32_t tbl : {TCAMWRAP_TBL_FIB, TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO})
        for (uint8_t inst : instances_of(TCAMWRAP_ALL_INSTS)) {
            std::string mapped = "-";
            if (const tcam_info *info = managed_table(inst, tbl)) {
                uint32_t n = 0;
                for (uint32_t loc = 0; loc < info->lmt_sz; ++loc)
                    n += info->lmt[loc] != TCAMWRAP_INVALID_LOC ? 1 : 0;
                mapped = std::to_string(n);
            }
            const uint32_t used = sim_hw_tcam_count(inst, tbl);
            std::snprintf(line, sizeof line, "%-6s %-6s %8u %5u %12u %12s  %s\n", table_name(tbl),
                          is_orvex(tbl) ? "orvex" : "tcam3", table_size(tbl), inst, used,
                          mapped.c_str(), fill_bar(used, table_size(tbl)).c_str());
            out += line;
        }
    return out;
}

int card_show(const Args &args, const StartReport &start)
{
    emit(args, card_json(start), card_text(start));
    return kExitOk;
}

int card_create(const Args &args)
{
    const std::string profile = profile_from_options(args);
    const std::string dir = state_dir();
    if (card_exists())
        throw Refused("a card already exists in " + dir +
                      " ('tcamwrap-sim card reset' removes it)");
    claim_card();
    if (!profile.empty())
        ::setenv(SIM_PROFILE_ENV, profile.c_str(), 1);
    open_card();
    return card_show(args, start_client(args));
}

int card_reset(const Args &args)
{
    const std::filesystem::path dir = state_dir();
    claim_card();
    sim_kvs_close();
    // Only the files of the simulator and of this tool: the directory may be
    // the user's. The client lock stays held until they are gone.
    std::error_code ec;
    for (const char *name : {"hw.img", "profile", kMarkerFile, kDebugLevelFile, kDebugLogFile})
        if (!ec)
            std::filesystem::remove(dir / name, ec);
    if (!ec)
        std::filesystem::remove_all(dir / "kvs", ec);
    sim_card_close();
    if (ec)
        throw Failure("cannot reset the card in " + dir.string() + ": " + ec.message());
    emit(args, Json::object().set("state_dir", dir.string()).set("reset", true),
         "card in " + dir.string() + " removed ('tcamwrap-sim card create' makes a new one)\n");
    return kExitOk;
}

} // namespace

int cmd_card(const Args &args)
{
    const auto &pos = args.positional();
    if (pos.empty())
        throw UsageError("say create, show or reset");
    if (pos.size() > 1)
        throw UsageError("unexpected argument '" + pos[1] + "'");
    if (pos[0] != "create" && pos[0] != "show" && pos[0] != "reset")
        throw UsageError("unknown action '" + pos[0] + "': say create, show or reset");
    if (pos[0] == "create")
        return card_create(args);
    for (const char *option : kProfileOptions)
        if (args.has(option))
            throw Refused(std::string("--") + option + " belongs to 'card create'");
    if (args.has("profile"))
        throw Refused("--profile belongs to 'card create'");
    require_card();
    claim_card();
    if (pos[0] == "show")
        return card_show(args, start_client(args));
    return card_reset(args);
}

} // namespace tcamwrap::cli
