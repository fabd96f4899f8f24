// cmd_diag.cpp - 'tcamwrap-sim dump|history|debug|parity|check': the library's
// diagnostics on the simulated card.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "audit.hpp"
#include "commands.hpp"
#include "orvex_sim.h"
#include "sim_card.h"
#include "sim_dbgsvc.h"
#include "sim_hw.h"

namespace tcamwrap::cli
{

namespace
{


// The reply of a tcam3 table's parity report: the client keeps no copy of its
// entries, so every location stays unrepaired.
int tcam3_parity(tcamwrap_parity_msg *request, tcamwrap_parity_msg *reply)
{
    std::memcpy(reply, request, sizeof *reply);
    reply->status = 1;
    reply->error_code = 0;
    return -1;
}

} // namespace

int cmd_dump(const Args &args)
{
    const auto &pos = args.positional();
    if (pos.empty())
        throw UsageError("say lmt or tcam");
    if (pos[0] != "lmt" && pos[0] != "tcam")
        throw Refused("unknown kind of dump '" + pos[0] + "': give lmt or tcam");
    if (pos.size() < 2)
        throw UsageError("missing TABLE");
    if (pos.size() > 2)
        throw UsageError("unexpected argument '" + pos[2] + "'");
    const uint32_t tbl = parse_table(pos[1]);
    const bool lmt = pos[0] == "lmt";
    if (lmt && args.has("hw"))
        throw Refused("--hw belongs to 'dump tcam'");
    const std::vector<uint8_t> insts = instances_of(inst_of(args));

    const StartReport started = start_client(args);
    const bool from_hw = args.has("hw");
    Json dumps = Json::array();
    std::string all_text;
    for (uint8_t inst : insts) {
        tbl_params p{};
        p.inst = inst;
        p.tbl_type = tbl;
        p.num_entries = 1;
        const std::string text = capture_dump([&](int fd) {
            if (lmt)
                tcamwrap_lmt_dump(fd, &p);
            else
                tcamwrap_orvex_tcam_dump(fd, &p, from_hw ? 1 : 0);
        });
        if (text.empty() && !is_orvex(tbl))
            throw Failure(std::string("the ") + table_name(tbl) +
                          " table is on a tcam3 TCAM: the library keeps no map to dump");
        dumps.push(Json::object().set("inst", inst).set("text", text));
        all_text += text;
    }
    emit(args,
         Json::object()
             .set("start", start_json(started))
             .set("dump", pos[0])
             .set("table", table_name(tbl))
             .set("dumps", std::move(dumps)),
         all_text);
    return kExitOk;
}

int cmd_history(const Args &args)
{
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional()[0] + "'");
    const StartReport started = start_client(args);
    if (args.has("json")) {
        Json events = Json::array();
        for (const std::string &line : library_history())
            events.push(line);
        emit(args,
             Json::object().set("start", start_json(started)).set("events", std::move(events)), "");
        return kExitOk;
    }
    std::printf("history of this client process (start-up at debug level %u)\n",
                started.debug_level);
    std::fflush(stdout);
    sim_hist_set_printer(kLibraryUuid, tcamwrap_hist_print_event);
    // The library reads word 11 of the history service's context; the simulated
    // service needs nothing else from it.
    uint32_t ctx[16] = {};
    if (tcamwrap_show_history(ctx) != 0)
        throw Failure("tcamwrap_show_history failed: " + errno_text(errno));
    std::fflush(stdout);
    return kExitOk;
}

int cmd_debug(const Args &args)
{
    const auto &pos = args.positional();
    if (pos.size() > 1)
        throw UsageError("unexpected argument '" + pos[1] + "'");
    if (pos.size() == 1) {
        const auto level = static_cast<uint32_t>(parse_number(pos[0], 0, 7, "LEVEL"));
        save_debug_level(level);
    }
    const StartReport started = start_client(args);
    // The library checks the level the same way; a refusal here is a fault.
    if (tcamwrap_set_debug_level(saved_debug_level()) != 0)
        throw Failure("tcamwrap_set_debug_level refused " + std::to_string(saved_debug_level()));
    emit(args,
         Json::object()
             .set("start", start_json(started))
             .set("debug_level", saved_debug_level())
             .set("debug_log", state_path(kDebugLogFile)),
         "debug level " + std::to_string(saved_debug_level()) + " (debug output in " +
             state_path(kDebugLogFile) + ")\n");
    return kExitOk;
}

