#include "tree_mirror.hpp"

#include "mirror_nodes.hpp"
#include "wire.hpp"

#include <algorithm>
#include <set>
#include <utility>

namespace dh::util {
namespace {

const std::string log_channel = "dh_proxy/mirror";
constexpr std::size_t shown_path_length = 200;

std::string path_of(const json::value& listed_node) {
    const json::value* path = json::find(listed_node, "path");
    if (path == nullptr || !path->IsString())
        return {};
    return std::string(wire::without_leading_slash({path->GetString(), path->GetStringLength()}));
}

// Every part has a name.
bool is_well_formed(std::string_view path) {
    return !path.empty() && path.front() != '/' && path.back() != '/' &&
           path.find("//") == std::string_view::npos;
}

// Gives a setting the values that its handler publishes.
class setting_subscriber final : public device_handler_subscriber {
  public:
    setting_subscriber(std::string remote_path, std::shared_ptr<mirrored_setting> node,
                       proxy::update_callback on_update)
        : device_handler_subscriber(std::move(remote_path)),
          node_(std::move(node)),
          on_update_(std::move(on_update)) {}

    void send_unset_event(std::string_view path) override {
        send_changed_value_event(path, json::value());
    }
    void send_changed_value_event(std::string_view, const json::value& value) override {
        node_->publish(value);
        if (on_update_)
            on_update_();
    }
    void send_exception_event(std::string_view path, const dh_client_exception& error) override {
        MSG_LOG("dh_proxy/exception_event", msg_log::failure) << path << ": " << error.message;
    }
    void send_subscription_ended_event(std::string_view path, subscription_ended_rc code) override {
        MSG_LOG("dh_proxy/remove_event", msg_log::trace)
            << "Path: " << path << ", code: " << static_cast<int>(code);
    }

