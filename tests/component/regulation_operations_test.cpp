// What a regulator offers beside its step: start, readings, wanted power,
// booster and WSS operations.
#include "log_capture.hpp"
#include "step_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class RegulatorOfT47 : public test::step_test {};
class EdfaRegulator : public test::step_test {
  protected:
    EdfaRegulator() : step_test("velt,mx47", 0) {}
};
class EqRegulator : public test::step_test {
  protected:
    EqRegulator() : step_test("velt,mx47", 1) {}
};

// --- construction and start ---

class RegulatorStart : public test::regulator_test {
  protected:
    RegulatorStart() : regulator_test("velt,k47") {}
};

TEST_F(RegulatorStart, PublishesTheAlarmsOfFortyNineClients) {
    start_regulator();
    for (unsigned client = 1; client <= 49; ++client) {
        const std::string base = "alarms/client/" + std::to_string(client) + "/rx/";
        EXPECT_EQ(alarm(base + "unSupportedChannel/severity"), 0U);
        EXPECT_EQ(alarm(base + "lossOfSignal/severity"), 1U);
        EXPECT_EQ(alarm(base + "lowPower/severity"), 0U);
        EXPECT_EQ(alarm(base + "highPower/severity"), 0U);
    }
    EXPECT_EQ(alarm("alarms/pam4ChannelLimitExceeded/severity"), 0U);
    EXPECT_EQ(alarm("crx/data/system/totalChannels"), 48U);
    EXPECT_EQ(db_.nodes_under("").size(), 49U * 4 + 3);
    json::document out(rapidjson::kObjectType);
    db_.find_leaf_node("data/needRegulation")->get("value", out.GetAllocator(), out);
    EXPECT_FALSE(out["value"].GetBool());
}

TEST_F(RegulatorStart, LeavesItsFieldsAsTheyAreToldToBe) {
    start_regulator();
    EXPECT_EQ(regulator_->get_lossTimeout(), 60);
    EXPECT_FALSE(regulator_->get_verbose_mode());
    EXPECT_EQ(regulator_->get_edfa_defaultAttenuation(), 15.0F);
    EXPECT_EQ(regulator_->get_express_defaultAttenuation(), 15.0F);
    EXPECT_EQ(regulator_->get_eq_defaultAttenuation(), 15.0F);
    EXPECT_EQ(regulator_->get_ocm_power_offset_value(), 20.0F);
    EXPECT_EQ(regulator_->get_k47_actual_gain(), -99.0F);
    EXPECT_EQ(regulator_->get_k47_edfa_tx_power(), -99.0F);
    EXPECT_EQ(regulator_->get_k47_booster_power_limit(), 20.0F);
    EXPECT_FALSE(regulator_->get_k47_combo_flag());
    EXPECT_FALSE(regulator_->get_enable_lanecompensation());
    EXPECT_EQ(regulator_->get_number_of_ActiveChannels(), 0);
    EXPECT_EQ(regulator_->get_calibration_client_rx(), 0.0F);
    EXPECT_EQ(regulator_->get_opticalControlMode(48), "power");
    EXPECT_EQ(regulator_->get_channel_default_attenuation(48), 15.0F);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(48), 15.0F);
    EXPECT_EQ(regulator_->get_rxChannelId(48), 48);
    EXPECT_EQ(regulator_->get_rxAvgPowerChannel(48), -25.0F);
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(48), -25.0F);
    EXPECT_EQ(regulator_->get_rxPowerDeviationChannel(48), 0.0F);
    EXPECT_EQ(regulator_->get_rxWaveLength(48), 0.0F);
    EXPECT_EQ(regulator_->get_rxPowerDiffAvg(48), 0.0F);
    EXPECT_EQ(regulator_->get_rxClientStatus(48), "down");
}

TEST_F(RegulatorStart, WssIndexIsTheChannel) {
    start_regulator();
    for (const unsigned ix : {0U, 1U, 48U, 97U, 4294967295U})
        EXPECT_EQ(regulator_->get_wss_index(ix), ix);
}

TEST_F(RegulatorStart, MarkerMakesAnyCardOneWithTwoLoops) {
    test::put_file("/var/persistent/etc/enable_veltmx47", "");
    const test::log_capture log;
    start_regulator(1);
    EXPECT_EQ(log.count("msg: Is MX47. WSS_port: 1"), 1U);
    regulator_->get_wss_attenuation(5);
    EXPECT_THAT(wss_edge_.requests(), ElementsAre("read data/wss/2/channel/5/attenuation"));
    EXPECT_EQ(log.lines().back().channel, "tm_velt_regulation_EQ");
}

