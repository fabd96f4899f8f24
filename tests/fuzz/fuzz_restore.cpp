// fuzz_restore.cpp - restart with restore on a damaged card: a few entries are
// written through the library, then the fuzzer changes what a restarting client
// finds (LMT segments and overwrite journal records of any length and value,
// unknown records under the prefix, records of other tables and prefixes, TCAM
// entries and result memories) and the library restarts. The first restart
// keeps its maps inverse to each other and inside the table; it repairs only
// the journalled overwrite when there is one, so the second restart makes maps
// and hardware agree; a third finds the same card.
#include "fuzz_card.hpp"

using namespace fuzz;

namespace
{

// Store records the library did not write and may leave where they are; a
// journal record whose loc is 0xFFFFFFFF means "no record" and stays too.
const std::vector<std::string> kForeign = {"audit:record", "audit:segment-size",
                                           "audit:store-memory", "audit:journal"};
// A restart that completes a journalled overwrite leaves the scans to the next.
const std::vector<std::string> kAfterJournal = {
    "audit:record", "audit:segment-size", "audit:store-memory", "audit:journal",
    "audit:sloc-empty", "audit:hw-unowned", "lookup"};

// A word of a stored map or journal record: unused, a small sloc, or anything.
uint32_t word(Bytes &in)
{
    const uint8_t d = in.u8();
    return d < 64 ? TCAMWRAP_INVALID_LOC : d < 224 ? d % 40 : in.u32();
}

// The client's prefix (or a neighbour of it), then the record bytes {type,
// inst, tbl_type, segment}: mostly an LMT segment or a journal record, at times
// of another type or length.
std::vector<uint8_t> record_key(Bytes &in, uint32_t &tbl)
{
    std::vector<uint8_t> key(kKeyPrefix, kKeyPrefix + kKeyPrefixLen);
    const uint8_t shape = in.u8();
    if (shape >= 240)
        key.back() = in.u8();
    const uint8_t type = in.u8();
    key.push_back(type < 200 ? kRecLmtSegment + type % 2 : type);
    key.push_back(in.u8() % 3);
    key.push_back(static_cast<uint8_t>(tbl = in.u8() % 5));
    key.push_back(in.u8() % 3);
    if (shape >= 200 && shape < 240)
        key.resize(kKeyPrefixLen + shape % 8);
    return key;
}

// A value: a whole segment of the table, a journal record, or any length.
std::vector<uint8_t> record_value(Bytes &in, uint32_t tbl)
{
    const uint8_t d = in.u8();
    const uint32_t len = d < 80 ? sim_card_table_size(tbl) * 4 : d < 160 ? 12 : in.u8();
    std::vector<uint8_t> value(len);
    for (uint32_t i = 0, w; i + 4 <= len; i += 4)
        std::memcpy(value.data() + i, &(w = word(in)), 4);
    return value;
}

// The fuzzer's change to the store or the hardware.
void damage(Bytes &in)
{
    uint32_t tbl = 0;
    std::vector<uint8_t> key = record_key(in, tbl);
    kvs_buf k{key.data(), static_cast<uint32_t>(key.size())};
    const uint8_t inst = in.u8() % 2;
    const uint32_t hw_tbl = kTableTypes[in.u8() % 3], size = sim_card_table_size(hw_tbl);
    uint8_t bytes[SIM_KEY_MAX];
    switch (in.u8() % 5) {
    case 0: {
        std::vector<uint8_t> value = record_value(in, tbl);
        kvs_buf v{value.data(), static_cast<uint32_t>(value.size())};
        (void)kvs_store(kKvsHandle, 1, &k, &v);
        break;
    }
    case 1:
        (void)kvs_delete(kKvsHandle, &k);
        break;
    case 2:
        in.fill(bytes, sizeof bytes);
        // A tcam3 TCAM is programmed with priority 0 only: its lowest match wins.
        (void)sim_hw_tcam_write(inst, hw_tbl, in.below(size), bytes,
                                is_orvex(hw_tbl) ? in.u16() : 0);
        break;
    case 3:
        (void)sim_hw_tcam_clear(inst, hw_tbl, in.below(size));
        break;
    default:
        const uint32_t mem = in.u8() % 3;
        in.fill(bytes, sizeof bytes);
        (void)sim_hw_mem_write(inst, hw_tbl, mem, in.below(sim_hw_mem_words(hw_tbl, mem)), 1,
                               bytes);
    }
}

// Entries written through the library, so the store and hardware start sound.
void load(Bytes &in, const CardShape &shape)
{
    for (uint32_t n = in.u8() % 12; n > 0; --n) {
        const uint32_t tbl = kTableTypes[in.u8() % 3];
        tbl_params p{static_cast<uint8_t>(in.u8() % shape.insts), tbl, 1,
                     in.below(shape.size[tbl]), 0};
        uint8_t key[TCAMWRAP_ACL_KEY_BYTES], ssram[TCAMWRAP_RESULT_BYTES] = {}, acl = 1;
        in.fill(key, key_bytes(tbl));
        uint16_t prio = in.u16();
        (void)tcamwrap_fwd_tcam_ssram_write(&p, key, &prio, ssram,
                                            tbl == TCAMWRAP_TBL_ACLI ? &acl : nullptr);
    }
}

std::vector<std::vector<uint32_t>> maps()
{
    std::vector<std::vector<uint32_t>> out;
    for (const auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (const tcam_info *info : per_inst)
            if (info != nullptr)
                out.emplace_back(info->lmt, info->lmt + info->lmt_sz);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes in(data, size);
    open_empty_card(in.u8());
    const uint32_t level = in.u8() % 8;
    require(start_library(0, level) == 0, "fresh start");
    const CardShape shape = open_card_shape();
    load(in, shape);
    for (int changes = 0; changes < 16 && !in.empty(); ++changes)
        damage(in);
    if (start_library(1, level) != 0)
        return 0; // a start refused is an answer; a memory fault is not
    // What a restart reconciled is read back, then held against itself: maps
    // and hardware audited, every key looked up.
    check_card(read_card(), {}, true, "restart", kAfterJournal);
    require(start_library(1, level) == 0, "second restart");
    const CardModel found = check_card(read_card(), {}, true, "second restart", kForeign);
    const auto second = maps();
    require(start_library(1, level) == 0, "third restart");
    require(maps() == second, "third restart: the maps differ from the second's");
    check_card(found, {}, true, "third restart", kForeign);
    return 0;
}
