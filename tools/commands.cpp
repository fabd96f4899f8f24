// commands.cpp - the command table of tcamwrap-sim and the helpers its
// subcommands share.
#include "commands.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "orvex_sim.h"
#include "routes.hpp"
#include "sim_hw.h"
#include "sweep.hpp"
#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

namespace
{

const char kCardHelp[] =
    "Usage: tcamwrap-sim card create [profile options]\n"
    "       tcamwrap-sim card show\n"
    "       tcamwrap-sim card reset\n"
    "\n"
    "create  makes a new simulated card in the state directory and starts the\n"
    "        library on it (fresh start). Profile options (defaults in brackets):\n"
    "          --insts N         forwarding instances, 1 or 2 [2]\n"
    "          --fib N, --acli N, --aclo N   table sizes [131072, 8192, 8192]\n"
    "          --fib-kind K, --acli-kind K, --aclo-kind K   orvex or tcam3 [orvex]\n"
    "          --profile TEXT    a whole profile, e.g. insts=1,fib=4096\n"
    "show    starts the library (restart with restore) and prints the card: profile,\n"
    "        entries per table and instance, store records, client state.\n"
    "reset   removes the card (hardware image, store, profile, client marker) from\n"
    "        the state directory ('card create' makes a new one). The only\n"
    "        command that does not start the library.\n"
    "Every command but 'card create' and 'demo' needs an existing card.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim card create --fib 16384 --acli 2048 --aclo 2048\n"
    "  tcamwrap-sim card create --insts 1 --acli-kind tcam3\n"
    "  tcamwrap-sim card show --json\n"
    "  tcamwrap-sim card reset\n";

const char kLoadHelp[] =
    "Usage: tcamwrap-sim load [ROUTES_FILE] [--generate N] [--acl N] [--seed S]\n"
    "                         [--start LOC] [--inst 0|1|all]\n"
    "\n"
    "Programs the FIB from ROUTES_FILE (lines 'a.b.c.d/len next-hop', '#' starts a\n"
    "comment) or from N generated routes with the prefix-length mix of a public\n"
    "IPv4 table (the default route first), and with --acl N also N ingress (ACLI,\n"
    "ACL-priority bytes 0 and 1 mixed) and N egress (ACLO) ACL rules.\n"
    "Entry i of a table goes to loc start + i/2 in the lower half of the table for\n"
    "even i and in the upper half for odd i, so both banks of the search engine\n"
    "fill evenly. Priority = prefix length. --inst defaults to all.\n"
    "Prints what was written, the engine's moves and the store writes (and with\n"
    "--timings the time it took). A progress bar goes to stderr when it is a\n"
    "terminal.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim load --generate 100000 --acl 2000\n"
    "  tcamwrap-sim load routes.txt\n"
    "  tcamwrap-sim load --generate 500 --start 4096 --inst 0 --seed 7\n";

const char kWriteHelp[] =
    "Usage: tcamwrap-sim write TABLE LOC (--route P/L --next-hop A | --key HEX --prio N\n"
    "                          --result HEX) [--acl-prio 0|1] [--count N] [--inst 0|1|all]\n"
    "\n"
    "Writes entries through tcamwrap_fwd_tcam_ssram_write at LOC.. (an existing loc\n"
    "is overwritten). TABLE is fib, acli or aclo. --route builds the FIB key\n"
    "(value {04, 00000000, network}, mask {ff, ffffffff, prefix mask}, priority =\n"
    "length); with --count N the n-th entry takes the n-th following network of\n"
    "the same length. --key is value then mask in hex (18 bytes FIB, 36 ACL);\n"
    "with --count every entry gets the same key. --result is the 5-byte\n"
    "result word in hex. --acl-prio (ACLI only, default 1): 0 puts the result in\n"
    "the flow-result memory. --inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim write fib 10 --route 10.1.0.0/16 --next-hop 192.0.2.1\n"
    "  tcamwrap-sim write fib 100 --route 198.51.100.0/24 --next-hop 192.0.2.9 --count 8\n"
    "  tcamwrap-sim write acli 5 --key <72 hex digits> --prio 120 --result 0100000007 --acl-prio "
    "0\n";

const char kReadHelp[] =
    "Usage: tcamwrap-sim read TABLE LOC [--count N] [--inst 0|1|all]\n"
    "\n"
    "Reads entries back by loc: sloc (LMT), key and priority\n"
    "(tcamwrap_fwd_tcam_read_with_priority), result word (tcamwrap_fwd_ssram_read,\n"
    "or for an ACLI entry with ACL-priority byte 0 tcamwrap_fwd_flow_result_read)\n"
    "and ACL-priority byte. Unused locs are shown as unused. --inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim read fib 10\n"
    "  tcamwrap-sim read acli 0 --count 16 --inst 1 --json\n";

const char kDeleteHelp[] =
    "Usage: tcamwrap-sim delete TABLE LOC [--count N] [--inst 0|1|all]\n"
    "\n"
    "Deletes entries through tcamwrap_fwd_tcam_delete (unused locs are skipped by\n"
    "the library). --inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim delete fib 10\n"
    "  tcamwrap-sim delete aclo 0 --count 100 --inst 1\n";

const char kSsramHelp[] =
    "Usage: tcamwrap-sim ssram TABLE LOC [--result HEX | --next-hop A] [--count N]\n"
    "                          [--inst 0|1|all]\n"
    "\n"
    "With --result or --next-hop rewrites the adjacency result word of existing\n"
    "entries (tcamwrap_fwd_ssram_write); without, reads the words\n"
    "(tcamwrap_fwd_ssram_read). --inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim ssram fib 10 --next-hop 192.0.2.77\n"
    "  tcamwrap-sim ssram aclo 3 --result 0200000001 --count 4\n"
    "  tcamwrap-sim ssram fib 10\n";

const char kLookupHelp[] =
    "Usage: tcamwrap-sim lookup fib ADDRESS [--inst 0|1|all]\n"
    "       tcamwrap-sim lookup TABLE --key HEX [--inst 0|1|all]\n"
    "\n"
    "Searches the hardware as the forwarding pipeline does (highest priority,\n"
    "then lowest location) and prints the matching entry: its sloc, the loc that\n"
    "owns it (RLMT), key, priority and result word. A FIB address is searched as\n"
    "{04, 00000000, address}; --key is the value half only (9 bytes FIB, 18 ACL).\n"
    "--inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim lookup fib 10.1.2.3\n"
    "  tcamwrap-sim lookup fib 198.51.100.7 --inst all --json\n"
    "  tcamwrap-sim lookup acli --key 06c0a80101c0a80102000000000000000000\n";

const char kDumpHelp[] =
    "Usage: tcamwrap-sim dump lmt TABLE [--inst 0|1|all]\n"
    "       tcamwrap-sim dump tcam TABLE [--inst 0|1|all] [--hw]\n"
    "\n"
    "Runs the library's dump (tcamwrap_lmt_dump: LMT and bank utilisation;\n"
    "tcamwrap_orvex_tcam_dump: entries from the engine's copy, or with --hw from\n"
    "the hardware) into a socket and prints the text, one instance after the\n"
    "other. --inst defaults to all.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim dump lmt fib\n"
    "  tcamwrap-sim dump tcam acli --inst 1\n"
    "  tcamwrap-sim dump tcam fib --hw\n";

const char kHistoryHelp[] =
    "Usage: tcamwrap-sim history\n"
    "\n"
    "Shows the library's history (tcamwrap_show_history, each event printed by\n"
    "tcamwrap_hist_print_event): the traces of this client process, that is of its\n"
    "start-up and restart reconciliation, at the debug level in effect (see\n"
    "'debug'; --debug N for this run only).\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim history\n"
    "  tcamwrap-sim history --debug 7\n"
    "  tcamwrap-sim history --json\n";

const char kDebugHelp[] =
    "Usage: tcamwrap-sim debug [LEVEL]\n"
    "\n"
    "Shows or sets (0..7) the debug level that every later command of this card\n"
    "passes to tcamwrap_init (default 3: errors and reconciliation reports; 7:\n"
    "every entry). The library's debug output goes to tcamwrap-sim.debug.log in\n"
    "the state directory, or to stderr with --verbose.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim debug\n"
    "  tcamwrap-sim debug 7\n";

const char kParityHelp[] =
    "Usage: tcamwrap-sim parity TABLE LOC... [--inst 0|1|all] [--sloc]\n"
    "\n"
    "Damages the hardware entries of up to 8 locs as a parity error would (one\n"
    "value bit flips), reports their physical locations to\n"
    "tcamwrap_parity_correction, prints the reply and whether each entry is back.\n"
    "--sloc takes physical locations instead of locs; an empty one is reported\n"
    "without damage, which the engine cannot repair. Exit 1 when any location\n"
    "stayed unrepaired. --inst defaults to all: one report per instance.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim parity fib 10\n"
    "  tcamwrap-sim parity acli 0 1 2 --inst 1\n"
    "  tcamwrap-sim parity fib 7 9 --sloc\n";

const char kCheckHelp[] =
    "Usage: tcamwrap-sim check\n"
    "\n"
    "Audits every Orvex table twice. First as a restarting client finds it, before\n"
    "the library starts: the store's LMT segments against the hardware (every\n"
    "mapped sloc holds an entry, no sloc mapped twice, every hardware entry owned)\n"
    "and no overwrite journal record. Then it starts the library (restart with\n"
    "restore, which reconciles) and audits the LMT and RLMT in memory: inverse to\n"
    "each other, the same checks against the hardware, equal to the store. Prints\n"
    "every difference and what the restart repaired; exit 1 when there is any\n"
    "difference.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim check\n"
    "  tcamwrap-sim check --json\n";

const char kDemoHelp[] =
    "Usage: tcamwrap-sim demo [--routes N] [--acl N] [--seed S] [--crash POINT[:N]]\n"
    "                         [--storm N]\n"
    "\n"
    "The warm-restart scenario on a fresh card with two instances (a new temporary\n"
    "state directory unless TCAMWRAP_SIM_STATE or --state names an empty one):\n"
    "  1. a client process loads N generated routes [100000] on both instances, N\n"
    "     ingress and N egress ACL rules [2000], changes next hops, moves a share of\n"
    "     routes to new prefixes (overwrites) and deletes some;\n"
    "  2. a second client restarts with restore and runs an overwrite storm [up to\n"
    "     20000 overwrites] until the fault injector kills it at a random camindex\n"
    "     callback point (PRE_ADD, POST_ADD, PRE_DEL, POST_DEL, PRE_MOVE) and count;\n"
    "     --crash chooses them (POST_MOVE too, or any point of the injector);\n"
    "  3. a third client restarts with restore, reconciles, and verifies every loc\n"
    "     of every table and instance against the demo's own model (the one loc\n"
    "     overwritten at the crash may hold its old or its new entry) and every\n"
    "     route's lookup in the hardware (longest prefix match on its network);\n"
    "  4. the store and the hardware are audited as 'check' does.\n"
    "Prints entries per table, engine moves, store writes, time per phase (in the\n"
    "JSON report only with --timings), the crash point, what the restart repaired,\n"
    "and the verdict; exit 1 when anything is wrong. Options are checked before\n"
    "anything is made: a refused demo leaves no card behind.\n"
    "\n"
    "Examples:\n"
    "  tcamwrap-sim demo\n"
    "  tcamwrap-sim demo --routes 20000 --acl 500 --seed 42\n"
    "  tcamwrap-sim demo --crash PRE_DEL:300 --json\n";

const char kSweepHelp[] =
    "Examples:\n"
    "  tcamwrap-sim sweep --jobs 2\n"
    "  tcamwrap-sim sweep --sample 200 --second 2 --store-sample 50 --fwd-sample 50\n"
    "  tcamwrap-sim sweep --seed 1 --ops 300 --card orvex --point 1234\n"
    "  tcamwrap-sim sweep --seed 1 --ops 300 --card orvex --store 374 --errno EIO\n"
    "\n"
    "Usage: tcamwrap-sim sweep [--seed S] [--ops N] [--card orvex|tcam3|all] [--jobs J]\n"
    "                          [--sample N] [--second N] [--store-sample N]\n"
    "                          [--eio-sample N] [--fwd-sample N] [--timings]\n"
    "       tcamwrap-sim sweep --card C (--clean | --point P [--nth N] |\n"
    "                          --store N [--errno ENOSPC|EIO] | --fwd N)\n"
    "\n"
    "A seeded workload of N public calls [300] (adds, overwrites with new keys and\n"
    "priorities, deletes, result-word writes; 1..n entries; one instance or all) on\n"
    "small fresh two-instance cards: 'orvex' (every table on the Orvex engine) and\n"
    "'tcam3' (ACLO on a tcam3 TCAM). Every step that changes the card is a crash\n"
    "point: the engine's callback steps, store writes and deletes, forwarding-driver\n"
    "writes and deletes. Runs, each on a fresh card and verified by a new client\n"
    "that restarts with restore (every loc of every table and instance against the\n"
    "model, the call in flight wholly before or after unit by unit, every key's\n"
    "hardware lookup, maps, store and hardware audited, the engine's self-check,\n"
    "no assertion reported by the library):\n"
    "  first crash     the client killed at point k: every k, or --sample N of them;\n"
    "  second crash    for --second N first points [400], the restart killed at each\n"
    "                  of its own points, then a clean restart;\n"
    "  store failure   the n-th store write or delete fails with ENOSPC (every n, or\n"
    "                  --store-sample N) and with EIO (--eio-sample N [200]); the\n"
    "                  call must fail with -1 ENOSPC, its locs keep their old or new\n"
    "                  state or are lost (reported), nothing else changes;\n"
    "  fwd failure     the n-th forwarding-driver write fails once with EIO (every n,\n"
    "                  or --fwd-sample N).\n"
    "A sample N is spread evenly; 'all' takes every point, 0 none. A tcam3 write\n"
    "cut between its result words and its key (the driver's order) counts as in\n"
    "flight. --jobs J runs J at once [1]. Prints the\n"
    "points, runs, verified runs, failures and time, and for each failure its class,\n"
    "locs and one command line that repeats that run; exit 1 on any failure.\n"
    "--json: a stable report (times only with --timings).\n";

} // namespace

