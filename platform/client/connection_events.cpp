// Subscriptions, watches and their events.
#include "connection.hpp"
#include "library_threads.hpp"
#include "msg_log.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

using connection = device_handler_client_base::connection;
using dh::client::error_of;
using dh::client::library_threads;
using std::chrono::milliseconds;

namespace {

const std::string log_channel = "dh_client";

// Events that wait for the event thread; past that, only the newest value of each path.
constexpr std::size_t max_waiting_events = 1024;
// What no handler in its right mind sends while an event is delivered.
constexpr std::size_t max_kept_events = 16 * max_waiting_events;

constexpr std::size_t max_logged_path = 200;

// Paths of one request, of which each character may become six.
constexpr std::size_t max_asked_bytes = std::size_t{128} << 10;

std::atomic<std::uint64_t> next_watch_id{1};

std::string text_member(const json::value& object, const char* key) {
    const json::value* member = json::find(object, key);
    return member != nullptr && member->IsString()
               ? std::string(member->GetString(), member->GetStringLength())
               : std::string();
}

// A node in error sends its first event with {"code", "message"} as the value.
bool is_error_value(const json::value& v) {
    if (!v.IsObject() || v.MemberCount() != 2)
        return false;
    const json::value* code = json::find(v, "code");
    const json::value* message = json::find(v, "message");
    return code != nullptr && code->IsInt() && message != nullptr && message->IsString();
}

std::string_view shown(std::string_view path) {
    return path.substr(0, max_logged_path);
}

std::string_view path_of(const device_handler_subscriber& subscriber) {
    return wire::without_leading_slash(subscriber.path());
}

void write_prefix(json::writer& out, const std::string& prefix) {
    out.StartObject();
    out.Key("prefix");
    out.String(prefix.data(), static_cast<rapidjson::SizeType>(prefix.size()));
    out.EndObject();
}

}  // namespace

// Asks for the events of paths. Errors of single paths go to their subscribers.
class connection::subscribe_request : public device_handler_request {
  public:
    // `begins` or else ends the subscriptions.
    subscribe_request(bool begins, std::vector<std::string> paths, std::weak_ptr<connection> owner)
        : begins_(begins), paths_(std::move(paths)), owner_(std::move(owner)) {}

    const char* method() const override { return begins_ ? "subscribe" : "unsubscribe"; }

    void write_params(json::writer& out) const override {
        out.StartObject();
        out.Key("paths");
        out.StartArray();
        for (const std::string& path : paths_)
            out.String(path.data(), static_cast<rapidjson::SizeType>(path.size()));
        out.EndArray();
        out.EndObject();
    }

    bool process_result(const json::value& result) override {
        if (!result.IsArray() || result.Size() != paths_.size())
            return false;
        const auto owner = owner_.lock();
        if (owner && !begins_)
            owner->forget_asked_before(paths_);
        for (rapidjson::SizeType i = 0; owner && i < result.Size(); ++i) {
            const json::value* error = json::find(result[i], "error");
            const json::value* value = json::find(result[i], "value");
            // What has a value sends it as an event of its own.
            if (error != nullptr)
                tell(*owner, paths_[i], event::kind::error, error_of(*error));
            else if (value != nullptr && value->IsNull())
                tell(*owner, paths_[i], event::kind::unset, {0, {}});
        }
        return true;
    }

    void report_local_error(int code, const std::string&) override {
        if (const auto owner = owner_.lock())
            owner->subscriptions_failed(begins_, paths_, code);
    }

  private:
    static void tell(connection& owner, const std::string& path, event::kind what,
                     dh_client_exception error) {
        event told{};
        told.what = what;
        told.path = path;
        told.is_first = what == event::kind::unset;
        told.ends_subscription = what == event::kind::error;
        told.error = std::move(error);
        owner.queue_event(std::move(told));
    }

    const bool begins_;
    const std::vector<std::string> paths_;
    const std::weak_ptr<connection> owner_;
};

