/*
 * A long random run of adds, overwrites, engine moves and deletes through the
 * exported calls and the fake engine, checked against a simple model after
 * every step; then the store is checked against the LMT and a restart must
 * rebuild the same maps.
 */
#include "test_support.h"

#include <map>
#include <random>
#include <set>

namespace tw {
namespace {

struct Entry {
    Bytes key, word;
    uint16_t prio;
    uint8_t aclp;
};

struct RunConfig {
    const char *name;
    uint32_t tbl;
    uint8_t insts;
    uint32_t size;
    unsigned steps;
};

class Sequence : public LibTest, public ::testing::WithParamInterface<RunConfig> {
protected:
    void SetUp() override
    {
        LibTest::SetUp();
        const RunConfig &c = GetParam();
        fake::card().num_insts = c.insts;
        fake::card().size[c.tbl] = c.size;
        fake::set_ask_validate(true);
        ASSERT_EQ(start({int32_t(c.tbl)}, 0, 0), 0);
        level(3);   /* errors only: a step that succeeds must trace nothing */
    }

    /* Every invariant of one instance against the model. */
    void check_instance(unsigned inst, const std::map<uint32_t, Entry> &model)
    {
        const uint32_t tbl = GetParam().tbl;
        tcam_info *ti = info(inst, tbl);
        ASSERT_NE(ti, nullptr);
        expect_maps_consistent(ti);
        uint32_t mapped = 0;
        for (uint32_t loc = 0; loc < ti->lmt_sz; ++loc) {
            uint32_t s = ti->lmt[loc];
            auto m = model.find(loc);
            ASSERT_EQ(s != INV, m != model.end()) << "inst " << inst << " loc " << loc;
            if (s == INV)
                continue;
            ++mapped;
            const Entry &e = m->second;
            /* The engine holds the entry at that sloc. */
            auto &eng = fake::engine(inst, tbl).entries;
            ASSERT_EQ(eng.count(s), 1u) << "engine has nothing at sloc " << s;
            EXPECT_EQ(eng[s].key, e.key);
            /* Read back through the library. */
            Bytes key(fake::key_bytes(tbl));
            uint16_t prio = 0;
            tbl_params p = params(uint8_t(inst), tbl, 1, loc);
            ASSERT_EQ(tcamwrap_fwd_tcam_read_with_priority(&p, key.data(), &prio), 0);
            EXPECT_EQ(key, e.key) << "loc " << loc;
            EXPECT_EQ(prio, e.prio) << "loc " << loc;
            /* The result memories at the sloc hold the entry's words. */
            if (tbl == ACLI) {
                EXPECT_EQ(fake::acl_prio(inst, tbl, s), e.aclp) << "sloc " << s;
            }
            bool flow = tbl == ACLI && e.aclp == 0;
            EXPECT_EQ(flow ? fake::flow(inst, tbl, s >> 1) : fake::ssram(inst, tbl, s), e.word) << "sloc " << s;
        }
        EXPECT_EQ(mapped, model.size());   /* with consistent maps, so is the number of owned slocs */
        EXPECT_EQ(fake::engine(inst, tbl).entries.size(), model.size()) << "stray engine entries";
    }

    /* The store holds what a restore needs: each segment's record equals the LMT,
     * a missing record stands for an all-invalid segment; no journal record. */
    void check_store(unsigned inst)
    {
        const uint32_t tbl = GetParam().tbl;
        tcam_info *ti = info(inst, tbl);
        for (uint32_t seg = 0; seg * 1024 < ti->lmt_sz; ++seg) {
            uint32_t words = std::min<uint32_t>(1024, ti->lmt_sz - seg * 1024);
            std::string key = fake::store_key(prefix_str(), 2, uint8_t(inst), uint8_t(tbl), uint8_t(seg));
            auto it = fake::store().find(key);
            if (it != fake::store().end()) {
                EXPECT_EQ(it->second, words_image(ti->lmt + seg * 1024, words)) << "segment " << seg;
            } else {
                for (uint32_t i = 0; i < words; ++i)
                    ASSERT_EQ(ti->lmt[seg * 1024 + i], INV) << "segment " << seg << " missing from the store";
            }
        }
        EXPECT_EQ(fake::store().count(fake::store_key(prefix_str(), 3, uint8_t(inst), uint8_t(tbl), 0)), 0u)
            << "a journal record is left";
    }

