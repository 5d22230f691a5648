#include "remote_node.hpp"

#include <utility>

namespace dh::util {
namespace {

bool tells_that_handler_is_away(int code) {
    return code == dh_client_code::not_connected || code == dh_client_code::connection_lost ||
           code == dh_client_code::timed_out;
}

}  // namespace

remote_node::remote_node(std::shared_ptr<device_handler_client_api> client, std::string path,
                         std::string local_path)
    : client_(std::move(client)), path_(std::move(path)), local_path_(std::move(local_path)) {}

void remote_node::read(const std::string& key, json::allocator& memory, json::value& out) const {
    json::document entry;
    entry.SetString(path_.data(), static_cast<rapidjson::SizeType>(path_.size()));
    const json::document answer = call("read", "paths", std::move(entry), plain_reply_limit);
    const json::value* value = json::find(answer, "value");
    if (value == nullptr)
        throw dh_client_exception{dh_client_code::bad_reply, "bad reply"};
    json::add(out, key, *value, memory);
}

void remote_node::write(const json::value& argument) const {
    json::document ignored;
    write_entry(argument, plain_reply_limit, ignored);
}

void remote_node::run(const std::string& key, const json::value& argument, json::allocator& memory,
                      json::value& out) const {
    json::document answer;
    write_entry(argument, response_limit, answer);
    if (const json::value* value = json::find(answer, "value"))
        json::add(out, key, *value, memory);
}

void remote_node::write_entry(const json::value& argument, std::chrono::milliseconds limit,
                              json::document& answer) const {
    json::document entry;
    entry.SetObject();
    json::add(entry, "path", path_, entry.GetAllocator());
    json::add(entry, "value", argument, entry.GetAllocator());
    answer = call("write", "items", std::move(entry), limit);
}

// The answer's one entry.
json::document remote_node::call(const char* method, const char* list, json::document entry,
                                 std::chrono::milliseconds limit) const {
    auto& memory = entry.GetAllocator();
    json::value entries(rapidjson::kArrayType);
    entries.PushBack(json::value(entry, memory), memory);
    json::value params(rapidjson::kObjectType);
    json::add(params, list, std::move(entries), memory);
    json::document result;
    try {
        result = client_->call(method, params, limit);
    } catch (const dh_client_exception& error) {
        if (!tells_that_handler_is_away(error.code))
            throw;
        throw dh_error(dh_error_code::handler_not_available,
                       "subordinate device handler not available: " + local_path_);
    }
    if (!result.IsArray() || result.Size() != 1)
        throw dh_client_exception{dh_client_code::bad_reply, "bad reply"};
    if (const json::value* error = json::find(result[0], "error"))
        throw dh::client::error_of(*error);
    json::document answer;
    answer.CopyFrom(result[0], answer.GetAllocator());
    return answer;
}

}  // namespace dh::util
