// The daemon as a process, among handlers made in the test.
#pragma once

#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "process.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace test {

class daemon_fixture : public testing::Test {
  protected:
    static inline const std::string daemon_program = VELT_BIN_DIR "/traffic_manager";

    daemon_fixture() { begin_with_empty_root(); }

    ~daemon_fixture() override {
        if (HasFailure() && process_)
            std::cout << process_->standard_error();
    }

    // Leaves nothing but the LED handler, without which no daemon lives for long.
    void begin_with_empty_root() {
        process_.reset();
        empty_root();
        led_velt_.emplace("/tmp/device_handlers/led_velt");
    }

    // Ends the one before, if it runs, without a warning.
    void start(const std::vector<std::string>& arguments = {},
               const std::string& time_scale = "1") {
        process_.reset();
        process_.emplace(daemon_program, arguments, surroundings(time_scale), root());
    }

    process::environment surroundings(const std::string& time_scale = "1") const {
        return {
            {"VELT_ROOT", root()}, {"VELT_TIME_SCALE", time_scale}, {"VELT_LOG_LEVEL", log_level_}};
    }

    // Handlers that let a card without a control loop start.
    void become_ready_k47() {
        put_board("velt,k47");
        booster_.emplace("/tmp/device_handlers/booster");
        booster_->set("data/configStatus", true);
        booster_->set("data/enable", false);
        booster_->set("data/rx/losPin", true);
        for (const unsigned number : {0U, 1U}) {
            oscs_[number].emplace("/tmp/device_handlers/osc" + std::to_string(number + 1));
            oscs_[number]->set("data/configStatus", true);
        }
        // Nobody waits for it, but the ticks of the tree ask it.
        system_info_.emplace("/tmp/device_handlers/system_info");
        system_info_->set("data/locationIndex", "1");
    }

    // Handlers that let a T47 card start.
    void become_ready_t47() {
        become_ready_k47();
        put_board("velt,t47");
        wss_.emplace("/tmp/device_handlers/wss_edge");
        wss_->set("data/configStatus", true);
    }

    // Handlers that let an MX47 card start.
    void become_ready_mx47() {
        become_ready_t47();
        put_board("velt,mx47");
    }

    // The server accepts clients before the tree stands; this one finds its first node.
    static std::shared_ptr<device_handler_client> management_client() {
        auto client =
            device_handler_client::create("/tmp/device_managers/traffic_manager", "test", {});
        EXPECT_TRUE(eventually([&] { return has_path(*client, "data/mutexStatus"); }));
        return client;
    }

    static bool has_path(device_handler_client& client, const std::string& path) {
        json::document params(rapidjson::kObjectType);
        json::add(params, "prefix", path, params.GetAllocator());
        return !client.call("list", params)["nodes"].Empty();
    }

    bool eventually_logs(const std::string& text) {
        return eventually([&] { return process_->has_logged(text); });
    }

    std::vector<std::string> texts_of_channel(const std::string& severity_and_channel) const {
        const std::string beginning = " " + severity_and_channel + " ";
        std::vector<std::string> texts;
        std::istringstream log(process_->standard_error());
        for (std::string line; std::getline(log, line);) {
            const auto found = line.find(beginning);
            if (found == std::string::npos)
                continue;
            const auto text = found + beginning.size();
            texts.push_back(line.substr(text, line.rfind(" [") - text));
        }
        return texts;
    }

    std::string log_level_ = "6";
    std::optional<scripted_handler> led_velt_;
    std::optional<scripted_handler> wss_;
    std::optional<scripted_handler> booster_;
    std::array<std::optional<scripted_handler>, 2> oscs_;
    std::optional<scripted_handler> system_info_;
    std::optional<process> process_;
};

}  // namespace test
