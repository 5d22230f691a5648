#include "control_loop.hpp"

#include "control_tree_fixture.hpp"
#include "eventually.hpp"
#include "expected_control_tree.hpp"
#include "node_access.hpp"
#include "recording_session.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using test::description_of;
using test::eventually;
using test::expected_mx47_tree;
using test::expected_t47_tree;
using test::tree_description;
using testing::IsEmpty;

namespace {

// Counts the ticks of the group that it is a member of.
class tick_counter final : public dh_db_leaf_node {
  public:
    using dh_db_leaf_node::dh_db_leaf_node;

    void periodic_task(bool) override { ++ticks_; }
    unsigned ticks() const { return ticks_; }

  private:
    std::atomic<unsigned> ticks_{0};
};

}  // namespace

class ControlTree : public test::control_tree_fixture {
  protected:
    ControlTree() = default;
    explicit ControlTree(const char* board) : control_tree_fixture(board) {}

    tree_description published_tree() {
        tree_description tree;
        for (const auto& entry : server_->db().nodes_under("control")) {
            json::document memory;
            tree[entry.path] = description_of(entry.node->get_info(memory.GetAllocator()));
        }
        return tree;
    }
};

TEST_F(ControlTree, OfASingleLoopCardIsExactlyThis) {
    create_loop();
    EXPECT_EQ(published_tree(), expected_t47_tree());
}

TEST_F(ControlTree, CardWithoutAControlLoopOfItsOwnHasNone) {
    test::put_board("velt,k47");
    create_loop();
    EXPECT_THAT(published_tree(), IsEmpty());
}

TEST_F(ControlTree, EveryNodeIsTickedOnceASecond) {
    create_loop();
    for (const auto& entry : server_->db().nodes_under("control"))
        EXPECT_EQ(entry.node->poll_interval(), 1000U) << entry.path;
}

TEST_F(ControlTree, ReadyOfTheManagementReleasesThePollThread) {
    create_loop();
    EXPECT_FALSE(read<bool>("control/data/debug/configDone"));
    ASSERT_TRUE(time_.comes_to_rest());
    write("control/config/dhReady", true);
    EXPECT_TRUE(read<bool>("control/data/debug/configDone"));
    time_.open();
    EXPECT_TRUE(eventually([this] {
        return log_.count(
                   "msg: Corvelle has now configured everything (status ok) now we can "
                   "start power regulation.") == 1;
    }));
}

TEST_F(ControlTree, ChannelBudgetGivesAllChannelsTheDefaultThatFollowsFromIt) {
    create_loop();
    loop_->set_wanted_power_nosave(0, 17, 1.5F);
    write("control/config/maxChannels", 10U);
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 10U);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMin"), 0.0F);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMax"), 14.1F);
    for (unsigned channel = 1; channel <= 48; ++channel)
        EXPECT_FLOAT_EQ(loop_->get_wanted_power(0, channel), 10.0F) << channel;
    EXPECT_EQ(log_.count("msg: Set max channel to 10"), 1U);
    EXPECT_EQ(log_.count("msg: Calculate wanted power for WSS port: 0, max channels: 10"), 1U);
}

TEST_F(ControlTree, BudgetOfFortyChannelsSharesTheBoosterLimitAmongForty) {
    create_loop();
    EXPECT_EQ(log_.count("msg: Set max channel nosave to 40"), 1U);
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 40U);
    EXPECT_NEAR(loop_->get_wantedPowerDefault(0), 3.979, 0.001);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMin"), -2.0F);
    EXPECT_NEAR(read<float>("control/data/wantedPowerMax"), 8.079, 0.001);
}

TEST_F(ControlTree, DefaultAttenuationGoesToTheIdleChannelsOfItsPortMode) {
    wss_->set("data/wss/channel/3/port", "edfa");
    wss_->set("data/wss/channel/4/port", "express");
    create_loop();
    write("control/config/edfa/defaultAttenuation", 12.5F);
    write("control/config/express/defaultAttenuation", 11.25F);
    EXPECT_EQ(read<float>("control/data/edfa/defaultAttenuation"), 12.5F);
    EXPECT_EQ(read<float>("control/data/express/defaultAttenuation"), 11.25F);
    EXPECT_TRUE(was_written("config/wss/channel/3/attenuation", "12.5"));
    EXPECT_TRUE(was_written("config/wss/channel/4/attenuation", "11.25"));
    EXPECT_EQ(log_.count("msg: Setting EDFA default att to 12.5"), 1U);
    EXPECT_EQ(log_.count("msg: Setting EXPRESS default att to 11.25"), 1U);
}

