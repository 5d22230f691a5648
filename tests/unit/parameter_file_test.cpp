#include "common_traffic_manager_velt.hpp"
#include "log_capture.hpp"
#include "test_root.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <locale>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using test::log_line;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using main_value = traffic_manager::traffic_manager_main_values;
using wanted_power = traffic_manager::traffic_manager_wanted_power_values;
using default_attenuation = traffic_manager::traffic_manager_default_attenuation_values;
using port_mode = traffic_manager::traffic_manager_port_mode_values;

const std::string path = "/var/persistent/etc/traffic-manager.conf";
const std::string channel = "tm_velt_common";

constexpr auto max_channels = main_value::par_max_channels;
constexpr auto edfa_attenuation = main_value::par_edfa_default_attenuation;
constexpr auto combo_mode = main_value::MX47_combo_mode;
constexpr auto power_of_5 = static_cast<wanted_power>(5);
constexpr auto attenuation_of_5 = static_cast<default_attenuation>(5);
constexpr auto mode_of_5 = static_cast<port_mode>(5);

using file = traffic_manager;

// One operation on one key; the outcome of a read is put where nobody looks.
struct operation {
    std::string name;
    std::string key;
    std::function<int()> run;
};

float some_float = 0.0F;
unsigned some_unsigned = 0;
std::string some_string;

const std::vector<operation> reads{
    {"float", "par_edfa_default_attenuation",
     [] { return file::read_fvalue_from_main_parameters_file(edfa_attenuation, &some_float); }},
    {"unsigned", "par_max_channels",
     [] { return file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned); }},
    {"wanted power", "par_wanted_power_5_ch",
     [] { return file::read_fvalue_from_wanted_power_parameters_file(power_of_5, &some_float); }},
    {"default attenuation", "par_default_attenuation_5_ch",
     [] {
         return file::read_fvalue_from_channel_default_attenuation_file(attenuation_of_5,
                                                                        &some_float);
     }},
    {"port mode", "par_port_mode_5_ch",
     [] { return file::read_string_value_from_port_mode_parameters_file(mode_of_5, some_string); }},
    {"combined mode", "MX47_combo_mode",
     [] {
         return file::read_string_value_from_port_mode_parameters_file(combo_mode, some_string);
     }},
};

const std::vector<operation> writes{
    {"float", "par_edfa_default_attenuation",
     [] { return file::write_fvalue_to_main_parameters_file(edfa_attenuation, -12.5F); }},
    {"unsigned", "par_max_channels",
     [] { return file::write_unsigned_to_main_parameters_file(max_channels, 41); }},
    {"wanted power", "par_wanted_power_5_ch",
     [] { return file::write_fvalue_to_wanted_power_parameters_file(power_of_5, -12.5F); }},
    {"default attenuation", "par_default_attenuation_5_ch",
     [] {
         return file::write_fvalue_to_channel_default_attenuation_file(attenuation_of_5, -12.5F);
     }},
    {"port mode", "par_port_mode_5_ch",
     [] { return file::write_string_value_to_port_mode_parameters_file(mode_of_5, "edfa"); }},
    {"combined mode", "MX47_combo_mode",
     [] { return file::write_string_value_to_port_mode_parameters_file(combo_mode, "enabled"); }},
};

// What each of the writes leaves behind the separator, when it adds and when it changes a line.
const std::vector<std::string> added{" -12.5", " 41", " -12.5", " -12.5", "edfa", "enabled"};
const std::vector<std::string> changed{" -12.500000", " 41",  " -12.500000",
                                       " -12.500000", "edfa", "enabled"};

const std::vector<operation> removals{
    {"main", "par_max_channels",
     [] { return file::remove_value_from_main_parameters_file(max_channels); }},
    {"wanted power", "par_wanted_power_5_ch",
     [] { return file::remove_value_from_wanted_power_parameters_file(power_of_5); }},
    {"default attenuation", "par_default_attenuation_5_ch",
     [] {
         return file::remove_value_from_channel_defaultAttenuation_parameters_file(
             attenuation_of_5);
     }},
    {"port mode", "par_port_mode_5_ch",
     [] { return file::remove_value_from_port_mode_parameters_file(mode_of_5); }},
};

std::string content() {
    std::ifstream stream(test::root() + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class ParameterFile : public testing::Test {
  protected:
    ParameterFile() { put(""); }
    ~ParameterFile() override { test::empty_root(); }

    static void put(const std::string& text) { test::put_file(path, text); }

    static void put_special(const std::function<void(const std::string&)>& make) {
        test::remove_file(path);
        make(test::root() + path);
    }
};

// --- writing ---

TEST_F(ParameterFile, WritingToAMissingFileCreatesItWithThatOneLine) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        test::remove_file(path);
        EXPECT_EQ(writes[i].run(), 0) << writes[i].name;
        EXPECT_EQ(content(), writes[i].key + "\t" + added[i] + "\n");
    }
}

