// The tree of nodes that a device handler serves, and the library's node
// classes that the value framework builds on.
#pragma once

#include "dh_error.hpp"
#include "json.hpp"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class dh_db;
class dh_db_leaf_node;

// One client's session as nodes see it. Sending never blocks: what the client
// does not read waits in a bounded queue of its own.
class dh_session {
  public:
    virtual ~dh_session() = default;

    // A value event; while it waits, a newer one of the same path may replace it.
    virtual void send_value_event(const std::string& path,
                                  std::shared_ptr<const std::string> line) = 0;
    // Any other event; goes out in its turn.
    virtual void send_event(std::shared_ptr<const std::string> line) = 0;
};

// An error as a value that goes over the wire: {"code", "message"}.
json::value as_json(const dh_error&, json::allocator&);

// The members of an event on its way to clients.
class dh_event {
  public:
    dh_event(std::string_view kind, std::string_view path);  // "event", "path", "time"

    template <class T>
    void add(std::string_view key, const T& member) {
        json::add(members_, key, member, memory_);
    }
    void add(std::string_view key, json::value&& member) {
        json::add(members_, key, std::move(member), memory_);
    }
    json::value& members() { return members_; }
    const json::value& members() const { return members_; }
    json::allocator& memory() { return memory_; }

  private:
    json::scratch memory_;
    json::value members_{rapidjson::kObjectType};
};

// A named place in the tree.
class dh_db_node {
  public:
    explicit dh_db_node(std::string name) : name_(std::move(name)) {}
    virtual ~dh_db_node() = default;
    dh_db_node(const dh_db_node&) = delete;
    dh_db_node& operator=(const dh_db_node&) = delete;

    const std::string& name() const { return name_; }

    // The path without its first `skipped_parts` parts; just the name for a
    // node that is in no tree.
    std::string get_path(unsigned skipped_parts) const;

  private:
    friend class dh_db;

    const std::string name_;
    std::string path_;  // set once, before the node can be found in the tree
};

// A node that can be addressed by clients. The operations are called by the
// server's session threads, `periodic_task` by the value group's.
//
// Here each operation is the library's default for a node that does not
// support it: dh_error -95.
class dh_db_leaf_node : public dh_db_node, public std::enable_shared_from_this<dh_db_leaf_node> {
  public:
    using dh_db_node::dh_db_node;

    // {"path", "time", "value"} of the last change that was sent.
    virtual json::value export_history_entry(json::allocator&) const;

    // Adds the node's value to the object `out` as the member `key`.
    virtual void get(const std::string& key, json::allocator&, json::value& out);
    virtual void set(const std::string& key, const json::value&);
    // A write that returns a response, which is added to `out` as the member `key`.
    virtual void run(const std::string& key, const json::value& argument, json::allocator&,
                     json::value& out);
    virtual void reset();
    // One tick of the value group, or (with `pushed`) the arrival of a new value.
    virtual void periodic_task(bool pushed);
    virtual bool subscription_supported() const;
    // Adds the session to the subscribers and the current value to `out` as the
    // member `key`. `lock` comes unlocked, on the mutex that guards the
    // session's own list of subscriptions, and is locked once the session is
    // among the subscribers.
    virtual void subscribe(std::shared_ptr<dh_session>, const std::string& key, json::allocator&,
                           json::value& out, std::unique_lock<std::mutex>& lock);
    virtual void unsubscribe(std::shared_ptr<dh_session>);
    // The description of the node, as a line of text and as an object.
    virtual std::string get_info() const;
    virtual json::value get_info(json::allocator&) const;
    // Whether get, set or run may run code of the node's owner, and so take
    // their time. The server sends the replies it has ready before it calls such a node.
    virtual bool runs_owner_code() const;
    // Whether a write is a `run` and not a `set`.
    virtual bool write_returns_response() const;

    // Milliseconds between the ticks of the node's value group, 0 in none.
    unsigned poll_interval() const { return poll_interval_.load(std::memory_order_relaxed); }
    void set_poll_interval(unsigned ms) { poll_interval_.store(ms, std::memory_order_relaxed); }

    // In a tree: false before `add_node`, and again after `remove_node`.
    bool is_attached() const { return attached_db() != nullptr; }
    // Takes the node out of the tree that it is in, as dh_db::remove_node does.
    // False where it is in none.
    bool leave_tree();
    // Was in a tree and was removed from it.
    bool was_removed() const { return removed_.load(std::memory_order_acquire); }

