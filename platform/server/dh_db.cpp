#include "dh_db.hpp"

#include "host.hpp"
#include "msg_log.hpp"
#include "wire.hpp"

#include <algorithm>

namespace {

// Why a subscription ended, in an `ended` event.
constexpr int reason_node_removed = 1;

std::shared_ptr<const std::string> shared_line(const dh_event& event) {
    return std::make_shared<const std::string>(wire::event_line(event.members()));
}

}  // namespace

json::value as_json(const dh_error& error, json::allocator& memory) {
    json::value object(rapidjson::kObjectType);
    json::add(object, "code", error.code, memory);
    json::add(object, "message", error.message, memory);
    return object;
}

dh_event::dh_event(std::string_view kind, std::string_view path) {
    add("event", kind);
    add("path", path);
    add("time", static_cast<long long>(host::wall_milliseconds()));
}

std::string dh_db_node::get_path(unsigned skipped_parts) const {
    std::string_view path = path_.empty() ? std::string_view(name_) : std::string_view(path_);
    for (; skipped_parts > 0; --skipped_parts) {
        const auto slash = path.find('/');
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    }
    return std::string(path);
}

void dh_db_leaf_node::throw_not_supported() const {
    throw dh_error(dh_error_code::not_supported, "Operation not supported: " + get_path(0));
}

json::value dh_db_leaf_node::export_history_entry(json::allocator&) const {
    return json::value(rapidjson::kObjectType);
}

void dh_db_leaf_node::get(const std::string&, json::allocator&, json::value&) {
    throw_not_supported();
}

void dh_db_leaf_node::set(const std::string&, const json::value&) {
    throw_not_supported();
}

void dh_db_leaf_node::run(const std::string&, const json::value&, json::allocator&, json::value&) {
    throw_not_supported();
}

void dh_db_leaf_node::reset() {}

void dh_db_leaf_node::periodic_task(bool) {}

bool dh_db_leaf_node::subscription_supported() const {
    return false;
}

void dh_db_leaf_node::subscribe(std::shared_ptr<dh_session>, const std::string&, json::allocator&,
                                json::value&, std::unique_lock<std::mutex>&) {
    throw_not_supported();
}

void dh_db_leaf_node::unsubscribe(std::shared_ptr<dh_session>) {}

std::string dh_db_leaf_node::get_info() const {
    return "node";
}

json::value dh_db_leaf_node::get_info(json::allocator&) const {
    return json::value(rapidjson::kObjectType);
}

bool dh_db_leaf_node::runs_owner_code() const {
    return false;
}

bool dh_db_leaf_node::write_returns_response() const {
    return false;
}

bool dh_db_leaf_node::leave_tree() {
    dh_db* const db = attached_db();
    return db != nullptr && db->remove_node(get_path(0));
}

json::value dh_db_event_node::export_history_entry(json::allocator& memory) const {
    const std::lock_guard lock(subscribers_mutex_);
    json::document changed(&memory);
    changed.Parse(last_change_.data(), last_change_.size());
    json::value entry(rapidjson::kObjectType);
    json::add(entry, "path", get_path(0), memory);
    json::add(entry, "time", static_cast<long long>(last_change_time_), memory);
    json::value value;
    value.Swap(changed);
    json::add(entry, "value", std::move(value), memory);
    return entry;
}

void dh_db_event_node::set(const std::string&, const json::value&) {
    throw_not_supported();
}

bool dh_db_event_node::subscription_supported() const {
    return true;
}

void dh_db_event_node::subscribe(std::shared_ptr<dh_session> session, const std::string&,
                                 json::allocator&, json::value&,
                                 std::unique_lock<std::mutex>& lock) {
    const std::lock_guard subscribers_lock(subscribers_mutex_);
    if (!is_attached())
        throw dh_error(dh_error_code::no_such_path, "No such path: " + get_path(0));
    lock.lock();
    if (std::find(subscribers_.begin(), subscribers_.end(), session) == subscribers_.end())
        subscribers_.push_back(std::move(session));
}

void dh_db_event_node::unsubscribe(std::shared_ptr<dh_session> session) {
    const std::lock_guard lock(subscribers_mutex_);
    std::erase(subscribers_, session);
}

dh_event dh_db_event_node::create_value_changed_event(const std::string& path) const {
    return {"value", path};
}

void dh_db_event_node::send_event_impl(dh_event& event, bool repeat) {
    if (repeat)
        event.add("initial", true);
    send_to_subscribers(event, true);
    const std::lock_guard lock(subscribers_mutex_);
    last_change_time_ = json::find(event.members(), "time")->GetInt64();
    last_change_ = json::to_text(*json::find(event.members(), "value"));
}

void dh_db_event_node::send_event_to_session_impl(dh_event& event, bool repeat,
                                                  const std::shared_ptr<dh_session>& session) {
    if (repeat)
        event.add("initial", true);
    session->send_value_event(get_path(0), shared_line(event));
}

void dh_db_event_node::send_error_event(const dh_error& error) {
    dh_event event("error", get_path(0));
    event.add("error", as_json(error, event.memory()));
    send_to_subscribers(event, false);
}

void dh_db_event_node::send_to_subscribers(const dh_event& event, bool replaceable) {
    const std::lock_guard lock(subscribers_mutex_);
    if (subscribers_.empty())
        return;
    const auto line = shared_line(event);
    const std::string path = get_path(0);
    for (const auto& session : subscribers_) {
        if (replaceable)
            session->send_value_event(path, line);
        else
            session->send_event(line);
    }
}

void dh_db_event_node::end_subscriptions() {
    dh_event event("ended", get_path(0));
    event.add("reason", reason_node_removed);
    const std::lock_guard lock(subscribers_mutex_);
    const auto line = shared_line(event);
    for (const auto& session : subscribers_)
        session->send_event(line);
    subscribers_.clear();
}

