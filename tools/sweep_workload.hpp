// sweep_workload.hpp - the sweep's seeded workload: a fixed mix of public calls
// on a small card (adds, overwrites with new keys and priorities, deletes,
// result-word writes; 1..n entries; one instance or all), how each call changes
// the card model unit by unit, and how a client makes the calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "card_model.hpp"

namespace tcamwrap::cli
{

// The cards the sweep runs on: all tables on the Orvex engine, and the same
// with the egress ACL table on a tcam3 TCAM.
struct SweepCard {
    const char *name;
    const char *profile;
};
inline constexpr SweepCard kSweepCards[] = {
    {"orvex", "insts=2,fib=512,acli=256,aclo=256"},
    {"tcam3", "insts=2,fib=512,acli=256,aclo=256,aclo_kind=tcam3"},
};

enum class OpKind : uint8_t { write, ssram, del };

// One public call.
struct Op {
    OpKind kind = OpKind::write;
    uint32_t tbl_type = 0;
    uint8_t inst = 0; // 0, 1 or TCAMWRAP_ALL_INSTS
    uint32_t loc = 0;
    uint32_t count = 1;
    std::vector<Entry> entries; // write: the entries; ssram: the result words
};

struct CardShape {
    uint32_t insts = 0;
    uint32_t size[4] = {};
};

// The card as it is open in this process.
CardShape open_card_shape();
CardModel empty_model(const CardShape &shape);

std::vector<Op> make_workload(uint64_t seed, uint32_t ops, const CardShape &shape);
std::string op_text(const Op &op);

// The locs a call changes, in the order the library works them: entry by
// entry, and inside an entry instance 0 before instance 1.
std::vector<Unit> units_of(const Op &op, const CardModel &m);

// What the call returns on a card that holds the model: 0, or -1 with errno
// after `done` units (a result-word write to an unmapped Orvex loc).
struct Expect {
    int rc = 0;
    int err = 0;
    std::size_t done = 0;
};
Expect expected(const Op &op, const std::vector<Unit> &units);

void apply(CardModel &m, const Unit &u, const Entry &now);

// Makes the call through the library; its result, errno in *err.
int call_op(const Op &op, int *err);

} // namespace tcamwrap::cli
