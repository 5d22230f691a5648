// What the management sets is in force at once, and stands in the card's
// parameter file for the next start.
#include "control_tree_fixture.hpp"
#include "parameter_file.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using test::parameter_file_content;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// The file can be neither read nor written.
void put_folder_in_place_of_the_file() {
    test::remove_file(test::parameter_file);
    std::filesystem::create_directories(test::root() + std::string(test::parameter_file));
}

void put_file_that_is_too_long() {
    test::put_file(test::parameter_file, std::string(5U << 20, '#'));
}

// Of the poll thread, and of the ticks of the tree.
bool is_of_another_thread(const std::string& text) {
    return text.starts_with("msg: Waiting for local configuration") ||
           text.starts_with("msg: MX47. Activate") || text.starts_with("msg: Get port mode") ||
           text.starts_with("msg: Get_rx_power") ||
           text.starts_with("msg: Exception accessing actual gain");
}

}  // namespace

class SavedSettings : public test::control_tree_fixture {
  protected:
    explicit SavedSettings(const char* board = "velt,t47")
        : control_tree_fixture(board, msg_log::detail) {
        test::put_file(test::parameter_file, "");
        create_loop();
        log_.clear();
    }

    // The log since the last time, as "SEVERITY CHANNEL TEXT".
    std::vector<std::string> log_lines() {
        std::vector<std::string> lines;
        for (const auto& line : log_.lines()) {
            if (!is_of_another_thread(line.text))
                lines.push_back(fmt::format("{} {} {}", line.severity, line.channel, line.text));
        }
        log_.clear();
        return lines;
    }

    // The lines of the control loop itself.
    std::vector<std::string> own_lines() {
        std::vector<std::string> lines = log_lines();
        std::erase_if(lines, [](const std::string& line) {
            return line.find(" tm_velt_cloop ") == std::string::npos;
        });
        return lines;
    }
};

class SavedSettingsOfTwoPorts : public SavedSettings {
  protected:
    SavedSettingsOfTwoPorts() : SavedSettings("velt,mx47") {}
};

// --- default attenuation of a group ---

TEST_F(SavedSettings, EdfaDefaultAttenuationIsLoggedAppliedLoggedAndSaved) {
    loop_->set_edfa_defaultAttenuation(12.5F);
    EXPECT_THAT(
        log_lines(),
        ElementsAre("6 tm_velt_cloop msg: Setting EDFA default att to 12.5",
                    "6 tm_velt_regulation msg: Set EDFA default att to 12.5",
                    "6 tm_velt_cloop msg: Writing EDFA default att to 12.5",
                    "7 tm_velt_common msg: Adding fvalue: par_edfa_default_attenuation, value: "
                    "12.5 in local config file: /var/persistent/etc/traffic-manager.conf"));
    EXPECT_EQ(parameter_file_content(), "par_edfa_default_attenuation\t 12.5\n");
    EXPECT_EQ(loop_->get_edfa_defaultAttenuation(), 12.5F);
}

TEST_F(SavedSettings, ExpressDefaultAttenuationIsLoggedAppliedLoggedAndSaved) {
    loop_->set_express_defaultAttenuation(11.25F);
    EXPECT_THAT(
        log_lines(),
        ElementsAre("6 tm_velt_cloop msg: Setting EXPRESS default att to 11.25",
                    "6 tm_velt_regulation msg: Set EXPRESS default att: 11.25",
                    "6 tm_velt_cloop msg: Writing EXPRESS default att to 11.25",
                    "7 tm_velt_common msg: Adding fvalue: par_express_default_attenuation, value: "
                    "11.25 in local config file: /var/persistent/etc/traffic-manager.conf"));
    EXPECT_EQ(parameter_file_content(), "par_express_default_attenuation\t 11.25\n");
    EXPECT_EQ(loop_->get_express_defaultAttenuation(), 11.25F);
}

TEST_F(SavedSettingsOfTwoPorts, EqDefaultAttenuationIsLoggedAppliedLoggedAndSaved) {
    loop_->set_eq_defaultAttenuation(9.75F);
    EXPECT_THAT(
        log_lines(),
        ElementsAre("6 tm_velt_cloop msg: Setting EQ default att: 9.75",
                    "6 tm_velt_regulation_EQ msg: Setting EQ default attenuation is not valid for "
                    "mx47.",
                    "6 tm_velt_cloop msg: Writing EQ default att: 9.75",
                    "7 tm_velt_common msg: Adding fvalue: par_eq_default_attenuation, value: "
                    "9.75 in local config file: /var/persistent/etc/traffic-manager.conf"));
    EXPECT_EQ(parameter_file_content(), "par_eq_default_attenuation\t 9.75\n");
    EXPECT_EQ(loop_->get_eq_defaultAttenuation(), 9.75F);
}

