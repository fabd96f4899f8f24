// fuzz_card.hpp - what the fuzz targets share: the fuzzer's bytes as a reader,
// the small simulated cards (a state directory each), the library's start and
// tcamwrap-sim's whole-card check. A failing check aborts, so the fuzzer keeps
// the input.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "card_model.hpp"
#include "client.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "sim_kvs.h"
#include "sweep_workload.hpp"

namespace fuzz
{
using namespace tcamwrap::cli;

// The fuzzer's bytes; past their end every read gives zeros.
class Bytes
{
  public:
    Bytes(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ == end_; }
    uint8_t u8() { return p_ == end_ ? 0 : *p_++; }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) << 16 | u16(); }
    uint32_t below(uint32_t n) { return n == 0 ? 0 : u32() % n; }
    void fill(void *out, size_t n)
    {
        std::generate_n(static_cast<uint8_t *>(out), n, [&] { return u8(); });
    }
    // A table type: mostly the three real ones, sometimes anything.
    uint32_t table() { return pick(240) ? kTableTypes[last_ % 3] : u8(); }
    // An instance: 0, 1, every instance (254), or anything.
    uint8_t inst() { return pick(240) ? (last_ < 100 ? 0 : last_ < 170 ? 1 : 254) : u8(); }
    // A location or sloc: mostly inside a table of size entries, a few beyond.
    uint32_t loc(uint32_t size) { return pick(250) ? last_ % (size + 2) : u32(); }

  private:
    bool pick(uint8_t below) { return (last_ = u8()) < below; }
    const uint8_t *p_, *end_;
    uint8_t last_ = 0;
};

// The cards: all tables on the Orvex engine on two instances, and one instance
// with the egress ACL table on a tcam3 TCAM. Small, so an input runs in
// milliseconds and fills tables.
inline constexpr const char *kCards[] = {
    "insts=2,fib=32,acli=16,aclo=16",
    "insts=1,fib=32,acli=16,aclo=16,aclo_kind=tcam3",
};

inline const std::vector<uint32_t> kTables(std::begin(kTableTypes), std::end(kTableTypes));

inline void require(bool ok, const std::string &what)
{
    if (ok)
        return;
    std::fprintf(stderr, "FUZZ CHECK FAILED: %s\n", what.c_str());
    std::abort();
}

// Frees what the library allocated at its last start: it has no shutdown, and a
// process that starts it again per input would otherwise leak every table.
inline void free_library()
{
    for (auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (tcam_info *&info : per_inst) {
            if (info == nullptr)
                continue;
            std::free(info->lmt);
            std::free(info->rlmt);
            std::free(info->sloc_valid);
            std::free(info);
            info = nullptr;
        }
}

// Starts the library with all three table types, as tcamwrap-sim does.
inline int start_library(uint32_t init_type, uint32_t debug_level)
{
    static const int32_t types[] = {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO, TCAMWRAP_TBL_FIB};
    free_library();
    return tcamwrap_init(types, 3, kKvsHandle, store_key_prefix(), init_type, 0, debug_level,
                         kFacility);
}

// Opens card `which` of kCards (a state directory of this process each) and
// empties it: no TCAM entry, zero result memories, no store record.
inline void open_empty_card(uint32_t which)
{
    static std::string root;
    static int open = -1;
    if (root.empty()) {
        char tmpl[] = "/tmp/tcamwrap-fuzz-XXXXXX";
        require(::mkdtemp(tmpl) != nullptr, "mkdtemp");
        root = tmpl;
        ::setenv("TCAMWRAP_SIM_DEBUG_FILE", "/dev/null", 1);
        ::setenv("TCAMWRAP_ASSERT_FILE", "/dev/null", 1);
        ::setenv("TCAMWRAP_SYSLOG_IDENT", "none", 1);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(root, ec);
        });
    }
    which %= std::size(kCards);
    if (open != static_cast<int>(which)) {
        sim_kvs_close();
        sim_card_close();
        ::setenv(SIM_STATE_ENV, (root + "/" + std::to_string(which)).c_str(), 1);
        ::setenv(SIM_PROFILE_ENV, kCards[which], 1);
        require(sim_card_open() == 0, std::string("card: ") + sim_card_error());
        open = static_cast<int>(which);
    }
    static const std::vector<uint8_t> zeros(4096, 0); // more than a small card's memory
    for (uint8_t inst = 0; inst < sim_card_num_insts(); ++inst)
        for (uint32_t tbl : kTableTypes) {
            for (uint32_t loc = 0; loc < sim_card_table_size(tbl); ++loc)
                (void)sim_hw_tcam_clear(inst, tbl, loc);
            for (uint32_t mem : {SIM_MEM_SSRAM, SIM_MEM_FLOW, SIM_MEM_ACL_PRIO})
                (void)sim_hw_mem_write(inst, tbl, mem, 0, sim_hw_mem_words(tbl, mem), zeros.data());
        }
    require(sim_kvs_drop(kKvsHandle) == 0, "store drop");
}

