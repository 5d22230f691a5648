// A step of the regulation: the exact sequence of what it reads, writes and logs.
#include "step_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RegulationStep : public test::step_test {};

// --- taking the reading ---

TEST_F(RegulationStep, QuietChannelCostsOneReadOfTheMonitorAndOneOfThePort) {
    see_power(3.0F);
    take_over(7.0F);
    settle();
    EXPECT_THAT(step(), ElementsAre(monitor_read(), port_read()));
}

TEST_F(RegulationStep, NewChannelOffItsTargetIsCorrectedInTheSameStep) {
    take_over(7.0F);
    see_power(5.0F);
    regulator_->set_verbose_mode(true);
    EXPECT_THAT(
        step(),
        ElementsAre(
            "6 msg: Regulate: channel-ix5, wanted power: 3",
            "6 msg: Regulate: using WSS_datapath: data/wss/channel/",
            "6 msg: Regulate: using WSS_configpath: config/wss/channel/",
            "6 msg: Regulate: using OCM_datapath: data/ocm/1/",  //
            monitor_read(), port_read(),                         //
            "6 msg: WSS_port: 0, channelId: 205, avgPower: -15",
            "6 msg: WSS_port: 0, raw power: -15, power adjusted to calibration: 5",
            "6 msg: WSS_port: 0, channelId: 205, raw power: -15, power adjusted to calibration: 5, "
            "Peakdetected: true",
            "6 msg: channelId: 205, New channel detected, channel-ix5, WSS_port: 0",
            "6 msg: Set lossTurnOffTimestamp: 31536000",
            "6 msg: Modified wanted power on channelId: 205, is currently: 3",
            "6 msg: Decision!!! powerdiffaverage: 2, measured power: 5, lanediffaverage: 0",
            "6 msg: Tiltloss: fiberLength: 0, Wavelength: 0, loss: 0, channelId: 205",
            "6 msg: Tilt factor on channelId: 205, tilt: 0",
            "6 msg: Powerdiff: 2, measured power: 5",  //
            attenuation_read(),                        //
            "6 msg: WSS port: 0, channel-ix5, Get WSS attenuation: 7 dB",
            "6 msg: Last WSS diff for channel-ix5, diff: 0",
            "6 msg: Readout attenuation for channel-ix5, is: 7",
            "6 msg: HIGH Attenuation diff will be set on channel-ix5, value: 8, previous att: 7, "
            "new value: 8",
            "6 msg: Setting max GIVEUPCOUNTER on channel-ix5",
            "6 msg: WSS port: 0, Set WSS attenuation to: 8 dB for channel-ix5, current channel "
            "txPower: 5, wanted power diff: 2",
            write_of("8.0"),  //
            "6 msg: Attenuation for channelId: 205, channel-ix5, to: 8"));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 8.0F);
    EXPECT_EQ(regulator_->get_rxPowerDeviationChannel(5), 2.0F);
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -15.0F);
    EXPECT_EQ(regulator_->get_rxChannelId(5), 205);
}

TEST_F(RegulationStep, FineTuningIsToldStepByStep) {
    take_over(7.0F);
    see_power(3.5F);
    regulator_->set_verbose_mode(true);
    std::vector<std::string> lines = step_after_reading();
    lines.erase(lines.begin(), lines.begin() + 7);  // up to the new channel, as above
    EXPECT_THAT(
        lines,
        ElementsAre(
            "6 msg: channelId: 205, New channel detected, channel-ix5, WSS_port: 0",
            "6 msg: Set lossTurnOffTimestamp: 31536000",
            "6 msg: Modified wanted power on channelId: 205, is currently: 3",
            "6 msg: Tiltloss: fiberLength: 0, Wavelength: 0, loss: 0, channelId: 205",
            "6 msg: Tilt factor on channelId: 205, tilt: 0",
            "6 msg: Powerdiff: 0.5, measured power: 3.5",
            "6 msg: Power is near target finetuning: 3, channelId: 205, power: 3.5, extra credit: "
            "7",
            "6 msg: Finetune channelId: 205, attenuation: 7.1, channel-ix5, txPwr: 3.5, finetuning "
            "1 of 7",
            "6 msg: WSS port: 0, Set WSS attenuation to: 7.1 dB for channel-ix5, current channel "
            "txPower: 3.5, wanted power diff: 0.5",
            write_of("7.099999904632568")));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F + 0.1F);
}