TEST_F(ParameterFile, SecondWriteChangesTheLineAndKeepsItsSeparator) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        put("");
        EXPECT_EQ(writes[i].run(), 0);
        EXPECT_EQ(writes[i].run(), 0);
        EXPECT_EQ(content(), writes[i].key + "\t" + changed[i] + "\n");
    }
}

TEST_F(ParameterFile, UnsignedIsABlankAndTheDecimalBothTimes) {
    file::write_unsigned_to_main_parameters_file(max_channels, 40);
    EXPECT_EQ(content(), "par_max_channels\t 40\n");
    file::write_unsigned_to_main_parameters_file(max_channels, 41);
    EXPECT_EQ(content(), "par_max_channels\t 41\n");
    file::write_unsigned_to_main_parameters_file(max_channels, 4294967295U);
    EXPECT_EQ(content(), "par_max_channels\t 4294967295\n");
}

TEST_F(ParameterFile, CombinedModeHasATabAndNoBlankBothTimes) {
    file::write_string_value_to_port_mode_parameters_file(combo_mode, "enabled");
    EXPECT_EQ(content(), "MX47_combo_mode\tenabled\n");
    file::write_string_value_to_port_mode_parameters_file(combo_mode, "disabled");
    EXPECT_EQ(content(), "MX47_combo_mode\tdisabled\n");
}

TEST_F(ParameterFile, AllLinesOfAKeyAreChanged) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        const std::string& key = writes[i].key;
        put(key + "\t 1\nother 2\n" + key + "=3\n");
        EXPECT_EQ(writes[i].run(), 0);
        EXPECT_EQ(content(),
                  key + "\t" + changed[i] + "\nother 2\n" + key + "=" + changed[i] + "\n");
    }
}

TEST_F(ParameterFile, SeparatorOfTheLineIsKept) {
    put("par_max_channels=40\n");
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), 0);
    EXPECT_EQ(some_unsigned, 40U);
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
    EXPECT_EQ(content(), "par_max_channels= 41\n");
}

TEST_F(ParameterFile, LineOfOnlyKeyAndSeparatorDoesNotMatchSoThatAWriteAppends) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        const std::string& key = writes[i].key;
        put(key + "\t\n");
        EXPECT_EQ(reads[i].run(), -1);
        EXPECT_EQ(writes[i].run(), 0);
        EXPECT_EQ(content(), key + "\t\n" + key + "\t" + added[i] + "\n");
    }
}

TEST_F(ParameterFile, EmptyStringWritesALineThatIsNotFoundAgain) {
    file::write_string_value_to_port_mode_parameters_file(mode_of_5, "");
    file::write_string_value_to_port_mode_parameters_file(mode_of_5, "off");
    EXPECT_EQ(content(), "par_port_mode_5_ch\t\npar_port_mode_5_ch\toff\n");
}

TEST_F(ParameterFile, UnknownLinesStayAsTheyAreAndInTheirOrder) {
    const std::string before = "\n# not a comment\r\n\xFF\x80 noise\n" + std::string("a\0b\n", 4);
    put(before + "par_max_channels\t 40\n\n par_max_channels\t 7\n");
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
    EXPECT_EQ(content(), before + "par_max_channels\t 41\n\n par_max_channels\t 7\n");
}

TEST_F(ParameterFile, LastLineGetsItsLineEnd) {
    put("other 1");
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
    EXPECT_EQ(content(), "other 1\npar_max_channels\t 41\n");
    put("par_max_channels\t 40");
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
    EXPECT_EQ(content(), "par_max_channels\t 41\n");
    put("other 1");
    EXPECT_EQ(file::remove_value_from_main_parameters_file(max_channels), 0);
    EXPECT_EQ(content(), "other 1\n");
}

TEST_F(ParameterFile, ChangedLineLosesItsCarriageReturnAndOthersKeepTheirs) {
    put("other\t 1\r\nMX47_combo_mode\tenabled\r\n");
    EXPECT_EQ(file::read_string_value_from_port_mode_parameters_file(combo_mode, some_string), 0);
    EXPECT_EQ(some_string, "enabled");
    EXPECT_EQ(file::write_string_value_to_port_mode_parameters_file(combo_mode, "disabled"), 0);
    EXPECT_EQ(content(), "other\t 1\r\nMX47_combo_mode\tdisabled\n");
}