TEST_F(RegulatorStart, PortThatNoCardHasKeepsThePathsOfASingleLoop) {
    test::put_board("velt,mx47");
    start_regulator(2);
    regulator_->get_wss_attenuation(5);
    EXPECT_THAT(wss_edge_.requests(), ElementsAre("read data/wss/channel/5/attenuation"));
    wss_edge_.set("data/wss/channel/5/port", "on");
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), -99.0F);
}

TEST_F(RegulatorStart, AlarmsOfTwoPortsBelongToTheFirst) {
    test::put_board("velt,mx47");
    const auto first = make_regulator(0);
    first->start();
    const auto node = db_.find_leaf_node("alarms/client/6/rx/lossOfSignal/severity");
    start_regulator(1);
    EXPECT_EQ(db_.find_leaf_node("alarms/client/6/rx/lossOfSignal/severity"), node);
    wss_edge_.set("data/ocm/2/channel/5/detected", true);
    regulator_->regulate_channel(5, wss_edge_client_);
    EXPECT_EQ(regulator_->get_rxClientStatus(5), "up");
    EXPECT_EQ(alarm("alarms/client/6/rx/lossOfSignal/severity"), 1U);
}

TEST_F(RegulatorStart, ClientThatWasDroppedIsMadeAnewByConnecting) {
    start_regulator();
    regulator_->reset_all_devicehandler_clients();
    EXPECT_THROW(regulator_->get_peakDetected(5), dh_client_exception);
    regulator_->set_ocm_lanecompensation();  // nothing to write to
    EXPECT_THAT(wss_edge_.requests(), IsEmpty());
    EXPECT_EQ(regulator_->connect_localDhClients(), 1);
    wss_edge_.set("data/ocm/1/channel/5/detected", true);
    EXPECT_TRUE(regulator_->get_peakDetected(5));
}

// --- settings ---

TEST_F(RegulatorOfT47, OffsetIsLoggedAsItWasBefore) {
    regulator_->set_ocm_power_offset_value(18.5F);
    regulator_->set_ocm_power_offset_value(17.0F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: Set OCM power offset value: 20",
                                                "6 msg: Set OCM power offset value: 18.5"));
    EXPECT_EQ(regulator_->get_ocm_power_offset_value(), 17.0F);
}

TEST_F(EqRegulator, FirstCalibrationIsTakenAsItIsAndTheSameOneKeepsTheAdjustedOne) {
    EXPECT_EQ(regulator_->get_boosterTx(), 0.0F);
    regulator_->set_cal_mon_to_boostertx_k47(21.0F);
    EXPECT_EQ(regulator_->get_boosterTx(), 21.0F);
    EXPECT_EQ(regulator_->get_boosterTx_original(), 21.0F);
    regulator_->set_k47_combo_flag(true);
    regulator_->set_k47_edfa_tx_power(22.0F);
    wss_edge_.set("data/ocm/2/totalPower", 0.0F);
    clock_.advance(std::chrono::minutes(121));
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 21.25F);
    EXPECT_EQ(regulator_->get_boosterTx_adjustment_diff(), -0.25F);
    regulator_->set_cal_mon_to_boostertx_k47(21.04F);
    EXPECT_EQ(regulator_->get_boosterTx(), 21.25F);
    regulator_->set_cal_mon_to_boostertx_k47(21.1F);
    EXPECT_EQ(regulator_->get_cal_mon_to_boostertx_k47(), 21.1F);
    EXPECT_EQ(regulator_->get_boosterTx_original(), 21.1F);
}

TEST_F(RegulatorOfT47, LaneCompensationIsWrittenAsAFlag) {
    regulator_->set_enable_lanecompensation(true);
    regulator_->set_ocm_lanecompensation();
    EXPECT_THAT(transcript_.take(), ElementsAre("wss write config/laneCompensationMode=true"));
}

TEST_F(RegulatorOfT47, AnyControlModeIsTaken) {
    regulator_->set_opticalControlMode(5, "anything");
    EXPECT_THAT(transcript_.take(), IsEmpty());
    regulator_->set_verbose_mode(true);
    regulator_->set_opticalControlMode(5, "off");
    EXPECT_EQ(regulator_->get_opticalControlMode(5), "off");
    EXPECT_THAT(transcript_.take(),
                ElementsAre("6 msg: channel-ix5, channelId: 5, Set optical control mode to off"));
}

// --- power at the client side ---

