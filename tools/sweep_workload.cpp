// sweep_workload.cpp - the sweep's workload (see sweep_workload.hpp).
#include "sweep_workload.hpp"

#include <algorithm>
#include <cerrno>
#include <random>
#include <set>

#include "sim_hw.h"

namespace tcamwrap::cli
{

CardShape open_card_shape()
{
    CardShape s;
    s.insts = sim_card_num_insts();
    for (uint32_t tbl : kTableTypes)
        s.size[tbl] = table_size(tbl);
    return s;
}

CardModel empty_model(const CardShape &shape)
{
    CardModel m(shape.insts);
    for (Model &inst : m)
        for (uint32_t tbl : kTableTypes)
            inst[tbl].assign(shape.size[tbl], Entry{});
    return m;
}

namespace
{

std::vector<uint8_t> insts_of(uint8_t inst, std::size_t insts)
{
    if (inst != TCAMWRAP_ALL_INSTS)
        return {inst};
    std::vector<uint8_t> all;
    for (std::size_t i = 0; i < insts; ++i)
        all.push_back(static_cast<uint8_t>(i));
    return all;
}

} // namespace

std::vector<Unit> units_of(const Op &op, const CardModel &m)
{
    std::vector<Unit> units;
    const std::vector<uint8_t> insts = insts_of(op.inst, m.size());
    for (uint32_t i = 0; i < op.count; ++i)
        for (uint8_t inst : insts) {
            Unit u{inst, op.tbl_type, op.loc + i, m[inst][op.tbl_type][op.loc + i], {}};
            switch (op.kind) {
            case OpKind::write:
                u.after = op.entries[i];
                break;
            case OpKind::del:
                break;
            case OpKind::ssram:
                // The adjacency word: an ACLI entry with ACL-priority 0 answers
                // with its flow-result word, which stays.
                u.after = u.before;
                if (u.before.used && (op.tbl_type != TCAMWRAP_TBL_ACLI || u.before.acl_prio != 0))
                    u.after.result = op.entries[i].result;
                break;
            }
            units.push_back(u);
        }
    return units;
}

Expect expected(const Op &op, const std::vector<Unit> &units)
{
    if (op.kind == OpKind::ssram && is_orvex(op.tbl_type))
        for (std::size_t i = 0; i < units.size(); ++i)
            if (!units[i].before.used)
                return {-1, EINVAL, i};
    return {0, 0, units.size()};
}

void apply(CardModel &m, const Unit &u, const Entry &now)
{
    m[u.inst][u.tbl_type][u.loc] = now;
}

int call_op(const Op &op, int *err)
{
    tbl_params p{};
    p.inst = op.inst;
    p.tbl_type = op.tbl_type;
    p.num_entries = op.count;
    p.start_addr = op.loc;
    std::vector<uint8_t> keys, results, acl_prios;
    std::vector<uint16_t> prios;
    for (const Entry &e : op.entries) {
        keys.insert(keys.end(), e.key.begin(), e.key.begin() + key_bytes(op.tbl_type));
        prios.push_back(e.prio);
        results.insert(results.end(), e.result.begin(), e.result.end());
        acl_prios.push_back(e.acl_prio);
    }
    errno = 0;
    int rc = 0;
    switch (op.kind) {
    case OpKind::write:
        rc = tcamwrap_fwd_tcam_ssram_write(
            &p, keys.data(), prios.data(), results.data(),
            op.tbl_type == TCAMWRAP_TBL_ACLI ? acl_prios.data() : nullptr);
        break;
    case OpKind::ssram:
        rc = tcamwrap_fwd_ssram_write(&p, results.data());
        break;
    case OpKind::del:
        rc = tcamwrap_fwd_tcam_delete(&p);
        break;
    }
    *err = errno;
    return rc;
}

std::string op_text(const Op &op)
{
    static const char *kinds[] = {"write", "ssram", "delete"};
    std::string text = std::string(kinds[static_cast<int>(op.kind)]) + " " +
                       table_name(op.tbl_type) + " loc " + hexnum(op.loc);
    if (op.count > 1)
        text += ".." + hexnum(op.loc + op.count - 1);
    text += op.inst == TCAMWRAP_ALL_INSTS ? " inst all" : " inst " + std::to_string(op.inst);
    return text;
}

namespace
{

// Plans calls against a model of its own, so that every call is one the
// library must carry out: adds to free locs, overwrites and result writes of
// used ones, deletes of either.
class Planner
{
  public:
    Planner(uint64_t seed, const CardShape &shape)
        : rng_(seed), shape_(shape), model_(empty_model(shape))
    {
    }