TEST_F(ControlTree, DefaultAttenuationThatCannotBeAppliedFailsTheWriteAndIsKept) {
    wss_->set("data/wss/channel/3/port", "edfa");
    wss_->fail_writes("config/wss/channel/3/attenuation", -5, "stuck");
    create_loop();
    try {
        write("control/config/edfa/defaultAttenuation", 12.5F);
        ADD_FAILURE() << "the write went through";
    } catch (const dh_client_exception& error) {
        EXPECT_EQ(error.code, -5);
        EXPECT_EQ(error.message, "stuck");
    }
    EXPECT_EQ(read<float>("control/data/edfa/defaultAttenuation"), 12.5F);
}

TEST_F(ControlTree, WantedPowerIsThatOfItsChannelOnly) {
    create_loop();
    write("control/config/48/wantedPower", 2.25F);
    EXPECT_EQ(loop_->get_wanted_power(0, 48), 2.25F);
    EXPECT_NE(loop_->get_wanted_power(0, 47), 2.25F);
}

TEST_F(ControlTree, ControlModeIsThatOfItsChannelOnly) {
    create_loop();
    write("control/config/5/opticalControlMode", std::string("off"));
    EXPECT_EQ(loop_->get_optical_ControlMode(0, 5), "off");
    EXPECT_EQ(loop_->get_optical_ControlMode(0, 6), "power");
}

TEST_F(ControlTree, PortModeIsWrittenToTheWss) {
    create_loop();
    write("control/config/9/portMode", std::string("off"));
    EXPECT_TRUE(was_written("config/wss/channel/9/port", "\"off\""));
}

TEST_F(ControlTree, VerboseAndLossTimeoutReadBackWhatWasWritten) {
    create_loop();
    EXPECT_FALSE(read<bool>("control/data/verbose"));
    EXPECT_EQ(read<long long>("control/data/lossTimeout"), 60);
    write("control/config/verbose", true);
    write("control/config/lossTimeout", 1LL << 40);
    EXPECT_TRUE(read<bool>("control/data/verbose"));
    EXPECT_EQ(read<long long>("control/data/lossTimeout"), 1LL << 40);
}

TEST_F(ControlTree, ReadingsAreThoseOfTheRegulatorBeforeTheFirstCycle) {
    create_loop();
    EXPECT_EQ(read<unsigned>("control/data/numberOfActiveChannels"), 0U);
    EXPECT_EQ(read<float>("control/data/boosterTx"),
              read<float>("control/data/boosterTx_Original"));
    EXPECT_EQ(read<float>("control/data/boosterTxAdjustmentDiff"), 0.0F);
    EXPECT_EQ(read<float>("control/data/edfa/calCloopWssIL"),
              loop_->get_cal_cloop_wss_il_edfaport());
    EXPECT_EQ(read<float>("control/data/express/calCloopWssIL"),
              loop_->get_cal_cloop_wss_il_expressport());
}

TEST_F(ControlTree, ChannelValuesArePublishedWithinSevenTicks) {
    wss_->set("data/wss/channel/2/port", "express");
    create_loop();
    write("control/config/2/wantedPower", 1.5F);
    for (int tick = 0; tick < 7; ++tick)
        proxy_->value_group().tick();
    EXPECT_EQ(read<float>("control/data/2/wantedPower"), 1.5F);
    EXPECT_EQ(read<std::string>("control/data/2/opticalControlMode"), "power");
    EXPECT_EQ(read<std::string>("control/data/2/portMode"), "express");
    EXPECT_EQ(read<float>("control/data/2/txPower"), -25.0F);
}

TEST_F(ControlTree, ValueOfTheWrongTypeIsRefused) {
    create_loop();
    try {
        write("control/config/maxChannels", std::string("many"));
        ADD_FAILURE() << "the write went through";
    } catch (const dh_client_exception& error) {
        EXPECT_EQ(error.code, dh_error_code::invalid_argument);
    }
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 40U);
}