const std::vector<Command> &commands()
{
    const uint64_t entries = SIM_MAX_ENTRIES;
    static const std::vector<Command> list = {
        {"card",
         "create, show or reset the simulated card",
         kCardHelp,
         {choice_option("insts", {"1", "2"}), count_option("fib", entries),
          count_option("acli", entries), count_option("aclo", entries),
          choice_option("fib-kind", {"orvex", "tcam3"}),
          choice_option("acli-kind", {"orvex", "tcam3"}),
          choice_option("aclo-kind", {"orvex", "tcam3"}),
          text_option("profile", "profile settings, e.g. insts=1,fib=4096")},
         {{"profile", "insts"}, {"profile", "fib"}, {"profile", "acli"}, {"profile", "aclo"},
          {"profile", "fib-kind"}, {"profile", "acli-kind"}, {"profile", "aclo-kind"}},
         CardUse::Own,
         cmd_card},
        {"load",
         "program a FIB from a routes file or generated routes, and ACL rules",
         kLoadHelp,
         {count_option("generate", 2 * entries), count_option("acl", 2 * entries),
          number_option("seed", UINT64_MAX), number_option("start", entries - 1), inst_option()},
         {},
         CardUse::Existing,
         cmd_load},
        {"write",
         "write entries by table, instance and loc",
         kWriteHelp,
         {text_option("route", "a prefix a.b.c.d/len"),
          text_option("next-hop", "an IPv4 address a.b.c.d"),
          text_option("key", "value then mask in hex"), number_option("prio", 0xFFFF),
          text_option("result", "the 5-byte result word as 10 hex digits"),
          choice_option("acl-prio", {"0", "1"}), count_option("count", entries), inst_option()},
         {{"route", "key"}, {"route", "prio"}, {"next-hop", "result"}},
         CardUse::Existing,
         cmd_write},
        {"read",
         "read entries back by loc",
         kReadHelp,
         {count_option("count", entries), inst_option()},
         {},
         CardUse::Existing,
         cmd_read},
        {"delete",
         "delete entries by loc",
         kDeleteHelp,
         {count_option("count", entries), inst_option()},
         {},
         CardUse::Existing,
         cmd_delete},
        {"ssram",
         "rewrite or read result words by loc",
         kSsramHelp,
         {text_option("result", "the 5-byte result word as 10 hex digits"),
          text_option("next-hop", "an IPv4 address a.b.c.d"), count_option("count", entries),
          inst_option()},
         {{"result", "next-hop"}},
         CardUse::Existing,
         cmd_ssram},
        {"lookup",
         "search the hardware for a key or an address",
         kLookupHelp,
         {text_option("key", "the value half of a key in hex"), inst_option()},
         {},
         CardUse::Existing,
         cmd_lookup},
        {"dump",
         "the library's LMT or TCAM dump",
         kDumpHelp,
         {inst_option(), flag_option("hw")},
         {},
         CardUse::Existing,
         cmd_dump},
        {"history",
         "the library's history of this client process",
         kHistoryHelp,
         {},
         {},
         CardUse::Existing,
         cmd_history},
        {"debug", "show or set the debug level", kDebugHelp, {}, {}, CardUse::Existing, cmd_debug},
        {"parity",
         "inject parity errors and repair them through the library",
         kParityHelp,
         {inst_option(), flag_option("sloc")},
         {},
         CardUse::Existing,
         cmd_parity},
        {"check",
         "audit LMT, RLMT, store and hardware against each other",
         kCheckHelp,
         {},
         {},
         CardUse::Existing,
         cmd_check},
        {"demo",
         "the warm-restart demo on a fresh card",
         kDemoHelp,
         {count_option("routes", entries), number_option("acl", entries),
          number_option("seed", UINT64_MAX), text_option("crash", crash_points_accepted()),
          count_option("storm", 10000000)},
         {},
         CardUse::Fresh,
         cmd_demo},
        {"sweep",
         "crash and fault sweep: every crash point, every failing store and driver write",
         kSweepHelp,
         sweep_options(),
         sweep_exclusive(),
         CardUse::Fresh,
         cmd_sweep},
    };
    return list;
}