// Reads every loc of the card back against model (the units of a call that
// failed part way may hold their state before or after, as a done prefix), and
// audits maps, store and hardware, tolerating the audit kinds named; with
// lookups, searches every key in the hardware too. Returns what was read.
inline CardModel check_card(const CardModel &model, const std::vector<Unit> &inflight,
                            bool lookups, const std::string &after,
                            const std::vector<std::string> &tolerated = {})
{
    Verification v;
    CardModel found;
    verify_locs(model, inflight, kTables, v, found);
    verify_audit(v);
    if (lookups)
        verify_lookups(found, kTables, v);
    std::erase_if(v.problems, [&](const Problem &p) {
        return std::find(tolerated.begin(), tolerated.end(), p.kind) != tolerated.end();
    });
    for (const Problem &p : v.problems)
        std::fprintf(stderr, "  %s: %s\n", p.kind.c_str(), p.text.c_str());
    require(v.problems.empty() && v.problem_count <= Verification::kKeptProblems,
            after + ": " + std::to_string(v.problem_count) + " problems");
    return found;
}

// What the card holds, read back through the library.
inline CardModel read_card()
{
    Verification ignored;
    CardModel found;
    verify_locs(empty_model(open_card_shape()), {}, kTables, ignored, found);
    return found;
}

// A parity request: mostly a real table with up to 11 locations named, at
// times any 53 bytes.
inline tcamwrap_parity_msg parity_request(Bytes &in)
{
    tcamwrap_parity_msg req;
    std::memset(&req, 0xA5, sizeof req);
    if (in.u8() >= 224) {
        in.fill(&req, sizeof req);
        return req;
    }
    req.tbl_type = in.table();
    req.inst = in.inst();
    req.num_entries = in.u8() % 12;
    const uint32_t size = req.tbl_type < 4 ? sim_card_table_size(req.tbl_type) : 0;
    for (uint32_t i = 0; i < 8; ++i) // a packed record: no references to its words
        req.locations[i] = in.loc(size);
    return req;
}

// Runs the correction with the reply in a record of its own or in the request
// itself. A tcam3 request goes to its handler; an Orvex reply says what failed.
inline int32_t correct_parity(Bytes &in, tcamwrap_parity_msg &req)
{
    static tcamwrap_parity_msg *handed;
    tcamwrap_parity_msg reply;
    std::memset(&reply, 0x5A, sizeof reply);
    tcamwrap_parity_msg *out = in.u8() & 1 ? &req : &reply;
    const bool orvex = req.tbl_type < 4 && is_orvex(req.tbl_type);
    handed = nullptr;
    const int32_t rc =
        tcamwrap_parity_correction(&req, out, [](tcamwrap_parity_msg *q, tcamwrap_parity_msg *) {
            handed = q;
            return 0;
        });
    require(orvex || handed == &req, "parity: a tcam3 request goes to its handler");
    require(!orvex || (rc == static_cast<int32_t>(out->error_code) && out->num_entries <= 8 &&
                       (rc == 0) == (out->status == 0)),
            "parity: reply");
    return rc;
}

// One of the two dumps: the map, or the entries from the engine or the hardware.
inline void dump(Bytes &in, tbl_params p)
{
    const uint8_t how = in.u8() % 3;
    (void)capture_dump([&](int fd) {
        if (how == 0)
            tcamwrap_lmt_dump(fd, &p);
        else
            tcamwrap_orvex_tcam_dump(fd, &p, how == 2);
    });
}

// A buffer of exactly n bytes (n may be 0): any access past what a call was
// given is a fault the sanitizer reports.
inline std::unique_ptr<uint8_t[]> buffer(size_t n) { return std::make_unique<uint8_t[]>(n); }

} // namespace fuzz