// As printf and, by default, a stream print it.
std::string printed(const char* format, float value) {
    char text[64];
    std::snprintf(text, sizeof text, format, static_cast<double>(value));
    return text;
}

TEST_F(ParameterFile, FloatHasSixDigitsInANewLineAndSixDecimalsInAChangedOne) {
    std::vector<float> values{0.0F, -0.0F, 15.1F, -12.5F, 1234567.0F, 1e-5F, 1e20F, -99.0F};
    std::mt19937 random(1);
    std::uniform_real_distribution<float> any(-40.0F, 40.0F);
    for (unsigned round = 0; round < 200; ++round)
        values.push_back(any(random));
    for (const float value : values) {
        put("");
        file::write_fvalue_to_main_parameters_file(edfa_attenuation, value);
        EXPECT_EQ(content(), "par_edfa_default_attenuation\t " + printed("%g", value) + "\n");
        file::write_fvalue_to_main_parameters_file(edfa_attenuation, value);
        EXPECT_EQ(content(), "par_edfa_default_attenuation\t " + printed("%f", value) + "\n");
        EXPECT_EQ(file::read_fvalue_from_main_parameters_file(edfa_attenuation, &some_float), 0);
        EXPECT_NEAR(some_float, value, 1e-6F + std::abs(value) * 1e-6F);
    }
}

// --- reading ---

TEST_F(ParameterFile, ReadsTakeTheFirstLineOfTheKey) {
    put("par_eq_max_channels\t 9\npar_max_channels\t 40\npar_max_channels\t 41\n");
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), 0);
    EXPECT_EQ(some_unsigned, 40U);
}

TEST_F(ParameterFile, NumberIsReadAfterBlanksAndBeforeAnyText) {
    put("par_edfa_default_attenuation: \t -12.25dB\n");
    EXPECT_EQ(file::read_fvalue_from_main_parameters_file(edfa_attenuation, &some_float), 0);
    EXPECT_EQ(some_float, -12.25F);
}

TEST_F(ParameterFile, StringIsReadAsItStandsBehindTheSeparator) {
    put("par_port_mode_5_ch  edfa \nMX47_combo_mode\tenabled\n");
    EXPECT_EQ(file::read_string_value_from_port_mode_parameters_file(mode_of_5, some_string), 0);
    EXPECT_EQ(some_string, " edfa ");
    EXPECT_EQ(file::read_string_value_from_port_mode_parameters_file(combo_mode, some_string), 0);
    EXPECT_EQ(some_string, "enabled");
}

unsigned read_as_unsigned(const std::string& text) {
    test::put_file(path, "par_max_channels\t " + text + "\n");
    unsigned value = 77;
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &value), 0) << text;
    return value;
}

TEST_F(ParameterFile, UnsignedLosesItsFraction) {
    EXPECT_EQ(read_as_unsigned("40.9"), 40U);
    EXPECT_EQ(read_as_unsigned("0.9"), 0U);
    EXPECT_EQ(read_as_unsigned("4e1"), 40U);
}

TEST_F(ParameterFile, NegativeUnsignedIsZero) {
    EXPECT_EQ(read_as_unsigned("-1"), 0U);
    EXPECT_EQ(read_as_unsigned("-0.5"), 0U);
    EXPECT_EQ(read_as_unsigned("-1e30"), 0U);
}

TEST_F(ParameterFile, UnsignedHasThePrecisionOfAFloatAndEndsAtItsHighestValue) {
    EXPECT_EQ(read_as_unsigned("16777217"), 16777216U);
    EXPECT_EQ(read_as_unsigned("4294967040"), 4294967040U);
    EXPECT_EQ(read_as_unsigned("4294967295"), std::numeric_limits<unsigned>::max());
    EXPECT_EQ(read_as_unsigned("1e30"), std::numeric_limits<unsigned>::max());
}

TEST_F(ParameterFile, MissingKeyAndMissingFileGiveNoValueAndNoMessageOfFailure) {
    for (const bool with_file : {true, false}) {
        if (with_file)
            put("other 1\n");
        else
            test::remove_file(path);
        const test::log_capture log;
        some_float = 7.5F;
        some_unsigned = 7;
        some_string = "kept";
        for (const operation& read : reads)
            EXPECT_EQ(read.run(), -1) << read.name;
        EXPECT_EQ(some_float, 7.5F);
        EXPECT_EQ(some_unsigned, 7U);
        EXPECT_EQ(some_string, "kept");
        EXPECT_THAT(log.lines(), Each(testing::Field(&log_line::severity, 7)));
        EXPECT_EQ(std::filesystem::exists(test::root() + path), with_file);
    }
}

