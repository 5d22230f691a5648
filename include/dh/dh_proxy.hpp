// Chief header of the value framework: all node classes, and the proxy that
// functional objects are given to reach the tree and the device handlers.
#pragma once

#include "command.hpp"
#include "config_param.hpp"
#include "const_value.hpp"
#include "device_handler_client.hpp"
#include "dh_value_listener.hpp"
#include "filtered_value.hpp"
#include "status_value.hpp"
#include "value_group.hpp"
#include "value_subscriber.hpp"
#include "volatile_value.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

namespace dh::util {

class tree_mirror;

// The node that is given the values of a remote path of the type T.
template <class T>
struct mirror_node {
    using type = dh::api::status_value<T>;
};
template <>
struct mirror_node<float> {
    using type = dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<float>>;
};

// What every functional object has in common: the tree that it publishes in,
// the group that ticks its nodes, the clients of the device handlers, and their
// paths in the tree. Owned by a shared_ptr. Any thread may call any member;
// callbacks run on the client library's event thread.
class proxy : public std::enable_shared_from_this<proxy> {
  public:
    using update_callback = std::function<void()>;

    // `main_mutex` is the program's, and outlives the proxy.
    proxy(dh_db& db, std::mutex* main_mutex);
    ~proxy();
    proxy(const proxy&) = delete;
    proxy& operator=(const proxy&) = delete;

    dh_db& db() { return db_; }
    dh::api::value_group& value_group() { return value_group_; }
    std::mutex& main_mutex() { return *main_mutex_; }

    // Clients known to the connection supervision, by name. Changed by the
    // start-up only, under the main mutex.
    std::vector<std::shared_ptr<device_handler_client_api>> clients;

    // Keeps the nodes that their owner has made at a local path and below it
    // out of the mirroring of whole trees. With a slash at either end it is a
    // part of paths, below which nothing at all is mirrored.
    void exclude(std::string path);
    bool is_excluded(std::string_view local_path) const;
    bool is_under_excluded_part(std::string_view local_path) const;

    // Called after each value that a mirror at the local path gets. Takes
    // effect with the next subscription of the path.
    void on_update(std::string local_path, update_callback callback);
    update_callback callback_of(const std::string& local_path) const;

    // Mirrors a remote path under a local one, in place of what was mirrored
    // there. A status node enters the tree with its first value; one of a float
    // is there at once, in error until then. Does nothing without a client.
    template <class Node, class T>
    void subscribe(const std::shared_ptr<device_handler_client_api>& client,
                   const std::string& remote_path, const std::string& local_path);

    // Watches a remote path: `callback(T)` on each value.
    template <class T, class F>
    void subscribe(const std::shared_ptr<device_handler_client_api>& client,
                   const std::string& remote_path, const std::string& local_path, F callback);

    // The node at the path, or nothing where there is none of that very type.
    template <class Node>
    std::optional<std::shared_ptr<Node>> get_path_node(const std::string& path);

    template <class T>
    std::shared_ptr<dh::api::status_value<std::decay_t<T>>> add_status_path(const std::string& path,
                                                                            T&& value);

    // The node starts with the value published.
    template <class Path, class T>
    std::shared_ptr<
        dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::decay_t<T>>>>
    add_pushed_volatile_path(Path path, T&& value);

    // Mirrors the client's whole tree under the prefix below the client's name,
    // for as long as the connection lasts that stands now. Nodes appear as the
    // device handler tells of them; those that it no longer has go.
    void subscribe_path(const std::shared_ptr<device_handler_client_api>& client,
                        std::string_view prefix);
    // Ends the subscriptions. The nodes stay, with their last values.
    void unsubscribe_path(const std::shared_ptr<device_handler_client_api>& client,
                          std::string_view prefix);

  private:
    friend class tree_mirror;

    struct mirror {
        std::weak_ptr<device_handler_client_api> client;
        std::shared_ptr<device_handler_subscriber> subscriber;
    };

    template <class T>
    using value_subscriber =
        device_handler_value_subscriber<&dh_value_listener::on_value_changed<T>,
                                        &dh_value_listener::on_exception_received<T>,
                                        &dh_value_listener::on_variable_removed<T>>;

    // A mirroring subscriber that no client has been given yet.
    template <class Node, class T>
    std::shared_ptr<device_handler_subscriber> mirroring_subscriber(const std::string& remote_path,
                                                                    const std::string& local_path);
    // Keeps the subscriber for the local path, and starts it.
    void start_subscription(const std::shared_ptr<device_handler_client_api>& client,
                            const std::string& local_path,
                            std::shared_ptr<device_handler_subscriber> subscriber);
    struct kept_mirror {
        std::string local_path;
        std::shared_ptr<device_handler_subscriber> subscriber;
    };
    // Gives the client all those subscribers that are kept still.
    void start_kept_mirrors(const std::shared_ptr<device_handler_client_api>& client,
                            const std::vector<kept_mirror>& begun);
    bool keeps(const kept_mirror&) const;
    // Keeps the subscriber for the local path; the one before it ends.
    void keep_mirror(const std::shared_ptr<device_handler_client_api>& client,
                     const std::string& local_path,
                     std::shared_ptr<device_handler_subscriber> subscriber);
    // The subscriber of the local path where it is one of the client, kept no longer.
    std::shared_ptr<device_handler_subscriber> take_mirror(
        const std::shared_ptr<device_handler_client_api>& client, const std::string& local_path);