TEST_F(RegulationStep, AverageIsOfTheLastFiveReadings) {
    take_over(7.0F);
    for (const float raw : {-10.0F, -20.0F, -21.0F, -22.0F, -23.0F, -24.0F}) {
        see_light(raw);
        step();
    }
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(5), -22.0F);
}

TEST_F(RegulationStep, ReadingAloneIsTheAverageAfterADarkOne) {
    see_light(-10.0F);
    step();
    see_dark(-50.0F);
    step();
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(5), -50.0F);
    see_light(-12.0F);  // the old average is below -30 dBm
    step();
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(5), -12.0F);
}

TEST_F(RegulationStep, AverageBelowMinusThirtyIsDroppedAlsoWithAPeak) {
    see_light(-31.0F);
    step();
    see_light(-11.0F);
    step();
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(5), -11.0F);
}

TEST_F(RegulationStep, DarkChannelStaysUncalibrated) {
    see_dark(-40.0F);
    step();
    EXPECT_EQ(regulator_->get_txPowerChannel(5), -40.0F);
    see_light(-17.0F);
    step();
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 3.0F);
}

TEST_F(RegulationStep, MissingValuesAreADarkChannelWithoutAnId) {
    wss_edge_.remove(ocm("/detected"));
    wss_edge_.remove(ocm("/powerLevel"));
    wss_edge_.remove(ocm("/id"));
    EXPECT_THAT(step(), ElementsAre(monitor_read(), port_read()));
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -60.0F);
    EXPECT_EQ(regulator_->get_rxChannelId(5), 0);
    EXPECT_EQ(regulator_->get_rxClientStatus(5), "down");
}

TEST_F(RegulationStep, ValuesOfAWrongTypeCountAsMissing) {
    wss_edge_.set_json(ocm("/detected"), R"("yes")");
    wss_edge_.set_json(ocm("/powerLevel"), "null");
    wss_edge_.set_json(ocm("/id"), "1.5");
    wss_edge_.set_error("data/wss/channel/5/port", -22, "bad");
    EXPECT_THAT(step(), ElementsAre(monitor_read(), port_read()));
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -60.0F);
    EXPECT_EQ(regulator_->get_rxChannelId(5), 0);
}

TEST_F(RegulationStep, ReadThatFailsEndsTheStepBeforeAnythingIsRemembered) {
    see_light(-10.0F);
    wss_edge_.fail_requests(-32602, "no");
    EXPECT_THROW(step(), dh_client_exception);
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -25.0F);
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(5), -25.0F);
    wss_edge_.fail_requests(0);
    step();
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -10.0F);
}

TEST_F(RegulationStep, HandlerThatIsAwayEndsTheStep) {
    wss_edge_.stop();
    EXPECT_THROW(step(), dh_client_exception);
}

// --- active channels and budget ---

TEST_F(RegulationStep, ChannelWithAPeakOnAnOpenPortCounts) {
    see_power(3.0F);
    step();
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 1);
    see_dark();
    step();
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 0);
}

TEST_F(RegulationStep, ChannelOnAPortThatIsOffIsNotCountedYetMoved) {
    wss_edge_.set("data/wss/channel/5/port", "off");
    see_power(5.0F);
    take_over(7.0F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("8.0")));
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 0);
}

TEST_F(RegulationStep, ChannelWhosePortIsClosedLeavesTheCount) {
    see_power(3.0F);
    step();
    wss_edge_.set("data/wss/channel/5/port", "off");
    step();
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 0);
}