// --- removing ---

TEST_F(ParameterFile, AllLinesOfAKeyAreRemoved) {
    for (const operation& removal : removals) {
        put(removal.key + "\t 1\nother 2\n" + removal.key + "=3\n");
        EXPECT_EQ(removal.run(), 0) << removal.name;
        EXPECT_EQ(content(), "other 2\n");
    }
}

TEST_F(ParameterFile, RemovingWhatIsNotThereSucceeds) {
    const test::log_capture log;
    for (const operation& removal : removals) {
        put("other 2\n" + removal.key + "=\n");
        EXPECT_EQ(removal.run(), 0) << removal.name;
        EXPECT_EQ(content(), "other 2\n" + removal.key + "=\n");
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ParameterFile, RemovingFromAMissingFileLeavesAnEmptyOne) {
    test::remove_file(path);
    EXPECT_EQ(removals[0].run(), 0);
    EXPECT_TRUE(std::filesystem::is_regular_file(test::root() + path));
    EXPECT_EQ(content(), "");
}

// --- keys ---

std::string keys_by_channel(const std::string& name, const std::string& rest) {
    std::string lines;
    for (unsigned number = 0; number <= 96; ++number)
        lines += fmt::format("{}_{}_ch\t{}\n", name, number, rest);
    return lines + name + "_last_ch\t" + rest + "\n";
}

TEST_F(ParameterFile, MainValuesHaveTheirKeys) {
    for (unsigned number = 0; number < 10; ++number)
        file::write_unsigned_to_main_parameters_file(static_cast<main_value>(number), number);
    EXPECT_EQ(content(),
              "par_max_channels\t 0\npar_eq_max_channels\t 1\npar_edfa_default_attenuation\t 2\n"
              "par_express_default_attenuation\t 3\npar_eq_default_attenuation\t 4\n"
              "par_edfa_gain\t 5\npar_sfp_attenuation\t 6\nMX47_combo_mode\t 7\n"
              "par_ocmPowerOffset\t 8\ntraffic_manager_main_values_last\t 9\n");
}

TEST_F(ParameterFile, NamedNumbersAreThoseOfTheTables) {
    EXPECT_EQ(static_cast<unsigned>(main_value::par_eq_default_attenuation), 4U);
    EXPECT_EQ(static_cast<unsigned>(main_value::MX47_combo_mode), 7U);
    EXPECT_EQ(static_cast<unsigned>(main_value::par_ocmPowerOffset), 8U);
    EXPECT_EQ(static_cast<unsigned>(main_value::traffic_manager_main_values_last), 9U);
    EXPECT_EQ(static_cast<unsigned>(wanted_power::par_wanted_power_last_ch), 97U);
    EXPECT_EQ(static_cast<unsigned>(wanted_power::eq_par_wanted_power_0_ch), 98U);
    EXPECT_EQ(static_cast<unsigned>(wanted_power::eq_par_wanted_power_last_ch), 195U);
    EXPECT_EQ(static_cast<unsigned>(default_attenuation::par_default_attenuation_last_ch), 97U);
    EXPECT_EQ(static_cast<unsigned>(default_attenuation::eq_par_default_attenuation_0_ch), 98U);
    EXPECT_EQ(static_cast<unsigned>(default_attenuation::eq_par_default_attenuation_last_ch), 195U);
    EXPECT_EQ(static_cast<unsigned>(port_mode::par_port_mode_last_ch), 97U);
}

TEST_F(ParameterFile, WantedPowersHaveTheirKeys) {
    for (unsigned number = 0; number < 196; ++number)
        file::write_fvalue_to_wanted_power_parameters_file(static_cast<wanted_power>(number), 1.5F);
    EXPECT_EQ(content(), keys_by_channel("par_wanted_power", " 1.5") +
                             keys_by_channel("eq_par_wanted_power", " 1.5"));
}

TEST_F(ParameterFile, DefaultAttenuationsHaveTheirKeys) {
    for (unsigned number = 0; number < 196; ++number)
        file::write_fvalue_to_channel_default_attenuation_file(
            static_cast<default_attenuation>(number), 1.5F);
    EXPECT_EQ(content(), keys_by_channel("par_default_attenuation", " 1.5") +
                             keys_by_channel("eq_par_default_attenuation", " 1.5"));
}

TEST_F(ParameterFile, PortModesHaveTheirKeys) {
    for (unsigned number = 0; number < 98; ++number)
        file::write_string_value_to_port_mode_parameters_file(static_cast<port_mode>(number),
                                                              "off");
    EXPECT_EQ(content(), keys_by_channel("par_port_mode", "off"));
}

TEST_F(ParameterFile, NumberWithoutAKeyFailsAndTouchesNothing) {
    put("other 2\n");
    const test::log_capture log(msg_log::progress);
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(static_cast<main_value>(10), 1), -1);
    EXPECT_EQ(file::read_fvalue_from_wanted_power_parameters_file(static_cast<wanted_power>(196),
                                                                  &some_float),
              -1);
    EXPECT_EQ(file::remove_value_from_port_mode_parameters_file(static_cast<port_mode>(98)), -1);
    EXPECT_EQ(log.lines().size(), 3U);
    EXPECT_EQ(content(), "other 2\n");
}