// Asks for a tree and for what changes in it. The listing takes its place among the events.
class connection::watch_request : public device_handler_request {
  public:
    watch_request(std::uint64_t watch, std::string prefix, std::size_t max_nodes,
                  std::weak_ptr<connection> owner)
        : watch_(watch),
          prefix_(std::move(prefix)),
          max_nodes_(max_nodes),
          owner_(std::move(owner)) {}

    const char* method() const override { return "watch"; }

    void write_params(json::writer& out) const override { write_prefix(out, prefix_); }

    bool process_result(const json::value& result) override {
        const json::value* nodes = json::find(result, "nodes");
        if (nodes == nullptr || !nodes->IsArray())
            return false;
        event listing{};
        listing.what = event::kind::listed;
        listing.watch = watch_;
        listing.is_cut = nodes->Size() > max_nodes_;
        listing.value.SetArray();
        auto& memory = listing.value.GetAllocator();
        const std::size_t told = std::min<std::size_t>(nodes->Size(), max_nodes_);
        listing.value.Reserve(static_cast<rapidjson::SizeType>(told), memory);
        for (rapidjson::SizeType i = 0; i < told; ++i)
            listing.value.PushBack(json::value((*nodes)[i], memory), memory);
        if (const auto owner = owner_.lock())
            owner->queue_event(std::move(listing));
        return true;
    }

    void report_local_error(int code, const std::string& message) override {
        event failure{};
        failure.what = event::kind::watch_failed;
        failure.watch = watch_;
        failure.error = {code, message};
        if (const auto owner = owner_.lock())
            owner->queue_event(std::move(failure));
    }

  private:
    const std::uint64_t watch_;
    const std::string prefix_;
    const std::size_t max_nodes_;
    const std::weak_ptr<connection> owner_;
};

class connection::unwatch_request : public device_handler_request {
  public:
    explicit unwatch_request(std::string prefix) : prefix_(std::move(prefix)) {}

    const char* method() const override { return "unwatch"; }
    void write_params(json::writer& out) const override { write_prefix(out, prefix_); }
    bool process_result(const json::value&) override { return true; }
    // Nothing is watched on a connection that is gone.
    void report_local_error(int, const std::string&) override {}

  private:
    const std::string prefix_;
};

// False where there is more than can be taken.
bool connection::process_event(const json::value& params) {
    event came{};
    came.path = wire::without_leading_slash(text_member(params, "path"));
    const std::string kind = text_member(params, "event");
    const json::value* initial = json::find(params, "initial");
    came.is_first = initial != nullptr && initial->IsTrue();
    const json::value* value = json::find(params, "value");
    const json::value* info = json::find(params, "info");
    const json::value* error = json::find(params, "error");
    const json::value* reason = json::find(params, "reason");
    if (kind == "value" && value != nullptr) {
        came.what = event::kind::value;
        if (is_error_value(*value)) {
            came.what = event::kind::error;
            came.error = error_of(*value);
        } else {
            came.value.CopyFrom(*value, came.value.GetAllocator());
        }
    } else if (kind == "error" && error != nullptr) {
        came.what = event::kind::error;
        came.error = error_of(*error);
    } else if (kind == "ended") {
        came.what = event::kind::ended;
        came.ends_subscription = true;
        came.reason = reason != nullptr && reason->IsInt() ? reason->GetInt() : 0;
    } else if (kind == "added" && info != nullptr) {
        came.what = event::kind::added;
        came.value.CopyFrom(*info, came.value.GetAllocator());
    } else if (kind == "removed") {
        came.what = event::kind::removed;
    } else {
        return true;
    }
    return queue_event(std::move(came));
}

