// cmd_card.cpp - 'tcamwrap-sim card create|show|reset'.
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "commands.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "sim_kvs.h"

namespace tcamwrap::cli
{

namespace
{

std::string profile_from_options(const Args &args)
{
    if (auto whole = args.value("profile"))
        return *whole;
    std::string text;
    auto add = [&](const char *option, const char *setting) {
        if (auto v = args.value(option))
            text += std::string(text.empty() ? "" : ",") + setting + "=" + *v;
    };
    if (auto insts = args.number("insts", 2); insts && *insts == 0)
        throw UsageError("--insts: a card has 1 or 2 instances");
    add("insts", "insts");
    for (const char *t : {"fib", "acli", "aclo"}) {
        if (args.has(t))
            (void)args.number(t, SIM_MAX_ENTRIES);
        add(t, t);
    }
    add("fib-kind", "fib_kind");
    add("acli-kind", "acli_kind");
    add("aclo-kind", "aclo_kind");
    return text;
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
    std::snprintf(line, sizeof line, "%-6s %-6s %8s %5s %12s %12s\n", "table", "kind", "size",
                  "inst", "hw entries", "mapped locs");
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
            std::snprintf(line, sizeof line, "%-6s %-6s %8u %5u %12u %12s\n", table_name(tbl),
                          is_orvex(tbl) ? "orvex" : "tcam3", table_size(tbl), inst,
                          sim_hw_tcam_count(inst, tbl), mapped.c_str());
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
    const std::string dir = state_dir();
    if (card_exists())
        throw UsageError("a card already exists in " + dir +
                         " ('tcamwrap-sim card reset' removes it)");
    const std::string profile = profile_from_options(args);
    if (!profile.empty())
        ::setenv(SIM_PROFILE_ENV, profile.c_str(), 1);
    if (sim_card_open() != 0) {
        if (errno == EINVAL)
            throw UsageError("the simulator refuses the profile '" + profile + "'");
        throw Failure("cannot create the card in " + dir + ": " + errno_text(errno));
    }
    return card_show(args, start_client(args));
}

int card_reset(const Args &args)
{
    const std::filesystem::path dir = state_dir();
    sim_kvs_close();
    sim_card_close();
    // Only the files of the simulator and of this tool: the directory may be
    // the user's.
    std::error_code ec;
    for (const char *name : {"hw.img", "profile", kMarkerFile, kDebugLevelFile, kDebugLogFile})
        if (!ec)
            std::filesystem::remove(dir / name, ec);
    if (!ec)
        std::filesystem::remove_all(dir / "kvs", ec);
    if (ec)
        throw Failure("cannot reset the card in " + dir.string() + ": " + ec.message());
    emit(args, Json::object().set("state_dir", dir.string()).set("reset", true),
         "card in " + dir.string() + " removed; the next command creates a new one\n");
    return kExitOk;
}

} // namespace

int cmd_card(const Args &args)
{
    const auto &pos = args.positional();
    if (pos.empty())
        throw UsageError("card: say create, show or reset");
    if (pos.size() > 1)
        throw UsageError("card " + pos[0] + ": unexpected argument '" + pos[1] + "'");
    const bool profile_given = args.has("profile") || args.has("insts") || args.has("fib") ||
                               args.has("acli") || args.has("aclo") || args.has("fib-kind") ||
                               args.has("acli-kind") || args.has("aclo-kind");
    if (pos[0] == "create")
        return card_create(args);
    if (profile_given)
        throw UsageError("profile options belong to 'card create'");
    if (pos[0] == "show")
        return card_show(args, start_client(args));
    if (pos[0] == "reset")
        return card_reset(args);
    throw UsageError("card: unknown action '" + pos[0] + "' (create, show or reset)");
}

} // namespace tcamwrap::cli
