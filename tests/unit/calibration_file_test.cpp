#include "host.hpp"
#include "log_capture.hpp"
#include "manual_time.hpp"
#include "regulator_fixture.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using values = calibration_values;

const std::string path = "/mnt/board_info/calibration_data/cloop/cloop.conf";

void put_calibration(const std::string& content) {
    test::put_file(path, content);
}

class CalibrationFile : public test::regulator_test {
  protected:
    // The value of the key in a file of this content, or -99.
    float read(const std::string& content, values key) {
        put_calibration(content);
        float value = -99.0F;
        const int result = reader_->read_fvalue_from_calibration_file(key, &value);
        EXPECT_EQ(result, value == -99.0F ? -1 : 0) << content;
        return value;
    }

    std::shared_ptr<regulation_handler> reader_ = make_regulator(0);
};

TEST_F(CalibrationFile, SeparatorIsAnyOneCharacterAndBlanksBeforeTheNumberAreSkipped) {
    EXPECT_EQ(read("cal_cloop_wss_il_edfaport 4.2\n", values::cal_cloop_wss_il_edfaport), 4.2F);
    EXPECT_EQ(read("cal_cloop_wss_il_edfaport=4.2\n", values::cal_cloop_wss_il_edfaport), 4.2F);
    EXPECT_EQ(read("cal_cloop_wss_il_edfaport:  4.2\n", values::cal_cloop_wss_il_edfaport), 4.2F);
    EXPECT_EQ(read("cal_cloop_wss_il_edfaport\t-4.2", values::cal_cloop_wss_il_edfaport), -4.2F);
}