TEST_F(RegulationStep, BudgetThatIsExceededStopsEveryChannelOfTheLoopUntilItIsKept) {
    take_over(7.0F);
    see_power(5.0F);
    regulator_->set_number_of_AllowedChannels(0);
    const std::string refusal =
        "3 msg: Max number of active channels already reached: 1. Please check your settings! "
        "Current allowed channels: 0";
    EXPECT_THAT(step(), ElementsAre(monitor_read(), port_read(), refusal));
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -25.0F);  // the record keeps what it had
    regulator_->regulate_channel(6, wss_edge_client_);
    EXPECT_EQ(transcript_.take().back(), refusal);  // a dark channel, too
    EXPECT_EQ(alarm("alarms/pam4ChannelLimitExceeded/severity"), 0U);

    regulator_->set_number_of_AllowedChannels(1);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("8.0")));
}

TEST_F(RegulationStep, LoopRecoversFromItsBudgetWhenAPeakGoes) {
    see_power(3.0F);
    regulator_->set_number_of_AllowedChannels(0);
    step();
    see_dark();
    EXPECT_THAT(step_after_reading(), IsEmpty());
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -60.0F);
}

// --- control mode ---

TEST_F(RegulationStep, ModeOffBlocksTheChannelOnce) {
    take_over(24.9F);
    see_power(3.0F);
    regulator_->set_opticalControlMode(5, "off");
    EXPECT_THAT(step_after_reading(), ElementsAre(write_of("25.5")));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 25.5F);
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 1);
    EXPECT_THAT(step_after_reading(), IsEmpty());
}

TEST_F(RegulationStep, ModeOffWritesNothingAtTwentyFiveDecibel) {
    take_over(25.0F);
    regulator_->set_opticalControlMode(5, "off");
    EXPECT_THAT(step_after_reading(), IsEmpty());
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 25.0F);
}

TEST_F(RegulationStep, ModeOffLeavesTheLossStateAlone) {
    regulator_->set_opticalControlMode(5, "off");
    see_power(3.0F);
    step();
    EXPECT_TRUE(regulator_->get_rxLossOfSignalChannel(5));
    EXPECT_EQ(alarm("alarms/client/6/rx/lossOfSignal/severity"), 1U);
}

TEST_F(RegulationStep, ModeThatIsUnknownOnlyTakesTheReading) {
    regulator_->set_opticalControlMode(5, "gain");
    see_power(5.0F);
    EXPECT_THAT(step_after_reading(), IsEmpty());
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 5.0F);
    regulator_->set_verbose_mode(true);
    EXPECT_EQ(step().back(), "6 msg: Not in power mode. opticalControlMode: gain");
}

TEST_F(RegulationStep, BlockedChannelIsParkedBeforeItRegulates) {
    take_over(25.5F);
    see_power(5.0F);
    regulator_->set_edfa_defaultAttenuation(12.0F);
    transcript_.take();
    EXPECT_THAT(
        step_after_reading(),
        ElementsAre("6 msg: Requesting WSS unblock on channel-ix5, channelId: 205",  //
                    port_read(),                                                     //
                    "7 msg: Get port mode: edfa, channel-ix5",
                    "6 msg: Set max WSS attenuation, portmode: (edfa), channel-ix5",
                    "6 msg: EDFA default att: 12",
                    "6 msg: WSS port: 0, Set WSS attenuation to: 12 dB for channel-ix5, current "
                    "channel txPower: 5, wanted power diff: 0",
                    write_of("12.0")));
    EXPECT_TRUE(regulator_->get_rxLossOfSignalChannel(5));
    set_wss(12.0F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("13.0")));
}

TEST_F(RegulationStep, UnblockingIsToldInFullToTheVerbose) {
    take_over(25.5F);
    regulator_->set_verbose_mode(true);
    EXPECT_THAT(lines_of_a_step("6 msg: S"),
                ElementsAre("6 msg: Starting regulation, opticalControlMode: power",
                            "6 msg: Setting default attenuation, opticalControlMode: power",
                            "6 msg: Set max WSS attenuation, portmode: (edfa), channel-ix5"));
}

TEST_F(RegulationStep, ChannelAtTwentyDecibelIsNotBlocked) {
    take_over(20.0F);
    see_power(3.5F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));  // into the range
}

// --- peak and alarms ---