TEST_F(SavedSettings, DefaultAttenuationThatIsNotSavedIsLoggedAndApplied) {
    wss_->set("data/wss/channel/3/port", "edfa");
    wss_->set("data/wss/channel/4/port", "express");
    loop_->set_edfa_defaultAttenuation_nosave(12.5F);
    loop_->set_express_defaultAttenuation_nosave(11.25F);
    EXPECT_THAT(own_lines(), ElementsAre("6 tm_velt_cloop msg: Setting EDFA default att to 12.5",
                                         "6 tm_velt_cloop msg: Setting EXPRESS default att to "
                                         "11.25"));
    EXPECT_EQ(loop_->get_edfa_defaultAttenuation(), 12.5F);
    EXPECT_EQ(loop_->get_express_defaultAttenuation(), 11.25F);
    EXPECT_TRUE(was_written("config/wss/channel/3/attenuation", "12.5"));
    EXPECT_TRUE(was_written("config/wss/channel/4/attenuation", "11.25"));
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettingsOfTwoPorts, EqDefaultAttenuationThatIsNotSavedHasATextOfItsOwn) {
    loop_->set_eq_defaultAttenuation_nosave(9.75F);
    EXPECT_THAT(own_lines(), ElementsAre("6 tm_velt_cloop msg: Setting EQ default att to 9.75"));
    EXPECT_EQ(loop_->get_eq_defaultAttenuation(), 9.75F);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettings, DefaultAttenuationIsInForceBeforeItIsSaved) {
    wss_->set("data/wss/channel/3/port", "edfa");
    float field_at_the_write = 0.0F;
    std::string file_at_the_write = "not written";
    wss_->on_request([&](const std::string& request) {
        if (request != "write config/wss/channel/3/attenuation=12.5")
            return;
        field_at_the_write = loop_->get_edfa_defaultAttenuation();
        file_at_the_write = parameter_file_content();
    });
    loop_->set_edfa_defaultAttenuation(12.5F);
    wss_->on_request(nullptr);
    EXPECT_EQ(field_at_the_write, 12.5F);
    EXPECT_THAT(file_at_the_write, IsEmpty());
    EXPECT_EQ(parameter_file_content(), "par_edfa_default_attenuation\t 12.5\n");
}

TEST_F(SavedSettings, DefaultAttenuationThatCannotBeAppliedIsKeptInTheFieldAndNotSaved) {
    loop_->set_edfa_defaultAttenuation(10.0F);
    loop_->set_express_defaultAttenuation(10.0F);
    const std::string before = parameter_file_content();
    log_.clear();
    wss_->fail_requests(-5, "stuck");
    EXPECT_THROW(loop_->set_edfa_defaultAttenuation(12.5F), dh_client_exception);
    EXPECT_THROW(loop_->set_express_defaultAttenuation(11.25F), dh_client_exception);
    EXPECT_EQ(loop_->get_edfa_defaultAttenuation(), 12.5F);
    EXPECT_EQ(loop_->get_express_defaultAttenuation(), 11.25F);
    EXPECT_EQ(parameter_file_content(), before);
    EXPECT_THAT(own_lines(), ElementsAre("6 tm_velt_cloop msg: Setting EDFA default att to 12.5",
                                         "6 tm_velt_cloop msg: Setting EXPRESS default att to "
                                         "11.25"));
}

// --- wanted power ---

TEST_F(SavedSettingsOfTwoPorts, WantedPowerIsSavedUnderTheNameOfItsPortAndChannel) {
    loop_->set_wanted_power(0, 3, 1.5F);
    loop_->set_wanted_power(1, 3, -12.5F);
    loop_->set_wanted_power(1, 48, 2.0F);
    EXPECT_EQ(parameter_file_content(),
              "par_wanted_power_3_ch\t 1.5\n"
              "eq_par_wanted_power_3_ch\t -12.5\n"
              "eq_par_wanted_power_48_ch\t 2\n");
    EXPECT_EQ(loop_->get_wanted_power(0, 3), 1.5F);
    EXPECT_EQ(loop_->get_wanted_power(1, 3), -12.5F);
    EXPECT_THAT(own_lines(), IsEmpty());
    loop_->set_wanted_power(1, 3, -11.0F);
    EXPECT_THAT(parameter_file_content(), HasSubstr("eq_par_wanted_power_3_ch\t -11.000000\n"));
}