TEST_F(CalibrationFile, KeyWithNothingOrOnlyASeparatorBehindItIsNotFound) {
    const test::log_capture log;
    EXPECT_EQ(read("wssIL_Edfa\n", values::wssIL_Edfa), -99.0F);
    EXPECT_EQ(read("wssIL_Edfa=\n", values::wssIL_Edfa), -99.0F);
    EXPECT_EQ(read("wssIL_Edfa", values::wssIL_Edfa), -99.0F);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(CalibrationFile, KeyWithNothingBehindItLeavesTheSearchToLaterLines) {
    EXPECT_EQ(read("wssIL_Edfa=\nwssIL_Edfa=2.5\n", values::wssIL_Edfa), 2.5F);
}

TEST_F(CalibrationFile, KeysAreNotDelimited) {
    const auto lane_1 = static_cast<values>(18);
    EXPECT_EQ(read("cal_clientrx_loss_offset_10 2.5\n", lane_1), 2.5F);
    EXPECT_EQ(read("cal_clientrx_loss_offset_1 1.5\ncal_clientrx_loss_offset_10 2.5\n", lane_1),
              1.5F);
    EXPECT_EQ(read("cal_clientrx_loss_offset_39 3.5\n", values::cal_clientrx_loss_offset_39), 3.5F);
}

TEST_F(CalibrationFile, KeyInTheMiddleOfALineIsNotFound) {
    EXPECT_EQ(read("x wssIL_Edfa 2.5\n wssIL_Edfa 2.5\n", values::wssIL_Edfa), -99.0F);
}

TEST_F(CalibrationFile, TextThatIsNoNumberIsLoggedAndEndsTheSearch) {
    const test::log_capture log;
    EXPECT_EQ(read("wssIL_Edfa abc\nwssIL_Edfa 2.5\n", values::wssIL_Edfa), -99.0F);
    EXPECT_THAT(
        log.texts(3),
        ElementsAre("msg: Unable to read float value: wssIL_Edfa from calibration file: " + path));
}

TEST_F(CalibrationFile, NumberThatNoFloatHoldsIsLogged) {
    for (const char* number : {"1e99", "1e-99", "inf", "-inf", "nan"}) {
        const test::log_capture log;
        EXPECT_EQ(read(std::string("wssIL_Edfa ") + number, values::wssIL_Edfa), -99.0F) << number;
        EXPECT_EQ(log.texts(3).size(), 1U) << number;
    }
}

TEST_F(CalibrationFile, WhatFollowsTheNumberIsIgnored) {
    EXPECT_EQ(read("wssIL_EQ 3.5 dB\n", values::wssIL_EQ), 3.5F);
    EXPECT_EQ(read("wssIL_EQ 3.5\r\n", values::wssIL_EQ), 3.5F);
    EXPECT_EQ(read("wssIL_EQ\r3.5\n", values::wssIL_EQ), -99.0F);
}

TEST_F(CalibrationFile, FirstLineOfAKeyCounts) {
    EXPECT_EQ(read("\n# wssIL_EQ 1\nwssIL_EQ 2\nwssIL_EQ 3\n", values::wssIL_EQ), 2.0F);
}

TEST_F(CalibrationFile, ValueThatWasReadIsLogged) {
    const test::log_capture log;
    read("wssIL_EQ 3.5 dB\n", values::wssIL_EQ);
    EXPECT_THAT(log.lines(), ElementsAre(test::log_line{6, "tm_velt_regulation",
                                                        "msg: Calibration value read from " + path +
                                                            ", att: wssIL_EQ, value: 3.5"}));
}

TEST_F(CalibrationFile, EveryValueHasTheKeyOfItsName) {
    const std::vector<std::string> keys{"cal_mon_to_linetx",
                                        "cal_osctx_to_linetx",
                                        "cal_linerx_to_oscrx",
                                        "cal_clientrx_to_mon",
                                        "cal_cloop_wss_il_edfaport",
                                        "cal_cloop_wss_il_expressport",
                                        "cal_cloop_wss_il_eqport",
                                        "wssIL_Edfa",
                                        "wssIL_EQ",
                                        "cal_mon_to_clienttx",
                                        "cal_mon_to_boostertx",
                                        "cal_mon_to_preamptx",
                                        "cal_timestamp_offset_ns",
                                        "cal_fiber_length_offset_km",
                                        "cal_fiberdisp_offset_ps_nm",
                                        "cal_wss_margin_dB",
                                        "cal_lane_compensation",
                                        "cal_clientrx_loss_offset_0"};
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(read(keys[i] + " 7.5", static_cast<values>(i)), 7.5F) << keys[i];
    EXPECT_EQ(number_of_calibration_values, 57U);
}

TEST_F(CalibrationFile, LineOfAMegabyteIsNoHarm) {
    EXPECT_EQ(read("wssIL_EQ 3.5" + std::string(4U << 20, ' '), values::wssIL_EQ), 3.5F);
    EXPECT_EQ(read(std::string(4U << 20, 'x') + "\nwssIL_EQ 3.5\n", values::wssIL_EQ), -99.0F);
}

TEST_F(CalibrationFile, FolderInItsPlaceReadsAsEmpty) {
    test::remove_file(path);
    test::put_file(path + "/file", "");
    float value = -99.0F;
    EXPECT_EQ(reader_->read_fvalue_from_calibration_file(values::wssIL_EQ, &value), -1);
    EXPECT_EQ(value, -99.0F);
}

TEST_F(CalibrationFile, FlagIsReadAsAWord) {
    const auto read_flag = [this](const std::string& content) {
        put_calibration(content);
        bool value = content.find("true") == std::string::npos;
        EXPECT_EQ(
            reader_->read_bool_value_from_calibration_file(values::cal_lane_compensation, &value),
            0);
        return value;
    };
    EXPECT_TRUE(read_flag("cal_lane_compensation= true"));
    EXPECT_FALSE(read_flag("cal_lane_compensation=false"));
    EXPECT_FALSE(read_flag("cal_lane_compensation=1"));
    EXPECT_FALSE(read_flag("cal_lane_compensation=yes"));
}

TEST_F(CalibrationFile, FlagThatIsMissingLeavesTheValue) {
    put_calibration("");
    const test::log_capture log;
    bool value = true;
    EXPECT_EQ(reader_->read_bool_value_from_calibration_file(values::cal_lane_compensation, &value),
              -1);
    EXPECT_TRUE(value);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(CalibrationFile, FlagIsLoggedAsItWasTaken) {
    put_calibration("cal_lane_compensation=maybe");
    const test::log_capture log;
    bool value = true;
    reader_->read_bool_value_from_calibration_file(values::cal_lane_compensation, &value);
    EXPECT_THAT(log.texts(), ElementsAre("msg: Calibration value read from " + path +
                                         ", att: cal_lane_compensation, value: false"));
}

// --- what a regulator takes from the file when it is made ---

// The lines of severity 3 and 6 of the making that are about calibration.
std::vector<std::string> calibration_lines(const test::log_capture& log) {
    std::vector<std::string> found;
    for (const test::log_line& line : log.lines()) {
        if (line.severity <= 6 && line.text.find("alibration file") != std::string::npos &&
            line.text.find("Calibration value read") == std::string::npos)
            found.push_back(std::to_string(line.severity) + " " + line.text);
    }
    return found;
}

class CalibrationOfT47 : public test::regulator_test {};
class CalibrationOfMX47 : public test::regulator_test {
  protected:
    CalibrationOfMX47() : regulator_test("velt,mx47") {}
};

TEST_F(CalibrationOfT47, MissingFileGivesTheFallbacks) {
    const test::log_capture log;
    const auto regulator = make_regulator(0);
    EXPECT_EQ(regulator->get_boosterTx(), 20.2F);
    EXPECT_EQ(regulator->get_boosterTx_original(), 20.2F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_edfaport(), 5.0F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_expressport(), 11.0F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_eqport(), 0.0F);
    EXPECT_THAT(
        calibration_lines(log),
        ElementsAre(
            "3 msg: Failed to read from calibration file, cal_mon_to_boostertx. using value: 20.2",
            "6 msg: Failed to read from calibration file, cloop_wss_il_edfaport. Try wssIL_Edfa.",
            "3 msg: Failed to read from calibration file, wssIL_Edfa. using value: 5",
            "3 msg: Failed to read from calibration file, cloop_wss_il_expressport. using value: "
            "11"));
}

TEST_F(CalibrationOfT47, FileGivesBoosterEdfaAndExpress) {
    put_calibration(
        "cal_mon_to_boostertx 21.5\ncal_cloop_wss_il_edfaport 4.5\nwssIL_Edfa 9\n"
        "cal_cloop_wss_il_expressport 10.5\n");
    const test::log_capture log;
    const auto regulator = make_regulator(0);
    EXPECT_EQ(regulator->get_boosterTx(), 21.5F);
    EXPECT_EQ(regulator->get_boosterTx_original(), 21.5F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_edfaport(), 4.5F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_expressport(), 10.5F);
    EXPECT_THAT(calibration_lines(log),
                ElementsAre("6 msg: Cal_mon_to_boostertx read from calibration file: 21.5",
                            "6 msg: cloop_wss_il_edfaport read from calibration file: 4.5",
                            "6 msg: cloop_wss_il_expressport read from calibration file: 10.5"));
}

TEST_F(CalibrationOfT47, OlderKeyOfTheEdfaPortIsTheSecondChoice) {
    put_calibration("wssIL_Edfa 4.25\n");
    const test::log_capture log;
    EXPECT_EQ(make_regulator(0)->get_cal_cloop_wss_il_edfaport(), 4.25F);
    EXPECT_EQ(log.count("msg: wssIL_Edfa read from calibration file: 4.25"), 1U);
}

TEST_F(CalibrationOfMX47, MissingFileGivesTheFallbacksOfPortZero) {
    const auto regulator = make_regulator(0);
    EXPECT_EQ(regulator->get_boosterTx(), 20.2F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_edfaport(), 3.5F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_expressport(), 0.0F);
}

TEST_F(CalibrationOfMX47, MissingFileGivesTheFallbackOfPortOneAndNoBoosterCalibration) {
    const test::log_capture log;
    const auto regulator = make_regulator(1);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_eqport(), 3.5F);
    EXPECT_EQ(regulator->get_boosterTx(), 0.0F);
    EXPECT_EQ(regulator->get_boosterTx_original(), 0.0F);
    EXPECT_EQ(regulator->get_cal_cloop_wss_il_edfaport(), 0.0F);
    EXPECT_THAT(
        calibration_lines(log),
        ElementsAre(
            "6 msg: Failed to read from calibration file, cal_cloop_wss_il_eqport. Try wssIL_EQ",
            "3 msg: Failed to read from calibration file, wssIL_EQ. using value: 3.5"));
}

TEST_F(CalibrationOfMX47, FileGivesTheEqPort) {
    put_calibration("cal_mon_to_boostertx 21.5\nwssIL_EQ 2.5\n");
    EXPECT_EQ(make_regulator(1)->get_cal_cloop_wss_il_eqport(), 2.5F);
    put_calibration("wssIL_EQ 2.5\ncal_cloop_wss_il_eqport 1.5\n");
    const test::log_capture log;
    EXPECT_EQ(make_regulator(1)->get_cal_cloop_wss_il_eqport(), 1.5F);
    EXPECT_THAT(calibration_lines(log),
                ElementsAre("6 msg: cal_cloop_wss_il_eqport read from calibration file: 1.5"));
}

}  // namespace