TEST_F(RegulatorOfT47, ClientPowerIsWorkedBackThroughTheBoosterAndTheWss) {
    booster_.set("data/actualGain", 21.5F);
    set_wss(7.0F);
    see_power(3.0F);
    regulator_->regulate_channel(5, wss_edge_client_);
    const auto power_on = [this](const char* port) {
        wss_edge_.set("data/wss/channel/5/port", port);
        return regulator_->get_rxPowerChannel(5);
    };
    EXPECT_EQ(power_on("edfa"), ((3.0F - 21.5F) + 5.0F) + 7.0F);
    EXPECT_EQ(power_on("express"), ((3.0F - 21.5F) + 11.0F) + 7.0F);
    EXPECT_EQ(power_on("on"), -99.0F);
    EXPECT_EQ(power_on("off"), -99.0F);
    EXPECT_EQ(power_on(""), -99.0F);
}

TEST_F(RegulatorOfT47, ClientPowerReadsThePortTheAttenuationAndTheGainInThisOrder) {
    booster_.set("data/actualGain", 21.5F);
    wss_edge_.set("data/wss/channel/5/port", "off");
    regulator_->set_verbose_mode(true);
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), -99.0F);
    EXPECT_THAT(
        transcript_.take(),
        ElementsAre("7 msg: Get_rx_power path: data/wss/channel/5/port, PORT: 0",
                    "wss read data/wss/channel/5/port", "wss read data/wss/channel/5/attenuation",
                    "6 msg: WSS port: 0, channel-ix5, Get WSS attenuation: 10 dB",
                    "booster read data/actualGain",
                    "7 get_boosterActualGain, msg: Time to get new, value: 21.5, "
                    "accessed: 1",
                    "6 msg: Get_rx_power_5, raw rxPower: -25"));
}

TEST_F(EdfaRegulator, ClientPowerNeedsThePortToBeOn) {
    booster_.set("data/actualGain", 21.5F);
    see_power(3.0F);
    step();
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), ((3.0F - 21.5F) + 3.5F) + 10.0F);
    for (const char* port : {"edfa", "express", "off"}) {
        wss_edge_.set("data/wss/1/channel/5/port", port);
        EXPECT_EQ(regulator_->get_rxPowerChannel(5), -99.0F) << port;
    }
}

TEST_F(EqRegulator, PowersFollowTheNeighboursBoosterOnceItsGainIsKnown) {
    booster_.set("data/actualGain", 21.5F);
    see_light(-17.0F);
    step();
    const float loss = 3.5F;
    const float by_offset = ((-17.0F + 20.0F) + loss) + 10.0F;
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 3.0F);
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), by_offset);
    EXPECT_EQ(regulator_->get_ocm_rx_power_channel(5), 3.0F);

    regulator_->set_cal_mon_to_boostertx_k47(22.0F);
    regulator_->set_k47_combo_flag(true);  // the gain is not known yet
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 3.0F);
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), by_offset);
    EXPECT_EQ(regulator_->get_ocm_rx_power_channel(5), 5.0F);
    EXPECT_EQ(regulator_->get_ocm_tx_power_channel(5), 5.0F);

    regulator_->set_k47_actual_gain(19.0F);
    EXPECT_EQ(regulator_->get_txPowerChannel(5), 5.0F);
    EXPECT_EQ(regulator_->get_rxPowerChannel(5), (((-17.0F + 22.0F) - 19.0F) + loss) + 10.0F);
}

TEST_F(RegulatorOfT47, MonitorsPowersAreTheRawOneWithACalibration) {
    see_light(-17.0F);
    step();
    regulator_->set_ocm_power_offset_value(18.0F);
    EXPECT_EQ(regulator_->get_ocm_rx_power_channel(5), 1.0F);
    EXPECT_EQ(regulator_->get_ocm_tx_power_channel(5), 3.0F);
}

TEST_F(RegulatorOfT47, TimeIsInWholeSecondsSinceTheEpoch) {
    clock_.advance(std::chrono::milliseconds(1999));
    EXPECT_EQ(regulation_handler::get_nowSeconds(), 365LL * 24 * 3600 + 1);
}

TEST_F(RegulatorOfT47, TiltIsZeroAndSaysFromWhat) {
    regulator_->set_verbose_mode(true);
    EXPECT_EQ(regulator_->get_rxTiltLoss(5), 0.0F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: Tiltloss: fiberLength: 0, Wavelength: 0, "
                                                "loss: 0, channelId: 5"));
}

// --- wanted power and budget ---

TEST_F(RegulatorOfT47, WantedPowersComeFromTheBudget) {
    regulator_->set_number_of_AllowedChannels(40);
    regulator_->calculate_wanted_power();
    EXPECT_EQ(regulator_->get_wantedPowerDefault(),
              static_cast<float>(20.0 - 10.0 * std::log10(40.0)));
    EXPECT_EQ(regulator_->get_wantedPowerMin(), -2.0F);
    EXPECT_NEAR(regulator_->get_wantedPowerMax(), 8.079, 0.0005);
    EXPECT_THAT(transcript_.take(), IsEmpty());
    regulator_->set_number_of_AllowedChannels(1);
    regulator_->calculate_wanted_power();
    EXPECT_EQ(regulator_->get_wantedPowerDefault(), 19.5F);
}

