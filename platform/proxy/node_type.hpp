// What the description of a remote node makes of its local one.
#pragma once

#include "json.hpp"

#include <string>

namespace dh::util {

enum class node_kind {
    value,           // is given the handler's values
    setting,         // the same, and hands writes through
    passed_through,  // asks the handler at each access
};

enum class value_kind { boolean, text, int32, unsigned32, float32, other };

// What makes a node another one.
struct node_type {
    node_kind node;
    value_kind value;
    bool returns_response;  // a write is answered with a value

    friend bool operator==(const node_type&, const node_type&) = default;
};

// By the capabilities in the description; its type name means nothing.
node_type type_of(const json::value& info);

// Calls `call.operator()<T>()` with the type of the values; a result by default
// for other values.
template <class Result, class Call>
Result with_value_type(value_kind kind, const Call& call) {
    switch (kind) {
        case value_kind::boolean:
            return call.template operator()<bool>();
        case value_kind::text:
            return call.template operator()<std::string>();
        case value_kind::int32:
            return call.template operator()<int>();
        case value_kind::unsigned32:
            return call.template operator()<unsigned>();
        case value_kind::float32:
            return call.template operator()<float>();
        case value_kind::other:
            break;
    }
    return Result();
}

}  // namespace dh::util
