#include "session.hpp"

#include "msg_log.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <utility>

namespace {

constexpr std::size_t receive_size = std::size_t{16} << 10;
constexpr std::size_t max_watched_prefixes = 1024;
// How long a client may take nothing of what it asked for.
constexpr std::chrono::milliseconds client_patience{10'000};
// How long a client that is sent away may take to end what it was sending.
constexpr std::chrono::milliseconds drain_patience{2'000};
constexpr int reason_server_ends = 2;

constexpr const char* value_key = "value";

std::string_view text_of(const json::value& v) {
    return {v.GetString(), v.GetStringLength()};
}

// The member `name` of the params, a list of 1 to 1024 entries that all have
// the form; null where anything is amiss.
template <class HasForm>
const json::value* entry_list(const wire::request& request, const char* name,
                              const HasForm& has_form) {
    const json::value* list =
        request.params != nullptr ? json::find(*request.params, name) : nullptr;
    if (list == nullptr || !list->IsArray() || list->Empty() || list->Size() > wire::max_entries)
        return nullptr;
    return std::all_of(list->Begin(), list->End(), has_form) ? list : nullptr;
}

bool is_path(const json::value& entry) {
    return entry.IsString();
}

bool is_item(const json::value& entry) {
    const json::value* path = json::find(entry, "path");
    return path != nullptr && path->IsString() && json::find(entry, value_key) != nullptr;
}

const json::value* path_list(const wire::request& request) {
    return entry_list(request, "paths", is_path);
}

const json::value* prefix_of(const wire::request& request) {
    const json::value* prefix =
        request.params != nullptr ? json::find(*request.params, "prefix") : nullptr;
    return prefix != nullptr && prefix->IsString() ? prefix : nullptr;
}

}  // namespace

session::session(int socket, dh_db& db, const std::string& server_name, const server_limits& limits,
                 std::function<void()> await_writable, dh_interposer* interposer)
    : socket_(socket),
      db_(db),
      server_name_(server_name),
      limits_(limits),
      interposer_(interposer),
      outbox_(socket, limits.unread_bytes, std::move(await_writable), interposer) {}

session::~session() {
    ::close(socket_);
}

void session::run() {
    while (receive())
        execute_received_lines();
    send_finished_replies();
    if (lines_.too_long())
        refuse_long_line();
    end();
}

bool session::receive() {
    if (lines_.too_long())
        return false;
    char* const room = lines_.room(receive_size);
    for (;;) {
        const ssize_t result = ::recv(socket_, room, lines_.room_size(), MSG_DONTWAIT);
        if (result > 0) {
            lines_.filled(static_cast<std::size_t>(result));
            return true;
        }
        if (result == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK))
            return false;
        send_finished_replies();
        client_is_awake_ = false;
        // A thread that sleeps in recv is also woken when the client takes what
        // was sent to it; one that sleeps in poll is not.
        pollfd readable{socket_, POLLIN, 0};
        ::poll(&readable, 1, -1);
    }
}

void session::execute_received_lines() {
    while (const auto line = lines_.next()) {
        if (interposer_ != nullptr) {
            send_finished_replies();
            interposer_->before_request();
        }
        // What the client does not take holds up its own next request, and nothing else.
        if (!outbox_.wait_for_client(false, client_patience))
            return;
        execute_line(*line);
    }
}

void session::execute_line(std::string_view line) {
    const json::value* const parsed = parser_.parse(line);
    if (parsed == nullptr) {
        fail({}, wire::error_code::not_json, "the line is not JSON");
        return;
    }
    const auto found = wire::as_request(*parsed);
    if (const auto* refused = std::get_if<wire::refusal>(&found)) {
        if (refused->answer)
            fail({refused->id, {}, nullptr}, wire::error_code::not_a_request,
                 "not a request of JSON-RPC 2.0");
        return;
    }
    execute(std::get<request>(found));
}

void session::execute(const request& asked) {
    struct entry {
        std::string_view name;
        method execute;
    };
    static constexpr std::array<entry, 10> methods{{
        {"read", &session::read},
        {"write", &session::write},
        {"subscribe", &session::subscribe},
        {"unsubscribe", &session::unsubscribe},
        {"info", &session::info},
        {"list", &session::list},
        {"watch", &session::watch},
        {"unwatch", &session::unwatch},
        {"history", &session::history},
        {"version", &session::version},
    }};
    const auto* const known = std::find_if(methods.begin(), methods.end(),
                                           [&](const entry& m) { return m.name == asked.method; });
    const bool wants_answer = !std::holds_alternative<std::monostate>(asked.id);
    if (known != methods.end())
        (this->*known->execute)(asked);
    else if (wants_answer)
        fail(asked, wire::error_code::unknown_method, "unknown method");
}

void session::refuse_long_line() {
    fail({}, wire::error_code::not_a_request, "the line is longer than 1 MiB");
    send_finished_replies();
    if (!outbox_.wait_for_client(true, client_patience))
        return;
    // A socket that is closed over unread bytes may take the answer with it.
    ::shutdown(socket_, SHUT_WR);
    std::array<char, receive_size> ignored{};
    const auto end = std::chrono::steady_clock::now() + drain_patience;
    pollfd readable{socket_, POLLIN, 0};
    while (std::chrono::steady_clock::now() < end &&
           ::poll(&readable, 1, static_cast<int>(drain_patience.count())) > 0 &&
           ::recv(socket_, ignored.data(), ignored.size(), MSG_DONTWAIT) > 0) {
    }
}

void session::end() {
    outbox_.wait_for_client(true, client_patience);
    outbox_.break_off();
    const auto self = shared_from_this();
    db_.unwatch_all(self);
    std::map<std::string, std::weak_ptr<dh_db_leaf_node>, std::less<>> subscribed;
    {
        const std::lock_guard lock(subscriptions_mutex_);
        subscribed.swap(subscriptions_);
    }
    for (const auto& [path, weak_node] : subscribed) {
        if (const auto node = weak_node.lock())
            node->unsubscribe(self);
    }
}

void session::send_value_event(const std::string& path, std::shared_ptr<const std::string> line) {
    if (interposer_ != nullptr)
        line = interposed_event(path, std::move(line));
    outbox_.push_value_event(path, std::move(line));
}

void session::send_event(std::shared_ptr<const std::string> line) {
    outbox_.push_event(std::move(line));
}

void session::announce_end() {
    const std::lock_guard lock(subscriptions_mutex_);
    for (const auto& [path, weak_node] : subscriptions_) {
        const auto node = weak_node.lock();
        if (!node || node->was_removed())
            continue;
        dh_event event("ended", path);
        event.add("reason", reason_server_ends);
        send_event(std::make_shared<const std::string>(wire::event_line(event.members())));
    }
}

// Passes the value of a reply by the interposer.
void session::interpose(const dh_db_leaf_node& node, json::value& result) {
    if (interposer_ != nullptr)
        interposer_->replace_value(node.get_path(0), result[value_key], entry_memory_);
}

// Passes the value of a value event by the interposer.
std::shared_ptr<const std::string> session::interposed_event(
    const std::string& path, std::shared_ptr<const std::string> line) {
    json::document message;
    if (!wire::parse(*line, message))
        return line;
    json::value& event = message["params"];
    json::allocator& memory = message.GetAllocator();
    try {
        if (!interposer_->replace_value(path, event[value_key], memory))
            return line;
    } catch (const dh_error& error) {
        json::value shown = as_json(error, memory);
        if (event.HasMember("initial")) {
            event[value_key] = shown;
        } else {
            event["event"] = "error";
            event.EraseMember(value_key);
            json::add(event, "error", std::move(shown), memory);
        }
    }
    return std::make_shared<const std::string>(wire::event_line(event));
}

std::shared_ptr<dh_db_leaf_node> session::find_node(std::string_view path) {
    auto node = db_.find_leaf_node(path);
    // Replies that are ready do not wait for what an owner may take its time for.
    if (!finished_replies_.empty() && node->runs_owner_code())
        send_finished_replies();
    return node;
}

// Executes the operation of one entry and writes what it gives, or its error.
template <class Execute>
void session::write_entry(const Execute& execute) {
    int code = 0;
    std::string message;
    try {
        json::value entry(rapidjson::kObjectType);
        execute(entry);
        if (!reply_is_too_large())
            entry.Accept(out_);
        entry_memory_.Clear();
        return;
    } catch (const json_value_conversion_error& error) {
        code = dh_error_code::invalid_argument;
        message = std::string("expected ") + error.expected + ", found " + error.found;
    } catch (const dh_error& error) {
        code = error.code;
        message = error.message;
    } catch (const dh_client_exception& error) {
        code = error.code;
        message = error.message;
    } catch (const std::exception& error) {
        code = dh_error_code::unknown;
        message = error.what();
    } catch (...) {
        code = dh_error_code::unknown;
        message = "Unknown error!";
    }
    entry_memory_.Clear();
    if (!reply_is_too_large())
        wire::write_entry_error(out_, code, message);
}

template <class Entry>
void session::answer_entries(const request& asked, const json::value& list, const Entry& entry) {
    json::writer& out = begin_reply(asked);
    out.StartArray();
    for (const json::value& item : list.GetArray())
        write_entry([&](json::value& result) { entry(item, result); });
    out.EndArray();
    end_reply(asked);
}

void session::read(const request& asked) {
    const json::value* paths = path_list(asked);
    if (paths == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"paths\", 1 to 1024 texts");
        return;
    }
    answer_entries(asked, *paths, [this](const json::value& path, json::value& result) {
        const auto node = find_node(text_of(path));
        if (reply_is_too_large())
            return;
        node->get(value_key, entry_memory_, result);
        interpose(*node, result);
    });
}