TEST_F(RegulationStep, LossOfSignalFollowsThePeakOfTheClientOneUp) {
    EXPECT_EQ(alarm("alarms/client/6/rx/lossOfSignal/severity"), 1U);
    see_power(3.0F);
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/lossOfSignal/severity"), 0U);
    EXPECT_EQ(regulator_->get_rxClientStatus(5), "up");
    see_dark();
    EXPECT_THAT(
        lines_of_a_step("6 msg: channelId"),
        ElementsAre("6 msg: channelId: 205, New channel detected, channel-ix5, WSS_port: 0"));
    EXPECT_EQ(alarm("alarms/client/6/rx/lossOfSignal/severity"), 1U);
    EXPECT_EQ(regulator_->get_rxClientStatus(5), "down");
}

TEST_F(RegulationStep, PowerAlarmsStandBeyondTwentyFiveDecibelAndStayWhileItIsDark) {
    regulator_->set_wanted_power(5, -22.0F);
    see_power(3.0F);  // 25 dB exactly
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/highPower/severity"), 0U);
    regulator_->set_wanted_power(5, -22.1F);
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/highPower/severity"), 1U);
    see_dark();
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/highPower/severity"), 1U);
    regulator_->set_wanted_power(5, 28.1F);
    see_power(3.0F);
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/highPower/severity"), 0U);
    EXPECT_EQ(alarm("alarms/client/6/rx/lowPower/severity"), 1U);
    regulator_->set_wanted_power(5, 28.0F);
    step();
    EXPECT_EQ(alarm("alarms/client/6/rx/lowPower/severity"), 0U);
}

TEST_F(RegulationStep, EveryChannelDrivesTheClientOneUp) {
    for (const unsigned ix : {1U, 48U}) {
        const std::string channel = "data/ocm/1/channel/" + std::to_string(ix);
        wss_edge_.set(channel + "/detected", true);
        wss_edge_.set(channel + "/powerLevel", -17.0F);
        regulator_->regulate_channel(ix, wss_edge_client_);
        EXPECT_EQ(alarm("alarms/client/" + std::to_string(ix + 1) + "/rx/lossOfSignal/severity"),
                  0U);
    }
    EXPECT_EQ(alarm("alarms/client/1/rx/lossOfSignal/severity"), 1U);
    EXPECT_EQ(alarm("alarms/client/48/rx/lossOfSignal/severity"), 1U);
}

// --- coarse correction ---

TEST_F(RegulationStep, ChannelThatStoppedMovingCostsNoAccessAlsoOutsideTheBand) {
    take_over(15.0F);
    see_power(9.0F);
    settle();
    EXPECT_THAT(step(), ElementsAre(monitor_read(), port_read(), attenuation_read()));
    // Off its target, it is looked at each time; a wanted power near the
    // published power, and then nothing has changed.
    regulator_->set_wanted_power(5, 8.9F);
    settle();
    regulator_->set_verbose_mode(true);
    EXPECT_EQ(step().back(),
              "6 msg: Power on channelId: 205 has not changed, do nothing this time...");
}

TEST_F(RegulationStep, CorrectionStartsFromWhatTheWssReports) {
    take_over(7.0F);
    set_wss(5.0F);
    see_power(9.0F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("8.0")));  // 6 dB, half of it
    set_wss(5.0F);
    see_power(10.0F);
    for (int i = 0; i < 5; ++i)
        step();
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 6.4F);  // 7 dB, a fifth of it
}

TEST_F(RegulationStep, ReadBackThatIsMissingCountsAsTwentyFiveAndIsNotBlocked) {
    take_over(7.0F);
    wss_edge_.remove("data/wss/channel/5/attenuation");
    see_power(5.0F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 15.0F);
}

TEST_F(RegulationStep, CorrectionCutOffWhereTheChannelStandsWritesNothingAndKeepsTheCredit) {
    take_over(15.0F);
    see_power(3.0F);
    for (int i = 0; i < 3; ++i)
        step();
    set_wss(14.0F);
    regulator_->set_wanted_power(5, -1.0F);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    regulator_->set_wanted_power(5, 3.5F);
    EXPECT_THAT(lines_of_a_step("6 msg: Finetune").at(0), testing::HasSubstr("finetuning 4 of 7"));
}