const Command *find_command(const std::string &name)
{
    for (const Command &c : commands())
        if (name == c.name)
            return &c;
    return nullptr;
}

StartReport start_client(const Args &args)
{
    StartOptions options;
    if (auto level = args.number("debug"))
        options.debug_level = static_cast<int>(*level);
    options.debug_to_stderr = args.has("verbose");
    open_card();
    return start_library(options);
}

std::string start_summary(const StartReport &report)
{
    std::string text = report.init_type == 0 ? "fresh start" : "restart with restore";
    if (report.init_type != 0) {
        uint64_t restored = 0;
        for (const auto &[table, n] : report.restored)
            restored += n;
        text += ": " + std::to_string(restored) + " entries restored from hardware, ";
        text += report.repairs.total() == 0 ? std::string("nothing to repair")
                                            : std::to_string(report.repairs.total()) + " repairs";
    }
    return text;
}

Json start_json(const StartReport &report)
{
    Json j = Json::object();
    j.set("init_type", report.init_type).set("debug_level", report.debug_level);
    Json restored = Json::array();
    for (const auto &[table, n] : report.restored)
        restored.push(Json::object()
                          .set("inst", table.first)
                          .set("table", table_name(table.second))
                          .set("entries", n));
    j.set("restored", std::move(restored));
    Json lines = Json::array();
    for (const std::string &l : report.repairs.lines)
        lines.push(l);
    j.set("repairs", Json::object()
                         .set("journal_records", report.repairs.journal_records)
                         .set("lmt_switched", report.repairs.lmt_switched)
                         .set("lmt_invalidated", report.repairs.lmt_invalidated)
                         .set("orphans_deleted", report.repairs.orphans_deleted)
                         .set("old_copies_deleted", report.repairs.old_copies_deleted)
                         .set("lines", std::move(lines)));
    j.set("seconds", report.seconds);
    return j;
}

