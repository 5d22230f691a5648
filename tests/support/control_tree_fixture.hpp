// A control loop and its tree over handlers made in the test, reached over the
// socket as a client reaches it.
#pragma once

#include "control_loop.hpp"
#include "device_handler_api.hpp"
#include "eventually.hpp"
#include "gated_time.hpp"
#include "log_capture.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace test {

// The poll thread stands in its wait for the configuration until a test opens the time.
class control_tree_fixture : public testing::Test {
  protected:
    explicit control_tree_fixture(const char* board = "velt,t47",
                                  msg_log::severity_level level = msg_log::progress)
        : log_(level) {
        empty_root();
        put_board(board);
        wss_.emplace("/tmp/device_handlers/wss_edge");
        booster_.emplace("/tmp/device_handlers/booster");
        booster_->set("data/actualGain", 21.0F);
        system_start_.emplace("/tmp/device_handlers/system_start");
        system_start_->set("data/systemColdstart", false);
        server_.emplace("test", root() + "/tmp/server");
        proxy_ = std::make_shared<dh::util::proxy>(server_->db(), &main_mutex_);
    }

    ~control_tree_fixture() override { destroy_loop(); }

    void create_loop() {
        loop_ = control_loop_main::create(proxy_, nullptr, client_of("device_handlers/wss_edge"),
                                          client_of("device_handlers/booster"));
        loop_->create_paths();
        loop_->set_maxChannels_nosave(0, 40);
        if (control_loop_main::has_two_loops())
            loop_->set_maxChannels_nosave(1, 48);
    }

    // A tick that is under way may be the last to let go of the loop, and must
    // not be the last to let go of the group that it belongs to.
    void destroy_loop() {
        time_.open();
        loop_.reset();
        eventually([this] { return proxy_.use_count() == 1; });
    }

    static std::shared_ptr<device_handler_client> client_of(const std::string& socket) {
        return device_handler_client::create("/tmp/" + socket, socket, {});
    }

    template <class T>
    T read(const std::string& path) {
        return client().get<T>(path);
    }

    template <class T>
    void write(const std::string& path, T value) {
        client().template set<void>(path, value);
    }

    device_handler_client& client() {
        if (!client_)
            client_ = client_of("server");
        return *client_;
    }

    bool was_written(const std::string& path, const std::string& json_text) const {
        const auto requests = wss_->requests();
        return std::find(requests.begin(), requests.end(), "write " + path + "=" + json_text) !=
               requests.end();
    }

    gated_time time_;
    log_capture log_;
    std::optional<scripted_handler> wss_;
    std::optional<scripted_handler> booster_;
    std::optional<scripted_handler> system_start_;
    std::optional<dh_server> server_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_;
    std::shared_ptr<control_loop_main> loop_;
    std::shared_ptr<device_handler_client> client_;
};

}  // namespace test