TEST_F(ControlTree, AllTwentyOneAndEightForEachChannelAreListed) {
    create_loop();
    EXPECT_EQ(published_tree().size(), 21U + 48U * 8U);
}

TEST_F(ControlTree, EnableFileGivesAnyBoardTheTreeAndTheLoopsOfTwoPorts) {
    for (const char* board : {"velt,t47", "velt,k47", "velt,other"}) {
        test::put_board(board);
        test::put_file("/var/persistent/etc/enable_veltmx47", "");
        proxy_.reset();
        server_.emplace("test", test::root() + "/tmp/server");
        proxy_ = std::make_shared<dh::util::proxy>(server_->db(), &main_mutex_);
        create_loop();
        EXPECT_EQ(published_tree(), expected_mx47_tree()) << board;
        EXPECT_EQ(loop_->get_maxChannels(1), 48U) << board;
        destroy_loop();
        time_.close();
    }
}

TEST_F(ControlTree, FileOfTheOneLoopCardGivesNoTree) {
    test::put_board("velt,other");
    test::put_file("/var/persistent/etc/enable_veltt47", "");
    create_loop();
    EXPECT_THAT(published_tree(), IsEmpty());
}

class ControlTreeOfTwoPorts : public ControlTree {
  protected:
    ControlTreeOfTwoPorts() : ControlTree("velt,mx47") {}

    void tick(unsigned times) {
        for (unsigned i = 0; i < times; ++i)
            proxy_->value_group().tick();
    }

    // Regulator ports and channels of which the tests give light to.
    const std::vector<std::pair<unsigned, unsigned>> places_{{0, 3}, {0, 4}, {1, 3}, {1, 4}};

    // The text of the error of a read, or nothing.
    std::string error_of_read(const std::string& path) {
        try {
            read<double>(path);
        } catch (const dh_client_exception& error) {
            return error.message;
        }
        return {};
    }
};

TEST_F(ControlTreeOfTwoPorts, IsExactlyThis) {
    create_loop();
    EXPECT_EQ(published_tree(), expected_mx47_tree());
    EXPECT_EQ(published_tree().size(), 22U + 2U * (13U + 48U * 13U));
}

TEST_F(ControlTreeOfTwoPorts, EveryNodeButTheAlarmIsTickedOnceASecond) {
    create_loop();
    for (const auto& entry : server_->db().nodes_under("control")) {
        const bool is_alarm = entry.path == "control/alarms/combinedModeAlarm/severity";
        EXPECT_EQ(entry.node->poll_interval(), is_alarm ? 0U : 1000U) << entry.path;
    }
}

TEST_F(ControlTreeOfTwoPorts, StartsWithoutAnAlarmAndWithoutACombinedMode) {
    create_loop();
    EXPECT_EQ(read<unsigned>("control/alarms/combinedModeAlarm/severity"), 0U);
    EXPECT_EQ(read<std::string>("control/data/combinedMode"), "disabled");
    EXPECT_EQ(read<std::string>("control/data/combinedModeStatus"), "n/a");
    EXPECT_TRUE(read<bool>("control/data/slotCommunicationAlive"));
    EXPECT_TRUE(read<bool>("control/data/correctNeighbourVersion"));
    EXPECT_EQ(read<float>("control/data/eq/K47ActualGain"), -99.0F);
    EXPECT_EQ(read<float>("control/data/eq/K47EdfaTxPower"), -99.0F);
    EXPECT_EQ(read<float>("control/data/eq/ocmPowerOffset"), 20.0F);
}

