// A regulator over handlers made in the test, on a host of the test's own.
#pragma once

#include "booster_gain_cache.hpp"
#include "dh_proxy.hpp"
#include "manual_time.hpp"
#include "Regulation_loop.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace test {

// The clock stands unless the test turns it.
class regulator_test : public testing::Test {
  protected:
    explicit regulator_test(const char* board = "velt,t47") {
        booster_gain_cache::instance().clear();
        put_board(board);
    }
    ~regulator_test() override {
        regulator_.reset();
        wss_edge_client_.reset();
        empty_root();
    }

    // Makes the object without starting it.
    std::shared_ptr<regulation_handler> make_regulator(unsigned port) {
        return regulation_handler::create(proxy_, nullptr, port);
    }

    // Makes the object that the test is about, started and with a budget.
    void start_regulator(unsigned port = 0) {
        regulator_ = make_regulator(port);
        regulator_->start();
        regulator_->set_number_of_AllowedChannels(40);
        wss_edge_client_ =
            device_handler_client::create("/tmp/device_handlers/wss_edge", "test", {});
    }

    unsigned alarm(const std::string& path) {
        json::document out(rapidjson::kObjectType);
        db_.find_leaf_node(path)->get("value", out.GetAllocator(), out);
        return out["value"].GetUint();
    }

    manual_time clock_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    scripted_handler wss_edge_{"/tmp/device_handlers/wss_edge"};
    scripted_handler booster_{"/tmp/device_handlers/booster"};
    std::shared_ptr<device_handler_client> wss_edge_client_;
    std::shared_ptr<regulation_handler> regulator_;
};

}  // namespace test
