// Card profile and state directory of the simulated card.
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "sim_card.h"
#include "sim_hw.h"
#include "sim_test_util.hpp"

namespace tcamwrap::sim::test {
namespace {

constexpr uint32_t kAcli = 1, kAclo = 2, kFib = 3;
constexpr uint32_t O = SIM_KIND_ORVEX, T = SIM_KIND_TCAM3;
using Shape = std::array<uint32_t, 7>;  // insts, acli, aclo, fib and the three kinds

Shape card_shape()
{
    return {sim_card_num_insts(),      sim_card_table_size(kAcli), sim_card_table_size(kAclo),
            sim_card_table_size(kFib), sim_card_tcam_kind(kAcli),  sim_card_tcam_kind(kAclo),
            sim_card_tcam_kind(kFib)};
}

TEST(SimProfile, SettingsOverrideTheDefaults)
{
    const struct {
        const char *text;
        Shape want;
    } cases[] = {
        {nullptr, {2, 8192, 8192, 131072, O, O, O}},
        {"insts=1", {1, 8192, 8192, 131072, O, O, O}},
        {" acli = 16 , aclo=17 ,acli_kind=tcam3,aclo_kind=orvex", {2, 16, 17, 131072, T, O, O}},
        {"fib=262144,fib_kind=tcam3", {2, 8192, 8192, 262144, O, O, T}},
        {"insts=1,fib=1,acli=1,aclo=1", {1, 1, 1, 1, O, O, O}},
        {"file", {1, 8192, 8192, 4096, T, O, O}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "default");
        ScopedSimState state(c.text);
        std::string path = state.dir() + "-profile.txt";
        if (c.text != nullptr && std::string(c.text) == "file") {
            std::ofstream(path) << "# a small card\ninsts=1\n\nfib=4096   # routes\nacli_kind=tcam3\n";
            ScopedSimState::set_profile(path.c_str());
        }
        ASSERT_EQ(sim_card_open(), 0);
        EXPECT_EQ(card_shape(), c.want);
        EXPECT_TRUE(std::filesystem::exists(state.dir() + "/hw.img"));
        std::filesystem::remove(path);
    }
}

TEST(SimProfile, BadProfilesAreRefusedAndNothingIsSaved)
{
    for (const char *text : {"insts=3", "insts=0", "fib=0", "fib=262145", "fib_kind=tcam4", "bogus=1", "fib",
                             "fib=12x", "acli=-1", "insts=1,fib="}) {
        SCOPED_TRACE(text);
        ScopedSimState state(text);
        errno = 0;
        EXPECT_EQ(sim_card_open(), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(sim_card_num_insts(), 0u);
        EXPECT_FALSE(std::filesystem::exists(state.dir() + "/profile") || std::filesystem::exists(state.dir() + "/hw.img"));
    }
}

TEST(SimProfile, DamagedImageIsRefused)
{
    ScopedSimState state("insts=1,fib=64,acli=64,aclo=64");
    ASSERT_EQ(sim_card_open(), 0);
    state.forget();
    std::filesystem::resize_file(state.dir() + "/hw.img", 100);
    errno = 0;
    EXPECT_EQ(sim_card_open(), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace tcamwrap::sim::test
