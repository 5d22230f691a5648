#pragma once

#include "dh_node_support.hpp"

namespace dh::api {

// A path that is written and answers: the write triggers an action of the
// owner, and its result goes back to the writer. Runs on the session's thread,
// as long as the owner takes.
template <auto Setter>
class command : public dh_db_leaf_node {
  public:
    using types = setter_types<Setter>;
    using owner_type = typename types::owner;
    using value_type = typename types::value;
    using result_type = typename types::result;

    static std::shared_ptr<command> create(dh_db& db, const std::string& path,
                                           std::weak_ptr<owner_type> owner) {
        return create_node<command>(db, path, std::move(owner));
    }

    command(std::string name, std::weak_ptr<owner_type> owner)
        : dh_db_leaf_node(std::move(name)), owner_(std::move(owner)) {}

    void run(const std::string& key, const json::value& argument, json::allocator& memory,
             json::value& out) override {
        const value_type value = json::to<value_type>(argument);
        json::add(out, key, call_owner<Setter>(owner_, std::tuple<>(), value), memory);
    }

    std::string get_info() const override { return "command value returning response (write)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info(rapidjson::kObjectType);
        json::add(info, "type", "command", memory);
        json::add(info, "valueType", type_name<value_type>(), memory);
        json::add(info, "returnType", type_name<result_type>(), memory);
        json::add(info, "capabilities", capabilities({"write"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return true; }
    bool write_returns_response() const override { return true; }

  private:
    const std::weak_ptr<owner_type> owner_;
};

}  // namespace dh::api