TEST_F(SavedSettings, WantedPowerThatIsNotSavedIsLoggedAsADetail) {
    loop_->set_wanted_power_nosave(0, 3, 1.5F);
    EXPECT_THAT(
        own_lines(),
        ElementsAre("7 tm_velt_cloop msg: Set wanted power nosave channel-ix3, power: 1.5"));
    EXPECT_EQ(loop_->get_wanted_power(0, 3), 1.5F);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettings, WantedPowerOfAChannelThatTheRegulatorRefusesIsNotSaved) {
    EXPECT_THROW(loop_->set_wanted_power(0, 97, 1.5F), std::out_of_range);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

// --- default attenuation of a channel ---

TEST_F(SavedSettingsOfTwoPorts, DefaultAttenuationOfAChannelIsSavedUnderItsPortAndChannel) {
    loop_->set_channel_default_attenuation(0, 7, 12.5F);
    loop_->set_channel_default_attenuation(1, 7, 13.25F);
    EXPECT_EQ(parameter_file_content(),
              "par_default_attenuation_7_ch\t 12.5\n"
              "eq_par_default_attenuation_7_ch\t 13.25\n");
    EXPECT_EQ(loop_->get_channel_default_attenuation(0, 7), 12.5F);
    EXPECT_EQ(loop_->get_channel_default_attenuation(1, 7), 13.25F);
    EXPECT_THAT(own_lines(),
                ElementsAre("7 tm_velt_cloop set_channel_default_attenuation, msg: WSS port: 0, "
                            "channel-ix7, default attenuation: 12.500000",
                            "7 tm_velt_cloop set_channel_default_attenuation, msg: WSS port: 1, "
                            "channel-ix7, default attenuation: 13.250000"));
}

TEST_F(SavedSettingsOfTwoPorts, DefaultAttenuationOfAChannelThatIsNotSavedIsLoggedUnderItsName) {
    wss_->set("data/wss/2/channel/7/port", "on");
    loop_->set_channel_default_attenuation_nosave(1, 7, 13.25F);
    EXPECT_THAT(own_lines(), ElementsAre("7 tm_velt_cloop set_channel_default_attenuation_nosave, "
                                         "msg: WSS port: 1, channel-ix7, default attenuation: "
                                         "13.250000"));
    EXPECT_TRUE(was_written("config/wss/2/channel/7/attenuation", "13.25"));
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettingsOfTwoPorts, DefaultAttenuationOfAChannelThatCannotBeAppliedIsNotSaved) {
    wss_->fail_requests(-5, "stuck");
    EXPECT_THROW(loop_->set_channel_default_attenuation(1, 7, 13.25F), dh_client_exception);
    EXPECT_EQ(loop_->get_channel_default_attenuation(1, 7), 13.25F);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

// --- channel budget ---

TEST_F(SavedSettingsOfTwoPorts, BudgetsOfBothPortsAreSavedEachWithItsOwnValue) {
    loop_->set_maxChannels(0, 32);
    loop_->set_maxChannels(1, 16);
    EXPECT_EQ(parameter_file_content(), "par_max_channels\t 32\npar_eq_max_channels\t 16\n");
    EXPECT_EQ(loop_->get_maxChannels(0), 32U);
    EXPECT_EQ(loop_->get_maxChannels(1), 16U);
    EXPECT_THAT(
        own_lines(),
        ElementsAre("6 tm_velt_cloop msg: Set max channel to 32",
                    "6 tm_velt_cloop msg: Calculate wanted power for WSS port: 0, max channels: 32",
                    "6 tm_velt_cloop msg: Set max channel to 16",
                    "6 tm_velt_cloop msg: Calculate wanted power for WSS port: 1, max channels: "
                    "16"));
}

TEST_F(SavedSettingsOfTwoPorts, CalculationTellsTheBudgetThatWasSetLastWhicheverThePort) {
    loop_->set_maxChannels_nosave(1, 16);
    log_.clear();
    loop_->calculate_wanted_power(0);
    EXPECT_THAT(own_lines(),
                ElementsAre("6 tm_velt_cloop msg: Calculate wanted power for WSS port: 0, max "
                            "channels: 16"));
}

TEST_F(SavedSettings, BudgetThatIsNotSavedHasATextOfItsOwn) {
    loop_->set_maxChannels_nosave(0, 32);
    EXPECT_THAT(own_lines(), ElementsAre("6 tm_velt_cloop msg: Set max channel nosave to 32",
                                         "6 tm_velt_cloop msg: Calculate wanted power for WSS "
                                         "port: 0, max channels: 32"));
    EXPECT_EQ(loop_->get_maxChannels(0), 32U);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettings, NumberOfAllowedChannelsAloneChangesNothingElse) {
    const float power = loop_->get_wanted_power(0, 5);
    loop_->set_number_of_AllowedChannels(0, 12);
    EXPECT_EQ(loop_->get_maxChannels(0), 12U);
    EXPECT_EQ(loop_->get_wanted_power(0, 5), power);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettings, BudgetOverwritesTheWantedPowersInForceButNotThoseInTheFile) {
    loop_->set_wanted_power(0, 1, 1.5F);
    loop_->set_wanted_power(0, 48, -1.5F);
    loop_->set_maxChannels(0, 10);
    for (unsigned channel = 1; channel <= 48; ++channel)
        EXPECT_EQ(loop_->get_wanted_power(0, channel), 10.0F) << channel;
    EXPECT_EQ(parameter_file_content(),
              "par_wanted_power_1_ch\t 1.5\n"
              "par_wanted_power_48_ch\t -1.5\n"
              "par_max_channels\t 10\n");
}

// The power limit of the booster is what the EQ port's budget shares out.
TEST_F(SavedSettingsOfTwoPorts, BudgetThatCannotBeAppliedIsInForceAndNotSaved) {
    booster_->fail_requests(-5, "stuck");
    EXPECT_THROW(loop_->set_maxChannels(1, 16), dh_client_exception);
    EXPECT_EQ(loop_->get_maxChannels(1), 16U);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

// --- monitor offset ---

TEST_F(SavedSettingsOfTwoPorts, MonitorOffsetIsAppliedAndSaved) {
    loop_->set_mx47_ocm_power_offset_value(19.5F);
    EXPECT_EQ(loop_->get_mx47_ocm_power_offset_value(), 19.5F);
    EXPECT_EQ(parameter_file_content(), "par_ocmPowerOffset\t 19.5\n");
    loop_->set_mx47_ocm_power_offset_value_nosave(18.0F);
    EXPECT_EQ(loop_->get_mx47_ocm_power_offset_value(), 18.0F);
    EXPECT_EQ(parameter_file_content(), "par_ocmPowerOffset\t 19.5\n");
    EXPECT_THAT(own_lines(), IsEmpty());
}

// --- combined mode ---

TEST_F(SavedSettingsOfTwoPorts, CombinedModeIsSavedAsAWordBehindATab) {
    loop_->set_mx47_k47_combo_flag("enabled");
    EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tenabled\n");
    EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "enabled");
    loop_->set_mx47_k47_combo_flag("disabled");
    EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tdisabled\n");
    EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "disabled");
}

TEST_F(SavedSettingsOfTwoPorts, AnyOtherTextThanEnabledSwitchesCombinedModeOff) {
    const std::vector<std::string> texts{"",
                                         "disabled",
                                         "Enabled",
                                         "enabled ",
                                         " enabled",
                                         "enabled\n",
                                         "1",
                                         "true",
                                         "\"quoted\"",
                                         "\xc3\xa9\xe2\x82\xac",
                                         std::string(100'000, 'e'),
                                         std::string("enabled\0x", 9)};
    for (const std::string& text : texts) {
        loop_->set_mx47_k47_combo_flag("enabled");
        loop_->set_mx47_k47_combo_flag(text);
        EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "disabled") << text;
        EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tdisabled\n") << text;
    }
}

TEST_F(SavedSettingsOfTwoPorts, CombinedModeThatIsNotSavedLeavesTheFileAlone) {
    loop_->set_mx47_k47_combo_flag_nosave("enabled");
    EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "enabled");
    loop_->set_mx47_k47_combo_flag_nosave("disabled");
    EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "disabled");
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettingsOfTwoPorts, EnablingCombinedModeTwiceOnlySavesItAgain) {
    loop_->set_mx47_k47_combo_flag("enabled");
    loop_->set_wanted_power_nosave(1, 5, 2.5F);
    const std::string status = loop_->get_slot_communication_status();
    test::put_file(test::parameter_file, "");
    wss_->forget_requests();
    loop_->set_mx47_k47_combo_flag("enabled");
    EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tenabled\n");
    EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "enabled");
    EXPECT_EQ(loop_->get_slot_communication_status(), status);
    EXPECT_EQ(loop_->get_wanted_power(1, 5), 2.5F);
    EXPECT_THAT(wss_->requests(), testing::Each(testing::Not(testing::StartsWith("write"))));
}

