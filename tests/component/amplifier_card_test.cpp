// The simulated amplifier card, alone and behind the EQ port of another card.
#include "card.hpp"
#include "device_handler_client.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

namespace {

constexpr int no_answer = 107;

class AmplifierCard : public testing::Test {
  protected:
    AmplifierCard() { test::empty_root(); }

    void serve_alone() {
        k47_ = std::make_unique<simulator::card>(
            *simulator::find_card_kind("k47"),
            simulator::card_options{.root = test::root() + "/k47", .actions = {}});
    }

    void serve_both() {
        mx47_ = std::make_unique<simulator::card>(
            *simulator::find_card_kind("mx47"),
            simulator::card_options{.root = test::root(), .actions = {}});
        k47_ = std::make_unique<simulator::card>(
            *simulator::find_card_kind("k47"),
            simulator::card_options{.root = test::root() + "/k47", .actions = {}, .fed_by = ""});
        hands_ = device_handler_client::create("/tmp/device_handlers/sim", "hands", {});
        monitor_ = device_handler_client::create("/tmp/device_handlers/wss_edge", "monitor", {});
    }

    static std::shared_ptr<device_handler_client> k47(const std::string& handler) {
        return device_handler_client::create("/k47/tmp/device_handlers/" + handler, handler, {});
    }

    std::unique_ptr<simulator::card> mx47_;
    std::unique_ptr<simulator::card> k47_;
    std::shared_ptr<device_handler_client> hands_;
    std::shared_ptr<device_handler_client> monitor_;
};

TEST_F(AmplifierCard, ShowsItsBoosterAndWhatItIs) {
    serve_alone();
    const auto booster = k47("booster");
    EXPECT_TRUE(booster->get<bool>("data/enable"));
    EXPECT_FLOAT_EQ(booster->get<float>("data/actualGain"), 5.0F);
    EXPECT_FLOAT_EQ(booster->get<float>("data/powerLimit"), 21.0F);
    EXPECT_FLOAT_EQ(booster->get<float>("data/boosterTx"), 21.4F);
    EXPECT_NEAR(booster->get<float>("data/txPower") - booster->get<float>("data/rxPower"), 5.0,
                0.3);
    const auto info = k47("system_info");
    EXPECT_EQ(info->get<std::string>("inventory/productName"), "VLT-Q-K47");
    EXPECT_EQ(info->get<std::string>("data/locationIndex"), "2");
}

TEST_F(AmplifierCard, SoftwareIsWhatHandsInstall) {
    serve_alone();
    const auto info = k47("system_info");
    EXPECT_EQ(info->get<std::string>("inventory/swVersion"), "1.0.0");
    k47("sim")->set<void>("sim/softwareVersion", std::string("2.0.0"));
    EXPECT_EQ(info->get<std::string>("inventory/swVersion"), "2.0.0");
}

TEST_F(AmplifierCard, AmplifiesWhatTheEqPortFeedsOnceConnected) {
    serve_both();
    const auto booster = k47("booster");
    const float before = hands_->get<float>("sim/eq/channel/1/outputPower");
    hands_->set<void>("sim/eq/booster/connected", true);
    const float power = hands_->get<float>("sim/eq/channel/1/outputPower");
    EXPECT_NEAR(power, before + 5.0F, 0.05);
    // The monitor sees the amplifier's output.
    EXPECT_NEAR(monitor_->get<float>("data/ocm/2/channel/1/powerLevel") +
                    booster->get<float>("data/boosterTx"),
                power, 0.2);
    EXPECT_NEAR(
        monitor_->get<float>("data/ocm/2/totalPower") + booster->get<float>("data/boosterTx"),
        booster->get<float>("data/txPower"), 0.3);
}

TEST_F(AmplifierCard, SettingsMoveTheLightOfTheEqPort) {
    serve_both();
    hands_->set<void>("sim/eq/booster/connected", true);
    const auto booster = k47("booster");
    const float before = hands_->get<float>("sim/eq/channel/1/outputPower");
    booster->set<void>("config/gain", 7.0F);
    EXPECT_NEAR(hands_->get<float>("sim/eq/channel/1/outputPower"), before + 2.0F, 0.05);
    k47("sim")->set<void>("sim/booster/powerLimit", 3.0);
    EXPECT_NEAR(booster->get<float>("data/txPower"), 3.15, 0.05);
    EXPECT_LT(booster->get<float>("data/actualGain"), 0.0F);
    booster->set<void>("config/enable", false);
    EXPECT_FALSE(booster->get<bool>("data/enable"));
    EXPECT_LT(hands_->get<float>("sim/eq/channel/1/outputPower"), before - 20.0F);
}

TEST_F(AmplifierCard, WithoutTheCardThatFeedsItItsBoosterTellsNothing) {
    serve_both();
    const auto booster = k47("booster");
    EXPECT_TRUE(booster->get<bool>("data/enable"));
    mx47_.reset();
    try {
        booster->get<float>("data/txPower");
        FAIL() << "no light to tell of";
    } catch (const dh_client_exception& error) {
        EXPECT_EQ(error.code, no_answer);
    }
    EXPECT_EQ(k47("system_info")->get<std::string>("inventory/swVersion"), "1.0.0");
}

}  // namespace