TEST_F(RegulatorOfT47, WantedPowerLimitsAreThemselvesLimited) {
    regulator_->set_wantedPowerMax(25.0F);
    EXPECT_EQ(regulator_->get_wantedPowerMax(), 19.5F);
    regulator_->set_wantedPowerMax(-30.0F);
    EXPECT_EQ(regulator_->get_wantedPowerMax(), -2.0F);
    regulator_->set_wantedPowerMin(25.0F);
    EXPECT_EQ(regulator_->get_wantedPowerMin(), 19.5F);
    regulator_->set_wantedPowerDefault(4.5F);
    EXPECT_EQ(regulator_->get_wantedPowerDefault(), 4.5F);
}

TEST_F(RegulatorOfT47, WantedPowerIsStoredWithoutLimits) {
    regulator_->set_wanted_power(5, 30.0F);
    EXPECT_EQ(regulator_->get_wanted_power(5), 30.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("6 msg: Setting wanted power, channel-ix5, wanted power: 3.0, set to "
                            "30.0"));
}

TEST_F(RegulatorOfT47, LimitingRaisesAndLowersAndTheMaximumWins) {
    regulator_->set_wantedPowerMin(0.0F);
    regulator_->set_wantedPowerMax(10.0F);
    regulator_->set_wanted_power(5, -1.0F);
    transcript_.take();
    regulator_->set_limited_wanted_power(5);
    EXPECT_EQ(regulator_->get_wanted_power(5), 0.0F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: Raising  wanted power, channel-ix5, "
                                                "current wanted power: -1.000000"));
    regulator_->set_wantedPowerMin(12.0F);
    regulator_->set_verbose_mode(true);
    regulator_->set_limited_wanted_power(5);
    EXPECT_EQ(regulator_->get_wanted_power(5), 10.0F);
    EXPECT_THAT(
        transcript_.take(),
        ElementsAre("6 msg: Limiting wanted power, channel-ix5, current wanted power: 0.000000",
                    "6 msg: Raising  wanted power, channel-ix5, current wanted power: 0.000000",
                    "6 msg: Lowering wanted power, channel-ix5, current wanted power: 12.000000"));
}

TEST_F(RegulatorOfT47, CombinedModeOfTheFirstPortLeavesItsChannels) {
    regulator_->set_wanted_power(5, 30.0F);
    transcript_.take();
    regulator_->set_k47_combo_flag(true);
    EXPECT_EQ(regulator_->get_wanted_power(5), 30.0F);
    EXPECT_THAT(transcript_.take(), IsEmpty());
}

TEST_F(EqRegulator, OutOfCombinedModeTheRangeIsWideAndTheDefaultIsNotLimited) {
    booster_.set("data/powerLimit", 25.0);
    regulator_->set_verbose_mode(true);
    regulator_->calculate_wanted_power();
    EXPECT_NEAR(regulator_->get_wantedPowerDefault(), 8.979, 0.0005);
    EXPECT_EQ(regulator_->get_wantedPowerMin(), -20.0F);
    EXPECT_EQ(regulator_->get_wantedPowerMax(), 20.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("booster read data/powerLimit",
                            "6 msg: I am a mx47, comboflag is false, setting maximum range for "
                            "wanted power."));
    booster_.remove("data/powerLimit");
    regulator_->calculate_wanted_power();
    EXPECT_NEAR(regulator_->get_wantedPowerDefault(), 3.979, 0.0005);
}

TEST_F(EqRegulator, CombinedModeBringsTheChannelsInsideTheLimits) {
    regulator_->set_wanted_power(5, 30.0F);
    regulator_->set_verbose_mode(true);
    regulator_->set_k47_booster_power_limit(18.0F);
    transcript_.take();
    regulator_->set_k47_combo_flag(true);
    const std::vector<std::string> lines = transcript_.take();
    EXPECT_EQ(lines.at(0), "6 msg: Reading booster power limit: 18.000000");
    EXPECT_EQ(lines.at(1),
              "6 msg: Switching combo mode, recalculating default wanted power, mode: enabled");
    EXPECT_THAT(lines, Contains("6 msg: Lowering wanted power, channel-ix5, current wanted power: "
                                "30.000000"));
    EXPECT_EQ(regulator_->get_wanted_power(5), regulator_->get_wantedPowerMax());
    regulator_->set_k47_combo_flag(false);
    EXPECT_THAT(transcript_.take(), Contains("6 msg: Switching combo mode, recalculating default "
                                             "wanted power, mode: disabled"));
}

