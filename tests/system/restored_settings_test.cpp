// The settings that were saved come into force again at the start of the daemon.
#include "saved_settings_card.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

using test::parameter_file_content;
using testing::Contains;
using testing::Each;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr unsigned channels = 48;
constexpr char t47_marker[] = "/var/persistent/etc/enable_veltt47";
constexpr char mx47_marker[] = "/var/persistent/etc/enable_veltmx47";

const std::string waiting = "6 msg: Make sure WSS_EDGE is up before update config parameters.";
const std::string ready =
    "7 msg: WSS_EDGE has configStatus true, now we can start to set local configuration.";
const std::string done = "6 msg: All local configuration is done.";

using lines = std::vector<std::string>;

void append(lines& to, const lines& more) {
    to.insert(to.end(), more.begin(), more.end());
}

lines absent_budgets() {
    return {"3 msg: Could not find max channels, using default: 40",
            "3 msg: Could not find max channels, using default: 48"};
}

lines absent_channels_t47() {
    lines expected;
    for (unsigned c = 1; c <= channels; ++c)
        expected.push_back(fmt::format(
            "7 msg: Could not find local wanted power value, channel-ix{}, continuing.", c));
    return expected;
}

lines absent_channels_mx47() {
    lines expected;
    for (unsigned c = 1; c <= channels; ++c) {
        append(
            expected,
            {fmt::format("7 msg: Could not find EQ wanted power, channel-ix{}, continuing.", c),
             fmt::format("7 msg: Could not find EDFA wanted power, channel-ix{}, continuing.", c),
             fmt::format("7 msg: Could not find EQ default attenuation, channel-ix{}, continuing.",
                         c),
             fmt::format("7 Could not find edfa default attenuation index: {}", c)});
    }
    return expected;
}

const std::string absent_mode = "6 msg: Could not find MX47_combo_mode.";
const std::string absent_edfa =
    "7 msg: Could not find EDFA_default_attenuation, using default: 15.1.";
const std::string absent_express =
    "7 msg: Could not find EXPRESS_default_attenuation, using default: 15.1.";
const std::string absent_eq = "7 msg: Could not find EQ_default_attenuation, using default: 15.1.";
const std::string absent_offset = "7 msg: Could not find OCM_offset, using default: 20.";

std::string last_line(const std::string& text) {
    const std::size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return {};
    const std::size_t begin = text.rfind('\n', end);
    return text.substr(begin == std::string::npos ? 0 : begin + 1,
                       end - (begin == std::string::npos ? 0 : begin + 1) + 1);
}

}  // namespace

class RestoredSettings : public test::saved_settings_card {
  protected:
    std::size_t reads_of_the_wss_state() const {
        const auto requests = wss_->requests();
        return static_cast<std::size_t>(
            std::count(requests.begin(), requests.end(), "read data/configStatus"));
    }

    // The daemon ends by what a setter threw, and its last line says so.
    void expect_end_that_names(const std::string& exception) {
        ASSERT_EQ(process_->end(), test::ended_by_signal(SIGABRT));
        EXPECT_THAT(last_line(process_->standard_error()),
                    HasSubstr("3 tm_velt_init msg: The process ends by an exception that nobody "
                              "took: " +
                              exception));
    }
};

// --- the order and the defaults ---

TEST_F(RestoredSettings, EmptyFileGivesTheDefaultsOfATwoWayCard) {
    become_ready_t47();
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    append(expected, absent_channels_t47());
    append(expected, {absent_edfa, absent_express, done});
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
    EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 40U);
    EXPECT_EQ(management_->get<float>("control/data/edfa/defaultAttenuation"), 15.1F);
    EXPECT_EQ(management_->get<float>("control/data/express/defaultAttenuation"), 15.1F);
    EXPECT_EQ(parameter_file_content(), "");
}

TEST_F(RestoredSettings, EmptyFileGivesTheDefaultsOfATwoPortCard) {
    become_ready_mx47();
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    append(expected, absent_channels_mx47());
    append(expected, {absent_mode, absent_edfa, absent_eq, absent_offset, done});
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
    EXPECT_EQ(management_->get<unsigned>("control/data/port/1/maxChannels"), 40U);
    EXPECT_EQ(management_->get<unsigned>("control/data/port/2/maxChannels"), 48U);
    EXPECT_EQ(management_->get<float>("control/data/edfa/defaultAttenuation"), 15.1F);
    EXPECT_EQ(management_->get<float>("control/data/eq/defaultAttenuation"), 15.1F);
    EXPECT_EQ(management_->get<float>("control/data/eq/ocmPowerOffset"), 20.0F);
    EXPECT_EQ(management_->get<std::string>("control/data/combinedMode"), "disabled");
    EXPECT_EQ(parameter_file_content(), "");
}