uint32_t table_size(uint32_t tbl_type)
{
    return sim_card_table_size(tbl_type);
}

bool is_orvex(uint32_t tbl_type)
{
    return sim_card_tcam_kind(tbl_type) == SIM_KIND_ORVEX;
}

std::vector<uint8_t> instances_of(uint8_t inst)
{
    const uint32_t n = sim_card_num_insts();
    std::vector<uint8_t> out;
    if (inst == TCAMWRAP_ALL_INSTS) {
        for (uint32_t i = 0; i < n; ++i)
            out.push_back(static_cast<uint8_t>(i));
    } else if (inst < n) {
        out.push_back(inst);
    } else {
        throw Refused("--inst " + std::to_string(inst) + ": the card has " + std::to_string(n) +
                      " instance(s): give " + (n == 1 ? "0 or all" : "0, 1 or all"));
    }
    return out;
}

void check_range(uint32_t tbl_type, uint64_t loc, uint64_t count)
{
    const uint32_t size = table_size(tbl_type);
    if (count == 0)
        throw Refused("--count '0': give a whole number from 1");
    if (loc + count > size)
        throw Refused(std::string("locs ") + std::to_string(loc) + ".." +
                         std::to_string(loc + count - 1) + " are beyond the " +
                         table_name(tbl_type) + " table (" + std::to_string(size) + " entries)");
}

