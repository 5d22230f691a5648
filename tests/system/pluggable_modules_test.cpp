// Daemon and simulated card as processes: modules that are pulled and put in, by
// hand and by scenario, and the front panel as a person at the rack sees it.
#include "simulated_card_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using test::eventually;

// As the port, the line monitor and the reflection measurements know it.
const std::vector<std::string> presence_of_the_transceiver{
    "interface/2/present", "cloopl/interface/2/present", "otdr/interface/2/present"};

class PluggableModules : public test::simulated_card_fixture {
  protected:
    static std::string panel() { return tmctl({"panel"}); }
    static bool panel_becomes(const std::string& expected) {
        const bool is_so = eventually([&] { return panel() == expected; });
        EXPECT_EQ(panel(), expected);
        return is_so;
    }
};

TEST_F(PluggableModules, AppearWhenTheyArePutInAndGoWhenTheyArePulled) {
    start("mx47");
    EXPECT_TRUE(becomes("ppm/1/pm/wdm/addLoss", 45U));
    EXPECT_TRUE(becomes("ppm/2/pm/osc/dropLoss", 14U));
    for (const std::string& path : presence_of_the_transceiver)
        EXPECT_TRUE(becomes(path, true)) << path;
    EXPECT_EQ(lines("was inserted."), 0U);

    hands_->set<void>("sim/ppm/1/present", false);
    EXPECT_TRUE(becomes("ppm/1/pm/wdm/addLoss", 0U));
    EXPECT_TRUE(becomes("ppm/1/present", false));
    hands_->set<void>("sim/interface/2/present", false);
    EXPECT_TRUE(becomes("interface/2/alarms/transceiverMissing/severity", 3U));
    for (const std::string& path : presence_of_the_transceiver)
        EXPECT_TRUE(becomes(path, false)) << path;
    EXPECT_EQ(lines("was inserted."), 0U);

    hands_->set<void>("sim/ppm/1/wdmAddLoss", 60);
    hands_->set<void>("sim/ppm/1/present", true);
    EXPECT_TRUE(becomes("ppm/1/pm/wdm/addLoss", 60U));
    hands_->set<void>("sim/interface/2/present", true);
    EXPECT_TRUE(becomes("interface/2/alarms/transceiverMissing/severity", 0U));
    for (const std::string line : {" 7 tm_velt_ppm/1 msg: PPM was inserted. [ppm:",
                                   " 7 tm_velt_sfp/2 msg: SFP was inserted. [sfp_interface:",
                                   " 6 tm_velt_cloopl msg: sfp/2 was inserted. [cloopl:",
                                   " 6 tm_velt_otdr msg: sfp/2 was inserted. [otdr:"})
        EXPECT_TRUE(eventually([&] { return lines(line) == 1; })) << line;
    EXPECT_EQ(lines("was inserted."), 4U);
    EXPECT_TRUE(becomes("ppm/2/pm/wdm/addLoss", 45U));
}

TEST_F(PluggableModules, TracesInTheLogNameAClassWhicheverOfItsFilesTheLineIsOf) {
    start("mx47");
    for (const std::string line :
         {"msg: Set max channel nosave to ", "msg: Calculate wanted power"})
        ASSERT_TRUE(eventually([&] { return lines(line) > 0; })) << line;
    EXPECT_GT(lines(" [control_loop:"), 0U);
    EXPECT_GT(lines(" [Regulation_loop:"), 0U);
    EXPECT_EQ(lines(" [control_loop_"), 0U);
    EXPECT_EQ(lines(" [Regulation_loop_"), 0U);
}

TEST_F(PluggableModules, RestartOfATransceiversHandlerIsFollowedByAllWhoKnowIt) {
    start("mx47");
    const auto subscriptions_of = [this](const std::string& path) {
        return lines("Subscription started on 'present' -> '" + path + "'");
    };
    std::vector<std::size_t> before;
    for (const std::string& path : presence_of_the_transceiver) {
        EXPECT_TRUE(becomes(path, true)) << path;
        before.push_back(subscriptions_of(path));
    }
    hands_->set<void>("sim/handler/sfp/1/running", false);
    for (const std::string& path : presence_of_the_transceiver)
        EXPECT_TRUE(becomes(path, false)) << path;
    hands_->set<void>("sim/handler/sfp/1/running", true);
    for (std::size_t i = 0; i < presence_of_the_transceiver.size(); ++i) {
        const std::string& path = presence_of_the_transceiver[i];
        EXPECT_TRUE(becomes(path, true)) << path;
        // The port's own is one beside that of the handler's whole tree.
        const std::size_t expected = before[i] + (path.starts_with("interface/") ? 2 : 1);
        EXPECT_TRUE(eventually([&] { return subscriptions_of(path) == expected; }))
            << path << " " << subscriptions_of(path) << " for " << expected;
    }
    EXPECT_EQ(lines("was inserted."), 0U);
}