TEST_F(RestoredSettings, FoundValuesOfATwoWayCardAreToldAndInForce) {
    become_ready_t47();
    const std::string content =
        "par_max_channels\t 32\n"
        "par_eq_max_channels\t 12\n"
        "par_wanted_power_3_ch\t -1.5\n"
        "par_wanted_power_48_ch\t 2.500000\n"
        "par_default_attenuation_3_ch\t 9\n"
        "MX47_combo_mode\tenabled\n"
        "par_edfa_default_attenuation\t 12.5\n"
        "par_express_default_attenuation\t 11.25\n"
        "par_eq_default_attenuation\t 10\n";
    test::put_file(test::parameter_file, content);
    start_and_restore();
    lines expected{waiting, ready, "7 msg: Found max channels from local config: 32",
                   "7 msg: Found max channels from local config: 12"};
    append(expected, absent_channels_t47());
    expected[4 + 2] = "6 msg: Setting wanted power, channel-ix3, wanted power: -1.5.";
    expected[4 + 47] = "6 msg: Setting wanted power, channel-ix48, wanted power: 2.5.";
    expected.push_back(done);
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
    EXPECT_EQ(difference_to({{"control/data/maxChannels", "32"},
                             {"control/data/3/wantedPower", "-1.5"},
                             {"control/data/48/wantedPower", "2.5"},
                             {"control/data/edfa/defaultAttenuation", "12.5"},
                             {"control/data/express/defaultAttenuation", "11.25"}}),
              "");
    EXPECT_EQ(parameter_file_content(), content);
}

TEST_F(RestoredSettings, FoundValuesOfATwoPortCardAreToldAndInForce) {
    become_ready_mx47();
    test::put_file(test::parameter_file,
                   "eq_par_wanted_power_1_ch\t 1.5\n"
                   "par_wanted_power_1_ch\t 2.5\n"
                   "eq_par_default_attenuation_1_ch\t 9.5\n"
                   "par_default_attenuation_1_ch\t 8.25\n"
                   "MX47_combo_mode\tenabled\n"
                   "par_edfa_default_attenuation\t 12.5\n"
                   "par_eq_default_attenuation\t 11.25\n"
                   "par_ocmPowerOffset\t 19.5\n");
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    append(expected, absent_channels_mx47());
    expected[4] = "6 msg: Setting EQ wanted power, channel-ix1, wanted power: 1.5.";
    expected[5] = "6 msg: Setting EDFA wanted power, channel-ix1, wanted power: 2.5.";
    expected[6] = "6 msg: Setting EQ default attenuation, cchannel-ix1, default attenuation: 9.5.";
    expected[7] = "6 Setting edfa default_attenuation, channel index: 1, default attenuation :8.25";
    expected.push_back(done);
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
    EXPECT_EQ(difference_to({{"control/data/port/2/channel/1/wantedPower", "1.5"},
                             {"control/data/port/1/channel/1/wantedPower", "2.5"},
                             {"control/data/port/2/channel/1/defaultAttenuation", "9.5"},
                             {"control/data/port/1/channel/1/defaultAttenuation", "8.25"},
                             {"control/data/combinedMode", "\"enabled\""},
                             {"control/data/edfa/defaultAttenuation", "12.5"},
                             {"control/data/eq/defaultAttenuation", "11.25"},
                             {"control/data/eq/ocmPowerOffset", "19.5"}}),
              "");
}

// A budget gives all channels its default power, so it must not come last.
TEST_F(RestoredSettings, WantedPowersAreRestoredAfterTheBudget) {
    become_ready_t47();
    test::put_file(test::parameter_file, "par_wanted_power_7_ch\t 1.5\npar_max_channels\t 10\n");
    start_and_restore();
    EXPECT_EQ(difference_to(
                  {{"control/data/7/wantedPower", "1.5"}, {"control/data/8/wantedPower", "10.0"}}),
              "");
}

