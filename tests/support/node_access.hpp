// Operations on nodes as the server does them, with JSON as text.
#pragma once

#include "dh_db.hpp"
#include "recording_session.hpp"
#include "wire.hpp"

#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

inline json::document parsed(const std::string& text) {
    json::document value;
    if (!wire::parse(text, value))
        throw std::runtime_error("not JSON: " + text);
    return value;
}

inline std::string read(dh_db_leaf_node& node, const std::string& key = "value") {
    json::document out(rapidjson::kObjectType);
    node.get(key, out.GetAllocator(), out);
    return json::to_text(out);
}

inline void write(dh_db_leaf_node& node, const std::string& text) {
    node.set("value", parsed(text));
}

inline std::string run(dh_db_leaf_node& node, const std::string& argument) {
    json::document out(rapidjson::kObjectType);
    node.run("value", parsed(argument), out.GetAllocator(), out);
    return json::to_text(out);
}

inline std::string subscribe(dh_db_leaf_node& node, const std::shared_ptr<dh_session>& session) {
    std::mutex mutex;
    std::unique_lock lock(mutex, std::defer_lock);
    json::document out(rapidjson::kObjectType);
    node.subscribe(session, "value", out.GetAllocator(), out, lock);
    return json::to_text(out);
}

inline std::string info(const dh_db_leaf_node& node) {
    json::document memory;
    return json::to_text(node.get_info(memory.GetAllocator()));
}

// The texts of the history, newest first.
inline std::vector<std::string> history(const dh_db& db) {
    std::vector<std::string> found;
    for (const auto& entry : db.history(dh_db::history_length))
        found.push_back(*entry);
    return found;
}

struct error {
    int code;
    std::string message;

    friend bool operator==(const error&, const error&) = default;
    friend void PrintTo(const error& e, std::ostream* out) { *out << e.code << " " << e.message; }
};

// The dh_error that the operation throws, or nothing.
template <class Operation>
std::optional<error> error_of(const Operation& operation) {
    try {
        operation();
    } catch (const dh_error& e) {
        return error{e.code, e.what()};
    }
    return std::nullopt;
}

// "expected EXPECTED, found FOUND" of the conversion error that the operation
// throws, or nothing.
template <class Operation>
std::string conversion_error_of(const Operation& operation) {
    try {
        operation();
    } catch (const json_value_conversion_error& e) {
        return std::string("expected ") + e.expected + ", found " + e.found;
    }
    return {};
}

}  // namespace test