namespace
{

struct ParityResult {
    Json json;
    std::string text;
    bool all_back = true;
};

// Damages the given locations of one instance and has the library repair them.
ParityResult parity_on(uint8_t inst, uint32_t tbl, const std::vector<uint32_t> &given,
                       bool physical)
{
    tcamwrap_parity_msg request{};
    request.hdr = 0x50415249u; // "PARI": the caller's own word, passed through
    request.inst = inst;
    request.tbl_type = tbl;
    request.num_entries = static_cast<uint32_t>(given.size());
    struct Damaged {
        uint32_t loc, sloc;
        bool damaged;
        std::vector<uint8_t> key;
        uint16_t prio;
    };
    std::vector<Damaged> damaged;
    for (std::size_t i = 0; i < given.size(); ++i) {
        uint32_t sloc = given[i];
        uint32_t loc = given[i];
        if (!physical) {
            const int32_t s = tcamwrap_lmt_get_sloc(inst, tbl, loc);
            if (s < 0)
                throw Failure(std::string(table_name(tbl)) + " loc " + hexnum(loc) +
                              " is unused: nothing to damage");
            sloc = static_cast<uint32_t>(s);
        } else if (const tcam_info *info = managed_table(inst, tbl)) {
            loc = info->rlmt[sloc];
        }
        Damaged d{loc, sloc, false, std::vector<uint8_t>(sim_key_bytes(tbl)), 0};
        uint8_t valid = 0;
        if (sim_hw_tcam_get(inst, tbl, sloc, &valid, d.key.data(), &d.prio) != 0)
            throw Failure("hardware read failed at sloc " + hexnum(sloc));
        if (valid != 0) {
            if (is_orvex(tbl)) {
                if (orvex_sim_corrupt(inst, tbl, sloc) != 0)
                    throw Failure("cannot damage sloc " + hexnum(sloc) + ": " + errno_text(errno));
            } else {
                std::vector<uint8_t> bad = d.key;
                bad[bad.size() / 2 - 1] ^= 1; // lowest value bit
                if (sim_hw_tcam_write(inst, tbl, sloc, bad.data(), d.prio) != 0)
                    throw Failure("cannot damage sloc " + hexnum(sloc) + ": " + errno_text(errno));
            }
            d.damaged = true;
        }
        request.locations[i] = sloc;
        damaged.push_back(std::move(d));
    }

    tcamwrap_parity_msg reply{};
    const int32_t rc = tcamwrap_parity_correction(&request, &reply, tcam3_parity);

    bool all_back = reply.status == 0;
    Json locations = Json::array();
    std::string text;
    for (const Damaged &d : damaged) {
        std::vector<uint8_t> now(d.key.size());
        uint16_t prio = 0;
        uint8_t valid = 0;
        (void)sim_hw_tcam_get(inst, tbl, d.sloc, &valid, now.data(), &prio);
        const bool back = d.damaged && valid != 0 && now == d.key && prio == d.prio;
        all_back = all_back && (back || !d.damaged);
        locations.push(Json::object()
                           .set("sloc", d.sloc)
                           .set("loc", d.loc == TCAMWRAP_INVALID_LOC ? Json() : Json(d.loc))
                           .set("damaged", d.damaged)
                           .set("repaired", back));
        text += "sloc " + hexnum(d.sloc) + " (loc " +
                (d.loc == TCAMWRAP_INVALID_LOC ? std::string("none") : hexnum(d.loc)) + "): " +
                (d.damaged ? (back ? "damaged, repaired" : "damaged, NOT repaired")
                           : "empty, reported without damage") +
                "\n";
    }
    Json unrepaired = Json::array();
    std::string unrepaired_text;
    for (uint32_t i = 0; i < reply.num_entries && i < 8; ++i) {
        unrepaired.push(reply.locations[i]);
        unrepaired_text += " " + hexnum(reply.locations[i]);
    }
    char line[200];
    std::snprintf(line, sizeof line,
                  "reply: status %u error_code 0x%08x unrepaired %u%s (result %d)\n", reply.status,
                  reply.error_code, reply.num_entries,
                  unrepaired_text.empty() ? "" : (":" + unrepaired_text).c_str(), rc);
    text += line;
    Json json = Json::object()
                    .set("inst", inst)
                    .set("locations", std::move(locations))
                    .set("reply", Json::object()
                                      .set("status", reply.status)
                                      .set("error_code", reply.error_code)
                                      .set("num_entries", reply.num_entries)
                                      .set("unrepaired", std::move(unrepaired)))
                    .set("result", rc);
    return {std::move(json), text, all_back};
}

} // namespace

