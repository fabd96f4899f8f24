// fuzz_diag.cpp - parity correction and dumps with fuzzed requests: a 53-byte
// parity message of any content (its locations first damaged in the hardware
// as a parity error would, when the fuzzer says so) and dumps of any table,
// instance and range, on a card whose tables are half full. A repair the
// library reports as done leaves every lookup right; nothing changes any loc.
#include "fuzz_card.hpp"
#include "orvex_sim.h"

using namespace fuzz;

namespace
{

CardModel model;
int card = -1; // the card set up, -1 when it must be set up again

void set_up(uint32_t which)
{
    open_empty_card(which);
    require(start_library(0, 3) == 0, "fresh start");
    const CardShape shape = open_card_shape();
    model = empty_model(shape);
    for (uint8_t inst = 0; inst < shape.insts; ++inst)
        for (uint32_t tbl : kTableTypes)
            for (uint32_t loc = 0; loc < shape.size[tbl]; loc += 2) {
                Entry &e = model[inst][tbl][loc];
                e.used = true;
                std::fill(e.key.begin(), e.key.end(), 0xFF); // all bits under the mask
                e.key[0] = static_cast<uint8_t>(loc);
                e.key[1] = static_cast<uint8_t>(tbl << 4 | inst);
                e.prio = static_cast<uint16_t>(loc);
                e.result = {1, 2, 3, static_cast<uint8_t>(inst), static_cast<uint8_t>(loc)};
                Op op{OpKind::write, tbl, inst, loc, 1, {e}};
                int err = 0;
                require(call_op(op, &err) == 0, "set-up write " + op_text(op));
            }
    check_card(model, {}, true, "set-up");
    card = static_cast<int>(which);
}

// A parity request whose named locations may first be damaged; whether a
// damage is left in the hardware.
bool parity(Bytes &in)
{
    tcamwrap_parity_msg req = parity_request(in);
    const bool orvex = req.tbl_type < 4 && is_orvex(req.tbl_type);
    const uint8_t damage = in.u8();
    const uint32_t named = req.num_entries < 8 ? req.num_entries : 8;
    uint32_t damaged = 0;
    for (uint32_t i = 0; orvex && i < named; ++i)
        if (damage >> i & 1)
            damaged += orvex_sim_corrupt(req.inst, req.tbl_type, req.locations[i]) == 0;
    return correct_parity(in, req) != 0 && damaged != 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes in(data, size);
    const uint32_t which = in.u8() % std::size(kCards);
    if (card != static_cast<int>(which))
        set_up(which);
    const bool damage_left = parity(in);
    for (int dumps = in.u8() % 4; dumps > 0; --dumps)
        dump(in, {in.inst(), in.table(), in.u32(), in.u32(), in.u32()});
    if (damage_left)
        card = -1; // the next input starts on a sound card
    else
        check_card(model, {}, true, "parity and dumps");
    return 0;
}