TEST_F(RestoredSettings, CombinedModeOfAnyOtherTextLeavesTheModeAlone) {
    become_ready_mx47();
    for (const char* text : {"disabled", "Enabled", "enabled ", " enabled", "0", "\xff\xfe"}) {
        test::put_file(test::parameter_file, std::string("MX47_combo_mode\t") + text + "\n");
        start_and_restore();
        EXPECT_EQ(management_->get<std::string>("control/data/combinedMode"), "disabled") << text;
        EXPECT_FALSE(process_->has_logged("msg: Switching combo mode")) << text;
        EXPECT_FALSE(process_->has_logged("Could not find MX47_combo_mode")) << text;
    }
}

TEST_F(RestoredSettings, AbsentCombinedModeIsSetToDisabled) {
    become_ready_mx47();
    start_and_restore();
    EXPECT_TRUE(process_->has_logged(
        "msg: Switching combo mode, recalculating default wanted power, mode: disabled"));
}

// --- marker files ---

TEST_F(RestoredSettings, BothMarkersOnATwoWayBoardRestoreTheChannelsOfBothButNoExpressNorEq) {
    become_ready_t47();
    test::put_file(t47_marker, "");
    test::put_file(mx47_marker, "");
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    append(expected, absent_channels_t47());
    append(expected, absent_channels_mx47());
    append(expected, {absent_mode, absent_edfa, done});
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
    EXPECT_EQ(management_->get<unsigned>("control/data/port/2/maxChannels"), 48U);
}

TEST_F(RestoredSettings, MarkerOfTheTwoWayCardOnATwoPortBoardAddsItsChannelsOnly) {
    become_ready_mx47();
    test::put_file(t47_marker, "");
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    append(expected, absent_channels_t47());
    append(expected, absent_channels_mx47());
    append(expected, {absent_mode, absent_edfa, absent_eq, absent_offset, done});
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
}

TEST_F(RestoredSettings, MarkersGiveAnAmplifierCardNothing) {
    become_ready_k47();
    test::put_file(t47_marker, "");
    test::put_file(mx47_marker, "");
    start({}, "50");
    ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    EXPECT_THAT(restore_log(), testing::IsEmpty());
}

// --- the wait for the WSS edge ---

TEST_F(RestoredSettings, ReadyWssEdgeIsAskedOnceAndPausedForAllTheSame) {
    become_ready_t47();
    const auto begin = std::chrono::steady_clock::now();
    start_and_restore("4");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(reads_of_the_wss_state(), 1U);
}

TEST_F(RestoredSettings, WssEdgeThatNeverGetsReadyCostsTenTriesAndStopsNothing) {
    become_ready_t47();
    wss_->set("data/configStatus", false);
    const auto begin = std::chrono::steady_clock::now();
    start_and_restore("20");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    const lines log = restore_log();
    EXPECT_EQ(log[0], waiting);
    EXPECT_EQ(log[1], ready);
    EXPECT_EQ(log.back(), done);
    EXPECT_THAT(log, Each(Not(HasSubstr("Caught"))));
    const auto requests = wss_->requests();
    EXPECT_EQ(std::ranges::count(requests, "read data/configStatus"), 10);
    EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 40U);
}

TEST_F(RestoredSettings, WssEdgeThatFailsIsAskedAgain) {
    become_ready_t47();
    wss_->fail_requests(-5, "stuck");
    const auto reads = std::make_shared<std::atomic<unsigned>>(0);
    wss_->on_request([this, reads](const std::string& request) {
        if (request == "read data/configStatus" && ++*reads == 3)
            wss_->fail_requests(0);
    });
    start_and_restore();
    const std::string caught = "3 msg: Caught exception reading WSS_EDGE data/configStatus stuck";
    const lines log = restore_log();
    ASSERT_GT(log.size(), 5U);
    EXPECT_THAT(lines(log.begin(), log.begin() + 5),
                testing::ElementsAre(waiting, caught, caught, caught, ready));
}

// --- setters that fail ---

