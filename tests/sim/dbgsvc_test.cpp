// Debug and history service of the simulated card.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_dbgsvc.h"
#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kUuid = 636, kEventId = 0x27C0000;

int log_uuid(const std::string &text, uint32_t len)
{
    return dbgsvc_his_log_event_for_uuid_inst(kUuid, kEventId, 0, 0, len, text.c_str());
}

class SimHist : public ::testing::Test {
protected:
    void SetUp() override { sim_hist_clear(); }
    void TearDown() override { sim_hist_clear(); }
};

TEST_F(SimHist, ElementEventsGoToTheElementsRing)
{
    // A record as the library builds it: element, "func text" and its zero.
    for (auto [elem, text] : {std::pair{5u, "f first"}, {6u, "f other"}, {5u, "f second"}}) {
        std::vector<uint8_t> r(sizeof elem);
        std::memcpy(r.data(), &elem, sizeof elem);
        r.insert(r.end(), text, text + std::strlen(text) + 1);
        ASSERT_EQ(dbgsvc_hist_event(0x730000, static_cast<uint32_t>(r.size()), r.data()), 0);
    }
    EXPECT_EQ(sim_hist_count(SIM_HIST_ELEM, 5), 2u);
    EXPECT_EQ(sim_hist_count(SIM_HIST_ELEM, 6), 1u);
    EXPECT_STREQ(sim_hist_text(SIM_HIST_ELEM, 5, 0), "f second");
    EXPECT_STREQ(sim_hist_text(SIM_HIST_ELEM, 5, 1), "f first");
    EXPECT_EQ(sim_hist_text(SIM_HIST_ELEM, 5, 2), nullptr);
    EXPECT_EQ(sim_hist_count(SIM_HIST_UUID, 5), 0u) << "element and uuid rings are apart";
    uint32_t tiny = 0;
    EXPECT_EQ(dbgsvc_hist_event(0x730000, 2, &tiny), -1) << "shorter than its element";
}

TEST_F(SimHist, RingKeepsTheNewestEventsThatFitItsSize)
{
    ASSERT_EQ(dbgsvc_hist_init_for_uuid(kUuid, 100), 0);
    for (int i = 0; i < 10; ++i) {
        std::string text = "event " + std::to_string(i) + std::string(20, '.');  // 28 bytes
        ASSERT_EQ(log_uuid(text, static_cast<uint32_t>(text.size() + 1)), 0);
    }
    EXPECT_EQ(sim_hist_count(SIM_HIST_UUID, kUuid), 3u);
    EXPECT_EQ(std::string(sim_hist_text(SIM_HIST_UUID, kUuid, 0)).substr(0, 7), "event 9");
    EXPECT_EQ(std::string(sim_hist_text(SIM_HIST_UUID, kUuid, 2)).substr(0, 7), "event 7");
    ASSERT_EQ(log_uuid("abcdef", 4), 0);
    EXPECT_STREQ(sim_hist_text(SIM_HIST_UUID, kUuid, 0), "abcd") << "cut at the length given";
}

TEST(SimDbg, ElementCheckFollowsTheListAndOutputGoesToTheFile)
{
    const struct {
        const char *list;
        std::vector<uint32_t> yes, no;
    } cases[] = {{"all", {0, 5, 0xFFFFFFFF}, {}}, {"5,7", {5, 7}, {0, 6}}, {"", {}, {0, 5}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.list);
        ASSERT_EQ(sim_dbgsvc_set_debug_elems(c.list), 0);
        for (uint32_t e : c.yes)
            EXPECT_NE(dbgsvc_chk_int(e, 0, 0, 1), 0) << e;
        for (uint32_t e : c.no)
            EXPECT_EQ(dbgsvc_chk_int(e, 0, 0, 1), 0) << e;
    }
    ASSERT_EQ(sim_dbgsvc_set_debug_elems("5"), 0);
    EXPECT_EQ(sim_dbgsvc_set_debug_elems("5,x"), -1);
    EXPECT_NE(dbgsvc_chk_int(5, 0, 0, 1), 0) << "a malformed list keeps the old one";
    sim_dbgsvc_set_debug_elems(nullptr);

    ScopedSimState state;
    std::string path = state.dir() + "/debug.txt";
    ASSERT_EQ(sim_dbgsvc_set_debug_file(path.c_str()), 0);
    dbgout_func(1, &dbgsvc_dbg_modname, "tcamwrap_init", 0, "inst: %d tbl_type: %d\n", 1, 3);
    ASSERT_EQ(sim_dbgsvc_set_debug_file(nullptr), 0);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), "[tcamwrap] tcamwrap_init: inst: 1 tbl_type: 3\n");
}

}  // namespace
}  // namespace tcamwrap::sim::test