bool connection::is_asked_for_locked(const event& came) {
    switch (came.what) {
        case event::kind::listed:
        case event::kind::watch_failed:
            return true;
        case event::kind::added:
        case event::kind::removed:
            return std::any_of(watches_.begin(), watches_.end(), [&](const watched_tree& watched) {
                return wire::is_under(came.path, watched.prefix);
            });
        case event::kind::value:
        case event::kind::unset:
        case event::kind::error:
        case event::kind::ended:
            break;
    }
    return subscriptions_.contains(came.path);
}

// What answers a request of this client is as much as it has asked for.
bool connection::is_answer(const event& e) {
    return e.what == event::kind::listed || e.what == event::kind::unset ||
           e.what == event::kind::watch_failed;
}

// A connection that is made anew tells what is, and is not to break in its turn
// over what the one before has left.
void connection::drop_waiting_events() {
    const std::lock_guard lock(mutex_);
    std::erase_if(events_, [](const event& waiting) { return !is_answer(waiting); });
}

// False where there is more than can be taken.
bool connection::queue_event(event&& came) {
    const std::lock_guard lock(mutex_);
    if (!is_asked_for_locked(came)) {
        if (!asked_before_.contains(came.path) && unasked_event_.is_worth_a_line())
            MSG_LOG(log_channel, msg_log::warning)
                << "msg: " << name_ << " sends events that nobody has asked for, the first of "
                << shown(came.path);
        return true;
    }
    if (events_.size() >= max_kept_events && !is_answer(came))
        return false;
    const auto is_state = [](const event& e) {
        return e.what == event::kind::value || e.what == event::kind::error;
    };
    if (events_.size() >= max_waiting_events && is_state(came))
        std::erase_if(events_, [&](const event& waiting) {
            return waiting.path == came.path && is_state(waiting);
        });
    events_.push_back(std::move(came));
    if (events_.size() == 1 && !is_being_served_)
        library_threads::instance().serve_soon(shared_from_this());
    return true;
}

void connection::serve_events() {
    bool renew = false;
    {
        const std::lock_guard lock(mutex_);
        is_being_served_ = true;
        renew = std::exchange(renewal_is_due_, false);
    }
    if (renew)
        renew_subscriptions();
    std::shared_ptr<link> open;
    bool may_read = false;
    {
        const std::lock_guard lock(mutex_);
        open = link_;
        may_read = open && state_ == state::up && take_reading_role(*open);
        if (open && !may_read)
            open->event_thread_asked = true;
    }
    if (may_read) {
        read_once(open, milliseconds::zero());
        const std::lock_guard lock(mutex_);
        open->event_thread_asked = false;
        give_up_reading_role(*open);
    }
    for (;;) {
        event next{};
        {
            const std::lock_guard lock(mutex_);
            is_being_served_ = !events_.empty();
            if (!is_being_served_)
                break;
            next = std::move(events_.front());
            events_.pop_front();
        }
        deliver(next);
    }
    if (may_read) {
        const std::lock_guard lock(mutex_);
        if (link_ == open)
            listen_for_events_locked();
    }
}

void connection::deliver(const event& came) {
    switch (came.what) {
        case event::kind::value:
        case event::kind::unset:
        case event::kind::error:
        case event::kind::ended:
            deliver_to_subscribers(came);
            break;
        case event::kind::listed:
        case event::kind::added:
        case event::kind::removed:
        case event::kind::watch_failed:
            deliver_to_watchers(came);
            break;
    }
}

// What the event says of its path: nothing where there is no value.
std::string connection::told_by(const event& came) {
    switch (came.what) {
        case event::kind::value:
            return json::to_text(came.value);
        case event::kind::error:
            return "error " + std::to_string(came.error.code) + " " + came.error.message;
        default:
            return {};
    }
}

