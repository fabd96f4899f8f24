// audit.cpp - consistency audit of maps, store and hardware (see audit.hpp).
//
// Kinds of difference:
//   record        a store record under the prefix that the library never writes
//   segment-size  an LMT segment whose length is not the table's
//   journal       an overwrite journal record is present
//   sloc-range    a loc maps to an sloc beyond the table
//   sloc-shared   two locs map to the same sloc
//   sloc-empty    a loc maps to an sloc that holds no entry in hardware
//   hw-unowned    the hardware holds an entry that no loc maps to
//   rlmt          the RLMT is not the inverse of the LMT
//   store-memory  the store's LMT differs from the library's LMT in memory
//   flow-pair     two ACLI entries with ACL-priority byte 0 stand in one even/odd
//                 pair of locations, so they share one flow-result word
//   unmanaged     the library does not manage an Orvex table of the card
#include "audit.hpp"

#include <cstdio>
#include <cstring>

#include "cli_args.hpp"
#include "client.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "tcamwrap_api.h"

namespace tcamwrap::cli
{

namespace
{

constexpr uint32_t kInvalid = TCAMWRAP_INVALID_LOC;

std::string where(uint32_t inst, uint32_t tbl_type)
{
    return std::string(table_name(tbl_type)) + " inst " + std::to_string(inst);
}


Difference make(const std::string &audit, const char *kind, uint32_t inst, uint32_t tbl,
                uint32_t loc, uint32_t sloc, std::string text)
{
    Difference d;
    d.audit = audit;
    d.kind = kind;
    d.inst = inst;
    d.tbl_type = tbl;
    d.loc = loc;
    d.sloc = sloc;
    d.text = where(inst, tbl) + ": " + std::move(text);
    return d;
}

uint32_t segment_words(uint32_t size, uint32_t seg)
{
    const uint32_t full = size / kSegmentEntries;
    if (seg < full)
        return kSegmentEntries;
    return seg == full ? size % kSegmentEntries : 0;
}

const CardTable *find_table(const std::vector<CardTable> &tables, uint32_t inst, uint32_t tbl)
{
    for (const CardTable &t : tables)
        if (t.inst == inst && t.tbl_type == tbl)
            return &t;
    return nullptr;
}

// One record under the prefix: its four record bytes and its value.
void take_record(const uint8_t *rec, const kvs_buf &value, const std::vector<CardTable> &tables,
                 StoreImage &image)
{
    const uint32_t inst = rec[1], tbl = rec[2], seg = rec[3];
    const CardTable *t = find_table(tables, inst, tbl);
    if (rec[0] == kRecOverwrite && t != nullptr && value.len == 12) {
        uint32_t words[3];
        std::memcpy(words, value.data, sizeof words);
        image.journal.push_back({inst, tbl, words[0], words[1], words[2]});
        return;
    }
    if (rec[0] == kRecLmtSegment && t != nullptr) {
        const uint32_t words = segment_words(t->size, seg);
        if (value.len != words * 4 || words == 0) {
            image.malformed.push_back(
                make("persistent", "segment-size", inst, tbl, seg * kSegmentEntries, kInvalid,
                     "LMT segment " + std::to_string(seg) + " holds " + std::to_string(value.len) +
                         " bytes, the table's segment has " + std::to_string(words * 4)));
            return;
        }
        std::memcpy(image.lmt[{inst, tbl}].data() + seg * kSegmentEntries, value.data, value.len);
        return;
    }
    image.malformed.push_back(make("persistent", "record", inst, tbl, kInvalid, kInvalid,
                                   "unexpected store record type " + std::to_string(rec[0]) +
                                       " byte 3 " + std::to_string(seg) + ", " +
                                       std::to_string(value.len) + " bytes"));
}

} // namespace

Json Difference::to_json() const
{
    Json j = Json::object();
    j.set("audit", audit).set("kind", kind).set("inst", inst).set("table", table_name(tbl_type));
    j.set("loc", loc == kInvalid ? Json() : Json(loc));
    j.set("sloc", sloc == kInvalid ? Json() : Json(sloc));
    j.set("text", text);
    return j;
}

std::vector<CardTable> orvex_tables()
{
    std::vector<CardTable> tables;
    const uint32_t insts = sim_card_num_insts();
    for (uint32_t inst = 0; inst < insts; ++inst)
        for (uint32_t tbl : {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO, TCAMWRAP_TBL_FIB})
            if (sim_card_tcam_kind(tbl) == SIM_KIND_ORVEX)
                tables.push_back({inst, tbl, sim_card_table_size(tbl)});
    return tables;
}

StoreImage read_store(const std::vector<CardTable> &tables)
{
    StoreImage image;
    for (const CardTable &t : tables)
        image.lmt[{t.inst, t.tbl_type}].assign(t.size, kInvalid);

    int err = 0;
    kvs_buf *cursor = kvs_move2key(kKvsHandle, store_key_prefix(), &err);
    while (cursor != nullptr && err == 0) {
        if (cursor->len < kKeyPrefixLen ||
            std::memcmp(cursor->data, kKeyPrefix, kKeyPrefixLen) != 0)
            break;
        ++image.records;
        // The key is only valid until the next store call: keep its bytes.
        uint8_t rec[4] = {0, 0, 0, 0};
        const uint32_t rec_len = cursor->len - kKeyPrefixLen;
        std::memcpy(rec, cursor->data + kKeyPrefixLen, rec_len < 4 ? rec_len : 4);
        const kvs_buf *value = kvs_getvalue(kKvsHandle, &err);
        if (value == nullptr || err != 0)
            throw Failure(std::string("store read failed: ") + errcode2str(err));
        if (rec_len != 4)
            image.malformed.push_back(
                make("persistent", "record", rec[1], rec[2], kInvalid, kInvalid,
                     "store key with " + std::to_string(rec_len) + " bytes after the prefix"));
        else
            take_record(rec, *value, tables, image);
        cursor = kvs_move2location(kKvsHandle, KVS_MOVE_NEXT, &err);
    }
    if (err != 0)
        throw Failure(std::string("store walk failed: ") + errcode2str(err));
    return image;
}

std::vector<uint8_t> hardware_valid(uint32_t inst, uint32_t tbl_type, uint32_t size)
{
    std::vector<uint8_t> valid(size, 0);
    for (uint32_t sloc = 0; sloc < size; ++sloc)
        if (sim_hw_tcam_get(static_cast<uint8_t>(inst), tbl_type, sloc, &valid[sloc], nullptr,
                            nullptr) != 0)
            throw Failure("hardware read failed at " + where(inst, tbl_type) + " sloc " +
                          hexnum(sloc));
    for (uint8_t &v : valid)
        v = v != 0 ? 1 : 0;
    return valid;
}

void audit_lmt(const std::string &audit, const CardTable &t, const std::vector<uint32_t> &lmt,
               const std::vector<uint8_t> &hw_valid, std::vector<Difference> &out)
{
    std::vector<uint32_t> owner(t.size, kInvalid);
    for (uint32_t loc = 0; loc < t.size; ++loc) {
        const uint32_t sloc = lmt[loc];
        if (sloc == kInvalid)
            continue;
        if (sloc >= t.size) {
            out.push_back(make(audit, "sloc-range", t.inst, t.tbl_type, loc, sloc,
                               "loc " + hexnum(loc) + " maps to sloc " + hexnum(sloc) +
                                   " beyond the table (" + std::to_string(t.size) + ")"));
            continue;
        }
        if (owner[sloc] != kInvalid)
            out.push_back(make(audit, "sloc-shared", t.inst, t.tbl_type, loc, sloc,
                               "locs " + hexnum(owner[sloc]) + " and " + hexnum(loc) +
                                   " both map to sloc " + hexnum(sloc)));
        else
            owner[sloc] = loc;
        if (hw_valid[sloc] == 0)
            out.push_back(make(audit, "sloc-empty", t.inst, t.tbl_type, loc, sloc,
                               "loc " + hexnum(loc) + " maps to sloc " + hexnum(sloc) +
                                   ", which holds no entry in hardware"));
    }
    for (uint32_t sloc = 0; sloc < t.size; ++sloc)
        if (hw_valid[sloc] != 0 && owner[sloc] == kInvalid)
            out.push_back(make(audit, "hw-unowned", t.inst, t.tbl_type, kInvalid, sloc,
                               "hardware entry at sloc " + hexnum(sloc) + " is owned by no loc"));
    if (t.tbl_type == TCAMWRAP_TBL_ACLI)
        audit_flow_pairs(audit, t, hw_valid, owner, out);
}

void audit_flow_pairs(const std::string &audit, const CardTable &t,
                      const std::vector<uint8_t> &hw_valid, const std::vector<uint32_t> &owner,
                      std::vector<Difference> &out)
{
    std::vector<uint8_t> acl_prio(t.size);
    if (sim_hw_mem_read(static_cast<uint8_t>(t.inst), t.tbl_type, SIM_MEM_ACL_PRIO, 0, t.size,
                        acl_prio.data()) != 0)
        throw Failure("ACL-priority memory read failed at " + where(t.inst, t.tbl_type));
    for (uint32_t sloc = 0; sloc + 1 < t.size; sloc += 2) {
        const bool both_flow = hw_valid[sloc] != 0 && hw_valid[sloc + 1] != 0 &&
                               acl_prio[sloc] == 0 && acl_prio[sloc + 1] == 0;
        if (both_flow)
            out.push_back(make(audit, "flow-pair", t.inst, t.tbl_type, owner[sloc + 1], sloc + 1,
                               "slocs " + hexnum(sloc) + " (loc " + hexnum(owner[sloc]) + ") and " +
                                   hexnum(sloc + 1) + " (loc " + hexnum(owner[sloc + 1]) +
                                   ") both have ACL-priority 0 and share flow-result word " +
                                   hexnum(sloc / 2)));
    }
}

void audit_rlmt(const CardTable &t, const uint32_t *lmt, const uint32_t *rlmt,
                std::vector<Difference> &out)
{
    for (uint32_t loc = 0; loc < t.size; ++loc) {
        const uint32_t sloc = lmt[loc];
        if (sloc != kInvalid && sloc < t.size && rlmt[sloc] != loc)
            out.push_back(make("running", "rlmt", t.inst, t.tbl_type, loc, sloc,
                               "LMT maps loc " + hexnum(loc) + " to sloc " + hexnum(sloc) +
                                   " but RLMT of that sloc is " + hexnum(rlmt[sloc])));
    }
    for (uint32_t sloc = 0; sloc < t.size; ++sloc) {
        const uint32_t loc = rlmt[sloc];
        if (loc == kInvalid)
            continue;
        if (loc >= t.size || lmt[loc] != sloc)
            out.push_back(
                make("running", "rlmt", t.inst, t.tbl_type, loc, sloc,
                     "RLMT names loc " + hexnum(loc) + " at sloc " + hexnum(sloc) +
                         " but LMT of that loc is " +
                         (loc < t.size ? hexnum(lmt[loc]) : std::string("beyond the table"))));
    }
}

namespace
{

void audit_journal(const std::string &audit, const StoreImage &image, std::vector<Difference> &out)
{
    for (const OverwriteRecord &r : image.journal)
        out.push_back(make(audit, "journal", r.inst, r.tbl_type, r.loc, r.new_sloc,
                           "overwrite journal record present: loc " + hexnum(r.loc) + " old_sloc " +
                               hexnum(r.old_sloc) + " new_sloc " + hexnum(r.new_sloc)));
}

} // namespace

std::vector<Difference> audit_persistent()
{
    const auto tables = orvex_tables();
    const StoreImage image = read_store(tables);
    std::vector<Difference> out = image.malformed;
    audit_journal("persistent", image, out);
    for (const CardTable &t : tables)
        audit_lmt("persistent", t, image.lmt.at({t.inst, t.tbl_type}),
                  hardware_valid(t.inst, t.tbl_type, t.size), out);
    return out;
}

std::vector<Difference> audit_running()
{
    const auto tables = orvex_tables();
    const StoreImage image = read_store(tables);
    std::vector<Difference> out;
    for (Difference d : image.malformed) {
        d.audit = "running";
        out.push_back(std::move(d));
    }
    audit_journal("running", image, out);
    for (const CardTable &t : tables) {
        const tcam_info *info = managed_table(t.inst, t.tbl_type);
        if (info == nullptr || info->lmt == nullptr || info->rlmt == nullptr ||
            info->lmt_sz != t.size) {
            out.push_back(make("running", "unmanaged", t.inst, t.tbl_type, kInvalid, kInvalid,
                               "the library does not manage this Orvex table"));
            continue;
        }
        const std::vector<uint32_t> lmt(info->lmt, info->lmt + t.size);
        audit_lmt("running", t, lmt, hardware_valid(t.inst, t.tbl_type, t.size), out);
        audit_rlmt(t, info->lmt, info->rlmt, out);
        const auto &stored = image.lmt.at({t.inst, t.tbl_type});
        for (uint32_t loc = 0; loc < t.size; ++loc)
            if (stored[loc] != lmt[loc])
                out.push_back(make("running", "store-memory", t.inst, t.tbl_type, loc, lmt[loc],
                                   "store maps loc " + hexnum(loc) + " to sloc " +
                                       hexnum(stored[loc]) + ", memory to " + hexnum(lmt[loc])));
    }
    return out;
}

} // namespace tcamwrap::cli