std::string errno_text(int err)
{
    return std::strerror(err);
}

void write_entries(uint32_t tbl_type, uint8_t inst, uint32_t loc,
                   const std::vector<EntrySpec> &entries)
{
    if (entries.empty())
        return;
    const std::size_t key_bytes = entries.front().key.size();
    std::vector<uint8_t> keys, results, acl_prios;
    std::vector<uint16_t> prios;
    for (const EntrySpec &e : entries) {
        keys.insert(keys.end(), e.key.begin(), e.key.end());
        prios.push_back(e.prio);
        results.insert(results.end(), e.result.begin(), e.result.end());
        acl_prios.push_back(e.acl_prio);
    }
    if (keys.size() != key_bytes * entries.size())
        throw Failure("entries of one write must have keys of one width");
    tbl_params p{};
    p.inst = inst;
    p.tbl_type = tbl_type;
    p.num_entries = static_cast<uint32_t>(entries.size());
    p.start_addr = loc;
    const int rc =
        tcamwrap_fwd_tcam_ssram_write(&p, keys.data(), prios.data(), results.data(),
                                      tbl_type == TCAMWRAP_TBL_ACLI ? acl_prios.data() : nullptr);
    if (rc != 0)
        throw Failure(std::string("tcamwrap_fwd_tcam_ssram_write of ") + table_name(tbl_type) +
                      " locs " + std::to_string(loc) + ".." +
                      std::to_string(loc + entries.size() - 1) + " failed: " + errno_text(errno));
}

