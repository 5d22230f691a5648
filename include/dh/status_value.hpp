#pragma once

#include "dh_node_support.hpp"

#include <functional>
#include <mutex>

namespace dh::api {

// A value that its owner sets. Reads and subscribers see what was published:
// a change for which `Less(new, published)` holds waits for the ticks of the
// value group (delay cycles + 1 of them), every other change goes out at once.
template <class T, class Less = std::equal_to<T>>
class status_value : public value_event_node {
  public:
    static std::shared_ptr<status_value> create(dh_db& db, const std::string& path, T initial,
                                                unsigned delay_cycles) {
        return create_node<status_value>(db, path, std::move(initial), delay_cycles);
    }

    status_value(std::string name, T initial, unsigned delay_cycles)
        : value_event_node(std::move(name)),
          value_(initial),
          published_(std::move(initial)),
          delay_cycles_(delay_cycles) {}

    // For the owner. Any thread may call.
    void set(T new_value) {
        const std::lock_guard lock(mutex_);
        if (new_value == value_)
            return;
        if (value_ == published_)
            delay_counter_ = 0;
        value_ = std::move(new_value);
        if (!is_attached() || value_ == published_)
            return;
        const bool wait_for_ticks = Less()(value_, published_) && poll_interval() != 0;
        if (!wait_for_ticks)
            publish();
    }

    // The latest value, published or not.
    T latest() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        const std::lock_guard lock(mutex_);
        json::add(out, key, published_, memory);
    }

    void periodic_task(bool) override {
        if (!is_attached())
            return;
        const std::lock_guard lock(mutex_);
        if (value_ != published_ && delay_counter_++ >= delay_cycles_)
            publish();
    }

    void subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                   json::allocator& memory, json::value& out,
                   std::unique_lock<std::mutex>& lock) override {
        const std::lock_guard value_lock(mutex_);
        dh_db_event_node::subscribe(session, key, memory, out, lock);
        json::add(out, key, published_, memory);
        send_initial_value(session,
                           [this](const char* name, json::allocator& pool, json::value& event) {
                               json::add(event, name, published_, pool);
                           });
    }

    std::string get_info() const override { return "status value (read,subscribe)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info = value_event_node::get_info(memory);
        json::add(info, "type", "status value", memory);
        json::add(info, "valueType", type_name<T>(), memory);
        json::add(info, "capabilities", capabilities({"read", "subscribe"}, memory), memory);
        json::value hysteresis(rapidjson::kObjectType);
        json::add(hysteresis, "lessFunction", type_name<Less>(), memory);
        json::add(hysteresis, "delayCycles", delay_cycles_, memory);
        json::add(hysteresis, "pollInterval", poll_interval(), memory);
        json::add(info, "hysteresis", std::move(hysteresis), memory);
        return info;
    }

    bool runs_owner_code() const override { return false; }

  private:
    void publish() {
        send_value_changed(value_);
        published_ = value_;
    }

    mutable std::mutex mutex_;
    T value_;
    T published_;
    const unsigned delay_cycles_;
    unsigned delay_counter_ = 0;
};

}  // namespace dh::api
