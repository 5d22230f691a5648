// Subscribers that keep what a client tells them.
#pragma once

#include "device_handler_client.hpp"

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace test {

// Texts in the order in which they came, from any thread.
class recorded_texts {
  public:
    void add(std::string text) {
        const std::lock_guard lock(mutex_);
        texts_.push_back(std::move(text));
    }
    std::vector<std::string> all() const {
        const std::lock_guard lock(mutex_);
        return texts_;
    }
    bool has(const std::string& text) const {
        const auto texts = all();
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

class recording_subscriber final : public device_handler_subscriber, public recorded_texts {
  public:
    using device_handler_subscriber::device_handler_subscriber;

    void send_changed_value_event(std::string_view path, const json::value& v) override {
        add("value " + std::string(path) + " " + json::to_text(v));
        if (on_value)
            on_value(v);
    }
    void send_exception_event(std::string_view path, const dh_client_exception& error) override {
        add("error " + std::string(path) + " " + std::to_string(error.code) + " " + error.message);
    }
    void send_subscription_ended_event(std::string_view path, subscription_ended_rc why) override {
        add("ended " + std::string(path) + " " + std::to_string(static_cast<int>(why)));
    }

    std::function<void(const json::value&)> on_value;  // set before it is added
};

class recording_connection final : public device_handler_connection_subscriber,
                                   public recorded_texts {
  public:
    void connection_established_event(std::string client_name) override {
        if (on_established)
            on_established();
        add("established " + client_name);
    }
    void connection_lost_event(std::string client_name) override { add("lost " + client_name); }

    std::function<void()> on_established;  // set before a client is made
};

}  // namespace test