TEST_F(ControlTreeOfTwoPorts, ChannelThreeOfPathPortTwoIsThatOfTheSecondRegulator) {
    create_loop();
    const std::string config = "control/config/port/2/channel/3";
    write(config + "/wantedPower", 2.25F);
    write(config + "/opticalControlMode", std::string("off"));
    write(config + "/portMode", std::string("on"));
    write(config + "/defaultAttenuation", 9.5F);
    EXPECT_EQ(loop_->get_wanted_power(1, 3), 2.25F);
    EXPECT_EQ(loop_->get_optical_ControlMode(1, 3), "off");
    EXPECT_EQ(loop_->get_channel_default_attenuation(1, 3), 9.5F);
    EXPECT_TRUE(was_written("config/wss/2/channel/3/port", "\"on\""));
    for (const auto& [port, channel] :
         std::vector<std::pair<unsigned, unsigned>>{{0, 3}, {1, 2}, {1, 4}, {0, 2}}) {
        EXPECT_NE(loop_->get_wanted_power(port, channel), 2.25F);
        EXPECT_EQ(loop_->get_optical_ControlMode(port, channel), "power");
        EXPECT_EQ(loop_->get_channel_default_attenuation(port, channel), 15.0F);
    }
    wss_->set("data/wss/2/channel/3/port", "on");
    tick(7);
    const std::string data = "control/data/port/2/channel/3";
    EXPECT_EQ(read<float>(data + "/wantedPower"), 2.25F);
    EXPECT_EQ(read<std::string>(data + "/opticalControlMode"), "off");
    EXPECT_EQ(read<std::string>(data + "/portMode"), "on");
    EXPECT_EQ(read<float>(data + "/defaultAttenuation"), 9.5F);
    EXPECT_EQ(read<std::string>("control/data/port/1/channel/3/portMode"), "off");
}

TEST_F(ControlTreeOfTwoPorts, MeasuredPowersAreThoseOfTheirPortAndChannel) {
    booster_->set("data/enable", true);
    for (const auto& [port, channel] : places_) {
        const std::string monitor = fmt::format("data/ocm/{}/channel/{}", port + 1, channel);
        const std::string wss = fmt::format("data/wss/{}/channel/{}", port + 1, channel);
        wss_->set(monitor + "/detected", true);
        wss_->set(monitor + "/powerLevel",
                  -20.0F - 3.0F * static_cast<float>(port) - 0.5F * static_cast<float>(channel));
        wss_->set(monitor + "/id", 200 + static_cast<int>(channel));
        wss_->set(wss + "/port", "on");
        wss_->set(wss + "/attenuation", 6.0 + port + channel);
    }
    create_loop();
    loop_->set_mx47_ocm_power_offset_value(18.5F);
    loop_->set_configDone(true);
    time_.open();
    ASSERT_TRUE(eventually([&] {
        std::set<float> seen{loop_->get_mx47_ocm_tx_power_channel(0, 48)};
        for (const auto& [port, channel] : places_)
            seen.insert(loop_->get_mx47_ocm_tx_power_channel(port, channel));
        return seen.size() == places_.size() + 1;
    }));
    time_.close();
    ASSERT_TRUE(time_.comes_to_rest());
    tick(7);
    for (const auto& [port, channel] : places_) {
        const std::string data = fmt::format("control/data/port/{}/channel/{}/", port + 1, channel);
        const std::vector<float> expected{loop_->get_rxPower(port, channel),
                                          loop_->get_txPower(port, channel),
                                          loop_->get_mx47_ocm_rx_power_channel(port, channel),
                                          loop_->get_mx47_ocm_tx_power_channel(port, channel)};
        // Two of them are one power, but not the same two at both ports.
        EXPECT_EQ(std::set<float>(expected.begin(), expected.end()).size(), 3U) << data;
        const std::vector<float> shown{read<float>(data + "rxPower"), read<float>(data + "txPower"),
                                       read<float>(data + "ocmRxPower"),
                                       read<float>(data + "ocmTxPower")};
        EXPECT_EQ(shown, expected) << data;
    }
}

TEST_F(ControlTreeOfTwoPorts, AlarmIsTheFirstNodeAndTheGateOfTheLoopsTheLast) {
    const auto session = std::make_shared<test::recording_session>();
    server_->db().watch("control", session, [](const auto&) {});
    create_loop();
    std::vector<std::string> added;
    for (const std::string& event : session->events()) {
        const json::document parsed = test::parsed(event);
        if (std::string_view(parsed["event"].GetString()) == "added")
            added.emplace_back(parsed["path"].GetString());
    }
    server_->db().unwatch_all(session);
    ASSERT_EQ(added.size(), expected_mx47_tree().size());
    EXPECT_EQ(added.front(), "control/alarms/combinedModeAlarm/severity");
    EXPECT_EQ(added[1], "control/data/debug/configDone");
    EXPECT_EQ(added.back(), "control/config/dhReady");
    const std::string channel = "control/data/port/1/channel/1/";
    const auto first = std::find(added.begin(), added.end(), channel + "wantedPower");
    ASSERT_GE(added.end() - first, 8);
    EXPECT_EQ(std::vector<std::string>(first, first + 8),
              (std::vector<std::string>{channel + "wantedPower", channel + "opticalControlMode",
                                        channel + "rxPower", channel + "ocmRxPower",
                                        channel + "ocmTxPower", channel + "txPower",
                                        channel + "portMode", channel + "defaultAttenuation"}));
}