void session::write(const request& asked) {
    const json::value* items = entry_list(asked, "items", is_item);
    if (items == nullptr) {
        fail(asked, wire::error_code::bad_params,
             "params must hold \"items\", 1 to 1024 objects of \"path\" and \"value\"");
        return;
    }
    answer_entries(asked, *items, [this](const json::value& item, json::value& result) {
        const auto node = find_node(text_of(*json::find(item, "path")));
        const json::value& value = *json::find(item, value_key);
        if (interposer_ != nullptr)
            interposer_->before_write(node->get_path(0));
        if (!node->write_returns_response()) {
            node->set(value_key, value);
            return;
        }
        node->run(value_key, value, entry_memory_, result);
        interpose(*node, result);
    });
}

void session::subscribe(const request& asked) {
    const json::value* paths = path_list(asked);
    if (paths == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"paths\", 1 to 1024 texts");
        return;
    }
    answer_entries(asked, *paths, [this](const json::value& path, json::value& result) {
        subscribe_to(*find_node(text_of(path)), result);
    });
}

void session::subscribe_to(dh_db_leaf_node& node, json::value& out) {
    {
        std::unique_lock lock(subscriptions_mutex_, std::defer_lock);
        node.subscribe(shared_from_this(), value_key, entry_memory_, out, lock);
        subscriptions_.insert_or_assign(node.get_path(0), node.weak_from_this());
    }
    try {
        interpose(node, out);
    } catch (const dh_error& error) {
        // As of a node in error, to which one can subscribe all the same.
        out[value_key] = as_json(error, entry_memory_);
    }
}