void connection::deliver_to_subscribers(const event& came) {
    subscribers called;
    std::string told = told_by(came);
    {
        const std::lock_guard lock(mutex_);
        const auto found = subscriptions_.find(came.path);
        if (found == subscriptions_.end())
            return;
        // The first event answers a subscribe. To the other subscribers it is news
        // only where they have missed the change: it came between the end of an
        // earlier subscription, whose first event was taken for the answer, and
        // this one, or its own event was dropped in favour of this one.
        subscribed_path& subscribed = found->second;
        const bool is_news = !came.is_first || told != subscribed.last_told;
        for (subscription& each : subscribed.subscriptions) {
            if (!is_news && !each.awaits_first_event)
                continue;
            each.awaits_first_event = came.ends_subscription;
            called.push_back(each.subscriber);
        }
        subscribed.last_told = std::move(told);
    }
    for (const auto& subscriber : called) {
        call_receiver(came, [&] {
            if (came.what == event::kind::value)
                subscriber->send_changed_value_event(came.path, came.value);
            else if (came.what == event::kind::unset)
                subscriber->send_unset_event(came.path);
            else if (came.what == event::kind::error)
                subscriber->send_exception_event(came.path, came.error);
            else
                subscriber->send_subscription_ended_event(
                    came.path, static_cast<subscription_ended_rc>(came.reason));
        });
    }
}

void connection::deliver_to_watchers(const event& came) {
    std::vector<std::shared_ptr<device_handler_tree_watcher>> told;
    {
        const std::lock_guard lock(mutex_);
        for (watched_tree& each : watches_) {
            const bool ends_its_wait =
                came.what == event::kind::listed || came.what == event::kind::watch_failed;
            // What changed before the listing is in the listing.
            const bool concerns = ends_its_wait
                                      ? each.id == came.watch
                                      : each.was_listed && wire::is_under(came.path, each.prefix);
            if (!concerns)
                continue;
            each.was_listed = each.was_listed || came.what == event::kind::listed;
            told.push_back(each.watcher);
        }
        if (came.what == event::kind::watch_failed)
            std::erase_if(watches_, [&](const watched_tree& w) { return w.id == came.watch; });
    }
    for (const auto& watcher : told) {
        call_receiver(came, [&] {
            if (came.what == event::kind::listed)
                watcher->tree_listed(came.value, came.is_cut);
            else if (came.what == event::kind::added)
                watcher->node_added(came.path, came.value);
            else if (came.what == event::kind::removed)
                watcher->node_removed(came.path);
            else
                watcher->watch_failed(came.error);
        });
    }
}

// An event that its receiver cannot take is dropped; those behind it are not.
template <class Call>
void connection::call_receiver(const event& came, const Call& call) {
    std::string why;
    try {
        call();
        return;
    } catch (const json_value_conversion_error& error) {
        why = std::string("expected ") + error.expected + ", found " + error.found;
    } catch (const dh_client_exception& error) {
        why = error.message;
    } catch (const std::exception& error) {
        why = error.what();
    } catch (...) {
        why = "Unknown error!";
    }
    if (refused_event_.is_worth_a_line())
        MSG_LOG(log_channel, msg_log::warning)
            << "msg: " << name_ << ", event of " << shown(came.path) << " dropped: " << why;
}

void connection::add_subscribers(const subscribers& added) {
    const std::lock_guard asking(asking_mutex_);
    std::vector<std::string> paths;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& subscriber : added) {
            paths.emplace_back(path_of(*subscriber));
            subscriptions_[paths.back()].subscriptions.push_back({subscriber, true});
        }
        if (state_ != state::up)
            return;
        listen_for_events_locked();
    }
    request_subscriptions(true, std::move(paths));
}

void connection::remove_subscribers(const subscribers& gone) {
    const std::lock_guard asking(asking_mutex_);
    std::vector<std::string> paths;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& subscriber : gone) {
            const std::string path(path_of(*subscriber));
            const auto found = subscriptions_.find(path);
            if (found == subscriptions_.end())
                continue;
            auto& left = found->second.subscriptions;
            std::erase_if(left,
                          [&](const subscription& each) { return each.subscriber == subscriber; });
            if (!left.empty())
                continue;
            subscriptions_.erase(found);
            if (state_ == state::up)
                asked_before_.insert(path);
            paths.push_back(path);
        }
        if (state_ != state::up)
            return;
    }
    request_subscriptions(false, std::move(paths));
}

