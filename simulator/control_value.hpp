// A value of the simulation that is read and written: the getter's answer is
// always the live one, whoever changed it last.
#pragma once

#include "dh_node_support.hpp"

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace simulator {

template <auto Getter, auto Setter>
class control_value : public dh_db_leaf_node {
  public:
    using getter = dh::api::getter_types<Getter>;
    using setter = dh::api::setter_types<Setter>;
    using owner_type = typename getter::owner;
    using value_type = typename getter::value;
    using bound_type = typename getter::bound;
    static_assert(std::is_same_v<value_type, typename setter::value> &&
                      std::is_same_v<bound_type, typename setter::bound>,
                  "getter and setter are of one value");

    template <class... Bound>
    static std::shared_ptr<control_value> create(dh_db& db, const std::string& path,
                                                 std::weak_ptr<owner_type> owner, Bound... bound) {
        return dh::api::create_node<control_value>(db, path, std::move(owner),
                                                   bound_type(bound...));
    }

    control_value(std::string name, std::weak_ptr<owner_type> owner, bound_type bound)
        : dh_db_leaf_node(std::move(name)), owner_(std::move(owner)), bound_(std::move(bound)) {}

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        json::add(out, key, dh::api::call_owner<Getter>(owner_, bound_), memory);
    }

    void set(const std::string&, const json::value& argument) override {
        const value_type value = json::to<value_type>(argument);
        dh::api::require_finite_argument(value);
        dh::api::call_owner<Setter>(owner_, bound_, value);
    }

    std::string get_info() const override { return "control value (read,write)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info(rapidjson::kObjectType);
        json::add(info, "type", "control value", memory);
        json::add(info, "valueType", dh::api::type_name<value_type>(), memory);
        json::add(info, "capabilities", dh::api::capabilities({"read", "write"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return true; }

  private:
    const std::weak_ptr<owner_type> owner_;
    const bound_type bound_;
};

}  // namespace simulator
