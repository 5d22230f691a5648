#pragma once

#include "dh_node_support.hpp"
#include "msg_log.hpp"

#include <mutex>
#include <optional>
#include <variant>
#include <vector>

namespace dh::api {

template <class T>
struct min_max_range_t {
    T min;
    T max;
};

template <class T>
struct min_max_grid_range_t {
    T min;
    T max;
    T grid;
};

// A setting: written by clients, handed to the owner's setter, and kept. Empty
// until the first write that succeeds. Constraints are described to clients,
// not enforced; range checks are the setter's.
//
// A write holds the node's data mutex across the setter, so the setter must not
// go through this node again.
template <auto Setter>
class config_param : public value_event_node {
  public:
    using types = setter_types<Setter>;
    using owner_type = typename types::owner;
    using value_type = typename types::value;
    using bound_type = typename types::bound;
    using constraints_type =
        std::variant<bool, min_max_range_t<value_type>, min_max_grid_range_t<value_type>,
                     std::vector<value_type>>;

    template <class... Bound>
    static std::shared_ptr<config_param> create(dh_db& db, const std::string& path,
                                                std::weak_ptr<owner_type> owner, Bound... bound) {
        return create_node<config_param>(db, path, std::move(owner), bound_type(bound...));
    }

    config_param(std::string name, std::weak_ptr<owner_type> owner, bound_type bound)
        : value_event_node(std::move(name)),
          owner_(std::move(owner)),
          bound_(std::move(bound)),
          warn_when_read_(value_.has_value()) {}

    void describe_default(value_type value) {
        const std::lock_guard lock(info_mutex_);
        default_ = std::move(value);
    }

    void describe_constraints(constraints_type constraints) {
        const std::lock_guard lock(info_mutex_);
        constraints_ = std::move(constraints);
    }

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        const std::lock_guard lock(data_mutex_);
        if (value_ && warn_when_read_) {
            MSG_LOG("config", msg_log::warning)
                << "Configuration parameter read before being set, path = " << get_path(0);
            warn_when_read_ = false;
        }
        add_value(key, memory, out);
    }

    void set(const std::string&, const json::value& argument) override {
        const std::lock_guard lock(data_mutex_);
        value_type new_value = json::to<value_type>(argument);
        if (value_ && *value_ == new_value)
            return;
        require_finite_argument(new_value);
        call_owner<Setter>(owner_, bound_, new_value);
        value_ = std::move(new_value);
        send_value_changed(*value_);
    }

    void reset() override {
        const std::lock_guard lock(data_mutex_);
        value_.reset();
    }

    void subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                   json::allocator& memory, json::value& out,
                   std::unique_lock<std::mutex>& lock) override {
        const std::lock_guard data_lock(data_mutex_);
        dh_db_event_node::subscribe(session, key, memory, out, lock);
        add_value(key, memory, out);
        if (value_)
            send_initial_value(session,
                               [this](const char* name, json::allocator& pool, json::value& event) {
                                   add_value(name, pool, event);
                               });
    }

    std::string get_info() const override { return "config value (read,write,subscribe)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info = value_event_node::get_info(memory);
        json::add(info, "type", "config param", memory);
        json::add(info, "valueType", type_name<value_type>(), memory);
        json::add(info, "capabilities", capabilities({"read", "write", "subscribe"}, memory),
                  memory);
        const std::lock_guard lock(info_mutex_);
        if (default_)
            json::add(info, "defaultValue", *default_, memory);
        add_constraints(info, memory);
        return info;
    }

    bool runs_owner_code() const override { return true; }

  private:
    void add_value(const std::string& key, json::allocator& memory, json::value& out) const {
        if (value_)
            json::add(out, key, *value_, memory);
        else
            json::add(out, key, json::value(), memory);
    }

    void add_constraints(json::value& info, json::allocator& memory) const {
        if (std::holds_alternative<bool>(constraints_))
            return;
        json::value object(rapidjson::kObjectType);
        if (const auto* range = std::get_if<min_max_range_t<value_type>>(&constraints_)) {
            json::add(object, "min", range->min, memory);
            json::add(object, "max", range->max, memory);
        } else if (const auto* grid =
                       std::get_if<min_max_grid_range_t<value_type>>(&constraints_)) {
            json::add(object, "min", grid->min, memory);
            json::add(object, "max", grid->max, memory);
            json::add(object, "grid", grid->grid, memory);
        } else if (const auto* list = std::get_if<std::vector<value_type>>(&constraints_)) {
            json::value allowed(rapidjson::kArrayType);
            for (std::size_t i = 0; i < list->size(); ++i)
                allowed.PushBack(json::from(static_cast<value_type>((*list)[i]), memory), memory);
            json::add(object, "allowed", std::move(allowed), memory);
        }
        json::add(info, "constraints", std::move(object), memory);
    }

    std::mutex data_mutex_;
    mutable std::mutex info_mutex_;
    std::optional<value_type> value_;
    const std::weak_ptr<owner_type> owner_;
    const bound_type bound_;
    bool warn_when_read_;
    std::optional<value_type> default_;
    constraints_type constraints_;
};

}  // namespace dh::api