void connection::watch(std::string prefix, std::size_t max_nodes,
                       std::shared_ptr<device_handler_tree_watcher> watcher) {
    prefix = std::string(wire::without_leading_slash(prefix));
    const std::uint64_t id = next_watch_id.fetch_add(1, std::memory_order_relaxed);
    {
        lock_type lock(mutex_);
        wait_for_first_connection(lock);
    }
    const std::lock_guard asking(asking_mutex_);
    {
        const std::lock_guard lock(mutex_);
        watches_.push_back({id, prefix, std::move(watcher)});
        if (state_ == state::up)
            listen_for_events_locked();
    }
    send(std::make_shared<watch_request>(id, std::move(prefix), max_nodes, weak_from_this()));
}

void connection::unwatch(const std::shared_ptr<device_handler_tree_watcher>& watcher) {
    const std::lock_guard asking(asking_mutex_);
    std::set<std::string> prefixes;
    {
        const std::lock_guard lock(mutex_);
        for (const watched_tree& each : watches_) {
            if (each.watcher == watcher)
                prefixes.insert(each.prefix);
        }
        std::erase_if(watches_, [&](const watched_tree& w) { return w.watcher == watcher; });
        for (const watched_tree& each : watches_)
            prefixes.erase(each.prefix);
        if (state_ != state::up)
            return;
    }
    for (const std::string& prefix : prefixes)
        send(std::make_shared<unwatch_request>(prefix));
}

void connection::renew_subscriptions() {
    const std::lock_guard asking(asking_mutex_);
    std::vector<std::string> paths;
    {
        const std::lock_guard lock(mutex_);
        if (state_ != state::up)
            return;
        for (auto& [path, subscribed] : subscriptions_) {
            for (subscription& each : subscribed.subscriptions)
                each.awaits_first_event = true;
            paths.push_back(path);
        }
        if (!paths.empty())
            listen_for_events_locked();
    }
    request_subscriptions(true, std::move(paths));
}

// In parts of which the other side can keep all the first events. The next part
// is asked for when those of the one before have come.
void connection::request_subscriptions(bool begins, std::vector<std::string> paths) {
    auto next = paths.begin();
    while (next != paths.end()) {
        std::vector<std::string> part;
        std::size_t bytes = 0;
        while (next != paths.end() && part.size() < wire::max_entries &&
               (part.empty() || bytes + next->size() <= max_asked_bytes)) {
            bytes += next->size();
            part.push_back(std::move(*next++));
        }
        const auto request =
            std::make_shared<subscribe_request>(begins, std::move(part), weak_from_this());
        send(request);
        if (next != paths.end())
            await(*request);
    }
}

// A connection that fails renews its subscriptions when it stands again.
void connection::subscriptions_failed(bool begins, const std::vector<std::string>& paths,
                                      int code) {
    const bool is_lost = code == dh_client_code::not_connected ||
                         code == dh_client_code::connection_lost ||
                         code == dh_client_code::timed_out;
    if (is_lost)
        return;
    complain(refused_subscriptions_, "refuses to begin or end subscriptions");
    if (!begins)
        forget_asked_before(paths);
}

// The answer to an unsubscribe comes after the last event.
void connection::forget_asked_before(const std::vector<std::string>& paths) {
    const std::lock_guard lock(mutex_);
    for (const std::string& path : paths) {
        const auto one = asked_before_.find(path);
        if (one != asked_before_.end())
            asked_before_.erase(one);
    }
}

void connection::listen_for_events_locked() {
    const bool awaits_events = !subscriptions_.empty() || !watches_.empty();
    if (link_ && awaits_events)
        library_threads::instance().serve_when_readable(link_->socket, shared_from_this());
}