  protected:
    dh_db* attached_db() const { return db_.load(std::memory_order_acquire); }
    [[noreturn]] void throw_not_supported() const;

  private:
    friend class dh_db;

    // Called once after the node has left the tree.
    virtual void end_subscriptions() {}

    std::atomic<dh_db*> db_{nullptr};
    std::atomic<bool> removed_{false};
    std::atomic<unsigned> poll_interval_{0};
};

// A node that clients can subscribe to.
class dh_db_event_node : public dh_db_leaf_node {
  public:
    using dh_db_leaf_node::dh_db_leaf_node;

    json::value export_history_entry(json::allocator&) const override;
    void set(const std::string& key, const json::value&) override;
    bool subscription_supported() const override;
    void subscribe(std::shared_ptr<dh_session>, const std::string& key, json::allocator&,
                   json::value& out, std::unique_lock<std::mutex>& lock) override;
    void unsubscribe(std::shared_ptr<dh_session>) override;

  protected:
    // The members of a value event but for "value", which the caller adds.
    dh_event create_value_changed_event(const std::string& path) const;
    // Sends an event to all subscribers. `repeat` marks it as the first one
    // after a subscribe, which tells nothing new.
    void send_event_impl(dh_event& event, bool repeat);
    void send_event_to_session_impl(dh_event& event, bool repeat,
                                    const std::shared_ptr<dh_session>&);
    void send_error_event(const dh_error&);

  private:
    void end_subscriptions() override;
    void send_to_subscribers(const dh_event& event, bool replaceable);

    mutable std::mutex subscribers_mutex_;
    std::vector<std::shared_ptr<dh_session>> subscribers_;
    std::int64_t last_change_time_ = 0;
    std::string last_change_;  // the value as JSON text
};

// The tree. Any thread may call any member; none of them calls back into a
// node's value operations while it holds a lock of its own.
class dh_db {
  public:
    dh_db() = default;
    ~dh_db();
    dh_db(const dh_db&) = delete;
    dh_db& operator=(const dh_db&) = delete;

    // Leaf name and parent path. One leading slash is dropped.
    static std::pair<std::string, std::string> split_path(std::string_view path);

    // Puts the node into the tree under its name. Where the path is taken the
    // node there stays, and the new one is left unattached, with a log line. So
    // is a node that is or was in a tree: it has its path for life.
    void add_node(const std::string& parent_path, std::shared_ptr<dh_db_leaf_node> node);
    // Takes the node out and ends its subscriptions. False where there is none.
    bool remove_node(std::string_view path);

    bool contains(std::string_view path) const;
    // Throws dh_error -2 where there is no node at the path.
    std::shared_ptr<dh_db_leaf_node> find_leaf_node(std::string_view path) const;

    struct entry {
        std::string path;
        std::shared_ptr<dh_db_leaf_node> node;
    };
    // Every node under the prefix, sorted by path.
    std::vector<entry> nodes_under(std::string_view prefix) const;

    // From now on the session is told of nodes that are added and removed under
    // the prefix. `on_start` gets those that are there, before the first such event.
    void watch(const std::string& prefix, const std::shared_ptr<dh_session>&,
               const std::function<void(const std::vector<entry>&)>& on_start);
    void unwatch(const std::string& prefix, const std::shared_ptr<dh_session>&);
    void unwatch_all(const std::shared_ptr<dh_session>&);

    // Records the last change that the node has sent.
    void append_to_history(const std::shared_ptr<const dh_db_leaf_node>&);
    // Entries of the history as JSON texts, newest first, at most `limit`.
    std::vector<std::shared_ptr<const std::string>> history(std::size_t limit) const;

    static constexpr std::size_t history_length = 1024;
    // Values of clients may be long; the history as a whole stays below this.
    static constexpr std::size_t history_bytes = std::size_t{4} << 20;

  private:
    struct watcher {
        std::string prefix;
        std::shared_ptr<dh_session> session;
    };

    std::vector<entry> snapshot(std::string_view prefix) const;
    void tell_watchers(std::string_view path, const dh_event& event) const;

    mutable std::shared_mutex tree_mutex_;
    std::map<std::string, std::shared_ptr<dh_db_leaf_node>, std::less<>> nodes_;
    std::vector<watcher> watchers_;  // guarded by tree_mutex_

    mutable std::mutex history_mutex_;
    std::deque<std::shared_ptr<const std::string>> history_;
    std::size_t history_size_ = 0;  // bytes in history_
};