  private:
    const std::shared_ptr<mirrored_setting> node_;
    const proxy::update_callback on_update_;
};

}  // namespace

tree_mirror::tree_mirror(std::weak_ptr<proxy> owner, std::string name)
    : proxy_(std::move(owner)), name_(std::move(name)) {}

std::string tree_mirror::local_path(std::string_view remote_path) const {
    return name_ + "/" + std::string(remote_path);
}

void tree_mirror::start(const std::shared_ptr<device_handler_client_api>& client,
                        std::string_view prefix) {
    {
        const std::lock_guard lock(mutex_);
        client_ = client;
        prefix_ = wire::without_leading_slash(prefix);
    }
    client->watch(std::string(prefix), max_nodes, shared_from_this());
}

void tree_mirror::stop(std::string_view prefix) {
    const auto owner = proxy_.lock();
    std::shared_ptr<device_handler_client_api> client;
    std::vector<std::shared_ptr<device_handler_subscriber>> ended;
    bool ends_all = false;
    {
        const std::lock_guard lock(mutex_);
        if (!owner || !client_)
            return;
        client = client_;
        const std::string_view stopped = wire::without_leading_slash(prefix);
        for (const auto& [path, node] : nodes_) {
            const std::string local = local_path(path);
            if (!wire::is_under(path, stopped) && !wire::is_under(local, stopped))
                continue;
            if (auto subscriber = owner->take_mirror(client, local))
                ended.push_back(std::move(subscriber));
        }
        ends_all = wire::is_under(prefix_, stopped) || wire::is_under(name_, stopped);
        if (ends_all)
            client_.reset();
    }
    client->remove_subscribers(ended);
    if (ends_all)
        client->unwatch(shared_from_this());
}

void tree_mirror::tree_listed(const json::value& nodes, bool is_cut) {
    const auto owner = proxy_.lock();
    const std::lock_guard lock(mutex_);
    if (!owner || !client_)
        return;
    if (is_cut)
        report_too_many_nodes();
    drop_missing(*owner, nodes);
    std::vector<proxy::kept_mirror> begun;
    for (const json::value& node : nodes.GetArray()) {
        const json::value* info = json::find(node, "info");
        if (info != nullptr)
            adopt(*owner, path_of(node), *info, begun);
    }
    owner->start_kept_mirrors(client_, begun);
}

void tree_mirror::node_added(const std::string& path, const json::value& info) {
    const auto owner = proxy_.lock();
    const std::lock_guard lock(mutex_);
    if (!owner || !client_)
        return;
    std::vector<proxy::kept_mirror> begun;
    adopt(*owner, path, info, begun);
    owner->start_kept_mirrors(client_, begun);
}

void tree_mirror::node_removed(const std::string& path) {
    const auto owner = proxy_.lock();
    const std::lock_guard lock(mutex_);
    if (owner && client_)
        drop(*owner, path);
}

void tree_mirror::watch_failed(const dh_client_exception& error) {
    // A connection that is gone is told of, and watched anew when it returns.
    if (error.code == dh_client_code::not_connected ||
        error.code == dh_client_code::connection_lost || error.code == dh_client_code::timed_out)
        return;
    if (failed_watch_.is_worth_a_line())
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: " << name_ << " does not tell its tree: " << error.message << " ["
            << error.code << "]";
}

void tree_mirror::drop_missing(proxy& owner, const json::value& listed_nodes) {
    std::set<std::string, std::less<>> listed;
    for (const json::value& node : listed_nodes.GetArray())
        listed.insert(path_of(node));
    std::vector<std::string> missing;
    for (const auto& [path, node] : nodes_) {
        if (wire::is_under(path, prefix_) && !listed.contains(path))
            missing.push_back(path);
    }
    for (const std::string& path : missing)
        drop(owner, path);
}

void tree_mirror::drop(proxy& owner, const std::string& remote_path) {
    const auto found = nodes_.find(remote_path);
    if (found == nodes_.end())
        return;
    const bool is_of_mirror = found->second.is_of_mirror;
    nodes_.erase(found);
    const std::string local = local_path(remote_path);
    if (const auto subscriber = owner.take_mirror(client_, local))
        client_->remove_subscriber(subscriber);
    if (is_of_mirror)
        owner.db().remove_node(local);
}

void tree_mirror::report_too_many_nodes() {
    if (too_many_nodes_.is_worth_a_line())
        MSG_LOG(log_channel, msg_log::warning) << "msg: " << name_ << " has more than " << max_nodes
                                               << " nodes, the others are not mirrored";
}

bool tree_mirror::may_be_mirrored(const proxy& owner, const std::string& remote_path) {
    const std::string local = local_path(remote_path);
    if (owner.is_under_excluded_part(local))
        return false;
    if (!is_well_formed(remote_path) || local.size() > max_path_length) {
        if (bad_path_.is_worth_a_line())
            MSG_LOG(log_channel, msg_log::warning)
                << "msg: " << name_ << " has a path of " << remote_path.size()
                << " characters that is not mirrored: " << remote_path.substr(0, shown_path_length);
        return false;
    }
    if (nodes_.size() >= max_nodes) {
        report_too_many_nodes();
        return false;
    }
    return true;
}

// A node that somebody else has made stays the one of its path: it is given the
// values where it is of their kind and its owner does not keep it to himself.
bool tree_mirror::may_feed(const proxy& owner, const std::string& local, const node_type& type) {
    if (type.node != node_kind::value || owner.is_excluded(local))
        return false;
    const auto node = owner.db_.find_leaf_node(local);
    return with_value_type<bool>(type.value, [&]<class T>() {
        return std::dynamic_pointer_cast<typename mirror_node<T>::type>(node) != nullptr;
    });
}

void tree_mirror::adopt(proxy& owner, const std::string& remote_path, const json::value& info,
                        std::vector<proxy::kept_mirror>& begun) {
    const node_type type = type_of(info);
    auto known = nodes_.find(remote_path);
    if (known != nodes_.end() && known->second.type != type) {
        drop(owner, remote_path);
        known = nodes_.end();
    }
    if (known == nodes_.end()) {
        if (!may_be_mirrored(owner, remote_path))
            return;
        const std::string local = local_path(remote_path);
        const bool has_owner = owner.db_.contains(local);
        if (has_owner && !may_feed(owner, local, type))
            return;
        mirrored_node added = has_owner ? mirrored_node{type, false, nullptr, nullptr}
                                        : make_node(owner, remote_path, type, info);
        known = nodes_.emplace(remote_path, std::move(added)).first;
    } else if (known->second.setting) {
        known->second.setting->describe(info);
    } else if (known->second.passed) {
        known->second.passed->describe(info);
    }
    if (auto subscriber = make_subscriber(owner, remote_path, known->second)) {
        const std::string local = local_path(remote_path);
        owner.keep_mirror(client_, local, subscriber);
        begun.push_back({local, std::move(subscriber)});
    }
}

// A value's node is made by its first value.
tree_mirror::mirrored_node tree_mirror::make_node(proxy& owner, const std::string& remote_path,
                                                  const node_type& type,
                                                  const json::value& info) const {
    const std::string local = local_path(remote_path);
    mirrored_node made{type, true, nullptr, nullptr};
    const remote_node remote(client_, remote_path, local);
    if (type.node == node_kind::setting)
        made.setting = dh::api::create_node<mirrored_setting>(owner.db(), local, remote, info);
    else if (type.node == node_kind::passed_through)
        made.passed = dh::api::create_node<passed_through>(owner.db(), local, remote, info,
                                                           type.returns_response);
    return made;
}

std::shared_ptr<device_handler_subscriber> tree_mirror::make_subscriber(
    proxy& owner, const std::string& remote_path, const mirrored_node& node) const {
    const std::string local = local_path(remote_path);
    if (node.setting)
        return std::make_shared<setting_subscriber>(remote_path, node.setting,
                                                    owner.callback_of(local));
    if (node.passed)
        return nullptr;
    return with_value_type<std::shared_ptr<device_handler_subscriber>>(
        node.type.value, [&]<class T>() {
            return owner.mirroring_subscriber<typename mirror_node<T>::type, T>(remote_path, local);
        });
}

}  // namespace dh::util
