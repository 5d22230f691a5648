// The connection behind a client: made, kept, made anew; requests out, replies
// and events in.
//
// Whoever waits for a reply reads it: at any time at most one thread has a
// link's reading role, and hands each reply to the request that it answers.
// Values that arrive meanwhile are left to the library's event thread, which
// reads by itself the links that have subscriptions. The library's supervisor
// connects, looks after time limits, and reads what nobody waits for.
#pragma once

#include "device_handler_client.hpp"
#include "recurring_complaint.hpp"
#include "wire.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class device_handler_client_base::connection
    : public std::enable_shared_from_this<device_handler_client_base::connection> {
  public:
    using clock = std::chrono::steady_clock;  // time limits are in real time

    connection(endpoint where, std::string name,
               std::weak_ptr<device_handler_connection_subscriber> subscriber);

    // From the client, on any thread.
    void send(const std::shared_ptr<device_handler_request>& request);
    void await(const device_handler_request& request);
    bool is_up() const;
    void require_up(std::chrono::milliseconds limit);
    void add_subscribers(const subscribers&);
    void remove_subscribers(const subscribers&);
    void watch(std::string prefix, std::size_t max_nodes,
               std::shared_ptr<device_handler_tree_watcher>);
    void unwatch(const std::shared_ptr<device_handler_tree_watcher>&);
    void close();

    // From the supervisor: does what is due.
    void supervise();
    bool is_down() const;

    // From the event thread: reads, and delivers what has come.
    void serve_events();

  private:
    enum class state { down, connecting, handshaking, up, closed };

    // One socket, for as long as it lasts.
    struct link {
        explicit link(int socket_) : socket(socket_) {}
        ~link();
        link(const link&) = delete;
        link& operator=(const link&) = delete;

        const int socket;
        bool has_reader = false;          // guarded by mutex_, as is the next one
        bool event_thread_asked = false;  // found a reader, and wants to be told

        // Of the reader.
        wire::line_splitter lines{wire::max_reply_line};
        wire::parser parser;
    };

    struct outstanding {
        std::uint64_t id;
        std::shared_ptr<device_handler_request> request;
    };

    struct subscription {
        std::shared_ptr<device_handler_subscriber> subscriber;
        bool awaits_first_event;
    };

    struct subscribed_path {
        std::vector<subscription> subscriptions;
        std::string last_told;  // the last event, as told_by gives it
    };

    struct watched_tree {
        std::uint64_t id;
        std::string prefix;
        std::shared_ptr<device_handler_tree_watcher> watcher;
        bool was_listed = false;
    };

    struct event {
        enum class kind { value, unset, error, ended, listed, added, removed, watch_failed } what;
        std::string path;
        bool is_first = false;
        bool ends_subscription = false;  // the next one has a first event again
        json::document value;            // also the nodes of a listing, and the info of a node
        dh_client_exception error{0, {}};
        int reason = 0;
        std::uint64_t watch = 0;  // that was listed, or failed
        bool is_cut = false;
    };

    class subscribe_request;
    class watch_request;
    class unwatch_request;

    using lock_type = std::unique_lock<std::mutex>;

    void wait_for_first_connection(lock_type&);
    std::shared_ptr<link> enter_outstanding(std::uint64_t id,
                                            const std::shared_ptr<device_handler_request>&);
    void send_bytes(const std::shared_ptr<link>&, std::string_view bytes,
                    std::chrono::milliseconds limit);

    bool take_reading_role(link&);
    void give_up_reading_role(link&);
    void read_once(const std::shared_ptr<link>&, std::chrono::milliseconds patience);
    void process_line(const std::shared_ptr<link>&, std::string_view line);
    void process_reply(const json::value& reply);
    bool process_event(const json::value& params);
    bool queue_event(event&&);
    static bool is_answer(const event&);
    bool is_asked_for_locked(const event&);
    void drop_waiting_events();
    void fail_request(const std::shared_ptr<device_handler_request>&, int code,
                      const std::string& message);
    void finish(device_handler_request&);

    void connect();
    void connecting_socket_is_ready(const std::shared_ptr<link>&);
    void begin_handshake(const std::shared_ptr<link>&);
    void came_up();
    void check_time_limits(lock_type&);
    void fail_attempt_locked();
    void break_link(const std::shared_ptr<link>&, int code, const std::string& message);
    void raise_lost_event();
    void complain(recurring_complaint& of, const char* what) const;

    void renew_subscriptions();
    void request_subscriptions(bool begins, std::vector<std::string> paths);
    void subscriptions_failed(bool begins, const std::vector<std::string>& paths, int code);
    void forget_asked_before(const std::vector<std::string>& paths);
    void listen_for_events_locked();
    static std::string told_by(const event&);
    void deliver(const event&);
    void deliver_to_subscribers(const event&);
    void deliver_to_watchers(const event&);
    template <class Call>
    void call_receiver(const event&, const Call&);

    const endpoint where_;
    const std::string name_;
    const std::weak_ptr<device_handler_connection_subscriber> connection_subscriber_;
    const clock::time_point created_ = clock::now();

    // Held from a change of what is subscribed and watched until its request is
    // sent, so that the other side is asked in the order of the changes. Taken
    // before send_mutex_.
    std::mutex asking_mutex_;

    std::mutex send_mutex_;  // one request after the other; taken before mutex_

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    state state_ = state::down;
    std::shared_ptr<link> link_;
    bool was_up_ = false;
    bool told_lost_ = false;  // the event of a first connection that never came
    unsigned failed_attempts_ = 0;
    clock::time_point last_attempt_;  // of the supervisor alone
    clock::time_point state_since_ = clock::now();
    std::deque<outstanding> outstanding_;
    clock::time_point front_since_;  // when the first of them became the next to be answered
    std::map<std::string, subscribed_path, std::less<>> subscriptions_;
    std::multiset<std::string> asked_before_;  // unsubscribed, and not answered yet
    std::vector<watched_tree> watches_;        // of the link
    bool renewal_is_due_ = false;
    bool is_being_served_ = false;  // the event thread will find what is added to events_
    std::deque<event> events_;

    recurring_complaint unreadable_line_;
    recurring_complaint long_line_;
    recurring_complaint overdue_;
    recurring_complaint unasked_event_;
    recurring_complaint too_many_events_;
    recurring_complaint refused_event_;
    recurring_complaint refused_subscriptions_;
};
