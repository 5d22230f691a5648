#include "channel_board.hpp"

#include "wire.hpp"

#include <gmock/gmock.h>

namespace {

using std::chrono::seconds;
using tmctl::channel_board;
using tmctl::channel_readings;
using tmctl::channel_state;

channel_readings lit_channel(double wanted, double tx) {
    channel_readings channel;
    channel.wanted = wanted;
    channel.tx = tx;
    channel.mode = "power";
    channel.light = true;
    return channel;
}

channel_readings dark_channel(double attenuation, double idle) {
    channel_readings channel = lit_channel(4.0, -25.0);
    channel.light = false;
    channel.attenuation = attenuation;
    channel.idle_attenuation = idle;
    return channel;
}

TEST(TmctlChannelState, ADifferenceOfExactlyPointSevenIsWithinTheBand) {
    EXPECT_EQ(lit_channel(0.0, 0.7).state(), channel_state::fine);
    EXPECT_EQ(lit_channel(0.0, -0.7).state(), channel_state::fine);
    EXPECT_EQ(lit_channel(0.0, 0.71).state(), channel_state::regulating);
    EXPECT_EQ(lit_channel(0.0, -0.71).state(), channel_state::regulating);
}

TEST(TmctlChannelState, ModeOffIsBlockedWhateverTheLight) {
    channel_readings channel = lit_channel(4.0, 4.0);
    channel.mode = "off";
    EXPECT_EQ(channel.state(), channel_state::blocked);
    channel.light.reset();
    EXPECT_EQ(channel.state(), channel_state::blocked);
}

TEST(TmctlChannelState, AnyOtherModeIsUntended) {
    channel_readings channel = lit_channel(4.0, 4.0);
    channel.mode = "manual";
    EXPECT_EQ(channel.state(), channel_state::untended);
}

TEST(TmctlChannelState, WithoutLightItIsParkedOnlyAtTheIdleAttenuation) {
    EXPECT_EQ(dark_channel(10.0, 10.0).state(), channel_state::parked);
    EXPECT_EQ(dark_channel(6.3, 10.0).state(), channel_state::dark);
}

TEST(TmctlChannelState, WithoutAnAttenuationADarkChannelIsDark) {
    channel_readings channel = dark_channel(10.0, 10.0);
    channel.attenuation.reset();
    EXPECT_EQ(channel.state(), channel_state::dark);
}

TEST(TmctlChannelState, WhatTheTreeDoesNotTellIsUnknown) {
    EXPECT_EQ(channel_readings().state(), channel_state::unknown);
    channel_readings channel = lit_channel(4.0, 4.0);
    channel.tx.reset();
    EXPECT_EQ(channel.state(), channel_state::unknown);
}

TEST(TmctlChannelState, ADarkChannelHasNoDifference) {
    EXPECT_FALSE(dark_channel(10.0, 10.0).difference());
    EXPECT_NEAR(lit_channel(4.0, 4.5).difference().value(), 0.5, 1e-9);
}

// A board of one channel, fed by hand.
class TmctlChannelBoard : public testing::Test {
  protected:
    TmctlChannelBoard() : board_({tmctl::one_port_channels().at(2)}, start) {}

    void take(const std::string& path, const char* json_text) {
        json::document value;
        ASSERT_TRUE(wire::parse(json_text, value));
        board_.take(path, value, now_);
    }

    void light_up() {
        take("control/data/3/wantedPower", "4.0");
        take("control/data/3/opticalControlMode", "\"power\"");
        take("control/data/3/portMode", "\"edfa\"");
        take("control/data/edfa/defaultAttenuation", "12.0");
        take("alarms/client/4/rx/lossOfSignal/severity", "0");
        take("control/data/3/txPower", "6.0");
        take("data/wss/channel/3/attenuation", "12.0");
    }

    const channel_readings& channel() const { return board_.channels().front(); }

