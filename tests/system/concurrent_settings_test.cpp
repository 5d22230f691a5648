// Several management clients set things at random while both loops regulate:
// afterwards file, tree and regulators tell the same. With VELT_RANDOM_WRITES
// the number of writes, for a longer run.
#include "saved_settings_card.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using test::parameter_file_content;
using test::values_under;

namespace {

constexpr unsigned sessions = 4;
constexpr unsigned channels = 48;
constexpr double power_limit = 20.0;  // dBm, of a booster that tells none

unsigned number_of_writes() {
    return static_cast<unsigned>(std::stoul(host::environment("VELT_RANDOM_WRITES", "1000")));
}

// A path below control/config and control/data, the values that it may get, and
// the name of what is saved, if anything.
struct setting {
    std::string path;
    std::vector<std::string> json_texts;
    std::string saved_name;
};

// Powers that every one of the budgets allows, so that no limit changes them.
const std::vector<std::string> powers{"1.0", "2.5", "3.125", "4.75", "5.5", "7.0"};
const std::vector<std::string> attenuations{"0.0", "3.5", "9.25", "12.5", "15.0", "20.75"};
const std::vector<std::string> budgets{"16", "24", "32", "40", "48"};

std::vector<setting> all_settings() {
    std::vector<setting> settings{
        {"edfa/defaultAttenuation", attenuations, "par_edfa_default_attenuation"},
        {"eq/defaultAttenuation", attenuations, "par_eq_default_attenuation"},
        {"eq/ocmPowerOffset", {"18.0", "19.5", "20.25"}, "par_ocmPowerOffset"},
        // Seldom, as the EQ loop stands still without a neighbour then.
        {"combinedMode",
         {"\"enabled\"", "\"disabled\"", "\"disabled\"", "\"disabled\""},
         "MX47_combo_mode"},
        {"eq/K47ActualGain", {"17.5", "18.5"}, ""},
        {"eq/K47EdfaTxPower", {"11.5", "12.5"}, ""}};
    for (const unsigned port : {1U, 2U}) {
        const std::string of_port = fmt::format("port/{}/", port);
        const std::string prefix = port == 1 ? "par_" : "eq_par_";
        settings.push_back({of_port + "maxChannels", budgets,
                            port == 1 ? "par_max_channels" : "par_eq_max_channels"});
        settings.push_back({of_port + "verbose", {"true", "false"}, ""});
        settings.push_back({of_port + "lossTimeout", {"30", "60", "90"}, ""});
        for (unsigned c = 1; c <= channels; ++c) {
            const std::string channel = fmt::format("{}channel/{}/", of_port, c);
            settings.push_back(
                {channel + "wantedPower", powers, fmt::format("{}wanted_power_{}_ch", prefix, c)});
            settings.push_back({channel + "defaultAttenuation", attenuations,
                                fmt::format("{}default_attenuation_{}_ch", prefix, c)});
            settings.push_back(
                {channel + "opticalControlMode", {"\"power\"", "\"off\"", "\"hold\""}, ""});
            settings.push_back({channel + "portMode", {"\"on\"", "\"off\""}, ""});
        }
    }
    return settings;
}

std::string value_in(const std::string& entry) {
    const std::string beginning = R"({"value":)";
    return entry.starts_with(beginning)
               ? entry.substr(beginning.size(), entry.size() - beginning.size() - 1)
               : entry;
}

// The file's lines by name; a name that stands twice has both values.
std::map<std::string, std::string> saved_values() {
    std::map<std::string, std::string> values;
    std::istringstream file(parameter_file_content());
    for (std::string line; std::getline(file, line);) {
        const std::size_t tab = line.find('\t');
        values[line.substr(0, tab)] += line.substr(tab + 1);
    }
    return values;
}

bool is_same_number(const std::string& a, const std::string& b) {
    return std::stod(a) == std::stod(b);
}

// What a budget gives all channels of its port.
bool is_power_of_a_budget(const std::string& power) {
    return std::any_of(budgets.begin(), budgets.end(), [&](const std::string& budget) {
        const double share = power_limit - 10.0 * std::log10(std::stod(budget));
        return std::abs(std::stod(power) - share) < 1e-4;
    });
}

}  // namespace

class ConcurrentSettings : public test::saved_settings_card {
  protected:
    ConcurrentSettings() {
        log_level_ = "4";
        become_ready_mx47();
        booster_->set("data/enable", true);
        booster_->set("data/actualGain", 21.0F);
        system_start_.emplace("/tmp/device_handlers/system_start");
        system_start_->set("data/systemColdstart", false);
        for (const unsigned port : {1U, 2U}) {
            for (unsigned c = 1; c <= channels; ++c) {
                const std::string monitor = fmt::format("data/ocm/{}/channel/{}/", port, c);
                wss_->set(monitor + "detected", c % 2 == 0);
                wss_->set(monitor + "powerLevel", -18.0F);
                wss_->set(monitor + "id", static_cast<int>(c));
                const std::string of_switch = fmt::format("data/wss/{}/channel/{}/", port, c);
                wss_->set(of_switch + "port", "on");
                wss_->set(of_switch + "attenuation", 8.0);
            }
        }
        // A switch that does what it is told.
        wss_->on_request([this](const std::string& request) {
            if (request.starts_with("read data/ocm/1/channel/48/detected,"))
                ++turns_of_the_edfa_loop_;
            if (request.starts_with("read data/ocm/2/channel/48/detected,"))
                ++turns_of_the_eq_loop_;
            const std::string told = "write config/";
            const std::size_t equals = request.find('=');
            if (request.starts_with(told) && equals != std::string::npos)
                wss_->set_json("data/" + request.substr(told.size(), equals - told.size()),
                               request.substr(equals + 1));
        });
    }

