#include "dh_proxy.hpp"
#include "tree_mirror.hpp"
#include "wire.hpp"

#include <algorithm>

namespace dh::util {
namespace {

// "/debug/": a part of paths, not the path of a node.
bool is_part(std::string_view excluded) {
    return excluded.size() > 2 && excluded.front() == '/' && excluded.back() == '/';
}

}  // namespace

proxy::proxy(dh_db& db, std::mutex* main_mutex) : db_(db), main_mutex_(main_mutex) {}

proxy::~proxy() = default;

void proxy::exclude(std::string path) {
    const std::lock_guard lock(mutex_);
    excluded_.insert(std::move(path));
}

bool proxy::is_excluded(std::string_view local_path) const {
    const std::lock_guard lock(mutex_);
    return std::any_of(excluded_.begin(), excluded_.end(), [&](const std::string& excluded) {
        return !is_part(excluded) && wire::is_under(local_path, excluded);
    });
}

bool proxy::is_under_excluded_part(std::string_view local_path) const {
    const std::string rooted = "/" + std::string(local_path);
    const std::lock_guard lock(mutex_);
    return std::any_of(excluded_.begin(), excluded_.end(), [&](const std::string& excluded) {
        return is_part(excluded) && rooted.find(excluded) != std::string::npos;
    });
}

void proxy::on_update(std::string local_path, update_callback callback) {
    const std::lock_guard lock(mutex_);
    callbacks_.insert_or_assign(std::move(local_path), std::move(callback));
}

proxy::update_callback proxy::callback_of(const std::string& local_path) const {
    const std::lock_guard lock(mutex_);
    const auto found = callbacks_.find(local_path);
    return found != callbacks_.end() ? found->second : update_callback();
}

void proxy::start_subscription(const std::shared_ptr<device_handler_client_api>& client,
                               const std::string& local_path,
                               std::shared_ptr<device_handler_subscriber> subscriber) {
    keep_mirror(client, local_path, subscriber);
    start_kept_mirrors(client, {{local_path, std::move(subscriber)}});
}

void proxy::start_kept_mirrors(const std::shared_ptr<device_handler_client_api>& client,
                               const std::vector<kept_mirror>& begun) {
    std::vector<std::shared_ptr<device_handler_subscriber>> subscribers;
    for (const kept_mirror& each : begun) {
        if (keeps(each))
            subscribers.push_back(each.subscriber);
    }
    if (subscribers.empty())
        return;
    client->add_subscribers(subscribers);
    for (const kept_mirror& each : begun)
        MSG_LOG("dh_proxy/subscribe", msg_log::detail) << fmt::format(
            "Subscription started on '{}' -> '{}'", each.subscriber->path(), each.local_path);
    // Whoever replaced one meanwhile could not take it from the client yet.
    std::vector<std::shared_ptr<device_handler_subscriber>> replaced;
    for (const kept_mirror& each : begun) {
        if (!keeps(each))
            replaced.push_back(each.subscriber);
    }
    if (!replaced.empty())
        client->remove_subscribers(replaced);
}

bool proxy::keeps(const kept_mirror& each) const {
    const std::lock_guard lock(mutex_);
    const auto found = mirrors_.find(each.local_path);
    return found != mirrors_.end() && found->second.subscriber == each.subscriber;
}

void proxy::keep_mirror(const std::shared_ptr<device_handler_client_api>& client,
                        const std::string& local_path,
                        std::shared_ptr<device_handler_subscriber> subscriber) {
    mirror before;
    {
        const std::lock_guard lock(mutex_);
        before = std::exchange(mirrors_[local_path], mirror{client, std::move(subscriber)});
    }
    const auto its_client = before.client.lock();
    if (its_client)
        its_client->remove_subscriber(before.subscriber);
}

std::shared_ptr<device_handler_subscriber> proxy::take_mirror(
    const std::shared_ptr<device_handler_client_api>& client, const std::string& local_path) {
    const std::lock_guard lock(mutex_);
    const auto found = mirrors_.find(local_path);
    if (found == mirrors_.end() || found->second.client.lock() != client)
        return nullptr;
    auto subscriber = std::move(found->second.subscriber);
    mirrors_.erase(found);
    return subscriber;
}

void proxy::subscribe_path(const std::shared_ptr<device_handler_client_api>& client,
                           std::string_view prefix) {
    std::shared_ptr<tree_mirror> tree;
    {
        const std::lock_guard lock(mutex_);
        auto& known = trees_[client->name()];
        if (!known)
            known = std::make_shared<tree_mirror>(weak_from_this(), client->name());
        tree = known;
    }
    tree->start(client, prefix);
}

void proxy::unsubscribe_path(const std::shared_ptr<device_handler_client_api>& client,
                             std::string_view prefix) {
    std::shared_ptr<tree_mirror> tree;
    {
        const std::lock_guard lock(mutex_);
        const auto found = trees_.find(client->name());
        if (found == trees_.end())
            return;
        tree = found->second;
    }
    tree->stop(prefix);
}

}  // namespace dh::util
