#include "node_type.hpp"

#include "dh_member.hpp"

#include <map>

namespace dh::util {
namespace {

bool has_capability(const json::value& info, const char* name) {
    const json::value* capabilities = json::find(info, "capabilities");
    const json::value* capability =
        capabilities != nullptr ? json::find(*capabilities, name) : nullptr;
    return capability != nullptr && capability->IsTrue();
}

value_kind value_kind_of(const json::value& info) {
    static const std::map<std::string, value_kind> kinds{
        {"bool", value_kind::boolean},
        {"int", value_kind::int32},
        {"unsigned int", value_kind::unsigned32},
        {"float", value_kind::float32},
        {"string", value_kind::text},
        {"std::string", value_kind::text},
        {dh::api::type_name<std::string>(), value_kind::text},
    };
    const json::value* name = json::find(info, "valueType");
    if (name == nullptr || !name->IsString())
        return value_kind::other;
    const auto found = kinds.find(name->GetString());
    return found != kinds.end() ? found->second : value_kind::other;
}

}  // namespace

node_type type_of(const json::value& info) {
    const value_kind value = value_kind_of(info);
    const bool is_writable = has_capability(info, "write");
    if (has_capability(info, "subscribe")) {
        if (is_writable)
            return {node_kind::setting, value, false};
        if (value != value_kind::other)
            return {node_kind::value, value, false};
    }
    // What can be written and not read is an action, and its write answers.
    const bool is_action = is_writable && !has_capability(info, "read");
    return {node_kind::passed_through, value, is_action};
}

}  // namespace dh::util