int cmd_parity(const Args &args)
{
    const auto &pos = args.positional();
    if (pos.empty())
        throw UsageError("missing TABLE");
    const uint32_t tbl = parse_table(pos[0]);
    if (pos.size() < 2)
        throw UsageError("missing LOC");
    if (pos.size() > 9)
        throw Refused("a parity report holds at most 8 locations: give 1 to 8 LOCs");
    const std::vector<uint8_t> insts = instances_of(inst_of(args));
    const bool physical = args.has("sloc");
    std::vector<uint32_t> given;
    for (std::size_t i = 1; i < pos.size(); ++i)
        given.push_back(
            static_cast<uint32_t>(parse_number(pos[i], 0, table_size(tbl) - 1, "LOC")));

    const StartReport started = start_client(args);
    bool all_back = true;
    Json reports = Json::array();
    std::string text = start_summary(started) + "\n";
    for (uint8_t inst : insts) {
        ParityResult r = parity_on(inst, tbl, given, physical);
        all_back = all_back && r.all_back;
        reports.push(std::move(r.json));
        text += (insts.size() > 1 ? "inst " + std::to_string(inst) + ": " : "") + r.text;
    }
    emit(args,
         Json::object()
             .set("start", start_json(started))
             .set("table", table_name(tbl))
             .set("reports", std::move(reports)),
         text);
    return all_back ? kExitOk : kExitFailed;
}

int cmd_check(const Args &args)
{
    if (!args.positional().empty())
        throw UsageError("unexpected argument '" + args.positional()[0] + "'");
    // A restart reconciles: what a restarting client finds must be audited
    // before the library starts.
    (void)state_dir();
    open_card();
    const std::vector<Difference> before = audit_persistent();
    const StartReport started = start_client(args);
    const std::vector<Difference> after = audit_running();

    Json diffs = Json::array();
    std::string text;
    for (const auto *list : {&before, &after})
        for (const Difference &d : *list) {
            diffs.push(d.to_json());
            text += d.audit + ": " + d.text + "\n";
        }
    const auto tables = orvex_tables();
    text += "audited " + std::to_string(tables.size()) + " Orvex table(s) of " +
            std::to_string(sim_card_num_insts()) + " instance(s)\n";
    text += "as found (store and hardware): " +
            (before.empty() ? std::string("no difference")
                            : std::to_string(before.size()) + " difference(s)") +
            "\n";
    text += "client start: " + start_summary(started) + "\n";
    for (const std::string &l : started.repairs.lines)
        text += "  " + l + "\n";
    text += "running (LMT, RLMT, store, hardware): " +
            (after.empty() ? std::string("no difference")
                           : std::to_string(after.size()) + " difference(s)") +
            "\n";
    const bool clean = before.empty() && after.empty();
    text += clean ? "check passed\n" : "check FAILED\n";
    emit(args,
         Json::object()
             .set("tables", tables.size())
             .set("differences", std::move(diffs))
             .set("found", before.size())
             .set("running", after.size())
             .set("start", start_json(started))
             .set("passed", clean),
         text);
    return clean ? kExitOk : kExitFailed;
}

} // namespace tcamwrap::cli
