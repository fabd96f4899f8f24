// fuzz_calls.cpp - call sequences: the fuzzer's bytes decode into public calls
// on a small simulated card (a fresh start, then restarts with restore, writes
// of 1..4 entries, overwrites, deletes, result-word writes, every read, both
// dumps, parity correction) with fuzzed instance, table, count, location and
// buffer contents; buffers are sized as each call documents. After every call
// every loc is read back against a model of what the calls did, and maps,
// store and hardware are audited.
#include "fuzz_card.hpp"

using namespace fuzz;

namespace
{

struct Run {
    Bytes &in;
    CardShape shape;
    CardModel model;
};

// One call's params; valid: a real table and instance (or all) and a count,
// so the library must carry it out for the entries inside the table.
struct Call {
    tbl_params p{};
    bool valid = false;
    uint32_t in_range = 0; // entries inside the table
};

Call decode_call(Run &r)
{
    Call c;
    c.p.tbl_type = r.in.table();
    c.p.inst = r.in.inst();
    const uint32_t size = c.p.tbl_type < 4 ? r.shape.size[c.p.tbl_type] : 0;
    c.p.start_addr = r.in.loc(size);
    c.p.num_entries = r.in.u8() % 5;
    c.valid = size != 0 && c.p.num_entries != 0 &&
              (c.p.inst < r.shape.insts || c.p.inst == TCAMWRAP_ALL_INSTS);
    c.in_range = c.p.start_addr < size ? std::min(c.p.num_entries, size - c.p.start_addr) : 0;
    return c;
}

// A write, result-word write or delete; any of its buffers may be left out.
void change(Run &r, OpKind kind)
{
    Call c = decode_call(r);
    const uint8_t leave_out = r.in.u8() >= 240 ? r.in.u8() : 0; // bits: keys, prio, ssram, acl
    Op op{kind, c.p.tbl_type, c.p.inst, c.p.start_addr, c.p.num_entries, {}};
    const uint32_t n = c.p.num_entries, kb = key_bytes(op.tbl_type), rb = TCAMWRAP_RESULT_BYTES;
    auto keys = buffer(n * kb), prios = buffer(n * 2), results = buffer(n * rb), acl = buffer(n);
    for (uint32_t i = 0; kind != OpKind::del && i < n; ++i) {
        Entry &e = op.entries.emplace_back();
        e.used = true;
        r.in.fill(&keys[i * kb], kb);
        r.in.fill(&prios[i * 2], 2);
        r.in.fill(&results[i * rb], rb);
        acl[i] = op.tbl_type == TCAMWRAP_TBL_ACLI ? r.in.u8() & 1 : 1;
        std::memcpy(e.key.data(), &keys[i * kb], kb);
        std::memcpy(&e.prio, &prios[i * 2], 2);
        std::memcpy(e.result.data(), &results[i * rb], rb);
        e.acl_prio = acl[i];
    }
    uint8_t *k = leave_out & 1 ? nullptr : keys.get();
    auto *pr = leave_out & 2 ? nullptr : reinterpret_cast<uint16_t *>(prios.get());
    uint8_t *res = leave_out & 4 ? nullptr : results.get();
    uint8_t *ap = (op.tbl_type == TCAMWRAP_TBL_ACLI) != bool(leave_out & 8) ? acl.get() : nullptr;
    const bool refused = (kind == OpKind::write && (leave_out & 15) != 0) ||
                         (kind == OpKind::ssram && res == nullptr);
    std::vector<Unit> units;
    Expect e{-1, EINVAL, 0};
    if (c.valid && !refused) {
        Op inside = op;
        inside.count = c.in_range;
        inside.entries.resize(std::min<size_t>(op.entries.size(), c.in_range));
        units = units_of(inside, r.model);
        // An Orvex delete skips locs without an entry, those beyond the table too.
        if (c.in_range == n || (kind == OpKind::del && is_orvex(op.tbl_type)))
            e = expected(inside, units);
    }
    tbl_params p = c.p;
    const int rc = kind == OpKind::write   ? tcamwrap_fwd_tcam_ssram_write(&p, k, pr, res, ap)
                   : kind == OpKind::ssram ? tcamwrap_fwd_ssram_write(&p, res)
                                           : tcamwrap_fwd_tcam_delete(&p);
    const int err = errno;
    const std::string text = op_text(op) + " rc " + std::to_string(rc) + " errno " +
                             std::to_string(err);
    // inst 255 covers no instance (its range [255, 0) is empty in 8 bits), so
    // such a call does nothing and may return 0.
    require(e.rc == 0 || rc != 0 || c.p.inst == 255, text + ": the library must refuse this call");
    // A write may find the table full; anything else fails only for bad arguments.
    require(rc == 0 || (kind == OpKind::write && err == ENOSPC) || (e.rc != 0 && err == EINVAL),
            text + ": the library must carry out this call");
    if (rc == 0)
        for (const Unit &u : units)
            apply(r.model, u, u.after);
    // A call that failed (the table full, say) leaves a done prefix of its units.
    r.model = check_card(r.model, rc == 0 ? std::vector<Unit>{} : units, false, text);
}

// One of the five reads; keys and priorities are held against the model.
void read(Run &r)
{
    Call c = decode_call(r);
    const uint8_t which = r.in.u8() % 5;
    const bool no_buffer = r.in.u8() >= 250;
    const uint32_t n = c.p.num_entries, tbl = c.p.tbl_type, kb = key_bytes(tbl);
    auto out = buffer(n * (which < 2 ? kb : which == 4 ? 1 : TCAMWRAP_RESULT_BYTES));
    auto prio = buffer(n * 2);
    uint8_t *buf = no_buffer ? nullptr : out.get();
    auto *pr = reinterpret_cast<uint16_t *>(prio.get());
    tbl_params p = c.p;
    const int rc = which == 0   ? tcamwrap_fwd_tcam_read(&p, buf)
                   : which == 1 ? tcamwrap_fwd_tcam_read_with_priority(&p, buf, pr)
                   : which == 2 ? tcamwrap_fwd_ssram_read(&p, buf)
                   : which == 3 ? tcamwrap_fwd_flow_result_read(&p, buf)
                                : tcamwrap_fwd_acl_prio_read(&p, buf);
    const int err = errno;
    const std::string text = "read " + std::to_string(which) + " of " +
                             op_text({OpKind::write, tbl, c.p.inst, c.p.start_addr, n, {}});
    require(rc != 0 || (!no_buffer && c.valid && c.in_range == n &&
                        (which < 3 || tbl == TCAMWRAP_TBL_ACLI)),
            text + ": the library must refuse this call");
    require(rc == 0 || err == EINVAL, text + ": a read fails only with EINVAL");
    if (rc == 0 && which < 2 && c.p.inst != TCAMWRAP_ALL_INSTS) {
        std::vector<uint8_t> keys(n * kb, 0xFF); // an unused loc reads as all ones
        std::vector<uint16_t> prios(n, 0);       // unused locs take no place among them
        size_t at = 0;
        for (uint32_t i = 0; i < n; ++i) {
            const Entry &e = r.model[c.p.inst][tbl][c.p.start_addr + i];
            if (e.used) {
                std::memcpy(&keys[i * kb], e.key.data(), kb);
                prios[at++] = e.prio;
            } else if (at < n) {
                prios[at] = 0xFFFF;
            }
        }
        require(std::memcmp(keys.data(), buf, keys.size()) == 0, text + ": keys");
        require(which == 0 || !is_orvex(tbl) || std::memcmp(prios.data(), pr, n * 2) == 0,
                text + ": priorities");
    }
    r.model = check_card(r.model, {}, false, text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes in(data, size);
    open_empty_card(in.u8());
    const uint32_t level = in.u8() % 8;
    require(start_library(0, level) == 0, "fresh start");
    Run r{in, open_card_shape(), {}};
    r.model = empty_model(r.shape);
    for (int calls = 0; calls < 24 && !in.empty(); ++calls) {
        const uint8_t what = in.u8() % 8;
        if (what == 0)
            require(start_library(1, level) == 0, "restart");
        else if (what <= 3)
            change(r, what < 3 ? OpKind::write : in.u8() & 1 ? OpKind::ssram : OpKind::del);
        else if (what <= 5)
            read(r);
        else if (what == 6)
            dump(in, decode_call(r).p);
        else {
            tcamwrap_parity_msg req = parity_request(in);
            (void)correct_parity(in, req);
        }
        if (what == 0 || what >= 6) // nothing changes: every loc as it was, every lookup right
            r.model = check_card(r.model, {}, true, what == 0 ? "restart" : "dump or parity");
    }
    check_card(r.model, {}, true, "last call");
    return 0;
}
