// A parameter file in any state keeps no card from starting.
#include "saved_settings_card.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

std::string host_file() {
    return test::root() + std::string(test::parameter_file);
}

std::string noise(std::size_t length) {
    std::mt19937 random(1);
    std::string bytes(length, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// Each of the keys that a start reads, with this as its value.
std::string every_key_with(const std::string& value) {
    std::string content;
    for (const char* key : {"par_max_channels", "par_eq_max_channels",
                            "par_edfa_default_attenuation", "par_express_default_attenuation",
                            "par_eq_default_attenuation", "MX47_combo_mode", "par_ocmPowerOffset"})
        content += fmt::format("{}\t{}\n", key, value);
    for (unsigned c = 1; c <= 48; ++c) {
        for (const char* name : {"par_wanted_power", "eq_par_wanted_power",
                                 "par_default_attenuation", "eq_par_default_attenuation"})
            content += fmt::format("{}_{}_ch\t{}\n", name, c, value);
    }
    return content;
}

void put(const std::string& content) {
    test::put_file(test::parameter_file, content);
}

struct bad_file {
    std::string name;
    std::function<void()> lay_down;
};

const std::vector<bad_file>& bad_files() {
    static const std::vector<bad_file> files{
        {"missing", [] {}},
        {"missing folder", [] { std::filesystem::remove_all(test::root() + "/var"); }},
        {"empty", [] { put(""); }},
        {"folder", [] { std::filesystem::create_directories(host_file()); }},
        {"pipe", [] { ::mkfifo(host_file().c_str(), 0600); }},
        {"link to itself", [] { std::filesystem::create_symlink(host_file(), host_file()); }},
        {"noise", [] { put(noise(100'000)); }},
        {"no numbers", [] { put(every_key_with("many")); }},
        {"not a number", [] { put(every_key_with("nan")); }},
        {"infinite", [] { put(every_key_with("-inf")); }},
        {"huge numbers", [] { put(every_key_with("1e999")); }},
        {"negative", [] { put(every_key_with("-40")); }},
        {"fractions", [] { put(every_key_with("40.9")); }},
        {"beyond all powers", [] { put(every_key_with("3e38")); }},
        {"line of a megabyte", [] { put(every_key_with(std::string(1U << 20, '7'))); }},
        {"without an end of line", [] { put("par_max_channels\t 32"); }},
        {"keys without values", [] { put("par_max_channels\npar_eq_max_channels\t\n"); }},
    };
    return files;
}

}  // namespace

class BadParameterFile : public test::saved_settings_card {
  protected:
    void expect_start_with(const bad_file& file) {
        SCOPED_TRACE(file.name);
        test::remove_file(test::parameter_file);
        std::filesystem::create_directories(std::filesystem::path(host_file()).parent_path());
        file.lay_down();
        start_and_restore();
        EXPECT_FALSE(process_->has_ended());
        // And a setting still comes into force, whatever becomes of the file.
        management_->set<void>("control/config/edfa/defaultAttenuation", 3.5F);
        EXPECT_EQ(management_->get<float>("control/data/edfa/defaultAttenuation"), 3.5F);
    }
};

TEST_F(BadParameterFile, KeepsNoTwoWayCardFromStarting) {
    become_ready_t47();
    log_level_ = "6";
    for (const bad_file& file : bad_files())
        expect_start_with(file);
}

TEST_F(BadParameterFile, KeepsNoTwoPortCardFromStarting) {
    become_ready_mx47();
    log_level_ = "6";
    for (const bad_file& file : bad_files())
        expect_start_with(file);
}

TEST_F(BadParameterFile, NumbersThatAreNoneGiveTheDefaults) {
    become_ready_t47();
    for (const char* text : {"many", "nan", "inf", "1e999"}) {
        put(every_key_with(text));
        start_and_restore();
        EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 40U) << text;
        EXPECT_EQ(management_->get<float>("control/data/edfa/defaultAttenuation"), 15.1F) << text;
        EXPECT_TRUE(
            process_->has_logged("6 tm_velt_common msg: No traffic manager are set from "
                                 "parameters file: " +
                                 std::string(test::parameter_file)))
            << text;
    }
}

TEST_F(BadParameterFile, NegativeBudgetIsNone) {
    become_ready_t47();
    put("par_max_channels\t -5\n");
    start_and_restore();
    EXPECT_TRUE(process_->has_logged("msg: Found max channels from local config: 0 ["));
    EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 0U);
}

TEST_F(BadParameterFile, FileTooLongIsLeftAloneAndItsSizeIsLogged) {
    become_ready_t47();
    put(std::string(5U << 20, '#'));
    start_and_restore();
    EXPECT_TRUE(
        process_->has_logged("4 tm_velt_common msg: Config file is too long to be used, "
                             "5242880 bytes: "));
    EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 40U);
    EXPECT_EQ(std::filesystem::file_size(host_file()), 5U << 20);
}

// The disk is a small one that only this daemon sees.
TEST_F(BadParameterFile, FullDiskCostsTheFileButNeitherTheSettingNorTheNextStart) {
    if (std::system("unshare -m mount -t tmpfs -o size=8k tmpfs /mnt 2>/dev/null") != 0)
        GTEST_SKIP() << "a file system of its own needs rights that are missing here";
    become_ready_t47();
    const std::string folder = std::filesystem::path(host_file()).parent_path();
    const std::string script = "mount -t tmpfs -o size=8k tmpfs " + folder +
                               " && { yes '# a note' | head -c 4000; echo; } > " + host_file() +
                               " && { head -c 100000 /dev/zero > " + folder +
                               "/filler 2>/dev/null; exec " + daemon_program + "; }";
    process_.reset();
    process_.emplace("/usr/bin/unshare", std::vector<std::string>{"-m", "sh", "-c", script},
                     surroundings("50"), test::root());
    ASSERT_TRUE(eventually_logs("msg: All local configuration is done. ["));
    management_ = management_client();
    for (unsigned c = 1; c <= 48; ++c)
        management_->set<void>(fmt::format("control/config/{}/wantedPower", c), 1.5F);
    EXPECT_EQ(difference_to({{"control/data/48/wantedPower", "1.5"}}), "");
    EXPECT_FALSE(process_->has_ended());

    const std::string seen = fmt::format("/proc/{}/root{}", process_->id(), host_file());
    std::error_code unseen;
    EXPECT_LE(std::filesystem::file_size(seen, unseen), 4096U);
    ASSERT_FALSE(unseen) << unseen.message();
    std::filesystem::remove(host_file());
    std::filesystem::copy_file(seen, host_file());
    start_and_restore();
    EXPECT_EQ(management_->get<unsigned>("control/data/maxChannels"), 40U);
}