    static constexpr seconds start{1000};
    tmctl::program_time now_ = start;
    channel_board board_;
};

TEST_F(TmctlChannelBoard, FindsEachValueOfAChannel) {
    light_up();
    take("control/data/3/rxPower", "-3.5");
    EXPECT_EQ(channel().channel, 3U);
    EXPECT_EQ(channel().wanted, 4.0);
    EXPECT_EQ(channel().rx, -3.5);
    EXPECT_EQ(channel().tx, 6.0);
    EXPECT_EQ(channel().attenuation, 12.0);
    EXPECT_EQ(channel().mode, "power");
    EXPECT_EQ(channel().port, "edfa");
    EXPECT_EQ(channel().light, true);
}

TEST_F(TmctlChannelBoard, TheAlarmOfAChannelIsThatOfTheClientOneAbove) {
    light_up();
    take("alarms/client/3/rx/lossOfSignal/severity", "1");
    EXPECT_EQ(channel().light, true);
    take("alarms/client/4/rx/lossOfSignal/severity", "1");
    EXPECT_EQ(channel().light, false);
}

TEST_F(TmctlChannelBoard, AValueOfTheWrongTypeIsNoValue) {
    light_up();
    take("control/data/3/txPower", R"({"code":11,"message":"away"})");
    take("control/data/3/opticalControlMode", "7");
    take("alarms/client/4/rx/lossOfSignal/severity", "\"none\"");
    EXPECT_FALSE(channel().tx);
    EXPECT_FALSE(channel().mode);
    EXPECT_FALSE(channel().light);
}

TEST_F(TmctlChannelBoard, TheIdleAttenuationIsThatOfThePortMode) {
    light_up();
    EXPECT_EQ(channel().idle_attenuation, 12.0);
    take("control/data/3/portMode", "\"express\"");
    EXPECT_FALSE(channel().idle_attenuation);
    take("control/data/express/defaultAttenuation", "9.0");
    EXPECT_EQ(channel().idle_attenuation, 9.0);
    take("control/data/3/portMode", "\"off\"");
    EXPECT_EQ(channel().idle_attenuation, 15.0);
}

TEST_F(TmctlChannelBoard, CountsTheCorrectionsToTheBandAndTheFineTuningSince) {
    light_up();
    take("config/wss/channel/3/attenuation", "13.0");
    take("config/wss/channel/3/attenuation", "13.5");
    take("config/wss/channel/3/attenuation", "13.3");
    take("config/wss/channel/3/attenuation", "13.2");
    take("config/wss/channel/3/attenuation", "13.2");
    EXPECT_EQ(channel().progress.to_band, 2U);
    EXPECT_EQ(channel().progress.fine, 2U);
}

TEST_F(TmctlChannelBoard, FineTuningThatDidNotHoldWasOnTheWay) {
    light_up();
    take("config/wss/channel/3/attenuation", "11.9");
    take("config/wss/channel/3/attenuation", "13.0");
    EXPECT_EQ(channel().progress.to_band, 2U);
    EXPECT_EQ(channel().progress.fine, 0U);
}

TEST_F(TmctlChannelBoard, ParkingAChannelIsNoCorrection) {
    light_up();
    take("config/wss/channel/3/attenuation", "6.0");
    take("config/wss/channel/3/attenuation", "12.0");
    EXPECT_EQ(channel().progress.to_band, 1U);
    EXPECT_EQ(channel().progress.fine, 0U);
}

TEST_F(TmctlChannelBoard, TheWayToTheBandBeginsWithTheFirstCorrection) {
    light_up();
    EXPECT_EQ(channel().progress.way_to_band(), seconds(0));
    now_ += seconds(10);
    take("config/wss/channel/3/attenuation", "13.9");
    EXPECT_EQ(channel().progress.way_to_band(), seconds(0));
    now_ += seconds(4);
    take("control/data/3/txPower", "4.1");
    EXPECT_EQ(channel().progress.way_to_band(), seconds(4));
}

TEST_F(TmctlChannelBoard, AChannelThatWasInItsBandAllAlongHadNoWay) {
    light_up();
    take("control/data/3/txPower", "4.1");
    now_ += seconds(10);
    take("config/wss/channel/3/attenuation", "12.1");
    EXPECT_EQ(channel().progress.way_to_band(), seconds(0));
}

TEST_F(TmctlChannelBoard, IsSettledOnceInTheBandAndQuietForLongEnough) {
    light_up();
    now_ += seconds(100);
    take("config/wss/channel/3/attenuation", "13.9");
    take("control/data/3/txPower", "4.1");
    EXPECT_FALSE(board_.settled(channel(), now_, seconds(60)));
    EXPECT_FALSE(board_.settled(channel(), now_ + seconds(59), seconds(60)));
    EXPECT_TRUE(board_.settled(channel(), now_ + seconds(60), seconds(60)));
}

TEST_F(TmctlChannelBoard, IsNeverSettledOutsideOfTheBand) {
    light_up();
    EXPECT_FALSE(board_.settled(channel(), now_ + seconds(1000), seconds(60)));
}

TEST_F(TmctlChannelBoard, QuietIsCountedFromTheStartWhereNothingWasCorrected) {
    light_up();
    take("control/data/3/txPower", "4.1");
    EXPECT_FALSE(board_.settled(channel(), start + seconds(59), seconds(60)));
    EXPECT_TRUE(board_.settled(channel(), start + seconds(60), seconds(60)));
}

TEST_F(TmctlChannelBoard, RemembersWhenTheChannelLastCameIntoItsBand) {
    light_up();
    EXPECT_FALSE(channel().progress.band_entered);
    now_ += seconds(10);
    take("control/data/3/txPower", "4.1");
    now_ += seconds(10);
    take("control/data/3/txPower", "4.2");
    EXPECT_EQ(channel().progress.band_entered, start + seconds(10));
    take("control/data/3/txPower", "5.0");
    EXPECT_FALSE(channel().progress.band_entered);
}

}  // namespace
