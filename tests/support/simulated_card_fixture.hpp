// The daemon on a simulated card, as processes, and the tool that asks them.
#pragma once

#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "process.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace test {

class simulated_card_fixture : public testing::Test {
  protected:
    simulated_card_fixture() { empty_root(); }
    ~simulated_card_fixture() override {
        if (HasFailure() && daemon_)
            std::cout << daemon_->standard_error();
    }

    static process::environment surroundings() {
        return {{"VELT_ROOT", root()}, {"VELT_TIME_SCALE", "20"}, {"VELT_LOG_LEVEL", "7"}};
    }

    void start(const std::string& kind, const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{"--card", kind};
        arguments.insert(arguments.end(), options.begin(), options.end());
        card_.emplace(VELT_BIN_DIR "/card_simulator", arguments, surroundings(), root());
        ASSERT_TRUE(eventually([&] { return card_->has_logged("is served"); }));
        hands_ = device_handler_client::create("/tmp/device_handlers/sim", "hands", {});
        start_daemon();
    }

    // Ends the one before, if it runs, without a warning.
    void start_daemon() {
        daemon_.reset();
        daemon_.emplace(VELT_BIN_DIR "/traffic_manager", std::vector<std::string>{}, surroundings(),
                        root());
        ASSERT_TRUE(eventually([&] { return daemon_->has_logged("initialized for VELT"); }));
        management_ =
            device_handler_client::create("/tmp/device_managers/traffic_manager", "test", {});
    }

    template <class T>
    bool becomes(const std::string& path, const T& expected) {
        return eventually([&] {
            try {
                return management_->get<T>(path) == expected;
            } catch (const dh_client_exception&) {
                return false;
            }
        });
    }

    std::size_t lines(const std::string& text) const { return daemon_->times_logged(text); }

    // What the tool prints. It must end with that status.
    static std::string tmctl(const std::vector<std::string>& words, int status = 0) {
        process tool(VELT_BIN_DIR "/tmctl", words, surroundings(), root());
        EXPECT_EQ(tool.end(), exited_with(status)) << tool.standard_error();
        return tool.standard_output() + tool.standard_error();
    }

    std::optional<process> card_;
    std::optional<process> daemon_;
    std::shared_ptr<device_handler_client> hands_;
    std::shared_ptr<device_handler_client> management_;
};

}  // namespace test