// --- the log ---

log_line detail(const std::string& text) {
    return {7, channel, text};
}

TEST_F(ParameterFile, ReadsLogWhatTheyLookForAndFind) {
    const std::string& where = path;
    const std::vector<std::vector<log_line>> wanted{
        {},
        {detail("msg: Trying to read: par_max_channels in file: " + where),
         detail("msg: Found value: 40 in file: " + where)},
        {detail("msg: Not updating par_wanted_power_5_ch in file: " + where),
         detail("msg: Found value: 40.9 in file: " + where)},
        {detail("msg: Not updating: par_default_attenuation_5_ch in file: " + where),
         detail("msg: Found value: 40.9 in file: " + where)},
        {detail("msg: line: par_port_mode_5_ch= 40.9, req value name: par_port_mode_5_ch, value: "
                "( 40.9)")},
        {detail("msg: line: MX47_combo_mode= 40.9, req value name: MX47_combo_mode, value: "
                "( 40.9)")},
    };
    for (std::size_t i = 0; i < reads.size(); ++i) {
        put("noise\n" + reads[i].key + "= 40.9\n");
        const test::log_capture log;
        EXPECT_EQ(reads[i].run(), 0);
        EXPECT_EQ(log.lines(), wanted[i]) << reads[i].name;
    }
}

TEST_F(ParameterFile, ReadsThatFindNothingLogOnlyWhatTheyLookFor) {
    const std::vector<std::vector<log_line>> wanted{
        {},
        {detail("msg: Trying to read: par_max_channels in file: " + path)},
        {detail("msg: Not updating par_wanted_power_5_ch in file: " + path)},
        {detail("msg: Not updating: par_default_attenuation_5_ch in file: " + path)},
        {},
        {},
    };
    test::remove_file(path);
    for (std::size_t i = 0; i < reads.size(); ++i) {
        const test::log_capture log;
        EXPECT_EQ(reads[i].run(), -1);
        EXPECT_EQ(log.lines(), wanted[i]) << reads[i].name;
    }
}

TEST_F(ParameterFile, LineIsLoggedWholeWhereTheValueEndsBeforeItsCarriageReturn) {
    put("MX47_combo_mode\tenabled\r\n");
    const test::log_capture log;
    file::read_string_value_from_port_mode_parameters_file(combo_mode, some_string);
    EXPECT_THAT(log.texts(), ElementsAre("msg: line: MX47_combo_mode\tenabled\r, req value name: "
                                         "MX47_combo_mode, value: (enabled)"));
}

TEST_F(ParameterFile, MainFloatLogsThatItIsAddedAndEachLineThatIsUpdated) {
    const auto write = [] { file::write_fvalue_to_main_parameters_file(edfa_attenuation, -12.5F); };
    const std::string rest =
        " fvalue: par_edfa_default_attenuation, value: -12.5 in local config file: " + path;
    {
        const test::log_capture log;
        write();
        EXPECT_THAT(log.lines(), ElementsAre(detail("msg: Adding" + rest)));
    }
    put("par_edfa_default_attenuation 1\npar_edfa_default_attenuation 2\n");
    const test::log_capture log;
    write();
    EXPECT_THAT(log.lines(),
                ElementsAre(detail("msg: Updating" + rest), detail("msg: Updating" + rest)));
}

TEST_F(ParameterFile, OtherWritesLogNothingButTheDefaultAttenuationWhatItLooksFor) {
    for (const operation& write : writes) {
        if (write.name == "float")
            continue;
        const test::log_capture log;
        write.run();
        write.run();
        const log_line looking = detail(
            "write_fvalue_to_channel_default_attenuation_file, msg: Looking for: "
            "par_default_attenuation_5_ch in file: " +
            path);
        if (write.name == "default attenuation")
            EXPECT_THAT(log.lines(), ElementsAre(looking, looking));
        else
            EXPECT_THAT(log.lines(), IsEmpty()) << write.name;
    }
}

