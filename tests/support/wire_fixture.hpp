// A server with a few nodes, and raw clients of it.
#pragma once

#include "command.hpp"
#include "config_param.hpp"
#include "const_value.hpp"
#include "device_handler_api.hpp"
#include "filtered_value.hpp"
#include "own_process.hpp"
#include "raw_client.hpp"
#include "recording_session.hpp"
#include "status_value.hpp"
#include "test_root.hpp"
#include "volatile_value.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

// A door at which calls wait until it is opened.
class door {
  public:
    ~door() { open(); }

    void pass() {
        std::unique_lock lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    // Whether that many calls have come to the door within the bound.
    bool has_met(int calls) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return waiting_ >= calls; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

// The owner of the server's nodes.
class wire_owner {
  public:
    void set_power(float power) {
        if (power > 50)
            throw dh_error(77, "too much");
        ++power_writes;
    }
    void set_name(std::string) {}
    bool measure(bool argument) { return !argument; }
    float get_blocked() {
        gate.pass();
        return 1.5F;
    }
    float get_failing() { throw dh_error(42, "no light"); }
    float get_client_failing() { throw dh_client_exception{107, "not connected"}; }
    float get_runtime_failing() { throw std::runtime_error("text of the exception"); }
    float get_unknown_failing() { throw 5; }

    std::atomic<int> power_writes{0};
    door gate;
};

// Lines of the wire as a client writes and expects them.
class wire_lines {
  protected:
    static std::string request(const std::string& method, const std::string& params,
                               const std::string& id = "1") {
        return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + R"(","params":)" +
               params + "}";
    }
    static std::string paths(const std::vector<std::string>& list) {
        std::string text;
        for (const std::string& path : list)
            text += (text.empty() ? "\"" : ",\"") + path + "\"";
        return R"({"paths":[)" + text + "]}";
    }
    static std::string item(const std::string& path, const std::string& value) {
        return R"({"path":")" + path + R"(","value":)" + value + "}";
    }
    static std::string read_of(const std::string& path, const std::string& id = "1") {
        return request("read", paths({path}), id);
    }
    static std::string write_of(const std::string& path, const std::string& value,
                                const std::string& id = "1") {
        return request("write", R"({"items":[)" + item(path, value) + "]}", id);
    }
    static std::string result(const std::string& text, const std::string& id = "1") {
        return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + text + "}";
    }
    // What the error of a whole request begins with; its text is the server's affair.
    static std::string error(int code, const std::string& id = "1") {
        return R"({"jsonrpc":"2.0","id":)" + id + R"(,"error":{"code":)" + std::to_string(code) +
               R"(,"message":")";
    }
    static std::string entry_error(int code, const std::string& message) {
        return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message +
               R"("}})";
    }
};

class wire_fixture : public testing::Test, protected wire_lines {
  protected:
    explicit wire_fixture(server_limits limits = {})
        : server_(std::make_unique<dh_server>("tested", path_, limits)) {
        using namespace dh::api;
        dh_db& db = server_->db();
        keep(const_value<unsigned int>::create(db, "data/slots", 4));
        keep(config_param<&wire_owner::set_power>::create(db, "control/power", owner_));
        keep(config_param<&wire_owner::set_name>::create(db, "control/name", owner_));
        keep(command<&wire_owner::measure>::create(db, "command/measure", owner_));
        keep(volatile_value<&wire_owner::get_blocked>::create(db, "data/blocked", owner_));
        keep(volatile_value<&wire_owner::get_failing>::create(db, "data/failing", owner_));
        keep(volatile_value<&wire_owner::get_client_failing>::create(db, "data/away", owner_));
        keep(volatile_value<&wire_owner::get_runtime_failing>::create(db, "data/runtime", owner_));
        keep(volatile_value<&wire_owner::get_unknown_failing>::create(db, "data/unknown", owner_));
    }
    // What waits in a getter is let go before the server waits for its sessions.
    ~wire_fixture() override { owner_->gate.open(); }

    // A node that a test changes.
    template <class Node>
    std::shared_ptr<Node> keep(std::shared_ptr<Node> node) {
        nodes_.push_back(node);
        return node;
    }
    std::shared_ptr<dh::api::status_value<unsigned int>> add_count(const std::string& path) {
        return keep(dh::api::status_value<unsigned int>::create(server_->db(), path, 1, 0));
    }
    std::shared_ptr<dh::api::status_value<std::string>> add_text(const std::string& path) {
        return keep(dh::api::status_value<std::string>::create(server_->db(), path, "", 0));
    }

    // Whether the server serves a new client.
    bool is_alive() {
        raw_client client(path_);
        return client.ask(read_of("data/slots")) == result(R"([{"value":4}])");
    }

    temporary_folder folder_;
    const std::string host_path_ = "/server";  // as clients of the library name it
    const std::string path_ = root() + host_path_;
    std::shared_ptr<wire_owner> owner_ = std::make_shared<wire_owner>();
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes_;
    std::unique_ptr<dh_server> server_;
};

// The next line, which has to be an event, without its time.
inline std::string next_event(raw_client& client) {
    const auto line = client.read_line();
    return line ? event_without_time(*line + "\n") : "(no event)";
}

}  // namespace test

#define EXPECT_STARTS_WITH(text, start) EXPECT_EQ((text).substr(0, (start).size()), (start))