TEST_F(SavedSettingsOfTwoPorts, CombinedModeThatIsOffHasNoStatusAndNoAlarm) {
    write("control/config/combinedMode", std::string("enabled"));
    write("control/config/combinedMode", std::string("disabled"));
    EXPECT_EQ(read<std::string>("control/data/combinedMode"), "disabled");
    EXPECT_EQ(read<std::string>("control/data/combinedModeStatus"), "n/a");
    EXPECT_EQ(read<unsigned>("control/alarms/combinedModeAlarm/severity"), 0U);
}

// The regulator has the new mode while it calculates with it, and asks for the
// booster's power limit then.
TEST_F(SavedSettingsOfTwoPorts, CombinedModeReadsAsTheRegulatorHasItBeforeItIsSaved) {
    loop_->set_mx47_k47_combo_flag("enabled");
    std::string mode_meanwhile;
    std::string file_meanwhile;
    booster_->on_request([&](const std::string& request) {
        if (request != "read data/powerLimit")
            return;
        mode_meanwhile = loop_->get_mx47_k47_combo_flag();
        file_meanwhile = parameter_file_content();
    });
    loop_->set_mx47_k47_combo_flag("disabled");
    booster_->on_request(nullptr);
    EXPECT_EQ(mode_meanwhile, "disabled");
    EXPECT_EQ(file_meanwhile, "MX47_combo_mode\tenabled\n");
    EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tdisabled\n");
}