TEST_F(PluggableModules, SwappedWhileTheHandlerIsAwayShowsTheNewLossesAndIsNoInsertion) {
    start("k47");
    ASSERT_TRUE(becomes("ppm/2/pm/wdm/addLoss", 45U));
    hands_->set<void>("sim/handler/ppm/1/running", false);
    ASSERT_TRUE(becomes("alarms/ppm/2/communicationFailure/severity", 3U));
    EXPECT_TRUE(becomes("ppm/2/present", false));
    EXPECT_EQ(management_->get<unsigned>("ppm/2/pm/wdm/addLoss"), 45U);
    hands_->set<void>("sim/ppm/2/wdmAddLoss", 70);
    hands_->set<void>("sim/handler/ppm/1/running", true);
    EXPECT_TRUE(becomes("ppm/2/pm/wdm/addLoss", 70U));
    EXPECT_TRUE(becomes("ppm/2/present", true));
    EXPECT_EQ(lines("was inserted."), 0U);
}

TEST_F(PluggableModules, ArePulledAndPutInByAScenario) {
    test::put_file("/scenario.json", R"({"actions":[
        {"time":120,"action":"pull_module","module":"interface/1"},
        {"time":121,"action":"pull_module","module":"ppm/2"},
        {"time":300,"action":"insert_module","module":"interface/1"}]})");
    start("t47", {"--scenario", test::root() + "/scenario.json"});
    EXPECT_TRUE(becomes("ppm/2/present", false));
    EXPECT_TRUE(becomes("ppm/2/pm/osc/addLoss", 0U));
    EXPECT_TRUE(eventually([&] { return lines("tm_velt_sfp/1 msg: SFP was inserted.") == 1; }));
    EXPECT_TRUE(becomes("interface/1/present", true));
}

std::string picture(const std::string& tx, const std::string& rx) {
    const std::string edge = "+-----------------------------------------+\n";
    return edge +
           "|  POWER (G)   STATUS (G)                 |\n"
           "|                                         |\n"
           "|             OCM      EDFA    EXPRESS    |\n"
           "|     TX      " +
           tx + "      |\n|     RX      " + rx + "      |\n" + edge;
}

TEST_F(PluggableModules, FrontPanelOfATwoWayCardFollowsItsLight) {
    start("t47");
    for (unsigned channel = 1; channel <= 48; ++channel)
        hands_->set<void>("sim/channel/" + std::to_string(channel) + "/lit", channel == 7);
    EXPECT_TRUE(panel_becomes(picture("( )      (G)       ( )", "(G)      (G)       ( )")));
    const auto wss = device_handler_client::create("/tmp/device_handlers/wss_edge", "wss", {});
    wss->set<void>("config/wss/channel/7/port", std::string("express"));
    EXPECT_TRUE(panel_becomes(picture("( )      (G)       ( )", "(G)      ( )       (G)")));
    hands_->set<void>("sim/channel/7/lit", false);
    EXPECT_TRUE(panel_becomes(picture("( )      (G)       ( )", "( )      ( )       ( )")));
    hands_->set<void>("sim/booster/fault", true);
    EXPECT_TRUE(panel_becomes(picture("( )      ( )       ( )", "( )      ( )       ( )")));
}

TEST_F(PluggableModules, FrontPanelOfAnAmplifierCardFollowsItsBooster) {
    start("k47");
    const auto booster = device_handler_client::create("/tmp/device_handlers/booster", "b", {});
    booster->set<void>("config/enable", true);
    EXPECT_TRUE(panel_becomes(picture("(G)      (G)       ( )", "( )      (G)       ( )")));
    booster->set<void>("config/enable", false);
    EXPECT_TRUE(panel_becomes(picture("( )      ( )       ( )", "( )      (G)       ( )")));
}

}  // namespace