TEST_F(RegulationStep, FifteenDecibelExactlyReloadsTheCounter) {
    take_over(7.0F);
    set_wss(14.0F);
    see_power(5.0F);
    regulator_->set_verbose_mode(true);
    EXPECT_THAT(lines_of_a_step("6 msg: Setting"),
                ElementsAre("6 msg: Setting max GIVEUPCOUNTER on channel-ix5"));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 15.0F);
}

TEST_F(RegulationStep, CutCorrectionsCountDownUntilTheChannelIsGivenUp) {
    take_over(15.0F);
    see_power(7.0F);
    regulator_->set_verbose_mode(true);
    const auto counter = [this] {
        const std::string line = lines_of_a_step("6 msg: Setting max attenuation on").at(0);
        return std::stoi(line.substr(line.rfind(' ')));
    };
    for (int expected = 9; expected >= 1; --expected)
        EXPECT_EQ(counter(), expected);
    const std::vector<std::string> lines = step();  // with the counter at 1
    EXPECT_THAT(lines,
                testing::Contains("6 msg: Powerdiff > 0.7 giving up on channel-ix5, powerdiff: 4, "
                                  "lanediff: 0"));
    EXPECT_THAT(lines,
                testing::Contains("6 msg: Powerdiff > 0.7 giving up on channel-ix5, powerdiff: 4"));
    EXPECT_EQ(lines.back(),
              "6 msg: Setting max attenuation on channel-ix5, att is: 15. Tick down give upp "
              "counter: -1");
    EXPECT_EQ(counter(), -1);  // and no further
}

TEST_F(RegulationStep, LowEndIsToldOnceAndThenTheChannelIsGivenUp) {
    take_over(0.0F);
    see_power(1.0F);
    regulator_->set_verbose_mode(true);
    const std::string counted =
        "6 msg: Setting min attenuation on channel-ix5, att is: 0. Tick down give upp counter: -1";
    std::vector<std::string> lines = step();
    EXPECT_THAT(lines, testing::Contains(
                           "6 msg: NEAR WSS LOW END Giving up on channel-ix5, power diff: -2"));
    EXPECT_EQ(lines.back(), counted);
    lines = step();
    EXPECT_THAT(
        lines, testing::Contains("6 msg: Powerdiff > 0.7 giving up on channel-ix5, powerdiff: -2"));
    EXPECT_THAT(lines, testing::Not(testing::Contains(testing::HasSubstr("LOW END"))));
    EXPECT_EQ(lines.back(), counted);
}

TEST_F(RegulationStep, HighEndIsToldWhereTheWssReportsMoreThanItMay) {
    take_over(15.0F);
    set_wss(24.0F);
    see_power(5.0F);
    regulator_->set_verbose_mode(true);
    EXPECT_THAT(lines_of_a_step("6 msg: NEAR"),
                ElementsAre("6 msg: NEAR WSS HIGH END Giving up on channel-ix5, power diff: 2"));
}

TEST_F(RegulationStep, CorrectionToTheBottomIsTold) {
    take_over(0.5F);
    see_power(1.0F);
    regulator_->set_verbose_mode(true);
    EXPECT_THAT(lines_of_a_step("6 msg: Banging"),
                ElementsAre("6 msg: Banging at bottom: channel-ix5, to: 0, index+1 att: 0, "
                            "lanediff: 0, giveup counter: -1"));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 0.0F);
}

TEST_F(RegulationStep, WriteThatFailsLeavesTheCommandedValueAndTheNextStepTriesAgain) {
    take_over(7.0F);
    see_power(5.0F);
    wss_edge_.fail_writes("config/wss/channel/5/attenuation", -61, "stuck");
    EXPECT_THROW(step(), dh_client_exception);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F);
    transcript_.take();
    wss_edge_.accept_writes("config/wss/channel/5/attenuation");
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("8.0")));
}

// --- fine-tuning ---

