#include "mirror_nodes.hpp"

#include <utility>

namespace dh::util {

void remote_description::set(const json::value& info, bool is_subscribable) {
    json::document told;
    told.CopyFrom(info, told.GetAllocator());
    if (!told.IsObject())
        told.SetObject();
    const auto capabilities = told.FindMember("capabilities");
    const bool has_capabilities =
        capabilities != told.MemberEnd() && capabilities->value.IsObject();
    if (has_capabilities && !is_subscribable)
        capabilities->value.EraseMember("subscribe");
    std::string text = json::to_text(told);
    const std::lock_guard lock(mutex_);
    text_ = std::move(text);
}

json::value remote_description::as_object(json::allocator& memory) const {
    const std::lock_guard lock(mutex_);
    json::document told(&memory);
    told.Parse(text_.data(), text_.size());
    json::value object;
    object.Swap(told);
    return object;
}

mirrored_setting::mirrored_setting(std::string name, remote_node remote, const json::value& info)
    : value_event_node(std::move(name)), remote_(std::move(remote)), description_(info, true) {}

void mirrored_setting::publish(const json::value& value) {
    const std::lock_guard lock(mutex_);
    if (value_ == value)
        return;
    json::document next;
    next.CopyFrom(value, next.GetAllocator());
    value_ = std::move(next);
    send_value_changed<json::value>(value_);
}

void mirrored_setting::get(const std::string& key, json::allocator& memory, json::value& out) {
    const std::lock_guard lock(mutex_);
    add_value(key, memory, out);
}

void mirrored_setting::set(const std::string&, const json::value& value) {
    remote_.write(value);
}

void mirrored_setting::subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                                 json::allocator& memory, json::value& out,
                                 std::unique_lock<std::mutex>& lock) {
    const std::lock_guard value_lock(mutex_);
    dh_db_event_node::subscribe(session, key, memory, out, lock);
    add_value(key, memory, out);
    if (value_.IsNull())
        return;
    send_initial_value(session, [this](const char* name, json::allocator& pool,
                                       json::value& event) { add_value(name, pool, event); });
}

void mirrored_setting::add_value(const std::string& key, json::allocator& memory,
                                 json::value& out) const {
    json::add<json::value>(out, key, value_, memory);
}

passed_through::passed_through(std::string name, remote_node remote, const json::value& info,
                               bool returns_response)
    : dh_db_leaf_node(std::move(name)),
      remote_(std::move(remote)),
      description_(info, false),
      returns_response_(returns_response) {}

}  // namespace dh::util
