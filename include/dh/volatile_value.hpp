#pragma once

#include "dh_node_support.hpp"

namespace dh::api {

// A node whose value comes from a getter of its owner, called anew each time.
template <class Base, auto Getter>
class async_volatile_value : public Base {
  public:
    using types = getter_types<Getter>;
    using owner_type = typename types::owner;
    using value_type = typename types::value;
    using bound_type = typename types::bound;

    async_volatile_value(std::string name, std::weak_ptr<owner_type> owner, bound_type bound)
        : Base(std::move(name)), owner_(std::move(owner)), bound_(std::move(bound)) {}

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        json::add(out, key, call_getter(), memory);
    }

    json::value get_info(json::allocator& memory) const override {
        json::value info = Base::get_info(memory);
        json::add(info, "valueType", type_name<value_type>(), memory);
        json::add(info, "capabilities", capabilities({"read"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return true; }

  protected:
    // Throws dh_error -2 when the owner is gone, -61 for a float that is NaN or
    // infinite, and what the getter throws.
    value_type call_getter() const {
        value_type value = call_owner<Getter>(owner_, bound_);
        require_finite(value, [this] { return "Value returned for path " + this->get_path(0); });
        return value;
    }

  private:
    const std::weak_ptr<owner_type> owner_;
    const bound_type bound_;
};

// A value that is read only, straight from the owner, on each read.
template <auto Getter>
class volatile_value : public async_volatile_value<dh_db_leaf_node, Getter> {
    using base = async_volatile_value<dh_db_leaf_node, Getter>;

  public:
    template <class... Bound>
    static std::shared_ptr<volatile_value> create(dh_db& db, const std::string& path,
                                                  std::weak_ptr<typename base::owner_type> owner,
                                                  Bound... bound) {
        return create_node<volatile_value>(db, path, std::move(owner),
                                           typename base::bound_type(bound...));
    }

    using base::base;

    std::string get_info() const override { return "volatile value (read)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info = base::get_info(memory);
        json::add(info, "type", "volatile value", memory);
        return info;
    }
};

}  // namespace dh::api