TEST_F(EqRegulator, BoosterThatIsAwayLeavesTheGeneralLimits) {
    booster_.stop();
    EXPECT_THROW(regulator_->set_k47_combo_flag(false), dh_client_exception);
    EXPECT_EQ(regulator_->get_wantedPowerMin(), -2.0F);
}

TEST_F(RegulatorOfT47, BudgetCanBeTakenFromTheBoostersLimit) {
    booster_.set("data/powerLimit", 21.0);
    regulator_->set_verbose_mode(true);
    regulator_->calculate_maximum_allowed_channels();
    EXPECT_EQ(regulator_->get_number_of_AllowedChannels(), 125);
    EXPECT_EQ(transcript_.take().back(),
              "6 calculate_maximum_allowed_channels, msg: Number of max allowed channels: 125.893, "
              "floor: 125");
    booster_.remove("data/powerLimit");
    regulator_->calculate_maximum_allowed_channels();
    EXPECT_EQ(regulator_->get_number_of_AllowedChannels(), 316);
    booster_.set("data/powerLimit", 1e300);
    regulator_->calculate_maximum_allowed_channels();
    EXPECT_EQ(regulator_->get_number_of_AllowedChannels(), 2147483647);
}

// --- booster adjustment ---

TEST_F(RegulatorOfT47, AdjustmentIsToldValueByValue) {
    booster_.set("data/txPower", 21.0F);
    wss_edge_.set("data/ocm/1/totalPower", 0.75F);
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.25F);
    EXPECT_THAT(
        transcript_.take(),
        ElementsAre("booster read data/txPower", "wss read data/ocm/1/totalPower",
                    "6 get_boosterTx_adjustment, msg: booster txPower: 21",
                    "6 get_boosterTx_adjustment, msg: OCM totalPower: 0.75 dBm",
                    "6 get_boosterTx_adjustment, msg: Cal mon to booster tx: 20",
                    "6 get_boosterTx_adjustment, msg: OCM totalPower (with calibration): 20.75",
                    "6 get_boosterTx_adjustment, msg: Adjustment !!!: 0.25, totaldiff: 0"));
    EXPECT_EQ(regulator_->get_boosterTx(), 20.0F);  // asking changes nothing
}

TEST_F(RegulatorOfT47, AdjustmentOfTenDecibelIsUsedAndMoreIsNot) {
    booster_.set("data/txPower", 30.0F);
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 5.0F);
    booster_.set("data/txPower", 30.01F);
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.0F);
    EXPECT_EQ(transcript_.take().back(), "6 msg: Adjustment > 10, (10.01) ignore and return 0");
}

TEST_F(RegulatorOfT47, BoosterWithoutAPowerGivesNoAdjustment) {
    booster_.remove("data/txPower");
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.0F);
    EXPECT_EQ(transcript_.take().back(), "6 msg: Adjustment > 10, (-20) ignore and return 0");
}

TEST_F(RegulatorOfT47, AdjustmentThatCannotBeReadIsLogged) {
    booster_.fail_requests(-32602, "no such thing");
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.0F);
    const std::vector<std::string> lines = transcript_.take();
    EXPECT_THAT(lines.back(), HasSubstr("3 get_boosterTx_adjustment, msg: Exception: "));
    EXPECT_THAT(lines.back(), HasSubstr("no such thing"));
}

TEST_F(RegulatorOfT47, CalibrationMovesByHalfTheAdjustmentEachTwoHours) {
    const auto minutes = [this](int count) { clock_.advance(std::chrono::minutes(count)); };
    booster_.set("data/txPower", 20.5F);
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 20.0F);  // the first step of all was not this one
    minutes(120);
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 20.0F);
    minutes(1);
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 20.25F);
    EXPECT_EQ(regulator_->get_boosterTx_original(), 20.0F);
    EXPECT_EQ(regulator_->get_boosterTx_adjustment_diff(), -0.25F);
    booster_.set("data/txPower", 30.25F);  // 10 dB, of which a quarter
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 20.25F);
    minutes(121);
    step();
    EXPECT_EQ(regulator_->get_boosterTx(), 22.75F);
}

