// Local nodes of remote paths that are more than a value: what is written to
// them goes to the device handler.
#pragma once

#include "dh_node_support.hpp"
#include "remote_node.hpp"

#include <memory>
#include <mutex>
#include <string>

namespace dh::util {

// The description that the device handler gives of a path, as clients of the
// local tree see it. Any thread may call.
class remote_description {
  public:
    // `is_subscribable` where the local node is, as its remote one.
    remote_description(const json::value& info, bool is_subscribable) {
        set(info, is_subscribable);
    }

    void set(const json::value& info, bool is_subscribable);
    json::value as_object(json::allocator&) const;

  private:
    mutable std::mutex mutex_;
    std::string text_;  // JSON
};

// A setting of a device handler: holds the value that the handler published
// last, empty before the first one, and hands writes through. A write blocks
// its session until the handler has answered, and changes nothing by itself.
class mirrored_setting final : public dh::api::value_event_node {
  public:
    mirrored_setting(std::string name, remote_node remote, const json::value& info);

    void describe(const json::value& info) { description_.set(info, true); }
    // Called by the client library's event thread.
    void publish(const json::value& value);

    void get(const std::string& key, json::allocator&, json::value& out) override;
    void set(const std::string& key, const json::value&) override;
    void subscribe(std::shared_ptr<dh_session>, const std::string& key, json::allocator&,
                   json::value& out, std::unique_lock<std::mutex>& lock) override;
    std::string get_info() const override { return "mirrored setting (read,write,subscribe)"; }
    json::value get_info(json::allocator& memory) const override {
        return description_.as_object(memory);
    }
    bool runs_owner_code() const override { return true; }

  private:
    void add_value(const std::string& key, json::allocator&, json::value& out) const;

    const remote_node remote_;
    remote_description description_;
    std::mutex mutex_;
    json::document value_;  // guarded by mutex_; null before the first value
};

// Any other path: each access is one of the device handler's.
class passed_through final : public dh_db_leaf_node {
  public:
    // `returns_response` where a write is answered with a value.
    passed_through(std::string name, remote_node remote, const json::value& info,
                   bool returns_response);

    void describe(const json::value& info) { description_.set(info, false); }

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        remote_.read(key, memory, out);
    }
    void set(const std::string&, const json::value& value) override { remote_.write(value); }
    void run(const std::string& key, const json::value& argument, json::allocator& memory,
             json::value& out) override {
        remote_.run(key, argument, memory, out);
    }
    std::string get_info() const override { return "passed through to its device handler"; }
    json::value get_info(json::allocator& memory) const override {
        return description_.as_object(memory);
    }
    bool runs_owner_code() const override { return true; }
    bool write_returns_response() const override { return returns_response_; }

  private:
    const remote_node remote_;
    remote_description description_;
    const bool returns_response_;
};

}  // namespace dh::util