// Writes entry i at spread_loc(i): runs of consecutive locs in each half.
void write_spread(uint32_t tbl_type, uint8_t inst, const std::vector<EntrySpec> &entries,
                  uint32_t start, Progress &progress, uint64_t &done)
{
    constexpr std::size_t kChunk = 256;
    const uint32_t size = table_size(tbl_type);
    std::vector<EntrySpec> half[2];
    for (std::size_t i = 0; i < entries.size(); ++i)
        half[i % 2].push_back(entries[i]);
    std::size_t pos[2] = {0, 0};
    while (pos[0] < half[0].size() || pos[1] < half[1].size()) {
        for (std::size_t h = 0; h < 2; ++h) {
            const std::size_t n = std::min(kChunk, half[h].size() - pos[h]);
            if (n == 0)
                continue;
            const std::vector<EntrySpec> chunk(half[h].begin() + static_cast<long>(pos[h]),
                                               half[h].begin() + static_cast<long>(pos[h] + n));
            write_entries(tbl_type, inst, spread_loc(2 * pos[h] + h, size, start), chunk);
            pos[h] += n;
            progress.update(done += n);
        }
    }
}

uint64_t engine_moves()
{
    uint64_t moves = 0;
    const uint32_t insts = sim_card_num_insts();
    for (uint32_t inst = 0; inst < insts; ++inst)
        for (uint32_t tbl : {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO, TCAMWRAP_TBL_FIB}) {
            orvex_sim_counters c{};
            if (is_orvex(tbl) && orvex_sim_counters_get(static_cast<uint8_t>(inst), tbl, &c) == 0)
                moves += c.moves;
        }
    return moves;
}

std::string capture_dump(const std::function<void(int fd)> &produce)
{
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        throw Failure("socketpair failed: " + errno_text(errno));
    std::string text;
    // The library sends from this thread; a large dump would fill the socket,
    // so another thread drains it meanwhile.
    std::thread reader([&text, fd = sv[1]] {
        char buf[65536];
        for (;;) {
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n <= 0)
                break;
            for (ssize_t i = 0; i < n; ++i)
                if (buf[i] != '\0')
                    text += buf[i];
        }
    });
    produce(sv[0]);
    ::shutdown(sv[0], SHUT_WR);
    reader.join();
    ::close(sv[0]);
    ::close(sv[1]);
    return text;
}

void emit(const Args &args, const Json &json, const std::string &text)
{
    if (args.has("json") && !args.has("timings")) {
        // Wall-clock seconds differ from run to run; without --timings two runs
        // of the same command on the same card print the same report.
        Json same = json;
        same.drop("seconds");
        std::printf("%s\n", same.dump().c_str());
    } else if (args.has("json"))
        std::printf("%s\n", json.dump().c_str());
    else
        std::fputs(text.c_str(), stdout);
}

} // namespace tcamwrap::cli