TEST_F(RestoredSettings, FailureAmongTheChannelsOfTwoPortsEndsTheirLoopOnly) {
    become_ready_mx47();
    test::put_file(test::parameter_file,
                   "par_default_attenuation_5_ch\t 8\n"
                   "eq_par_default_attenuation_5_ch\t 9\n"
                   "par_wanted_power_5_ch\t 1.5\n"
                   "par_wanted_power_6_ch\t 2.5\n");
    // The one of the EQ port still succeeds.
    wss_->set("data/wss/1/channel/5/port", "on");
    wss_->fail_writes("config/wss/1/channel/5/attenuation", -5, "stuck");
    start_and_restore();
    lines expected{waiting, ready};
    append(expected, absent_budgets());
    lines of_channels = absent_channels_mx47();
    of_channels.resize(5 * 4);
    of_channels[17] = "6 msg: Setting EDFA wanted power, channel-ix5, wanted power: 1.5.";
    of_channels[18] =
        "6 msg: Setting EQ default attenuation, cchannel-ix5, default attenuation: 9.";
    of_channels[19] = "3 could not update default attenuationstuck";
    append(expected, of_channels);
    append(expected, {absent_mode, absent_edfa, absent_eq, absent_offset, done});
    EXPECT_THAT(restore_log(), ElementsAreArray(expected));
}

TEST_F(RestoredSettings, BudgetOfTheEqPortThatCannotBeAppliedEndsTheProcessAndIsNamed) {
    become_ready_mx47();
    booster_->fail_requests(-5, "stuck");
    start({}, "50");
    expect_end_that_names("dh_client_exception -5: stuck [");
    EXPECT_THAT(restore_log(), Not(Contains(StartsWith("7 msg: Could not find EQ wanted"))));
}

TEST_F(RestoredSettings, CombinedModeThatCannotBeAppliedEndsTheProcessAndIsNamed) {
    become_ready_mx47();
    booster_->on_request([this](const std::string& request) {
        if (request == "read data/powerLimit")  // of the budget; the next one is of the mode
            booster_->fail_requests(-5, "stuck");
    });
    start({}, "50");
    expect_end_that_names("dh_client_exception -5: stuck [");
    EXPECT_THAT(restore_log(), Contains(absent_mode));
}

TEST_F(RestoredSettings, DefaultAttenuationThatCannotBeAppliedEndsTheProcessAndIsNamed) {
    become_ready_t47();
    wss_->on_request([this](const std::string& request) {
        if (request == "read data/wss/channel/48/port")
            wss_->fail_requests(-5, "stuck");  // the EDFA ports are looked at, the express are not
    });
    start({}, "50");
    expect_end_that_names("dh_client_exception -5: stuck [");
    EXPECT_THAT(restore_log(), Contains(absent_express));
    EXPECT_THAT(restore_log(), Not(Contains(done)));
}

// --- round trips ---

namespace {

struct saved_setting {
    std::string config;
    std::string data;
    std::string json;
};

// Every setting of a T47 card that is saved, with a value of its own in each
// round. The budget comes first: it sets the powers.
std::vector<saved_setting> saved_settings_t47(unsigned round) {
    const auto value = [round](unsigned of) { return fmt::format("{:.1f}", of * 0.5 + round); };
    std::vector<saved_setting> settings{
        {"maxChannels", "maxChannels", std::to_string(20 + round)},
        {"edfa/defaultAttenuation", "edfa/defaultAttenuation", value(20)},
        {"express/defaultAttenuation", "express/defaultAttenuation", value(21)}};
    for (unsigned c = 1; c <= channels; ++c) {
        const std::string leaf = fmt::format("{}/wantedPower", c);
        settings.push_back({leaf, leaf, fmt::format("{:.1f}", c * -0.5 + round)});
    }
    return settings;
}

// The same of an MX47 card. Wanted powers of the EQ port are such that the
// combined mode's limits let them be.
std::vector<saved_setting> saved_settings_mx47(unsigned round) {
    std::vector<saved_setting> settings{
        {"combinedMode", "combinedMode", round % 2 == 0 ? "\"disabled\"" : "\"enabled\""},
        {"edfa/defaultAttenuation", "edfa/defaultAttenuation", fmt::format("{}.5", 10 + round)},
        {"eq/defaultAttenuation", "eq/defaultAttenuation", fmt::format("{}.25", 11 + round)},
        {"eq/ocmPowerOffset", "eq/ocmPowerOffset", fmt::format("{}.75", 18 + round)}};
    for (unsigned p = 1; p <= 2; ++p) {
        const std::string leaf = fmt::format("port/{}/maxChannels", p);
        settings.push_back({leaf, leaf, std::to_string(10 * p + round)});
        for (unsigned c = 1; c <= channels; ++c) {
            const std::string channel = fmt::format("port/{}/channel/{}/", p, c);
            settings.push_back({channel + "wantedPower", channel + "wantedPower",
                                fmt::format("{:.3f}", 0.125 * c + 0.5 * p + round * 0.25)});
            settings.push_back({channel + "defaultAttenuation", channel + "defaultAttenuation",
                                fmt::format("{:.1f}", 0.5 * (c % 20) + p + round)});
        }
    }
    return settings;
}

// As the server writes it: without zeros at the end, but for the first decimal.
std::string as_published(std::string json) {
    if (json.find('.') == std::string::npos)
        return json;
    while (json.ends_with('0') && !json.ends_with(".0"))
        json.pop_back();
    return json;
}

}  // namespace