// --- failures ---

TEST_F(ParameterFile, ValueThatIsNoNumberFailsWithTheMessageOfItsFamily) {
    const std::vector<log_line> wanted{
        {6, channel, "msg: Reading fvalue failed from local config file: " + path},
        {6, channel, "msg: No traffic manager are set from parameters file: " + path},
        {6, channel,
         "msg: No wanted power settings are set, Unable to read value from wanted power file: " +
             path},
        {6, channel,
         "msg: No wanted power settings are set, unable to read value from wanted power file: " +
             path},
    };
    some_float = 7.5F;
    some_unsigned = 7;
    for (const char* text :
         {"abc", "-", ".", " ", "1e99", "-1e99", "1e-99", "nan", "NaN(1)", "inf", "-infinity"}) {
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            put(reads[i].key + "\t " + text + "\n" + reads[i].key + "\t 1\n");
            const test::log_capture log(msg_log::progress);
            EXPECT_EQ(reads[i].run(), -1) << text;
            EXPECT_THAT(log.lines(), ElementsAre(wanted[i])) << text;
        }
    }
    EXPECT_EQ(some_float, 7.5F);
    EXPECT_EQ(some_unsigned, 7U);
}

// Holes take no room on the disk.
void put_file_of(std::uintmax_t bytes) {
    std::filesystem::resize_file(test::root() + path, bytes);
}

constexpr std::uintmax_t longest = std::uintmax_t{4} << 20;

const std::string too_long =
    fmt::format("msg: Config file is too long to be used, {} bytes: {}", 100 << 20, path);

TEST_F(ParameterFile, FileTooLongFailsEveryReadWithItsMessage) {
    put_file_of(100 << 20);
    const std::vector<std::string> wanted{
        "msg: Reading fvalue failed from local config file: ",
        "msg: No traffic manager are set from parameters file: ",
        "msg: No wanted power settings are set, Unable to read value from wanted power file: ",
        "msg: No wanted power settings are set, unable to read value from wanted power file: ",
        "msg: No port mode set: ",
        "msg: No value found in file: ",
    };
    for (std::size_t i = 0; i < reads.size(); ++i) {
        const test::log_capture log(msg_log::progress);
        EXPECT_EQ(reads[i].run(), -1);
        EXPECT_THAT(log.lines(), ElementsAre(log_line{4, channel, too_long},
                                             log_line{6, channel, wanted[i] + path}));
    }
}

TEST_F(ParameterFile, FileTooLongFailsEveryWriteWithItsMessageAndStays) {
    put_file_of(100 << 20);
    const std::vector<std::string> wanted{
        "msg: Unable to store wanted power value -12.5 for par_wanted_power_2_ch in config file ",
        "msg: Unable to store wanted power value 41 for par_wanted_power_0_ch in config file ",
        "msg: Unable to store wanted power value -12.5 for par_wanted_power_5_ch in config file ",
        "msg: Unable to store wanted power value -12.5 for par_default_attenuation_5_ch in config "
        "file ",
        "msg: Unable to store wanted power value edfa for par_port_mode_5_ch in config file ",
        "msg: Unable to store enabled for MX47_combo_mode in config file ",
    };
    for (std::size_t i = 0; i < writes.size(); ++i) {
        const test::log_capture log(msg_log::progress);
        EXPECT_EQ(writes[i].run(), -1);
        EXPECT_THAT(log.lines(), ElementsAre(log_line{4, channel, too_long},
                                             log_line{3, channel, wanted[i] + path}));
    }
    EXPECT_EQ(std::filesystem::file_size(test::root() + path), 100U << 20);
}

TEST_F(ParameterFile, FileTooLongFailsEveryRemovalWithItsMessage) {
    put_file_of(100 << 20);
    for (const operation& removal : removals) {
        const test::log_capture log(msg_log::progress);
        EXPECT_EQ(removal.run(), -1);
        EXPECT_THAT(log.lines(),
                    ElementsAre(log_line{4, channel, too_long},
                                log_line{3, channel,
                                         "msg: Unable to remove wanted power value  for " +
                                             removal.key + " in config file " + path}));
    }
}

TEST_F(ParameterFile, LongestFileIsUsed) {
    put("par_max_channels 40\n");
    put_file_of(longest);
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), 0);
    EXPECT_EQ(some_unsigned, 40U);
    put_file_of(longest + 1);
    const test::log_capture log;
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), -1);
}