TEST_F(SavedSettingsOfTwoPorts, CombinedModeThatCannotBeAppliedIsNotSaved) {
    loop_->set_mx47_k47_combo_flag("enabled");
    booster_->fail_requests(-5, "stuck");
    EXPECT_THROW(loop_->set_mx47_k47_combo_flag("disabled"), dh_client_exception);
    EXPECT_EQ(parameter_file_content(), "MX47_combo_mode\tenabled\n");
}

// --- a file that cannot be written ---

TEST_F(SavedSettingsOfTwoPorts, ValueIsInForceAndItsWriteSucceedsThoughTheFileCannotBeWritten) {
    for (const auto& spoil : {put_folder_in_place_of_the_file, put_file_that_is_too_long}) {
        test::remove_file(test::parameter_file);
        spoil();
        loop_->set_edfa_defaultAttenuation(12.5F);
        loop_->set_eq_defaultAttenuation(9.75F);
        loop_->set_wanted_power(1, 3, 2.25F);
        loop_->set_channel_default_attenuation(0, 7, 8.5F);
        loop_->set_maxChannels(0, 32);
        loop_->set_mx47_ocm_power_offset_value(19.5F);
        loop_->set_mx47_k47_combo_flag("enabled");
        EXPECT_EQ(loop_->get_edfa_defaultAttenuation(), 12.5F);
        EXPECT_EQ(loop_->get_eq_defaultAttenuation(), 9.75F);
        EXPECT_EQ(loop_->get_wanted_power(1, 3), 2.25F);
        EXPECT_EQ(loop_->get_channel_default_attenuation(0, 7), 8.5F);
        EXPECT_EQ(loop_->get_maxChannels(0), 32U);
        EXPECT_EQ(loop_->get_mx47_ocm_power_offset_value(), 19.5F);
        EXPECT_EQ(loop_->get_mx47_k47_combo_flag(), "enabled");
    }
    EXPECT_THAT(log_.texts(msg_log::failure),
                testing::Contains(HasSubstr("msg: Unable to store wanted power value 2.25 for "
                                            "eq_par_wanted_power_3_ch in config file ")));
}

