// cmd_entries.cpp - 'tcamwrap-sim load|write|read|delete|ssram|lookup': table
// entries through the library's forwarding access calls.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>

#include "commands.hpp"
#include "routes.hpp"
#include "sim_card.h"
#include "sim_hw.h"

namespace tcamwrap::cli
{

namespace
{


uint32_t loc_argument(const Args &args, uint32_t tbl_type)
{
    if (args.positional().size() < 2)
        throw UsageError("missing LOC");
    return static_cast<uint32_t>(
        parse_number(args.positional()[1], 0, table_size(tbl_type) - 1, "LOC"));
}

uint32_t table_argument(const Args &args)
{
    if (args.positional().empty())
        throw UsageError("missing TABLE (fib, acli or aclo)");
    const uint32_t tbl = parse_table(args.positional()[0]);
    if (table_size(tbl) == 0)
        throw Failure(std::string("the card has no ") + table_name(tbl) + " table");
    return tbl;
}

void no_more_positionals(const Args &args, std::size_t n)
{
    if (args.positional().size() > n)
        throw UsageError("unexpected argument '" + args.positional()[n] + "'");
}

// TABLE LOC [--count N], as the write, read, delete and ssram commands take them.
struct LocRange {
    uint32_t tbl;
    uint32_t loc;
    uint64_t count;
};

LocRange loc_range_arguments(const Args &args)
{
    const uint32_t tbl = table_argument(args);
    const uint32_t loc = loc_argument(args, tbl);
    no_more_positionals(args, 2);
    const uint64_t count = args.number("count").value_or(1);
    check_range(tbl, loc, count);
    return {tbl, loc, count};
}

tbl_params range_params(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint64_t count)
{
    tbl_params p{};
    p.inst = inst;
    p.tbl_type = tbl_type;
    p.num_entries = static_cast<uint32_t>(count);
    p.start_addr = loc;
    return p;
}

std::string loc_prefix(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    return std::string(table_name(tbl_type)) + " inst " + std::to_string(inst) + " loc " +
           hexnum(loc) + ": ";
}

// Reads back every loc of the range on each instance, for both the JSON and the text output.
void show_entries(const std::vector<uint8_t> &insts, const LocRange &r, const char *text_prefix,
                  Json &json, std::string &text)
{
    for (uint8_t i : insts)
        for (uint32_t l = r.loc; l < r.loc + r.count; ++l) {
            const EntryView e = read_entry(i, r.tbl, l);
            json.push(entry_json(i, r.tbl, l, e));
            text += text_prefix + entry_text(i, r.tbl, l, e);
        }
}

ResultWord result_option(const Args &args, uint32_t tbl_type, bool required)
{
    if (auto text = args.value("result")) {
        std::vector<uint8_t> bytes;
        if (!parse_hex(*text, bytes) || bytes.size() != TCAMWRAP_RESULT_BYTES)
            args.def("result").refuse(*text);
        ResultWord w{};
        std::copy(bytes.begin(), bytes.end(), w.begin());
        return w;
    }
    if (auto nh = args.value("next-hop")) {
        auto addr = parse_ipv4(*nh);
        if (!addr)
            args.def("next-hop").refuse(*nh);
        return next_hop_result(*addr);
    }
    if (required)
        throw UsageError(tbl_type == TCAMWRAP_TBL_FIB ? "give --next-hop or --result"
                                                      : "give --result");
    return ResultWord{};
}

std::string inst_list(uint8_t inst)
{
    std::string out;
    for (uint8_t i : instances_of(inst))
        out += (out.empty() ? "" : ",") + std::to_string(i);
    return out;
}

std::vector<EntrySpec> route_entries(const std::vector<Route> &routes)
{
    std::vector<EntrySpec> out;
    out.reserve(routes.size());
    for (const Route &r : routes) {
        const FibKey key = fib_key(r.net, r.len);
        out.push_back(
            {{key.begin(), key.end()}, fib_priority(r.len), next_hop_result(r.next_hop), 1});
    }
    return out;
}

std::vector<EntrySpec> acl_entries(const std::vector<AclRule> &rules)
{
    std::vector<EntrySpec> out;
    out.reserve(rules.size());
    for (const AclRule &r : rules) {
        const AclKey key = acl_key(r);
        out.push_back({{key.begin(), key.end()}, r.prio, acl_result(r), r.acl_prio});
    }
    return out;
}

std::vector<Route> read_routes_file(const std::string &path)
{
    std::ifstream in(path);
    if (!in)
        throw Refused("cannot read routes file '" + path + "'");
    std::vector<Route> routes;
    PrefixSet seen;
    std::string line, error;
    for (unsigned n = 1; std::getline(in, line); ++n) {
        auto route = parse_route_line(line, &error);
        if (!route && !error.empty())
            throw Refused(path + ":" + std::to_string(n) + ": " + error);
        if (!route)
            continue;
        if (!seen.insert(route->net, route->len))
            throw Refused(path + ":" + std::to_string(n) + ": duplicate route " +
                             route_text(route->net, route->len));
        routes.push_back(*route);
    }
    return routes;
}

std::string range_text(uint32_t tbl_type, uint64_t count, uint32_t start)
{
    const uint32_t size = table_size(tbl_type);
    const uint64_t lower = (count + 1) / 2, upper = count / 2;
    std::string text = lower == 0 ? "none"
                                  : hexnum(spread_loc(0, size, start)) + ".." +
                                        hexnum(spread_loc(2 * (lower - 1), size, start));
    if (upper != 0)
        text += " and " + hexnum(spread_loc(1, size, start)) + ".." +
                hexnum(spread_loc(2 * (upper - 1) + 1, size, start));
    return text;
}

} // namespace

EntryView read_entry(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    EntryView e;
    const int32_t sloc = tcamwrap_lmt_get_sloc(inst, tbl_type, loc);
    if (is_orvex(tbl_type)) {
        if (sloc == -1)
            return e;
    } else {
        uint8_t valid = 0;
        if (sim_hw_tcam_get(inst, tbl_type, loc, &valid, nullptr, nullptr) != 0 || valid == 0)
            return e;
    }
    e.used = true;
    e.sloc = static_cast<uint32_t>(sloc);
    e.key.assign(sim_key_bytes(tbl_type), 0);
    tbl_params p = range_params(inst, tbl_type, loc, 1);
    auto fail = [&](const char *call) {
        throw Failure(std::string(call) + " of " + table_name(tbl_type) + " inst " +
                      std::to_string(inst) + " loc " + hexnum(loc) +
                      " failed: " + errno_text(errno));
    };
    if (tcamwrap_fwd_tcam_read_with_priority(&p, e.key.data(), &e.prio) != 0)
        fail("tcamwrap_fwd_tcam_read_with_priority");
    if (tbl_type == TCAMWRAP_TBL_ACLI) {
        if (tcamwrap_fwd_acl_prio_read(&p, &e.acl_prio) != 0)
            fail("tcamwrap_fwd_acl_prio_read");
        e.flow_result = e.acl_prio == 0;
    }
    if (e.flow_result) {
        if (tcamwrap_fwd_flow_result_read(&p, e.result.data()) != 0)
            fail("tcamwrap_fwd_flow_result_read");
    } else if (tcamwrap_fwd_ssram_read(&p, e.result.data()) != 0) {
        fail("tcamwrap_fwd_ssram_read");
    }
    return e;
}

Json entry_json(uint8_t inst, uint32_t tbl_type, uint32_t loc, const EntryView &e)
{
    Json j = Json::object();
    j.set("inst", inst).set("table", table_name(tbl_type)).set("loc", loc).set("used", e.used);
    if (!e.used)
        return j;
    j.set("sloc", e.sloc).set("key", hex(e.key.data(), e.key.size())).set("prio", e.prio);
    if (tbl_type == TCAMWRAP_TBL_FIB)
        if (auto r = fib_key_route(e.key.data()))
            j.set("route", route_text(r->net, r->len));
    j.set("result", hex(e.result.data(), e.result.size()));
    j.set("result_text", describe_result(tbl_type, e.result.data()));
    if (tbl_type == TCAMWRAP_TBL_ACLI)
        j.set("acl_prio", e.acl_prio).set("result_memory", e.flow_result ? "flow" : "adjacency");
    return j;
}

std::string entry_text(uint8_t inst, uint32_t tbl_type, uint32_t loc, const EntryView &e)
{
    std::string out = loc_prefix(inst, tbl_type, loc);
    if (!e.used)
        return out + "unused\n";
    out += "sloc " + hexnum(e.sloc) + " " + describe_key(tbl_type, e.key.data()) + " prio " +
           std::to_string(e.prio) + " -> " + describe_result(tbl_type, e.result.data());
    if (tbl_type == TCAMWRAP_TBL_ACLI)
        out += " (acl_prio " + std::to_string(e.acl_prio) + ", " +
               (e.flow_result ? "flow result" : "adjacency") + ")";
    return out + "\n";
}

int cmd_load(const Args &args)
{
    no_more_positionals(args, 1);
    const auto generate = args.number("generate");
    const uint64_t acl = args.number("acl").value_or(0);
    const bool from_file = !args.positional().empty();
    if (from_file && generate)
        throw Refused("ROUTES_FILE and --generate exclude each other: give one of them");
    if (!from_file && !generate && acl == 0)
        throw UsageError("nothing to load: give a routes file, --generate N or --acl N");
    const uint64_t seed = args.number("seed").value_or(std::random_device{}());
    const auto start = static_cast<uint32_t>(args.number("start").value_or(0));
    const uint8_t inst = inst_of(args);
    (void)instances_of(inst);

    std::mt19937_64 rng(seed);
    PrefixSet taken;
    std::vector<Route> routes =
        from_file ? read_routes_file(args.positional()[0])
                  : generate_routes(static_cast<uint32_t>(generate.value_or(0)), rng, taken);
    const std::vector<AclRule> acli = generate_acl(static_cast<uint32_t>(acl), true, rng);
    const std::vector<AclRule> aclo = generate_acl(static_cast<uint32_t>(acl), false, rng);
    auto check_capacity = [&](uint32_t tbl, uint64_t n) {
        if (n > spread_capacity(table_size(tbl), start))
            throw Refused(std::to_string(n) + " entries from loc " + std::to_string(start) +
                             " do not fit the " + table_name(tbl) + " table (" +
                             std::to_string(table_size(tbl)) +
                             " entries, filled from both halves)");
    };
    check_capacity(TCAMWRAP_TBL_FIB, routes.size());
    check_capacity(TCAMWRAP_TBL_ACLI, acl);
    check_capacity(TCAMWRAP_TBL_ACLO, acl);

    const StartReport started = start_client(args);
    const uint64_t stores_before = sim_calls_get("kvs_store");
    const uint64_t moves_before = engine_moves();
    const auto t0 = std::chrono::steady_clock::now();
    uint64_t done = 0;
    {
        Progress progress("loading", routes.size() + 2 * acl);
        write_spread(TCAMWRAP_TBL_FIB, inst, route_entries(routes), start, progress, done);
        write_spread(TCAMWRAP_TBL_ACLI, inst, acl_entries(acli), start, progress, done);
        write_spread(TCAMWRAP_TBL_ACLO, inst, acl_entries(aclo), start, progress, done);
    }
    const double seconds = seconds_since(t0);
    const uint64_t stores = sim_calls_get("kvs_store") - stores_before;
    const uint64_t moves = engine_moves() - moves_before;

    Json j = Json::object();
    j.set("start", start_json(started)).set("seed", seed).set("instances", inst_list(inst));
    Json loaded = Json::array();
    std::string text = start_summary(started) + "\n";
    for (auto [tbl, n] : {std::pair{TCAMWRAP_TBL_FIB, uint64_t{routes.size()}},
                          std::pair{TCAMWRAP_TBL_ACLI, acl}, std::pair{TCAMWRAP_TBL_ACLO, acl}}) {
        if (n == 0)
            continue;
        loaded.push(Json::object()
                        .set("table", table_name(tbl))
                        .set("entries", n)
                        .set("locs", range_text(tbl, n, start)));
        text += std::string(table_name(tbl)) + ": " + std::to_string(n) + " entries at locs " +
                range_text(tbl, n, start) + " on instance(s) " + inst_list(inst) + "\n";
    }
    j.set("loaded", std::move(loaded)).set("engine_moves", moves).set("store_writes", stores);
    j.set("seconds", seconds);
    char line[160];
    std::snprintf(line, sizeof line, "engine moves: %llu, store writes: %llu, %.2f s (seed %llu)\n",
                  static_cast<unsigned long long>(moves), static_cast<unsigned long long>(stores),
                  seconds, static_cast<unsigned long long>(seed));
    emit(args, j, text + line);
    return kExitOk;
}

int cmd_write(const Args &args)
{
    const LocRange range = loc_range_arguments(args);
    const auto [tbl, loc, count] = range;
    const uint8_t inst = inst_of(args);
    (void)instances_of(inst);

    uint8_t acl_prio = 1;
    if (auto v = args.value("acl-prio")) {
        if (tbl != TCAMWRAP_TBL_ACLI)
            throw Refused("--acl-prio belongs to the acli table");
        acl_prio = *v == "1" ? 1 : 0;
    }
    std::vector<EntrySpec> entries;
    if (auto route_text_arg = args.value("route")) {
        if (tbl != TCAMWRAP_TBL_FIB)
            throw Refused("--route belongs to the fib table");
        std::string error;
        auto route = parse_prefix(*route_text_arg, &error);
        if (!route)
            args.def("route").refuse(*route_text_arg, error);
        const uint64_t block = uint64_t{1} << (32 - route->len);
        if (count > 1 && uint64_t{route->net} + (count - 1) * block > 0xFFFFFFFFu)
            throw Refused("--count " + std::to_string(count) + ": " + std::to_string(count) + " networks of length " +
                             std::to_string(route->len) + " from " + *route_text_arg +
                             " run past 255.255.255.255");
        const ResultWord result = result_option(args, tbl, true);
        for (uint64_t n = 0; n < count; ++n) {
            const FibKey key = fib_key(static_cast<uint32_t>(route->net + n * block), route->len);
            entries.push_back({{key.begin(), key.end()}, fib_priority(route->len), result, 1});
        }
    } else {
        auto key_text = args.value("key");
        auto prio = args.number("prio");
        if (!key_text || !prio)
            throw UsageError(tbl == TCAMWRAP_TBL_FIB ? "give --route, or --key and --prio"
                                                     : "give --key and --prio");
        std::vector<uint8_t> key;
        if (!parse_hex(*key_text, key) || key.size() != sim_key_bytes(tbl))
            throw Refused("--key '" + *key_text + "': the " + std::string(table_name(tbl)) + " key is " +
                             std::to_string(sim_key_bytes(tbl)) +
                             " bytes (value then mask) in hex");
        const ResultWord result = result_option(args, tbl, true);
        for (uint64_t n = 0; n < count; ++n)
            entries.push_back({key, static_cast<uint16_t>(*prio), result, acl_prio});
    }

    const StartReport started = start_client(args);
    write_entries(tbl, inst, loc, entries);

    Json written = Json::array();
    std::string text = start_summary(started) + "\n";
    show_entries(instances_of(inst), range, "wrote ", written, text);
    emit(args, Json::object().set("start", start_json(started)).set("written", std::move(written)),
         text);
    return kExitOk;
}

int cmd_read(const Args &args)
{
    const LocRange range = loc_range_arguments(args);
    const uint8_t inst = inst_of(args);
    const auto insts = instances_of(inst);

    const StartReport started = start_client(args);
    Json entries = Json::array();
    std::string text;
    show_entries(insts, range, "", entries, text);
    emit(args, Json::object().set("start", start_json(started)).set("entries", std::move(entries)),
         text);
    return kExitOk;
}

int cmd_delete(const Args &args)
{
    const auto [tbl, loc, count] = loc_range_arguments(args);
    const uint8_t inst = inst_of(args);
    (void)instances_of(inst);

    const StartReport started = start_client(args);
    tbl_params p = range_params(inst, tbl, loc, count);
    const std::string locs = std::string(table_name(tbl)) + " locs " + hexnum(loc) + ".." +
                             hexnum(static_cast<uint32_t>(loc + count - 1));
    if (tcamwrap_fwd_tcam_delete(&p) != 0)
        throw Failure("tcamwrap_fwd_tcam_delete of " + locs + " failed: " + errno_text(errno));
    std::string text = start_summary(started) + "\ndeleted " + locs + " on instance(s) " +
                       inst_list(inst) + "\n";
    emit(args,
         Json::object()
             .set("start", start_json(started))
             .set("table", table_name(tbl))
             .set("loc", loc)
             .set("count", count)
             .set("instances", inst_list(inst)),
         text);
    return kExitOk;
}

int cmd_ssram(const Args &args)
{
    const auto [tbl, loc, count] = loc_range_arguments(args);
    const bool writing = args.has("result") || args.has("next-hop");
    const uint8_t inst = inst_of(args);
    const auto insts = instances_of(inst);
    const ResultWord word = result_option(args, tbl, false);

    const StartReport started = start_client(args);
    tbl_params p = range_params(inst, tbl, loc, count);
    if (writing) {
        std::vector<uint8_t> words;
        for (uint64_t n = 0; n < count; ++n)
            words.insert(words.end(), word.begin(), word.end());
        if (tcamwrap_fwd_ssram_write(&p, words.data()) != 0)
            throw Failure(std::string("tcamwrap_fwd_ssram_write of ") + table_name(tbl) +
                          " locs from " + hexnum(loc) + " failed: " + errno_text(errno));
    }
    Json out = Json::array();
    std::string text = start_summary(started) + "\n";
    for (uint8_t i : insts)
        for (uint32_t l = loc; l < loc + count; ++l) {
            tbl_params one = range_params(i, tbl, l, 1);
            ResultWord w{};
            const bool ok = tcamwrap_fwd_ssram_read(&one, w.data()) == 0;
            Json e = Json::object().set("inst", i).set("loc", l);
            std::string line = loc_prefix(i, tbl, l);
            if (ok) {
                e.set("result", hex(w.data(), w.size()))
                    .set("result_text", describe_result(tbl, w.data()));
                line += hex(w.data(), w.size()) + " (" + describe_result(tbl, w.data()) + ")";
            } else {
                e.set("error", errno_text(errno));
                line += "not readable: " + errno_text(errno);
            }
            out.push(std::move(e));
            text += (writing ? "wrote " : "") + line + "\n";
        }
    emit(args, Json::object().set("start", start_json(started)).set("words", std::move(out)), text);
    return kExitOk;
}

int cmd_lookup(const Args &args)
{
    const uint32_t tbl = table_argument(args);
    no_more_positionals(args, 2);
    std::vector<uint8_t> search;
    std::string what;
    if (args.positional().size() == 2) {
        if (tbl != TCAMWRAP_TBL_FIB)
            throw Refused("an address is looked up in the fib; ACL tables take --key");
        auto addr = parse_ipv4(args.positional()[1]);
        if (!addr)
            throw Refused("ADDRESS '" + args.positional()[1] + "': give an IPv4 address a.b.c.d");
        const FibSearch s = fib_search(*addr);
        search.assign(s.begin(), s.end());
        what = args.positional()[1];
    } else if (auto key = args.value("key")) {
        if (!parse_hex(*key, search) || search.size() != sim_key_bytes(tbl) / 2)
            throw Refused("--key '" + *key + "': the search key of " + std::string(table_name(tbl)) + " is " +
                             std::to_string(sim_key_bytes(tbl) / 2) + " bytes (value half) in hex");
        what = hex(search.data(), search.size());
    } else {
        throw UsageError(tbl == TCAMWRAP_TBL_FIB ? "give an ADDRESS or --key" : "give --key");
    }
    const uint8_t inst = inst_of(args);
    const auto insts = instances_of(inst);

    const StartReport started = start_client(args);
    Json matches = Json::array();
    std::string text;
    for (uint8_t i : insts) {
        uint32_t sloc = 0;
        ResultWord result{};
        const int rc = sim_hw_lookup_result(i, tbl, search.data(), &sloc, result.data());
        if (rc < 0)
            throw Failure("hardware lookup failed: " + errno_text(errno));
        Json m = Json::object().set("inst", i).set("search", what).set("match", rc == 1);
        std::string line =
            std::string(table_name(tbl)) + " inst " + std::to_string(i) + ": " + what;
        if (rc == 0) {
            text += line + ": no match\n";
            matches.push(std::move(m));
            continue;
        }
        std::vector<uint8_t> key(sim_key_bytes(tbl));
        uint16_t prio = 0;
        uint8_t valid = 0;
        (void)sim_hw_tcam_get(i, tbl, sloc, &valid, key.data(), &prio);
        uint32_t loc = sloc;
        if (const tcam_info *info = managed_table(i, tbl))
            loc = sloc < info->lmt_sz ? info->rlmt[sloc] : TCAMWRAP_INVALID_LOC;
        m.set("sloc", sloc).set("loc", loc == TCAMWRAP_INVALID_LOC ? Json() : Json(loc));
        m.set("key", hex(key.data(), key.size())).set("prio", prio);
        m.set("result", hex(result.data(), result.size()))
            .set("result_text", describe_result(tbl, result.data()));
        matches.push(std::move(m));
        text += line + " matches sloc " + hexnum(sloc) + " (loc " +
                (loc == TCAMWRAP_INVALID_LOC ? std::string("none") : hexnum(loc)) +
                "): " + describe_key(tbl, key.data()) + " prio " + std::to_string(prio) + " -> " +
                describe_result(tbl, result.data()) + "\n";
    }
    emit(args, Json::object().set("start", start_json(started)).set("lookups", std::move(matches)),
         text);
    return kExitOk;
}

} // namespace tcamwrap::cli