// Created as an alarm and cleared at once, so its history tells of the change.
TEST_F(ControlTreeOfTwoPorts, AlarmOfTheCombinedModeIsClearedAsItComes) {
    create_loop();
    const auto node = server_->db().find_leaf_node("control/alarms/combinedModeAlarm/severity");
    const json::document info = test::parsed(test::info(*node));
    EXPECT_EQ(info["hysteresis"]["delayCycles"].GetUint(), 1U);
    std::vector<std::string> values;
    for (const auto& entry : server_->db().history(dh_db::history_length)) {
        const json::document parsed = test::parsed(*entry);
        if (std::string_view(parsed["path"].GetString()).starts_with("control/alarms/"))
            values.push_back(json::to_text(parsed["value"]));
    }
    EXPECT_EQ(values, std::vector<std::string>{"0"});
}

TEST_F(ControlTreeOfTwoPorts, SettingsOfAPortLeaveTheOtherPortAlone) {
    create_loop();
    write("control/config/port/1/maxChannels", 20U);
    write("control/config/port/2/verbose", true);
    write("control/config/port/2/lossTimeout", 7LL);
    EXPECT_EQ(read<unsigned>("control/data/port/1/maxChannels"), 20U);
    EXPECT_EQ(read<unsigned>("control/data/port/2/maxChannels"), 48U);
    EXPECT_FALSE(read<bool>("control/data/port/1/verbose"));
    EXPECT_TRUE(read<bool>("control/data/port/2/verbose"));
    EXPECT_EQ(read<long long>("control/data/port/1/lossTimeout"), 60);
    EXPECT_EQ(read<long long>("control/data/port/2/lossTimeout"), 7);
}

TEST_F(ControlTreeOfTwoPorts, LimitsOfTheEqPortAreOpenAndThoseOfTheEdfaPortFollowFromTheBudget) {
    booster_->set("data/powerLimit", 18.0);
    create_loop();
    EXPECT_FLOAT_EQ(read<float>("control/data/port/1/wantedPowerMin"), -2.0F);
    EXPECT_NEAR(read<float>("control/data/port/1/wantedPowerMax"), 8.079, 0.001);
    EXPECT_FLOAT_EQ(read<float>("control/data/port/2/wantedPowerMin"), -20.0F);
    EXPECT_FLOAT_EQ(read<float>("control/data/port/2/wantedPowerMax"), 20.0F);
    EXPECT_NEAR(loop_->get_wantedPowerDefault(1), 1.188, 0.001);
}

TEST_F(ControlTreeOfTwoPorts, ValuesOfTheNeighbourReadBackWhatWasWritten) {
    create_loop();
    write("control/config/eq/K47ActualGain", 18.5F);
    write("control/config/eq/K47EdfaTxPower", 12.25F);
    write("control/config/eq/calMonToBoosterTxK47", 23.75F);
    write("control/config/eq/ocmPowerOffset", 19.25F);
    EXPECT_EQ(read<float>("control/data/eq/K47ActualGain"), 18.5F);
    EXPECT_EQ(read<float>("control/data/eq/K47EdfaTxPower"), 12.25F);
    EXPECT_EQ(read<float>("control/data/eq/calMonToBoosterTxK47"), 23.75F);
    EXPECT_EQ(read<float>("control/data/eq/ocmPowerOffset"), 19.25F);
}

TEST_F(ControlTreeOfTwoPorts, FilteredValuesHaveNoneUntilTheirFirstTick) {
    create_loop();
    const std::string data = "control/data/port/1/channel/1";
    EXPECT_EQ(error_of_read(data + "/wantedPower"), "Value has not been set");
    EXPECT_EQ(error_of_read(data + "/ocmTxPower"), "Value has not been set");
}