void session::unsubscribe(const request& asked) {
    const json::value* paths = path_list(asked);
    if (paths == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"paths\", 1 to 1024 texts");
        return;
    }
    answer_entries(asked, *paths, [this](const json::value& path, json::value&) {
        unsubscribe_from(wire::without_leading_slash(text_of(path)));
    });
}

void session::unsubscribe_from(std::string_view path) {
    std::shared_ptr<dh_db_leaf_node> node;
    {
        const std::lock_guard lock(subscriptions_mutex_);
        const auto subscribed = subscriptions_.find(path);
        if (subscribed == subscriptions_.end())
            return;
        node = subscribed->second.lock();
        subscriptions_.erase(subscribed);
    }
    if (node)
        node->unsubscribe(shared_from_this());
}

void session::info(const request& asked) {
    const json::value* paths = path_list(asked);
    if (paths == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"paths\", 1 to 1024 texts");
        return;
    }
    answer_entries(asked, *paths, [this](const json::value& path, json::value& result) {
        const auto node = db_.find_leaf_node(text_of(path));
        json::add(result, "info", node->get_info(entry_memory_), entry_memory_);
        json::add(result, "text", node->get_info(), entry_memory_);
    });
}

void session::write_nodes(const std::vector<dh_db::entry>& nodes) {
    json::writer& out = out_;
    out.StartObject();
    out.Key("nodes");
    out.StartArray();
    for (const auto& [path, node] : nodes) {
        if (reply_is_too_large())
            break;
        out.StartObject();
        out.Key("path");
        out.String(path.data(), static_cast<rapidjson::SizeType>(path.size()));
        out.Key("info");
        node->get_info(entry_memory_).Accept(out);
        out.EndObject();
        entry_memory_.Clear();
    }
    out.EndArray();
    out.EndObject();
}

void session::list(const request& asked) {
    const json::value* prefix = prefix_of(asked);
    if (prefix == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"prefix\", a text");
        return;
    }
    begin_reply(asked);
    write_nodes(db_.nodes_under(text_of(*prefix)));
    end_reply(asked);
}