    std::vector<Op> plan(uint32_t count)
    {
        std::vector<Op> ops;
        while (ops.size() < count) {
            Op op;
            if (!choose(op, ops.size() < count / 5))
                continue;
            for (const Unit &u : units_of(op, model_))
                apply(model_, u, u.after);
            ops.push_back(std::move(op));
        }
        return ops;
    }

  private:
    uint64_t dice(uint64_t n) { return rng_() % n; }

    uint32_t choose_table()
    {
        const uint64_t d = dice(4);
        return d < 2 ? TCAMWRAP_TBL_FIB : d == 2 ? TCAMWRAP_TBL_ACLI : TCAMWRAP_TBL_ACLO;
    }

    uint8_t choose_inst()
    {
        const uint64_t d = dice(10);
        return d < 6 ? TCAMWRAP_ALL_INSTS : static_cast<uint8_t>(d % shape_.insts);
    }

    double fill(uint32_t tbl) const
    {
        uint64_t used = 0;
        for (const Model &m : model_)
            used += used_locs(m[tbl]).size();
        return static_cast<double>(used) / (static_cast<double>(shape_.size[tbl]) * shape_.insts);
    }

    // count locs from a random start, each used (or free) on every instance of inst.
    bool find_run(uint32_t tbl, uint8_t inst, uint32_t count, bool used, uint32_t &loc)
    {
        const std::vector<uint8_t> insts = insts_of(inst, shape_.insts);
        for (int attempt = 0; attempt < 64; ++attempt) {
            loc = static_cast<uint32_t>(dice(shape_.size[tbl] - count + 1));
            bool fits = true;
            for (uint32_t i = 0; i < count && fits; ++i)
                for (uint8_t n : insts)
                    fits = fits && model_[n][tbl][loc + i].used == used;
            if (fits)
                return true;
        }
        return false;
    }

    Entry new_entry(uint32_t tbl)
    {
        if (tbl == TCAMWRAP_TBL_FIB)
            return fib_entry(random_route(rng_, routes_));
        for (;;) {
            const Entry e = acl_entry(random_acl_rule(tbl == TCAMWRAP_TBL_ACLI, rng_));
            if (acl_keys_.insert(std::string(e.key.begin(), e.key.end())).second)
                return e;
        }
    }

    bool choose(Op &op, bool loading)
    {
        op.tbl_type = choose_table();
        op.inst = choose_inst();
        op.count = dice(3) == 0 ? static_cast<uint32_t>(2 + dice(loading ? 7 : 4)) : 1;
        const double f = fill(op.tbl_type);
        const uint64_t d = dice(100);
        if (loading || f < 0.3 || (f < 0.6 && d < 30)) {
            op.kind = OpKind::write; // add
            if (!find_run(op.tbl_type, op.inst, op.count, false, op.loc))
                return false;
        } else if (d < 55) {
            op.kind = OpKind::write; // overwrite with a new key and priority
            if (!find_run(op.tbl_type, op.inst, op.count, true, op.loc))
                return false;
        } else if (d < 75) {
            op.kind = OpKind::ssram;
            if (!find_run(op.tbl_type, op.inst, op.count, true, op.loc))
                return false;
        } else {
            op.kind = OpKind::del;
            if (!find_run(op.tbl_type, op.inst, op.count, true, op.loc))
                return false;
        }
        if (op.kind != OpKind::del)
            for (uint32_t i = 0; i < op.count; ++i)
                op.entries.push_back(new_entry(op.tbl_type)); // ssram: its result word
        return true;
    }

    std::mt19937_64 rng_;
    CardShape shape_;
    CardModel model_;
    PrefixSet routes_;
    std::set<std::string> acl_keys_;
};

} // namespace

std::vector<Op> make_workload(uint64_t seed, uint32_t ops, const CardShape &shape)
{
    return Planner(seed, shape).plan(ops);
}

} // namespace tcamwrap::cli