// Four ticks are let go by, and six where the value is the control mode.
TEST_F(ControlTreeOfTwoPorts, FirstTicksOfFilteredValuesArePutOff) {
    create_loop();
    std::map<std::string, unsigned> first_tick;
    const std::string data = "control/data/port/2/channel/48/";
    const auto count = std::make_shared<tick_counter>("ticks");
    proxy_->value_group().add_value(count, 0);
    const auto is_set = [&](const std::string& leaf) {
        return error_of_read(data + leaf) != "Value has not been set";
    };
    const std::vector<std::string> leaves{"wantedPower", "opticalControlMode", "rxPower",
                                          "ocmRxPower",  "ocmTxPower",         "txPower",
                                          "portMode",    "defaultAttenuation"};
    while (first_tick.size() < leaves.size() && count->ticks() < 100) {
        tick(1);
        for (const std::string& leaf : leaves) {
            if (is_set(leaf))
                first_tick.try_emplace(leaf, count->ticks());
        }
    }
    const unsigned control_mode = first_tick["opticalControlMode"];
    EXPECT_GE(control_mode, 7U);
    for (const std::string& leaf : leaves)
        EXPECT_GE(first_tick[leaf], 5U) << leaf;
    EXPECT_LT(first_tick["wantedPower"], control_mode);
}

// The group may tick by itself once or twice meanwhile, so its ticks are counted.
TEST_F(ControlTreeOfTwoPorts, SmallRiseOfAMeasuredPowerIsPublishedAfterTenCycles) {
    wss_->set("data/wss/1/channel/5/port", "on");
    wss_->set("data/wss/1/channel/5/attenuation", 5.0);
    create_loop();
    const std::string measured = "control/data/port/1/channel/5/rxPower";
    const auto count = std::make_shared<tick_counter>("ticks");
    proxy_->value_group().add_value(count, 0);
    tick(6);
    const float before = read<float>(measured);
    wss_->set("data/wss/1/channel/5/attenuation", 5.06);
    const unsigned begin = count->ticks();
    while (read<float>(measured) == before && count->ticks() < begin + 100)
        tick(1);
    EXPECT_NEAR(read<float>(measured), before + 0.06F, 1e-4);
    EXPECT_GE(count->ticks() - begin, 10U);
    EXPECT_LE(count->ticks() - begin, 13U);
}

TEST_F(ControlTreeOfTwoPorts, LargerRiseOfAMeasuredPowerIsPublishedAtOnce) {
    wss_->set("data/wss/1/channel/5/port", "on");
    wss_->set("data/wss/1/channel/5/attenuation", 5.0);
    create_loop();
    const std::string measured = "control/data/port/1/channel/5/rxPower";
    tick(6);
    const float before = read<float>(measured);
    wss_->set("data/wss/1/channel/5/attenuation", 5.1);
    tick(1);
    EXPECT_NEAR(read<float>(measured), before + 0.1F, 1e-4);
}

TEST_F(ControlTreeOfTwoPorts, SmallestRiseOfAMeasuredPowerIsNotPublished) {
    wss_->set("data/wss/1/channel/5/port", "on");
    wss_->set("data/wss/1/channel/5/attenuation", 5.0);
    create_loop();
    const std::string measured = "control/data/port/1/channel/5/rxPower";
    tick(6);
    const float before = read<float>(measured);
    wss_->set("data/wss/1/channel/5/attenuation", 5.04);
    tick(30);
    EXPECT_EQ(read<float>(measured), before);
}

TEST_F(ControlTreeOfTwoPorts, SetValueIsPublishedAtTheNextTickHoweverSmallItsChange) {
    create_loop();
    tick(6);
    loop_->set_wanted_power_nosave(1, 48, 1.0001F);
    tick(1);
    EXPECT_EQ(read<float>("control/data/port/2/channel/48/wantedPower"), 1.0001F);
}

TEST_F(ControlTreeOfTwoPorts, HandlerThatFailsIsAnErrorOfTheValuesThatNeedItOnly) {
    create_loop();
    wss_->fail_requests(-5, "stuck");
    tick(6);
    EXPECT_EQ(error_of_read("control/data/port/1/channel/5/portMode"), "Unknown error!");
    EXPECT_EQ(error_of_read("control/data/port/1/channel/5/wantedPower"), "");
}