TEST_F(RegulationStep, FineTuningEndsAfterSevenSteps) {
    take_over(7.0F);
    see_power(3.5F);
    std::vector<std::string> told;
    for (int i = 0; i < 9; ++i) {
        for (const std::string& line : lines_of_a_step("6 msg: Finetune"))
            told.push_back(line.substr(line.find("finetuning")));
    }
    EXPECT_THAT(told, ElementsAre("finetuning 1 of 7", "finetuning 2 of 7", "finetuning 3 of 7",
                                  "finetuning 4 of 7", "finetuning 5 of 7", "finetuning 6 of 7",
                                  "finetuning 7 of 7"));
}

TEST_F(RegulationStep, FineTuningStartsFromWhatWasCommanded) {
    take_over(7.0F);
    set_wss(3.0F);
    see_power(3.5F);
    const std::vector<std::string> lines = step();
    EXPECT_THAT(lines, testing::Not(testing::Contains(attenuation_read())));
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F + 0.1F);
}

TEST_F(RegulationStep, FineTuningTakesASmallDifferenceAsAWhole) {
    take_over(7.0F);
    regulator_->set_wanted_power(5, 0.0F);
    see_power(0.125F);
    step();
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.125F);
}

TEST_F(RegulationStep, FineTuningLowersTheAttenuationOfAWeakChannel) {
    take_over(7.0F);
    see_power(2.5F);
    step();
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F - 0.1F);
}

TEST_F(RegulationStep, FineTuningOnTheTargetWritesNothingAndUsesUpTheCredit) {
    take_over(7.0F);
    see_power(3.0F);
    regulator_->set_verbose_mode(true);
    for (int credit = 7; credit >= 1; --credit) {
        const std::vector<std::string> lines = step();
        EXPECT_EQ(lines.back(),
                  "6 msg: Power is near target finetuning: 3, channelId: 205, power: 3, extra "
                  "credit: " +
                      std::to_string(credit));
    }
    EXPECT_EQ(step().back(),
              "6 msg: Power on channelId: 205 has not changed, do nothing this time...");
}

TEST_F(RegulationStep, FineTuningStaysWithinTheRange) {
    take_over(15.0F);
    see_power(3.5F);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    take_over(0.05F);
    see_power(2.5F);
    for (int i = 0; i < 5; ++i)
        step();
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 0.0F);
}

TEST_F(RegulationStep, WantedPowerOfTheMomentCounts) {
    take_over(7.0F);
    see_power(3.0F);
    settle();
    regulator_->set_wanted_power(5, 1.0F);
    set_wss(7.0F);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("8.0")));
}

// --- loss of light ---

class LossOfLight : public RegulationStep {
  protected:
    LossOfLight() {
        take_over(7.0F);
        see_power(3.0F);
        settle();
        see_dark();
        step();
        transcript_.take();
    }

    void wait(int seconds) { clock_.advance(std::chrono::seconds(seconds)); }

    std::vector<std::string> parking() const {
        return {port_read(),
                "7 msg: Get port mode: edfa, channel-ix5",
                "6 msg: Set max WSS attenuation, portmode: (edfa), channel-ix5",
                "6 msg: EDFA default att: 15",
                "6 msg: WSS port: 0, Set WSS attenuation to: 15 dB for channel-ix5, current "
                "channel txPower: -60, wanted power diff: 0",
                write_of("15.0")};
    }
};

TEST_F(LossOfLight, ChannelKeepsItsAttenuationUntilTheTimeIsOverAndIsParkedOnce) {
    wait(60);
    EXPECT_THAT(step_after_reading(), IsEmpty());
    wait(1);
    EXPECT_EQ(step_after_reading(), parking());
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 15.0F);
    wait(1000);
    EXPECT_THAT(step_after_reading(), IsEmpty());
}

TEST_F(LossOfLight, ParkedChannelIsNotParkedAgainWhenItIsMovedByHand) {
    wait(61);
    step();
    regulator_->set_wss_attenuation(4.0F, 5);
    transcript_.take();
    wait(1000);
    EXPECT_THAT(step_after_reading(), IsEmpty());
}

TEST_F(LossOfLight, ChannelThatReturnsInTimeFindsItsAttenuation) {
    wait(60);
    step();
    see_power(3.0F);
    step();
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F);
    see_dark();
    step();
    wait(60);  // counted from the last light
    EXPECT_THAT(step_after_reading(), IsEmpty());
}