TEST_F(RegulatorOfT47, AdjustmentThatFailedWaitsItsFullTurn) {
    booster_.set("data/txPower", 20.5F);
    booster_.fail_requests(-32602, "no");
    clock_.advance(std::chrono::minutes(121));
    step();
    booster_.fail_requests(0);
    clock_.advance(std::chrono::minutes(120));
    EXPECT_THAT(lines_of_a_step("booster"), IsEmpty());
    clock_.advance(std::chrono::minutes(1));
    EXPECT_THAT(lines_of_a_step("booster"), ElementsAre("booster read data/txPower"));
    EXPECT_EQ(regulator_->get_boosterTx(), 20.25F);
}

TEST_F(RegulatorOfT47, FirstStepAfterTheStartAdjusts) {
    const auto other = make_regulator(0);
    other->start();
    booster_.set("data/txPower", 20.5F);
    other->regulate_channel(1, wss_edge_client_);
    EXPECT_EQ(other->get_boosterTx(), 20.25F);
}

TEST_F(EqRegulator, OutOfCombinedModeThereIsNothingToAdjust) {
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("6 get_boosterTx_adjustment, msg: EQ loop not in combined mode. "
                            "Exiting."));
}

TEST_F(EqRegulator, InCombinedModeTheNeighboursPowerCounts) {
    regulator_->set_cal_mon_to_boostertx_k47(20.0F);
    regulator_->set_k47_combo_flag(true);
    regulator_->set_k47_edfa_tx_power(21.0F);
    wss_edge_.set("data/ocm/2/totalPower", 0.5F);
    transcript_.take();
    EXPECT_EQ(regulator_->get_boosterTx_adjustment(), 0.5F);
    EXPECT_EQ(transcript_.take().at(0), "wss read data/ocm/2/totalPower");
}

// --- the booster's gain ---

TEST_F(RegulatorOfT47, GainIsReadOnceInFourSeconds) {
    booster_.set("data/actualGain", 19.0F);
    EXPECT_EQ(regulator_->get_boosterActualGain(), 19.0F);
    booster_.set("data/actualGain", 18.0F);
    clock_.advance(std::chrono::seconds(3));
    EXPECT_EQ(regulator_->get_boosterActualGain(), 19.0F);
    clock_.advance(std::chrono::seconds(1));
    EXPECT_EQ(regulator_->get_boosterActualGain(), 18.0F);
    EXPECT_THAT(
        transcript_.take(),
        ElementsAre("booster read data/actualGain",
                    "7 get_boosterActualGain, msg: Time to get new, value: 19, accessed: 1",
                    "booster read data/actualGain",
                    "7 get_boosterActualGain, msg: Time to get new, value: 18, accessed: 3"));
}

TEST_F(EdfaRegulator, GainIsSharedByBothPorts) {
    const auto eq = make_regulator(1);
    transcript_.take();
    booster_.set("data/actualGain", 19.0F);
    EXPECT_EQ(regulator_->get_boosterActualGain(), 19.0F);
    booster_.set("data/actualGain", 18.0F);
    EXPECT_EQ(eq->get_boosterActualGain(), 19.0F);
}

TEST_F(RegulatorOfT47, GainThatCannotBeReadIsTwentyOneAndTriedAgain) {
    booster_.set_error("data/actualGain", -61, "no gain");
    EXPECT_EQ(regulator_->get_boosterActualGain(), 21.0F);
    EXPECT_EQ(regulator_->get_boosterActualGain(), 21.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("booster read data/actualGain",
                            "3 msg: Exception accessing actual gain cause: no gain",
                            "booster read data/actualGain",
                            "3 msg: Exception accessing actual gain cause: no gain"));
}

TEST_F(RegulatorOfT47, WssHandlerIsUpWhenItSaysSo) {
    wss_edge_.set("data/dhStatus", "up");
    EXPECT_TRUE(regulator_->check_wss_dh_status());
    wss_edge_.set("data/dhStatus", "starting");
    EXPECT_FALSE(regulator_->check_wss_dh_status());
    EXPECT_EQ(transcript_.take().back(), "3 msg: OCM not yet up.");
    wss_edge_.set_error("data/dhStatus", -61, "unset");
    EXPECT_FALSE(regulator_->check_wss_dh_status());
    EXPECT_EQ(transcript_.take().back(), "3 msg: OCM exception, cause: unset");
}

// --- WSS and port ---

TEST_F(RegulatorOfT47, IdleAttenuationIsThatOfThePort) {
    regulator_->set_edfa_defaultAttenuation(11.0F);
    regulator_->set_express_defaultAttenuation(12.0F);
    const auto parked_on = [this](const char* port) {
        wss_edge_.set("data/wss/channel/7/port", port);
        regulator_->set_max_wss_attenuation(7);
        return regulator_->get_rxWssAttenuation(7);
    };
    EXPECT_EQ(parked_on("edfa"), 11.0F);
    EXPECT_EQ(parked_on("express"), 12.0F);
    EXPECT_EQ(parked_on("off"), 15.0F);
    EXPECT_EQ(parked_on("on"), 15.0F);
    wss_edge_.remove("data/wss/channel/7/port");
    regulator_->set_max_wss_attenuation(7);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(7), 15.0F);
    EXPECT_EQ(regulator_->get_port_mode(7), "off");
}

