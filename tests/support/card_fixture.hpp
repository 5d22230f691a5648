// A simulated card served by the test itself.
#pragma once

#include "card.hpp"

#include "device_handler_client.hpp"
#include "log_capture.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace test {

class card_fixture : public testing::Test {
  protected:
    card_fixture() {
        empty_root();
        serve({.root = root(), .actions = {}});
    }

    // There is one card under a root: the one before has gone.
    void serve(simulator::card_options options) {
        card = std::make_unique<simulator::card>(*simulator::find_card_kind("t47"),
                                                 std::move(options));
    }

    static std::string socket_of(const std::string& handler) {
        return root() + "/tmp/device_handlers/" + handler;
    }
    static std::shared_ptr<device_handler_client> client_of(const std::string& handler) {
        return device_handler_client::create("/tmp/device_handlers/" + handler, handler, {});
    }

    // The code of the error of a write, or 0.
    template <class Value>
    static int code_of_write(device_handler_client& client, const std::string& path,
                             const Value& value) {
        try {
            client.set<void>(path, value);
        } catch (const dh_client_exception& error) {
            return error.code;
        }
        return 0;
    }

    // The code of the error of a read, or 0.
    static int code_of_read(device_handler_client& client, const std::string& path) {
        try {
            client.get<int>(path);
        } catch (const dh_client_exception& error) {
            return error.code;
        }
        return 0;
    }

    log_capture log;
    std::unique_ptr<simulator::card> card;
};

}  // namespace test