dh_db::~dh_db() {
    for (const auto& [path, node] : nodes_)
        node->db_.store(nullptr, std::memory_order_release);
}

std::pair<std::string, std::string> dh_db::split_path(std::string_view path) {
    path = wire::without_leading_slash(path);
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return {std::string(path), std::string()};
    return {std::string(path.substr(slash + 1)), std::string(path.substr(0, slash))};
}

void dh_db::add_node(const std::string& parent_path, std::shared_ptr<dh_db_leaf_node> node) {
    const std::string path = parent_path.empty() ? node->name() : parent_path + "/" + node->name();
    const std::unique_lock lock(tree_mutex_);
    if (nodes_.contains(path) || node->is_attached() || node->was_removed()) {
        MSG_LOG("dh_db", msg_log::warning)
            << (nodes_.contains(path) ? "msg: Path is taken, the new node stays outside the tree: "
                                      : "msg: Node had its place already, it gets no other: ")
            << path;
        return;
    }
    node->path_ = path;
    node->db_.store(this, std::memory_order_release);
    nodes_.emplace(path, node);
    if (watchers_.empty())
        return;
    dh_event event("added", path);
    event.add("info", node->get_info(event.memory()));
    tell_watchers(path, event);
}

bool dh_db::remove_node(std::string_view path) {
    path = wire::without_leading_slash(path);
    std::shared_ptr<dh_db_leaf_node> node;
    {
        const std::unique_lock lock(tree_mutex_);
        const auto found = nodes_.find(path);
        if (found == nodes_.end())
            return false;
        node = found->second;
        nodes_.erase(found);
        node->removed_.store(true, std::memory_order_release);
        node->db_.store(nullptr, std::memory_order_release);
        if (!watchers_.empty())
            tell_watchers(path, dh_event("removed", path));
    }
    node->end_subscriptions();
    return true;
}

bool dh_db::contains(std::string_view path) const {
    const std::shared_lock lock(tree_mutex_);
    return nodes_.contains(wire::without_leading_slash(path));
}

std::shared_ptr<dh_db_leaf_node> dh_db::find_leaf_node(std::string_view path) const {
    path = wire::without_leading_slash(path);
    const std::shared_lock lock(tree_mutex_);
    const auto found = nodes_.find(path);
    if (found == nodes_.end())
        throw dh_error(dh_error_code::no_such_path, "No such path: " + std::string(path));
    return found->second;
}

std::vector<dh_db::entry> dh_db::nodes_under(std::string_view prefix) const {
    const std::shared_lock lock(tree_mutex_);
    return snapshot(wire::without_leading_slash(prefix));
}

std::vector<dh_db::entry> dh_db::snapshot(std::string_view prefix) const {
    std::vector<entry> found;
    if (prefix.empty()) {
        found.reserve(nodes_.size());
        for (const auto& [path, node] : nodes_)
            found.push_back({path, node});
        return found;
    }
    if (const auto exact = nodes_.find(prefix); exact != nodes_.end())
        found.push_back({exact->first, exact->second});
    const std::string below = std::string(prefix) + "/";
    for (auto node = nodes_.lower_bound(below);
         node != nodes_.end() && node->first.starts_with(below); ++node)
        found.push_back({node->first, node->second});
    return found;
}

void dh_db::tell_watchers(std::string_view path, const dh_event& event) const {
    std::shared_ptr<const std::string> line;
    std::vector<const dh_session*> told;
    for (const auto& [prefix, session] : watchers_) {
        const bool already = std::find(told.begin(), told.end(), session.get()) != told.end();
        if (already || !wire::is_under(path, prefix))
            continue;
        if (!line)
            line = shared_line(event);
        session->send_event(line);
        told.push_back(session.get());
    }
}

void dh_db::watch(const std::string& prefix, const std::shared_ptr<dh_session>& session,
                  const std::function<void(const std::vector<entry>&)>& on_start) {
    const std::string stored(wire::without_leading_slash(prefix));
    const std::unique_lock lock(tree_mutex_);
    const bool watched = std::any_of(watchers_.begin(), watchers_.end(), [&](const watcher& w) {
        return w.session == session && w.prefix == stored;
    });
    if (!watched)
        watchers_.push_back({stored, session});
    on_start(snapshot(stored));
}

void dh_db::unwatch(const std::string& prefix, const std::shared_ptr<dh_session>& session) {
    const std::string_view stored = wire::without_leading_slash(prefix);
    const std::unique_lock lock(tree_mutex_);
    std::erase_if(watchers_,
                  [&](const watcher& w) { return w.session == session && w.prefix == stored; });
}

void dh_db::unwatch_all(const std::shared_ptr<dh_session>& session) {
    const std::unique_lock lock(tree_mutex_);
    std::erase_if(watchers_, [&](const watcher& w) { return w.session == session; });
}

void dh_db::append_to_history(const std::shared_ptr<const dh_db_leaf_node>& node) {
    json::scratch memory;
    auto record =
        std::make_shared<const std::string>(json::to_text(node->export_history_entry(memory)));
    const std::lock_guard lock(history_mutex_);
    history_size_ += record->size();
    history_.push_front(std::move(record));
    while (history_.size() > history_length || history_size_ > history_bytes) {
        history_size_ -= history_.back()->size();
        history_.pop_back();
    }
}

std::vector<std::shared_ptr<const std::string>> dh_db::history(std::size_t limit) const {
    const std::lock_guard lock(history_mutex_);
    const auto length = static_cast<std::ptrdiff_t>(std::min(limit, history_.size()));
    return {history_.begin(), history_.begin() + length};
}