    ~ConcurrentSettings() override {
        process_.reset();
        wss_.reset();  // before what its callback uses
    }

    void start_to_regulate(const std::string& time_scale) {
        start({}, time_scale);
        ASSERT_TRUE(eventually_regulates());
    }

    bool eventually_regulates() {
        management_ = management_client();
        if (!test::eventually([this] { return management_->get<bool>("data/configStatus"); }))
            return false;
        management_->set<void>("control/config/dhReady", true);
        return goes_on(turns_of_the_edfa_loop_);
    }

    static bool goes_on(const std::atomic<unsigned>& turns) {
        const unsigned before = turns;
        return test::eventually([&] { return turns > before; });
    }

    static void write_at_random(const std::vector<setting>& settings, unsigned seed,
                                unsigned writes) {
        const auto client = management_client();
        std::mt19937 random(seed);
        for (unsigned i = 0; i < writes; ++i) {
            // The settings of the card would drown among those of the channels.
            const setting& one =
                settings[random() % 8 == 0 ? random() % 12 : random() % settings.size()];
            const std::string& text = one.json_texts[random() % one.json_texts.size()];
            EXPECT_EQ(test::write_json(*client, "control/config/" + one.path, text), "{}")
                << one.path << " " << text;
        }
    }

    // Empty where tree, file and regulators agree on every setting.
    std::string disagreements(const std::vector<setting>& settings) {
        std::vector<std::string> paths;
        for (const setting& one : settings) {
            paths.push_back("control/config/" + one.path);
            paths.push_back("control/data/" + one.path);
        }
        const auto values = values_under(*management_, paths);
        auto saved = saved_values();
        std::string found;
        for (const setting& one : settings) {
            const std::string set = value_in(values.at("control/config/" + one.path));
            const std::string in_force = value_in(values.at("control/data/" + one.path));
            const auto line = saved.find(one.saved_name);
            const bool is_saved = line != saved.end();
            const std::string in_file = is_saved ? line->second : "";
            if (is_saved)
                saved.erase(line);
            if (set != "null" && !is_agreed(one, set, in_force, in_file))
                found += fmt::format("{}: set {}, in force {}, in file {}\n", one.path, set,
                                     in_force, in_file);
            if (set == "null" && is_saved)
                found += one.path + " was saved and never set\n";
        }
        for (const auto& [name, value] : saved)
            found += name + " was never to be saved\n";
        return found;
    }

    static bool is_agreed(const setting& one, const std::string& set, const std::string& in_force,
                          const std::string& in_file) {
        if (one.path == "combinedMode")
            return set == in_force && '"' + in_file + '"' == set;
        if (!one.saved_name.empty() && (in_file.empty() || !is_same_number(in_file, set)))
            return false;
        if (one.path.ends_with("wantedPower") && in_force.front() != '{')
            return is_same_number(in_force, set) || is_power_of_a_budget(in_force);
        return in_force == set;
    }

    void expect_agreement(const std::vector<setting>& settings) {
        test::eventually([&] { return disagreements(settings).empty(); });
        EXPECT_EQ(disagreements(settings), "");
    }

    std::atomic<unsigned> turns_of_the_edfa_loop_{0};
    std::atomic<unsigned> turns_of_the_eq_loop_{0};
    std::optional<test::scripted_handler> system_start_;
};

TEST_F(ConcurrentSettings, AgreeInFileTreeAndRegulatorsInTheEnd) {
    const auto settings = all_settings();
    start_to_regulate("10");
    ASSERT_TRUE(goes_on(turns_of_the_eq_loop_));
    std::vector<std::thread> clients;
    for (unsigned session = 0; session < sessions; ++session)
        clients.emplace_back([&, session] {
            write_at_random(settings, session + 1, number_of_writes() / sessions);
        });
    for (std::thread& client : clients)
        client.join();
    ASSERT_FALSE(process_->has_ended());
    EXPECT_TRUE(goes_on(turns_of_the_edfa_loop_));
    expect_agreement(settings);

    // The next start takes from the file what was in force, wanted powers included.
    const std::string file = parameter_file_content();
    const auto saved = saved_values();
    process_->signal(SIGKILL);
    ASSERT_EQ(process_->end(), test::ended_by_signal(SIGKILL));
    start_to_regulate("10");
    EXPECT_EQ(parameter_file_content(), file);
    std::map<std::string, std::string> expected;
    for (const setting& one : settings) {
        const auto line = saved.find(one.saved_name);
        if (line == saved.end())
            continue;
        expected["control/data/" + one.path] =
            one.path == "combinedMode" ? '"' + line->second + '"' : line->second;
    }
    std::vector<std::string> paths;
    for (const auto& [path, value] : expected)
        paths.push_back(path);
    std::string different;
    test::eventually([&] {
        different.clear();
        for (const auto& [path, entry] : values_under(*management_, paths)) {
            const std::string value = value_in(entry);
            const std::string& wanted = expected.at(path);
            const bool is_same = wanted.front() == '"'
                                     ? value == wanted
                                     : value.front() != '{' && is_same_number(value, wanted);
            if (!is_same)
                different += path + ": " + value + " instead of " + wanted + "\n";
        }
        return different.empty();
    });
    EXPECT_EQ(different, "");
}