    /* A free sloc where the entry of loc may stand (the flow-result pair rule). */
    std::optional<uint32_t> move_target(std::mt19937 &rng, unsigned inst, const std::map<uint32_t, Entry> &model,
                                        uint32_t loc)
    {
        const uint32_t tbl = GetParam().tbl;
        tcam_info *ti = info(inst, tbl);
        auto &eng = fake::engine(inst, tbl).entries;
        uint32_t old_sloc = ti->lmt[loc];
        /* The engine keeps an entry in its bank: the bank's room is what inserts count on. */
        uint32_t half = ti->lmt_sz / 2;
        uint32_t lo = old_sloc < half ? 0 : half, room = old_sloc < half ? half : ti->lmt_sz - half;
        for (int tries = 0; tries < 20; ++tries) {
            uint32_t s = lo + rng() % room;
            if (eng.count(s))
                continue;
            if (tbl == ACLI && model.at(loc).aclp == 0) {
                uint32_t partner = s ^ 1u;
                uint32_t owner = ti->rlmt[partner];
                if (partner != old_sloc && owner != INV && model.at(owner).aclp == 0)
                    continue;
            }
            return s;
        }
        return std::nullopt;
    }
};

TEST_P(Sequence, RandomAddsOverwritesMovesAndDeletes)
{
    const RunConfig &c = GetParam();
    const uint32_t seed = 20261121u;
    SCOPED_TRACE(testing::Message() << c.name << ", seed " << seed);
    std::mt19937 rng(seed);
    const uint8_t inst_arg = c.insts > 1 ? 254 : 0;
    std::map<uint32_t, Entry> model;   /* the same on every instance */
    unsigned adds = 0, overwrites = 0, moves = 0, deletes = 0, refused = 0;

    for (unsigned step = 0; step < c.steps; ++step) {
        SCOPED_TRACE(testing::Message() << "step " << step);
        const size_t traces = fake::hist_events().size();
        bool failed = false;
        unsigned what = rng() % 10;
        uint32_t loc = rng() % c.size;
        bool crowded = model.size() >= c.size / 2 - 2;
        if (what < 5 && !(crowded && !model.count(loc))) {
            Entry e{make_key(c.tbl, rng()), make_word(rng()), uint16_t(rng()), uint8_t(c.tbl == ACLI ? rng() % 2 : 1)};
            tbl_params p = params(inst_arg, c.tbl, 1, loc);
            bool overwrite = model.count(loc) != 0;
            errno = 0;
            int rc = tcamwrap_fwd_tcam_ssram_write(&p, e.key.data(), &e.prio, e.word.data(),
                                                   c.tbl == ACLI ? &e.aclp : nullptr);
            if (rc != 0) {
                /* Only the engine may refuse (no sloc next to a flow-result partner);
                 * with one instance nothing has changed then. */
                ASSERT_EQ(errno, ENOSPC) << "write of loc " << loc << " failed: " << rc;
                ASSERT_EQ(c.insts, 1) << "a refused broadcast leaves instances apart";
                ++refused;
                failed = true;
            } else {
                model[loc] = e;
                ++(overwrite ? overwrites : adds);
            }
        } else if (what < 8 && !model.empty()) {
            auto it = model.begin();
            std::advance(it, rng() % model.size());
            for (unsigned inst = 0; inst < c.insts; ++inst) {
                auto target = move_target(rng, inst, model, it->first);
                if (!target)
                    continue;
                uint32_t old_sloc = info(inst, c.tbl)->lmt[it->first];
                ASSERT_EQ(fake::engine_move(inst, c.tbl, old_sloc, *target), 0);
                ++moves;
            }
        } else {
            tbl_params p = params(inst_arg, c.tbl, 1 + rng() % 3, loc);
            if (p.start_addr + p.num_entries > c.size)
                p.num_entries = c.size - p.start_addr;
            ASSERT_EQ(tcamwrap_fwd_tcam_delete(&p), 0);
            for (uint32_t i = 0; i < p.num_entries; ++i)
                deletes += unsigned(model.erase(loc + i));
        }
        if (!failed && fake::hist_events().size() != traces)
            ADD_FAILURE() << "a step that succeeded traced: " << fake::hist_events().back().text;
        for (unsigned inst = 0; inst < c.insts; ++inst)
            check_instance(inst, model);
        if (HasFatalFailure() || HasNonfatalFailure())
            FAIL() << "stopping at the first broken step";
    }
    for (unsigned inst = 0; inst < c.insts; ++inst)
        check_store(inst);
    EXPECT_GT(adds, c.steps / 10);
    EXPECT_GT(overwrites, 0u);
    EXPECT_GT(moves, 0u);
    EXPECT_GT(deletes, 0u);
    RecordProperty("refused", int(refused));

    /* A restart rebuilds the same maps from the store and the hardware. */
    std::vector<std::vector<uint32_t>> lmts;
    for (unsigned inst = 0; inst < c.insts; ++inst)
        lmts.emplace_back(info(inst, c.tbl)->lmt, info(inst, c.tbl)->lmt + c.size);
    fake::clear_calls();
    ASSERT_EQ(start({int32_t(c.tbl)}, 1, 0), 0);
    EXPECT_TRUE(fake::calls_of("orvex_tcam_delete_entry").empty()) << "the restart found something to repair";
    for (unsigned inst = 0; inst < c.insts; ++inst) {
        SCOPED_TRACE(testing::Message() << "after restart, inst " << inst);
        EXPECT_EQ(std::vector<uint32_t>(info(inst, c.tbl)->lmt, info(inst, c.tbl)->lmt + c.size), lmts[inst]);
        EXPECT_EQ(info(inst, c.tbl)->sloc_valid, nullptr);
        EXPECT_EQ(info(inst, c.tbl)->cb_handle.restored_entries, model.size());
        check_instance(inst, model);
    }
}

INSTANTIATE_TEST_SUITE_P(Runs, Sequence,
                         ::testing::Values(RunConfig{"FIB", FIB, 1, 64, 600}, RunConfig{"ACLI", ACLI, 1, 48, 600},
                                           RunConfig{"ACLO on two instances", ACLO, 2, 40, 400},
                                           RunConfig{"ACLI, two segments", ACLI, 1, 1100, 300}),
                         [](const testing::TestParamInfo<RunConfig> &i) { return std::to_string(i.index); });

}  // namespace
}  // namespace tw