TEST_F(RegulatorOfT47, PortIsWrittenAndADarkChannelIsParkedAtOnce) {
    regulator_->set_edfa_defaultAttenuation(11.0F);
    regulator_->set_express_defaultAttenuation(12.0F);
    transcript_.take();
    const auto changes_of = [this](const char* mode) {
        regulator_->set_port_mode(5, mode);
        std::vector<std::string> lines = transcript_.take();
        std::erase_if(lines,
                      [](const std::string& line) { return line.starts_with("6 msg: WSS port"); });
        return lines;
    };
    const std::string port = "wss write config/wss/channel/5/port=";
    const std::string peak = "wss read data/ocm/1/channel/5/detected";
    const std::string told = "6 msg: Set WSS port mode, channel-ix5, mode: ";
    EXPECT_THAT(changes_of("edfa"), ElementsAre(port + "\"edfa\"", peak, write_of("11.0"),
                                                told + "edfa, wanted power: 3.0"));
    EXPECT_THAT(changes_of("express"), ElementsAre(port + "\"express\"", peak, write_of("12.0"),
                                                   told + "express, wanted power: 3.0"));
    EXPECT_THAT(changes_of("off"),
                ElementsAre(port + "\"off\"", peak, told + "off, wanted power: 3.0"));
    EXPECT_THAT(changes_of("on"),
                ElementsAre(port + "\"on\"", peak, told + "on, wanted power: 3.0"));
    see_light(-17.0F);
    EXPECT_THAT(changes_of("edfa"),
                ElementsAre(port + "\"edfa\"", peak, told + "edfa, wanted power: 3.0"));
}

TEST_F(EdfaRegulator, PortThatIsOpenedParksADarkChannelAtItsOwnDefault) {
    regulator_->set_channel_default_attenuation(5, 9.0F);
    transcript_.take();
    regulator_->set_port_mode(5, "on");
    EXPECT_THAT(transcript_.take(), Contains(write_of("9.0")));
}

TEST_F(RegulatorOfT47, ChannelDefaultIsStoredAndRefused) {
    regulator_->set_channel_default_attenuation(5, 9.0F);
    EXPECT_EQ(regulator_->get_channel_default_attenuation(5), 9.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("6 msg: Setting channel default attenuation is not valid for mx47."));
}

TEST_F(EdfaRegulator, ChannelDefaultActsOnAnIdleChannelOnly) {
    regulator_->set_channel_default_attenuation(5, 9.0F);
    EXPECT_THAT(
        transcript_.take(),
        ElementsAre("6 msg: Setting default attenuation, wss port: 0, channel-ix5, attenuation: 9",
                    "wss read data/wss/1/channel/5/port", "7 msg: Get port mode: on, channel-ix5",
                    "wss read data/ocm/1/channel/5/detected",
                    "6 msg: WSS port: 0, Set WSS attenuation to: 9 dB for channel-ix5, current "
                    "channel txPower: -25, wanted power diff: 0",
                    write_of("9.0"), "7 msg: Channel port is 'on' and peak is 'off'."));
    see_light(-17.0F);
    regulator_->set_channel_default_attenuation(5, 8.0F);
    EXPECT_EQ(transcript_.take().back(), "wss read data/ocm/1/channel/5/detected");
    wss_edge_.set("data/wss/1/channel/5/port", "off");
    regulator_->set_channel_default_attenuation(5, 7.0F);
    EXPECT_EQ(transcript_.take().back(), "7 msg: Get port mode: off, channel-ix5");
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 9.0F);
}