TEST_F(LossOfLight, EachLossIsActedOn) {
    wait(61);
    step();
    see_power(8.0F);
    set_wss(7.0F);
    step();
    ASSERT_EQ(regulator_->get_rxWssAttenuation(5), 9.5F);
    see_dark();
    step();
    wait(61);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

TEST_F(LossOfLight, CountdownAndActionAreToldToTheVerbose) {
    regulator_->set_verbose_mode(true);
    wait(20);
    EXPECT_EQ(step().back(), "6 msg: Counting down, time left: 40, channel-ix5, channelId: 205");
    wait(41);
    const std::vector<std::string> lines = step();
    const auto first =
        std::find(lines.begin(), lines.end(),
                  "6 msg: Timestamp now is: 31536061, timeouttime: 31536060, channelId: 205");
    ASSERT_NE(first, lines.end());
    EXPECT_THAT(std::vector<std::string>(first + 1, first + 6),
                ElementsAre("6 msg: Loss counter counting down channelId: 205, counter: 15",
                            "6 msg: Setting max attenuation for channelId: 205",
                            "6 msg: Previous WSS attenuation: 7", "6 msg: Power value now: -60",
                            "6 msg: No light on channel-ix5, opticalControlMode: power"));
}

TEST_F(LossOfLight, LightWithoutAPeakHoldsTheTimerBack) {
    regulator_->set_verbose_mode(true);
    see_dark(-34.9F);
    wait(59);
    EXPECT_THAT(lines_of_a_step("6 msg: We lost"),
                ElementsAre("6 msg: We lost peak flag , but still have power (> -35dBm) measured: "
                            "-34.9 dBm, on channelId: 205, channel-ix5"));
    see_dark(-35.0F);
    wait(60);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    wait(1);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

TEST_F(LossOfLight, TimeOutOfZeroStillCountsDownForThatSecond) {
    regulator_->set_lossTimeout(0);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    wait(1);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

TEST_F(LossOfLight, TimeOutPastTheClockNeverEnds) {
    regulator_->set_lossTimeout(std::numeric_limits<long long>::max());
    wait(1'000'000);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
}

TEST_F(LossOfLight, ChannelAtFifteenDecibelIsLeftWhereItIs) {
    take_over(15.0F);
    wait(61);
    EXPECT_THAT(step_after_reading(), IsEmpty());
    take_over(17.0F);
    wait(61);
    EXPECT_THAT(step_after_reading(), IsEmpty());
}

TEST_F(LossOfLight, ParkingThatFailedIsNotTriedAgainUntilThereWasLight) {
    wss_edge_.fail_writes("config/wss/channel/5/attenuation", -61, "stuck");
    wait(61);
    EXPECT_THROW(step(), dh_client_exception);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 7.0F);
    wss_edge_.accept_writes("config/wss/channel/5/attenuation");
    transcript_.take();
    wait(1000);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    see_power(3.0F);
    step();
    see_dark();
    step();
    wait(61);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

TEST_F(LossOfLight, TakeOverRestartsTheTimer) {
    wait(50);
    take_over(7.0F);
    wait(60);
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    wait(1);
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

TEST_F(RegulationStep, DarkChannelIsParkedWhenTheTimeSinceTheStartIsOver) {
    regulator_->set_wss_attenuation(7.0F, 5);
    transcript_.take();
    clock_.advance(std::chrono::seconds(60));
    EXPECT_THAT(writes_of_a_step(), IsEmpty());
    clock_.advance(std::chrono::seconds(1));
    EXPECT_THAT(writes_of_a_step(), ElementsAre(write_of("15.0")));
}

// A clock that does something when it is looked at: what another thread may do
// in the middle of a step.
class acting_time final : public host::time_source {
  public:
    explicit acting_time(std::chrono::nanoseconds now) : now_(now), override_(*this) {}

    std::chrono::nanoseconds wall() override {
        if (action_ && looks_left_-- == 0)
            std::exchange(action_, nullptr)();
        return now_;
    }
    std::chrono::nanoseconds monotonic() override { return now_; }
    void sleep(std::chrono::nanoseconds) override {}

    void act_at_look(int number, std::function<void()> action) {
        looks_left_ = number;
        action_ = std::move(action);
    }

  private:
    const std::chrono::nanoseconds now_;
    int looks_left_ = 0;
    std::function<void()> action_;
    host::time_override override_;
};

class BlockedChannel : public RegulationStep {
  protected:
    // A step during which a setter of another thread moves the channel, once
    // the step has found that it is not blocked.
    void step_while_moved_to(float attenuation) {
        acting_time clock(clock_.wall());
        clock.act_at_look(1, [&] { regulator_->set_wss_attenuation(attenuation, 5); });
        step();
        ASSERT_EQ(regulator_->get_rxWssAttenuation(5), attenuation);
    }
};

TEST_F(BlockedChannel, ThatLostItsPeakAboveTwentyThreeDecibelIsRemembered) {
    EXPECT_FALSE(regulator_->get_blocked_channel_lost());
    step_while_moved_to(23.5F);
    EXPECT_TRUE(regulator_->get_blocked_channel_lost());
}

TEST_F(BlockedChannel, AtTwentyThreeDecibelIsNone) {
    step_while_moved_to(23.0F);
    EXPECT_FALSE(regulator_->get_blocked_channel_lost());
}

// --- the ports of a card with two loops ---

class EdfaPort : public test::step_test {
  protected:
    EdfaPort() : step_test("velt,mx47", 0) {}
};

class EqPort : public test::step_test {
  protected:
    EqPort() : step_test("velt,mx47", 1) {}
};

TEST_F(EdfaPort, HasPathsOfItsOwnAndTheBoostersCalibration) {
    take_over(7.0F);
    see_power(5.0F);
    const std::vector<std::string> lines = step();
    EXPECT_EQ(lines.at(0), monitor_read());
    EXPECT_EQ(lines.at(1), port_read());
    EXPECT_EQ(lines.at(3), attenuation_read());
    EXPECT_EQ(lines.back(), write_of("8.0"));
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 5.0F);
}

TEST_F(EdfaPort, DarkChannelIsParkedAtItsOwnDefaultWhateverThePort) {
    regulator_->set_channel_default_attenuation(5, 11.0F);
    take_over(7.0F);
    wss_edge_.set("data/wss/1/channel/5/port", "off");
    clock_.advance(std::chrono::seconds(61));
    EXPECT_THAT(step_after_reading(),
                ElementsAre(port_read(), "7 msg: Get port mode: off, channel-ix5",
                            "6 msg: Set max WSS attenuation, portmode: (off), channel-ix5",
                            "6 msg: Set max WSS attenuation mx47 :(11), channel-ix5",
                            "6 msg: WSS port: 0, Set WSS attenuation to: 11 dB for channel-ix5, "
                            "current channel txPower: -60, wanted power diff: 0",
                            write_of("11.0")));
}

TEST_F(EqPort, IsCalibratedByTheOffsetOfItsMonitor) {
    regulator_->set_ocm_power_offset_value(18.0F);
    transcript_.take();
    take_over(7.0F);
    see_light(-13.0F);
    EXPECT_EQ(step().back(), write_of("8.0"));  // 5 dBm by the offset
}

TEST_F(EqPort, IsCalibratedToTheNeighboursBoosterInCombinedMode) {
    regulator_->set_cal_mon_to_boostertx_k47(22.0F);
    regulator_->set_k47_combo_flag(true);
    regulator_->set_wanted_power(5, 3.0F);
    take_over(7.0F);
    see_light(-17.0F);
    EXPECT_EQ(writes_of_a_step(), std::vector<std::string>{write_of("8.0")});
}

TEST_F(EqPort, LogsOnAChannelOfItsOwn) {
    transcript_.take();
    see_power(3.0F);
    EXPECT_THAT(
        lines_of_a_step("6 msg: channelId"),
        ElementsAre("6 msg: channelId: 205, New channel detected, channel-ix5, WSS_port: 1"));
}

}  // namespace