TEST_F(ParameterFile, LineOfMegabytesIsNoHarm) {
    const std::string noise(std::size_t{1} << 20, 'x');
    const std::string digits(std::size_t{1} << 20, '0');
    put(noise + "\npar_max_channels " + digits + "40\nMX47_combo_mode\t" + noise + "\n");
    EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), 0);
    EXPECT_EQ(some_unsigned, 40U);
    EXPECT_EQ(file::read_string_value_from_port_mode_parameters_file(combo_mode, some_string), 0);
    EXPECT_EQ(some_string, noise);
    EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
    EXPECT_EQ(content(), noise + "\npar_max_channels  41\nMX47_combo_mode\t" + noise + "\n");
}

TEST_F(ParameterFile, NoiseIsKeptAndHasNoValues) {
    std::mt19937 random(3);
    std::string noise;
    for (unsigned i = 0; i < 100000; ++i)
        noise += static_cast<char>(random());
    noise += '\n';
    put(noise);
    for (const operation& read : reads)
        EXPECT_EQ(read.run(), -1);
    EXPECT_EQ(writes[1].run(), 0);
    EXPECT_EQ(content(), noise + "par_max_channels\t 41\n");
}

// Everything that can be asked of a file that can be neither read nor written.
void expect_as_empty_and_storing_nothing() {
    const test::log_capture log(msg_log::progress);
    for (const operation& read : reads)
        EXPECT_EQ(read.run(), -1) << read.name;
    for (const operation& write : writes)
        EXPECT_EQ(write.run(), 0) << write.name;
    for (const operation& removal : removals)
        EXPECT_EQ(removal.run(), 0) << removal.name;
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ParameterFile, FolderInItsPlaceReadsAsEmptyAndStoresNothing) {
    put_special([](const std::string& place) { std::filesystem::create_directory(place); });
    expect_as_empty_and_storing_nothing();
    EXPECT_TRUE(std::filesystem::is_directory(test::root() + path));
}

TEST_F(ParameterFile, PipeInItsPlaceHoldsNobodyUp) {
    put_special([](const std::string& place) { ASSERT_EQ(::mkfifo(place.c_str(), 0600), 0); });
    expect_as_empty_and_storing_nothing();
    EXPECT_TRUE(std::filesystem::is_fifo(test::root() + path));
}

TEST_F(ParameterFile, MissingFolderIsNotCreated) {
    const std::filesystem::path folder = std::filesystem::path(test::root() + path).parent_path();
    std::filesystem::remove_all(folder);
    expect_as_empty_and_storing_nothing();
    EXPECT_FALSE(std::filesystem::exists(folder));
}

// Rights to files do not hold root back, so its thread gives up that privilege for a while.
class without_privilege {
  public:
    without_privilege() {
        if (::geteuid() == 0) {
            std::filesystem::permissions(test::root(), std::filesystem::perms(0755));
            ::setfsuid(nobody);
        }
    }
    ~without_privilege() { ::setfsuid(::geteuid()); }
    // Not in a namespace of users that knows root alone.
    static bool is_given_up() {
        return ::geteuid() != 0 || ::setfsuid(static_cast<uid_t>(-1)) == static_cast<int>(nobody);
    }

    without_privilege(const without_privilege&) = delete;
    without_privilege& operator=(const without_privilege&) = delete;

  private:
    static constexpr uid_t nobody = 65534;
};

TEST_F(ParameterFile, FileThatMayOnlyBeReadKeepsItsContent) {
    put("par_max_channels 40\n");
    std::filesystem::permissions(test::root() + path, std::filesystem::perms(0444));
    {
        const without_privilege privilege;
        if (!without_privilege::is_given_up())
            GTEST_SKIP() << "root cannot give up its rights to files here";
        EXPECT_EQ(file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned), 0);
        EXPECT_EQ(some_unsigned, 40U);
        EXPECT_EQ(file::write_unsigned_to_main_parameters_file(max_channels, 41), 0);
        EXPECT_EQ(file::remove_value_from_main_parameters_file(max_channels), 0);
    }
    EXPECT_EQ(content(), "par_max_channels 40\n");
}

// --- the surroundings ---