TEST_F(SavedSettings, ManagementIsToldNothingOfAFileThatCannotBeWritten) {
    put_file_that_is_too_long();
    write("control/config/5/wantedPower", 2.25F);
    EXPECT_EQ(read<float>("control/config/5/wantedPower"), 2.25F);
    EXPECT_EQ(loop_->get_wanted_power(0, 5), 2.25F);
    EXPECT_EQ(parameter_file_content().size(), 5U << 20);
}

// --- ports that the card does not have ---

TEST_F(SavedSettings, PortThatTheCardDoesNotHaveIsRefusedAndNotSaved) {
    for (const unsigned port : {1U, 2U, 3U, 4294967295U}) {
        EXPECT_THROW(loop_->set_wanted_power(port, 3, 1.5F), std::out_of_range);
        EXPECT_THROW(loop_->set_channel_default_attenuation(port, 3, 1.5F), std::out_of_range);
        EXPECT_THROW(loop_->set_maxChannels(port, 12), std::out_of_range);
        EXPECT_THROW(loop_->get_wanted_power(port, 3), std::out_of_range);
    }
    EXPECT_THROW(loop_->set_eq_defaultAttenuation(9.75F), std::out_of_range);
    EXPECT_THROW(loop_->set_mx47_ocm_power_offset_value(9.75F), std::out_of_range);
    EXPECT_THROW(loop_->set_mx47_k47_combo_flag("enabled"), std::out_of_range);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettingsOfTwoPorts, ThirdPortIsRefusedAndNotSaved) {
    EXPECT_THROW(loop_->set_wanted_power(2, 3, 1.5F), std::out_of_range);
    EXPECT_THROW(loop_->set_channel_default_attenuation(2, 3, 1.5F), std::out_of_range);
    EXPECT_THROW(loop_->set_maxChannels(2, 12), std::out_of_range);
    EXPECT_THAT(parameter_file_content(), IsEmpty());
    EXPECT_EQ(loop_->get_maxChannels(0), 40U);
    EXPECT_EQ(loop_->get_maxChannels(1), 48U);
}

// --- settings of the moment ---

TEST_F(SavedSettingsOfTwoPorts, ModesLimitsAndValuesOfTheNeighbourAreNotSaved) {
    loop_->set_optical_ControlMode(0, 3, "off");
    loop_->set_port_mode(1, 3, "on");
    loop_->set_wantedPowerMax(0, 5.0F);
    loop_->set_wantedPowerMin(0, -1.0F);
    loop_->set_lossTimeout(0, 5);
    loop_->set_verbose_mode(1, true);
    loop_->set_mx47_k47_actual_gain(18.5F);
    loop_->set_mx47_k47_edfa_tx_power(12.25F);
    loop_->set_mx47_k47_cal_mon_to_boostertx(23.75F);
    loop_->set_mx47_k47_booster_power_limit(18.0F);
    loop_->set_edfa_gain(21.0F);
    loop_->set_sfp_attenuation(3.0F);
    EXPECT_EQ(loop_->get_wantedPowerMax(0), 5.0F);
    EXPECT_EQ(loop_->get_wantedPowerMin(0), -1.0F);
    EXPECT_EQ(loop_->get_mx47_k47_booster_power_limit(), 18.0F);
    EXPECT_EQ(loop_->get_edfa_gain(), 21.0F);
    EXPECT_EQ(loop_->get_sfp_attenuation(), 3.0F);
    EXPECT_FALSE(loop_->get_verbose_mode(0));
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}

TEST_F(SavedSettings, ModesTakeTextsOfAnyKind) {
    const std::vector<std::string> texts{
        "",           "\"quoted\" \\ / 'single'",  "\xc3\xa9\xe2\x82\xac",
        "two\nlines", std::string("with\0nul", 8), std::string(500'000, 'm')};
    for (const std::string& text : texts) {
        write("control/config/5/opticalControlMode", text);
        EXPECT_EQ(loop_->get_optical_ControlMode(0, 5), text);
        EXPECT_EQ(read<std::string>("control/config/5/opticalControlMode"), text);
        write("control/config/5/portMode", text);
        json::document memory;
        EXPECT_EQ(wss_->json_of("config/wss/channel/5/port"),
                  json::to_text(json::from(std::string_view(text), memory.GetAllocator())));
    }
    EXPECT_THAT(parameter_file_content(), IsEmpty());
}
