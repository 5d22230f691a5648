// A device handler made in the test, and a tree that mirrors it.
#pragma once

#include "client_recorders.hpp"
#include "device_handler_api.hpp"
#include "dh_proxy.hpp"
#include "eventually.hpp"
#include "log_capture.hpp"
#include "node_access.hpp"
#include "recording_session.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace test {

// Returns when the client library's threads have ended what they were
// delivering at the time of the call.
inline void let_deliveries_end() {
    dh_server server("barrier", root() + "/barrier");
    const auto node = dh::api::status_value<bool>::create(server.db(), "passed", true, 0);
    const auto connection = std::make_shared<recording_connection>();
    const auto client = device_handler_client::create("/barrier", "barrier", connection);
    const auto subscriber = std::make_shared<recording_subscriber>("passed");
    client->add_subscriber(subscriber);
    EXPECT_TRUE(eventually([&] { return subscriber->has("value passed true"); }));
    EXPECT_TRUE(eventually([&] { return connection->has("established barrier"); }));
    client->remove_subscriber(subscriber);
}

// Mirrors a client's tree for as long as it is connected, as the daemon does.
class mirroring_connection final : public device_handler_connection_subscriber,
                                   public recorded_texts {
  public:
    explicit mirroring_connection(std::shared_ptr<dh::util::proxy> proxy)
        : proxy_(std::move(proxy)) {}

    void mirror(const std::string& unix_path, const std::string& name) {
        const std::lock_guard lock(mutex_);
        client_ = device_handler_client::create(unix_path, name, weak_);
    }
    static std::shared_ptr<mirroring_connection> create(std::shared_ptr<dh::util::proxy> proxy) {
        auto made = std::make_shared<mirroring_connection>(std::move(proxy));
        made->weak_ = made;
        return made;
    }

    std::shared_ptr<device_handler_client> client() const {
        const std::lock_guard lock(mutex_);
        return client_;
    }

    // Called after the mirroring of a new connection has begun.
    std::function<void(const std::shared_ptr<device_handler_client>&)> on_mirrored;

    void connection_established_event(std::string client_name) override {
        const std::lock_guard lock(mutex_);
        if (!client_)
            return;
        proxy_->subscribe_path(client_, "");
        if (on_mirrored)
            on_mirrored(client_);
        add("established " + client_name);
    }
    void connection_lost_event(std::string client_name) override {
        const std::lock_guard lock(mutex_);
        if (!client_)
            return;
        proxy_->unsubscribe_path(client_, "");
        add("lost " + client_name);
    }

    // From now on nothing is mirrored.
    void end() {
        const std::lock_guard lock(mutex_);
        if (client_)
            proxy_->unsubscribe_path(client_, "");
        client_.reset();
    }

  private:
    const std::shared_ptr<dh::util::proxy> proxy_;
    std::weak_ptr<mirroring_connection> weak_;
    mutable std::mutex mutex_;
    std::shared_ptr<device_handler_client> client_;
};

class mirror_fixture : public testing::Test {
  protected:
    using float_node =
        dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<float>>;

    ~mirror_fixture() override {
        connection_->end();
        let_deliveries_end();
    }

    void start_handler() { handler_ = std::make_unique<dh_server>("handler", root() + host_path_); }
    void stop_handler() {
        handler_.reset();
        handler_nodes_.clear();
    }
    dh_db& remote() { return handler_->db(); }

    // The client of the handler, whose tree is mirrored under "handler".
    void mirror() { connection_->mirror(host_path_, "handler"); }

    // A node of the handler, kept until it stops.
    template <class Node>
    std::shared_ptr<Node> keep(std::shared_ptr<Node> node) {
        handler_nodes_.push_back(node);
        return node;
    }
    template <class T>
    std::shared_ptr<dh::api::status_value<T>> publish(const std::string& path, T value) {
        return keep(dh::api::status_value<T>::create(remote(), path, std::move(value), 0));
    }
    std::shared_ptr<float_node> publish_float(const std::string& path) {
        return keep(float_node::create(remote(), path));
    }
    std::shared_ptr<float_node> publish_float(const std::string& path, float value) {
        return keep(float_node::create(remote(), path, [value] { return value; }));
    }

    // What a read of the local path gives: the value as JSON text, or "CODE MESSAGE".
    std::string local(const std::string& path) {
        try {
            json::document out(rapidjson::kObjectType);
            db_.find_leaf_node(path)->get("value", out.GetAllocator(), out);
            return json::to_text(*json::find(out, "value"));
        } catch (const dh_error& error) {
            return std::to_string(error.code) + " " + error.message;
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
    }
    bool becomes(const std::string& path, const std::string& expected) {
        const bool is_so = eventually([&] { return local(path) == expected; });
        EXPECT_EQ(local(path), expected) << path;
        return is_so;
    }
    static std::string no_such(const std::string& path) { return "-2 No such path: " + path; }

    std::vector<std::string> local_paths() const {
        std::vector<std::string> paths;
        for (const auto& entry : db_.nodes_under(""))
            paths.push_back(entry.path);
        return paths;
    }

    // A session of the local tree, subscribed to the path.
    std::shared_ptr<recording_session> watch_local(const std::string& path) {
        auto session = std::make_shared<recording_session>();
        subscribe(*db_.find_leaf_node(path), session);
        return session;
    }

    std::size_t lines_of(const std::string& channel, const std::string& text = {}) const {
        std::size_t found = 0;
        for (const log_line& line : log_.lines())
            found += line.channel == channel && line.text.starts_with(text) ? 1 : 0;
        return found;
    }
    bool has_logged(int severity, const std::string& channel, const std::string& text) const {
        for (const log_line& line : log_.lines()) {
            if (line == log_line{severity, channel, text})
                return true;
        }
        return false;
    }

    const std::string host_path_ = "/handler";
    log_capture log_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    std::unique_ptr<dh_server> handler_;
    std::vector<std::shared_ptr<dh_db_leaf_node>> handler_nodes_;
    std::shared_ptr<mirroring_connection> connection_ = mirroring_connection::create(proxy_);
};

}  // namespace test