TEST_F(RegulatorOfT47, GroupDefaultActsOnIdleChannelsOfItsPort) {
    wss_edge_.set("data/wss/channel/7/port", "edfa");
    wss_edge_.set("data/ocm/1/channel/7/detected", true);
    wss_edge_.set("data/wss/channel/8/port", "express");
    wss_edge_.set("data/wss/channel/9/port", "on");
    const auto writes = [this] {
        std::vector<std::string> lines = transcript_.take();
        std::erase_if(lines,
                      [](const std::string& line) { return !line.starts_with("wss write"); });
        return lines;
    };
    regulator_->set_edfa_defaultAttenuation(11.0F);
    EXPECT_THAT(writes(), ElementsAre(write_of("11.0")));
    regulator_->set_express_defaultAttenuation(12.0F);
    EXPECT_THAT(writes(), ElementsAre("wss write config/wss/channel/8/attenuation=12.0"));
    regulator_->set_eq_defaultAttenuation(13.0F);
    EXPECT_THAT(writes(), ElementsAre("wss write config/wss/channel/9/attenuation=13.0"));
    EXPECT_EQ(regulator_->get_eq_defaultAttenuation(), 13.0F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: EQ default att: 13"));
}

TEST_F(RegulatorOfT47, GroupDefaultsSayWhatTheyTake) {
    regulator_->set_edfa_defaultAttenuation(11.5F);
    EXPECT_EQ(transcript_.take().at(0), "6 msg: Set EDFA default att to 11.5");
    regulator_->set_express_defaultAttenuation(12.5F);
    EXPECT_EQ(transcript_.take().at(0), "6 msg: Set EXPRESS default att: 12.5");
    EXPECT_EQ(regulator_->get_express_defaultAttenuation(), 12.5F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: EXPRESS default att: 12.5"));
}

TEST_F(RegulatorOfT47, GroupDefaultEndsAtTheChannelThatFailsAndStaysStored) {
    wss_edge_.set("data/wss/channel/3/port", "edfa");
    wss_edge_.set("data/wss/channel/7/port", "edfa");
    wss_edge_.fail_writes("config/wss/channel/5/attenuation", -61, "stuck");
    EXPECT_THROW(regulator_->set_edfa_defaultAttenuation(11.0F), dh_client_exception);
    EXPECT_EQ(regulator_->get_edfa_defaultAttenuation(), 11.0F);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(3), 11.0F);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 15.0F);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(7), 15.0F);
}

TEST_F(RegulatorOfT47, EdfaDefaultNeedsTheBoardAndTheOthersDoNot) {
    test::put_board("velt,other");
    regulator_->set_edfa_defaultAttenuation(11.0F);
    EXPECT_THAT(transcript_.take(), ElementsAre("6 msg: Set EDFA default att to 11"));
    EXPECT_EQ(regulator_->get_edfa_defaultAttenuation(), 11.0F);
}

TEST_F(EdfaRegulator, GroupDefaultsAreStoredAndRefused) {
    regulator_->set_edfa_defaultAttenuation(11.0F);
    regulator_->set_express_defaultAttenuation(12.0F);
    regulator_->set_eq_defaultAttenuation(13.0F);
    EXPECT_THAT(transcript_.take(),
                ElementsAre("6 msg: Setting EDFA default attenuation is not valid for mx47.",
                            "6 msg: Setting EXPRESS default attenuation is not valid for mx47.",
                            "6 msg: Setting EQ default attenuation is not valid for mx47."));
    EXPECT_EQ(regulator_->get_edfa_defaultAttenuation(), 11.0F);
    EXPECT_EQ(regulator_->get_express_defaultAttenuation(), 12.0F);
    EXPECT_EQ(regulator_->get_eq_defaultAttenuation(), 13.0F);
}

TEST_F(RegulatorOfT47, TakeOverAdoptsWhatTheWssDoes) {
    set_wss(6.25F);
    regulator_->updateLastWssAtt_channel(5);
    EXPECT_EQ(regulator_->get_rxWssAttenuation(5), 6.25F);
    EXPECT_THAT(transcript_.take(), ElementsAre(attenuation_read()));
}

// Setters of the server's threads beside a running regulation: for the thread
// sanitizer, and for what must not tear.
TEST_F(RegulatorOfT47, ServersThreadsMayReadAndSetWhileAStepRuns) {
    booster_.set("data/actualGain", 21.5F);
    see_power(5.0F);
    std::thread server([this] {
        for (int i = 0; i < 50; ++i) {
            regulator_->set_wanted_power(5, static_cast<float>(i % 10));
            regulator_->set_opticalControlMode(5, i % 7 == 0 ? "off" : "power");
            regulator_->set_port_mode(5, "edfa");
            regulator_->set_number_of_AllowedChannels(i % 3);
            regulator_->calculate_wanted_power();
            regulator_->set_verbose_mode(i % 2 == 0);
            regulator_->set_lossTimeout(i);
            regulator_->get_rxPowerChannel(5);
            regulator_->get_boosterTx_adjustment();
            regulator_->get_rxClientStatus(5);
            regulator_->get_opticalControlMode(5);
            alarm("alarms/client/6/rx/lossOfSignal/severity");
        }
    });
    for (int i = 0; i < 50; ++i)
        regulator_->regulate_channel(5, wss_edge_client_);
    server.join();
    EXPECT_EQ(regulator_->get_rxRawPowerChannel(5), -15.0F);
}

}  // namespace