    dh_db& db_;
    dh::api::value_group value_group_{1000, 0, 0};
    std::mutex* const main_mutex_;
    const std::shared_ptr<dh_value_listener> listener_ = std::make_shared<dh_value_listener>();

    mutable std::mutex mutex_;  // guards all below
    std::set<std::string, std::less<>> excluded_;
    std::map<std::string, update_callback> callbacks_;
    std::unordered_map<std::string, mirror> mirrors_;
    std::map<std::string, std::shared_ptr<tree_mirror>> trees_;  // by the client's name
};

// Gives the values of one remote path to its local node, on the event thread.
template <class Node, class T>
class proxy_node {
  public:
    proxy_node(std::string path, std::weak_ptr<proxy> owner,
               std::optional<std::weak_ptr<Node>> node, proxy::update_callback on_update)
        : path_(std::move(path)),
          proxy_(std::move(owner)),
          node_(std::move(node)),
          on_update_(std::move(on_update)) {}

    void take(T value) {
        if (node_ ? update(std::move(value)) : create(std::move(value))) {
            if (on_update_)
                on_update_();
        }
    }

  private:
    static constexpr bool is_status = std::is_same_v<Node, dh::api::status_value<T>>;

    bool create(T value) {
        const auto owner = proxy_.lock();
        if (!owner)
            return report_missing();
        // Somebody else may have made it since: a subscriber that this one replaced.
        if (owner->db().contains(path_)) {
            const auto found = owner->template get_path_node<Node>(path_);
            if (!found)
                return false;
            node_ = *found;
            return update(std::move(value));
        }
        if constexpr (is_status)
            node_ = owner->template add_status_path<T>(path_, std::move(value));
        else
            node_ = owner->template add_pushed_volatile_path<const std::string&, T>(
                path_, std::move(value));
        return true;
    }

    bool update(T value) {
        const auto owner = proxy_.lock();
        const auto node = node_->lock();
        if (!owner || !node)
            return report_missing();
        if constexpr (is_status)
            node->set(std::move(value));
        else
            node->push(std::move(value));
        return true;
    }

    bool report_missing() const {
        MSG_LOG("dh_proxy/node", msg_log::warning) << "unable to lock weak_ptr, path: " << path_;
        return false;
    }

    const std::string path_;
    const std::weak_ptr<proxy> proxy_;
    std::optional<std::weak_ptr<Node>> node_;  // nothing until the node is made
    const proxy::update_callback on_update_;
};

template <class Node>
std::optional<std::shared_ptr<Node>> proxy::get_path_node(const std::string& path) {
    std::shared_ptr<dh_db_leaf_node> found;
    try {
        found = db_.find_leaf_node(path);
    } catch (const dh_error& error) {
        MSG_LOG("proxy/get_path_node", msg_log::detail) << error.what();
        return std::nullopt;
    }
    if (auto node = std::dynamic_pointer_cast<Node>(found))
        return node;
    MSG_LOG("proxy/get_path_node", msg_log::failure)
        << fmt::format("unable to dynamic cast path '{}' to type '{}'", path, typeid(Node).name());
    return std::nullopt;
}

template <class T>
std::shared_ptr<dh::api::status_value<std::decay_t<T>>> proxy::add_status_path(
    const std::string& path, T&& value) {
    MSG_LOG("dh_proxy/add_status_path", msg_log::detail) << fmt::format("creating path '{}'", path);
    auto node =
        dh::api::status_value<std::decay_t<T>>::create(db_, path, std::forward<T>(value), 1);
    value_group_.add_value(node, 1);
    return node;
}

template <class Path, class T>
std::shared_ptr<
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::decay_t<T>>>>
proxy::add_pushed_volatile_path(Path path, T&& value) {
    using value_type = std::decay_t<T>;
    MSG_LOG("dh_proxy/add_volatile_path", msg_log::detail)
        << fmt::format("creating path '{}'", path);
    auto node =
        dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<value_type>>::create(
            db_, path, [first = value_type(std::forward<T>(value))] { return first; });
    value_group_.add_value(node, 1);
    return node;
}

template <class Node, class T>
std::shared_ptr<device_handler_subscriber> proxy::mirroring_subscriber(
    const std::string& remote_path, const std::string& local_path) {
    std::optional<std::weak_ptr<Node>> node;
    if (const auto found = get_path_node<Node>(local_path)) {
        node = *found;
    } else if constexpr (!std::is_same_v<Node, dh::api::status_value<T>>) {
        const auto made = Node::create(db_, local_path);
        value_group_.add_value(made, 1);
        // Another thread may have been faster.
        node = made->is_attached() ? made : get_path_node<Node>(local_path).value_or(made);
    }
    auto target = std::make_shared<proxy_node<Node, T>>(local_path, weak_from_this(),
                                                        std::move(node), callback_of(local_path));
    return std::make_shared<value_subscriber<T>>(
        remote_path, listener_, [target](T value) { target->take(std::move(value)); });
}

template <class Node, class T>
void proxy::subscribe(const std::shared_ptr<device_handler_client_api>& client,
                      const std::string& remote_path, const std::string& local_path) {
    if (client)
        start_subscription(client, local_path,
                           mirroring_subscriber<Node, T>(remote_path, local_path));
}

template <class T, class F>
void proxy::subscribe(const std::shared_ptr<device_handler_client_api>& client,
                      const std::string& remote_path, const std::string& local_path, F callback) {
    if (client)
        start_subscription(
            client, local_path,
            std::make_shared<value_subscriber<T>>(remote_path, listener_, std::move(callback)));
}

}  // namespace dh::util
