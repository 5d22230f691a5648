#pragma once

#include "dh_node_support.hpp"

namespace dh::api {

// A value that never changes. Read only.
template <class T>
class const_value : public dh_db_leaf_node {
  public:
    static std::shared_ptr<const_value> create(dh_db& db, const std::string& path, T value) {
        return create_node<const_value>(db, path, std::move(value));
    }

    const_value(std::string name, T value)
        : dh_db_leaf_node(std::move(name)), value_(std::move(value)) {}

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        json::add(out, key, value_, memory);
    }

    std::string get_info() const override { return "const value (read)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info(rapidjson::kObjectType);
        json::add(info, "type", "const value", memory);
        json::add(info, "valueType", type_name<T>(), memory);
        json::add(info, "capabilities", capabilities({"read"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return false; }

  private:
    const T value_;
};

}  // namespace dh::api