class grouping : public std::numpunct<char> {
  protected:
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST_F(ParameterFile, NumbersDoNotDependOnTheLocale) {
    const std::locale before = std::locale::global({std::locale::classic(), new grouping});
    const test::log_capture log;
    for (unsigned round = 0; round < 2; ++round) {
        file::write_unsigned_to_main_parameters_file(max_channels, 1234567);
        file::write_fvalue_to_main_parameters_file(edfa_attenuation, 12345.5F);
    }
    file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned);
    file::read_fvalue_from_main_parameters_file(edfa_attenuation, &some_float);
    std::locale::global(before);
    EXPECT_EQ(content(),
              "par_max_channels\t 1234567\npar_edfa_default_attenuation\t 12345.500000\n");
    EXPECT_EQ(some_unsigned, 1234567U);
    EXPECT_EQ(some_float, 12345.5F);
    EXPECT_EQ(log.count("msg: Found value: 1234567 in file: " + path), 1U);
    EXPECT_EQ(log.count("msg: Updating fvalue: par_edfa_default_attenuation, value: 12345.5 in "
                        "local config file: " +
                        path),
              1U);
}

TEST_F(ParameterFile, WritersOfDifferentKeysLoseNothing) {
    constexpr unsigned writers = 4;
    constexpr unsigned keys_of_each = 12;
    std::atomic<bool> done{false};
    std::atomic<unsigned> torn{0};
    {
        std::jthread reader([&] {
            while (!done) {
                float value = 0.0F;
                if (file::read_fvalue_from_wanted_power_parameters_file(
                        static_cast<wanted_power>(1), &value) == 0 &&
                    value != 1.0F)
                    ++torn;
            }
        });
        {
            std::vector<std::jthread> threads;
            for (unsigned writer = 0; writer < writers; ++writer) {
                threads.emplace_back([writer] {
                    for (unsigned i = 1; i <= keys_of_each; ++i) {
                        const unsigned ix = writer * keys_of_each + i;
                        file::write_fvalue_to_wanted_power_parameters_file(
                            static_cast<wanted_power>(ix), static_cast<float>(ix));
                    }
                });
            }
        }
        done = true;
    }
    EXPECT_EQ(torn, 0U);
    for (unsigned ix = 1; ix <= writers * keys_of_each; ++ix) {
        float value = 0.0F;
        EXPECT_EQ(file::read_fvalue_from_wanted_power_parameters_file(static_cast<wanted_power>(ix),
                                                                      &value),
                  0);
        EXPECT_EQ(value, static_cast<float>(ix));
    }
    const std::string all = content();
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), writers * keys_of_each);
}

// Whether the mutex is held, as another thread sees it.
bool is_mutex_held() {
    bool is_held = true;
    std::jthread([&] {
        is_held = !file::tm_device_mutex.try_lock();
        if (!is_held)
            file::tm_device_mutex.unlock();
    }).join();
    return is_held;
}

// Notes of each line of the log its severity, and whether the mutex was held.
class mutex_watch {
  public:
    using note = std::pair<int, bool>;

    mutex_watch() { msg_log::instance().set_sink(&mutex_watch::append, this); }
    ~mutex_watch() { msg_log::instance().set_sink(nullptr, nullptr); }
    mutex_watch(const mutex_watch&) = delete;
    mutex_watch& operator=(const mutex_watch&) = delete;

    std::vector<note> notes() { return std::exchange(notes_, {}); }

  private:
    static void append(void* context, msg_log::severity_level severity, const std::string&,
                       const std::string&) {
        static_cast<mutex_watch*>(context)->notes_.emplace_back(severity, is_mutex_held());
    }

    const test::log_capture all_levels_;  // sets the level back
    std::vector<note> notes_;
};

TEST_F(ParameterFile, MutexIsHeldFromTheFirstToTheLastLineOfAnOperation) {
    using note = mutex_watch::note;
    mutex_watch watch;
    put("par_max_channels 40\n");
    file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned);
    EXPECT_THAT(watch.notes(), ElementsAre(note{7, true}, note{7, true}));
    file::write_fvalue_to_main_parameters_file(edfa_attenuation, 1.0F);
    EXPECT_THAT(watch.notes(), ElementsAre(note{7, true}));
    EXPECT_FALSE(is_mutex_held());
}

TEST_F(ParameterFile, MutexIsReleasedBeforeAFailureIsLogged) {
    using note = mutex_watch::note;
    mutex_watch watch;
    put("par_max_channels abc\n");
    file::read_unsigned_from_main_parameters_file(max_channels, &some_unsigned);
    EXPECT_THAT(watch.notes(), ElementsAre(note{7, true}, note{6, false}));
    put_file_of(longest + 1);
    file::remove_value_from_main_parameters_file(max_channels);
    EXPECT_THAT(watch.notes(), ElementsAre(note{4, true}, note{3, false}));
}

}  // namespace