class SettingsOverARestart : public RestoredSettings {
  protected:
    // Each round changes what the one before has saved.
    void expect_round_trips(std::vector<saved_setting> settings_of(unsigned round)) {
        log_level_ = "6";
        start_and_restore();
        for (unsigned round = 0; round < 2; ++round) {
            std::map<std::string, std::string> expected;
            for (const saved_setting& setting : settings_of(round)) {
                const std::string path = "control/config/" + setting.config;
                EXPECT_EQ(test::write_json(*management_, path, setting.json), "{}") << path;
                expected["control/data/" + setting.data] = as_published(setting.json);
            }
            EXPECT_EQ(difference_to(expected), "") << "before the restart";
            const std::string file = parameter_file_content();
            EXPECT_EQ(static_cast<std::size_t>(std::count(file.begin(), file.end(), '\n')),
                      expected.size());
            kill_and_restart();
            EXPECT_EQ(difference_to(expected), "") << "after the restart";
            EXPECT_EQ(parameter_file_content(), file);
        }
    }
};

TEST_F(SettingsOverARestart, AreThoseBeforeOnATwoWayCard) {
    become_ready_t47();
    expect_round_trips(saved_settings_t47);
}

TEST_F(SettingsOverARestart, AreThoseBeforeOnATwoPortCard) {
    become_ready_mx47();
    expect_round_trips(saved_settings_mx47);
}

TEST_F(SettingsOverARestart, AreForgottenWhereTheyAreNotSaved) {
    become_ready_mx47();
    start_and_restore();
    const std::string channel = "control/config/port/1/channel/5/";
    management_->set<void>(channel + "defaultAttenuationNoSave", 9.5F);
    management_->set<void>(channel + "opticalControlMode", std::string("off"));
    management_->set<void>("control/config/port/1/lossTimeout", 5LL);
    management_->set<void>("control/config/port/1/verbose", true);
    management_->set<void>("control/config/eq/K47ActualGain", 18.5F);
    EXPECT_EQ(difference_to({{"control/data/port/1/channel/5/defaultAttenuation", "9.5"},
                             {"control/data/port/1/channel/5/opticalControlMode", "\"off\""}}),
              "");
    kill_and_restart();
    EXPECT_EQ(difference_to({{"control/data/port/1/channel/5/defaultAttenuation", "15.0"},
                             {"control/data/port/1/channel/5/opticalControlMode", "\"power\""},
                             {"control/data/port/1/lossTimeout", "60"},
                             {"control/data/port/1/verbose", "false"},
                             {"control/data/eq/K47ActualGain", "-99.0"}}),
              "");
    EXPECT_EQ(parameter_file_content(), "");
}

TEST_F(SettingsOverARestart, BudgetsBeyondSenseDoNotKeepTheCardFromStarting) {
    become_ready_mx47();
    start_and_restore();
    for (const unsigned count : {0U, 4294967295U}) {
        for (const char* port : {"1", "2"})
            management_->set<void>(std::string("control/config/port/") + port + "/maxChannels",
                                   count);
        kill_and_restart();
        EXPECT_EQ(management_->get<unsigned>("control/data/port/2/maxChannels"), count);
        management_->set<void>("control/config/port/2/maxChannels", 48U);
        EXPECT_EQ(management_->get<float>("control/data/port/2/wantedPowerMax"), 20.0F);
    }
}