void session::watch(const request& asked) {
    const json::value* prefix = prefix_of(asked);
    if (prefix == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"prefix\", a text");
        return;
    }
    const std::string watched(wire::without_leading_slash(text_of(*prefix)));
    watched_prefixes_.insert(watched);
    if (watched_prefixes_.size() > max_watched_prefixes) {
        watched_prefixes_.erase(watched);
        fail(asked, wire::error_code::bad_params, "too many watched prefixes");
        return;
    }
    // The reply goes out before the tree can change again, and so before the
    // first event of the watch.
    db_.watch(watched, shared_from_this(), [&](const std::vector<dh_db::entry>& nodes) {
        begin_reply(asked);
        write_nodes(nodes);
        end_reply(asked);
        send_finished_replies();
    });
}

void session::unwatch(const request& asked) {
    const json::value* prefix = prefix_of(asked);
    if (prefix == nullptr) {
        fail(asked, wire::error_code::bad_params, "params must hold \"prefix\", a text");
        return;
    }
    const std::string watched(wire::without_leading_slash(text_of(*prefix)));
    watched_prefixes_.erase(watched);
    db_.unwatch(watched, shared_from_this());
    json::writer& out = begin_reply(asked);
    out.StartObject();
    out.EndObject();
    end_reply(asked);
}

void session::history(const request& asked) {
    const json::value* limit =
        asked.params != nullptr ? json::find(*asked.params, "limit") : nullptr;
    if (limit == nullptr || !limit->IsUint() || limit->GetUint() > dh_db::history_length) {
        fail(asked, wire::error_code::bad_params, "params must hold \"limit\", 0 to 1024");
        return;
    }
    json::writer& out = begin_reply(asked);
    out.StartObject();
    out.Key("entries");
    out.StartArray();
    for (const auto& entry : db_.history(limit->GetUint()))
        out.RawValue(entry->data(), entry->size(), rapidjson::kObjectType);
    out.EndArray();
    out.EndObject();
    end_reply(asked);
}

void session::version(const request& asked) {
    if (asked.params == nullptr || !asked.params->IsObject()) {
        fail(asked, wire::error_code::bad_params, "params must be an object");
        return;
    }
    json::writer& out = begin_reply(asked);
    out.StartObject();
    out.Key("protocol");
    out.Int(wire::protocol_version);
    out.Key("server");
    out.String(server_name_.data(), static_cast<rapidjson::SizeType>(server_name_.size()));
    out.Key("version");
    out.String(VELT_VERSION);
    out.EndObject();
    end_reply(asked);
}

json::writer& session::begin_reply(const request& asked) {
    wire::begin_reply(reply_, asked.id);
    out_.Reset(reply_);
    return out_;
}

void session::end_reply(const request& asked) {
    wire::end_reply(reply_);
    finish_reply(asked);
}

bool session::reply_is_too_large() const {
    return reply_.GetSize() > wire::max_reply_line;
}

// A line that could not even be read as a request is answered without an id; a
// request that has none is not answered.
void session::fail(const request& asked, int code, std::string_view message) {
    const bool was_read = !asked.method.empty();
    if (was_read && std::holds_alternative<std::monostate>(asked.id))
        return;
    reply_.Clear();
    wire::write_error_reply(reply_, asked.id, code, message);
    keep_finished_reply();
    reply_.Clear();
}

void session::finish_reply(const request& asked) {
    if (std::holds_alternative<std::monostate>(asked.id)) {
        reply_.Clear();
        return;
    }
    if (reply_is_too_large()) {
        fail(asked, wire::error_code::reply_too_large, "reply too large");
        reply_.ShrinkToFit();
        return;
    }
    const bool is_long = reply_.GetSize() > receive_size;
    keep_finished_reply();
    reply_.Clear();
    if (is_long)
        reply_.ShrinkToFit();
}

void session::keep_finished_reply() {
    finished_replies_.append(reply_.GetString(), reply_.GetSize());
    // Of requests that came together the first reply wakes the client, and the
    // others are there when it looks.
    if (!std::exchange(client_is_awake_, true) || finished_replies_.size() > receive_size)
        send_finished_replies();
}

void session::send_finished_replies() {
    if (finished_replies_.empty())
        return;
    outbox_.push_reply(finished_replies_);
    finished_replies_.clear();
    if (finished_replies_.capacity() > receive_size)
        finished_replies_.shrink_to_fit();
}
