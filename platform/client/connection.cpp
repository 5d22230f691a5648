#include "connection.hpp"

#include "library_threads.hpp"
#include "msg_log.hpp"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <unordered_set>
#include <utility>

using connection = device_handler_client_base::connection;
using dh::client::error_of;
using dh::client::library_threads;
using std::chrono::milliseconds;

namespace {

const std::string log_channel = "dh_client";

constexpr milliseconds first_connection_limit{10'000};
constexpr milliseconds handshake_limit{10'000};
// Between two attempts to connect.
constexpr milliseconds attempt_pause{100};
// How long a reader sleeps before it looks at the time limits.
constexpr milliseconds reader_nap{100};
constexpr std::size_t receive_size = std::size_t{16} << 10;

std::atomic<std::uint64_t> next_id{1};

bool nothing_came(ssize_t received) {
    return received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

// A server that has too many sessions says so, and closes.
bool is_sent_away(const json::value& first_line) {
    const json::value* error = json::find(first_line, "error");
    return error != nullptr && error_of(*error).code == wire::error_code::too_many_sessions;
}

// A line that cannot be parsed may still be told to be an event.
bool names_a_method(std::string_view line) {
    return line.find(R"("method")") != std::string_view::npos;
}

}  // namespace

connection::link::~link() {
    ::close(socket);
}

connection::connection(endpoint where, std::string name,
                       std::weak_ptr<device_handler_connection_subscriber> subscriber)
    : where_(std::move(where)),
      name_(std::move(name)),
      connection_subscriber_(std::move(subscriber)) {}

bool connection::is_up() const {
    const std::lock_guard lock(mutex_);
    return state_ == state::up;
}

bool connection::is_down() const {
    const std::lock_guard lock(mutex_);
    return state_ == state::down;
}

void connection::require_up(milliseconds limit) {
    lock_type lock(mutex_);
    const bool decided = changed_.wait_for(
        lock, limit, [this] { return state_ == state::up || failed_attempts_ > 0; });
    if (!decided)
        throw dh_client_exception{dh_client_code::timed_out, "timed out"};
    if (state_ != state::up)
        throw dh_client_exception{dh_client_code::not_connected, "not connected"};
}

void connection::close() {
    std::shared_ptr<link> open;
    {
        const std::lock_guard lock(mutex_);
        open = link_;
        state_ = state::closed;
        subscriptions_.clear();
        watches_.clear();
    }
    if (open)
        break_link(open, dh_client_code::connection_lost, "connection lost");
}

// --- Requests ---------------------------------------------------------------------

void connection::send(const std::shared_ptr<device_handler_request>& request) {
    thread_local json::buffer line;
    line.Clear();
    const std::uint64_t id = next_id.fetch_add(1, std::memory_order_relaxed);
    wire::write_request(line, id, request->method(),
                        [&](json::writer& out) { request->write_params(out); });
    if (line.GetSize() > wire::max_request_line) {
        fail_request(request, wire::error_code::not_a_request, "the line is longer than 1 MiB");
        line.ShrinkToFit();
        return;
    }
    const std::lock_guard sending(send_mutex_);
    const auto open = enter_outstanding(id, request);
    if (open)
        send_bytes(open, {line.GetString(), line.GetSize()}, request->time_limit());
    else
        fail_request(request, dh_client_code::not_connected, "not connected");
}

void connection::wait_for_first_connection(lock_type& lock) {
    changed_.wait_until(lock, created_ + first_connection_limit, [this] {
        return was_up_ || state_ == state::up || state_ == state::closed;
    });
}

std::shared_ptr<connection::link> connection::enter_outstanding(
    std::uint64_t id, const std::shared_ptr<device_handler_request>& request) {
    lock_type lock(mutex_);
    if (state_ != state::up && !was_up_)
        wait_for_first_connection(lock);
    if (state_ != state::up)
        return nullptr;
    if (outstanding_.empty())
        front_since_ = clock::now();
    outstanding_.push_back({id, request});
    return link_;
}

void connection::send_bytes(const std::shared_ptr<link>& open, std::string_view bytes,
                            milliseconds limit) {
    const auto end = clock::now() + limit;
    while (!bytes.empty()) {
        const ssize_t sent =
            ::send(open->socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd writable{open->socket, POLLOUT, 0};
            ::poll(&writable, 1, static_cast<int>(reader_nap.count()));
            if (clock::now() >= end) {
                complain(overdue_, "does not take what is sent to it");
                break_link(open, dh_client_code::timed_out, "timed out");
                return;
            }
        } else if (errno != EINTR) {
            break_link(open, dh_client_code::connection_lost, "connection lost");
            return;
        }
    }
}

void connection::complain(recurring_complaint& of, const char* what) const {
    if (of.is_worth_a_line())
        MSG_LOG(log_channel, msg_log::failure) << "msg: " << where_.description << " " << what;
}

void connection::await(const device_handler_request& request) {
    lock_type lock(mutex_);
    while (!request.is_done_) {
        const std::shared_ptr<link> open = link_;
        if (open && take_reading_role(*open)) {
            lock.unlock();
            read_once(open, reader_nap);
            lock.lock();
            give_up_reading_role(*open);
        } else {
            changed_.wait_for(lock, reader_nap);
        }
        if (!request.is_done_)
            check_time_limits(lock);
    }
}

bool connection::take_reading_role(link& open) {
    return !std::exchange(open.has_reader, true);
}

void connection::give_up_reading_role(link& open) {
    open.has_reader = false;
    if (std::exchange(open.event_thread_asked, false))
        library_threads::instance().serve_when_readable(open.socket, shared_from_this());
    changed_.notify_all();
}

void connection::read_once(const std::shared_ptr<link>& open, milliseconds patience) {
    char* const room = open->lines.room(receive_size);
    const auto receive = [&] {
        return ::recv(open->socket, room, open->lines.room_size(), MSG_DONTWAIT);
    };
    ssize_t got = receive();
    if (nothing_came(got) && patience > milliseconds::zero()) {
        // A thread that sleeps in recv is also woken when the other side takes
        // what was sent to it; one that sleeps in poll is not.
        pollfd readable{open->socket, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(patience.count())) > 0)
            got = receive();
    }
    if (nothing_came(got))
        return;
    if (got <= 0) {
        break_link(open, dh_client_code::connection_lost, "connection lost");
        return;
    }
    open->lines.filled(static_cast<std::size_t>(got));
    while (const auto line = open->lines.next())
        process_line(open, *line);
    if (open->lines.too_long()) {
        complain(long_line_, "sent a line that is too long");
        break_link(open, dh_client_code::bad_reply, "bad reply");
    }
}

void connection::process_line(const std::shared_ptr<link>& open, std::string_view line) {
    bool is_first = false;
    bool may_be_a_reply = false;
    {
        const std::lock_guard lock(mutex_);
        if (link_ != open)
            return;  // broken over a line before this one
        is_first = state_ == state::handshaking;
        may_be_a_reply = is_first || (!outstanding_.empty() && !names_a_method(line));
    }
    const json::value* const parsed = open->parser.parse(line);
    if (parsed == nullptr || !parsed->IsObject()) {
        complain(unreadable_line_, "sent a line that is no message");
        // Of an event nothing is lost but the event.
        if (may_be_a_reply)
            break_link(open, dh_client_code::bad_reply, "bad reply");
        return;
    }
    if (is_first && is_sent_away(*parsed)) {
        break_link(open, dh_client_code::connection_lost, "connection lost");
        return;
    }
    const json::value* method = json::find(*parsed, "method");
    if (method == nullptr) {
        if (!is_first)
            process_reply(*parsed);
    } else if (const json::value* params = json::find(*parsed, "params")) {
        if (!process_event(*params)) {
            complain(too_many_events_, "sends more events than can be taken");
            drop_waiting_events();
            break_link(open, dh_client_code::bad_reply, "bad reply");
        }
    }
    if (is_first)
        came_up();
}

void connection::process_reply(const json::value& reply) {
    std::shared_ptr<device_handler_request> request;
    {
        const json::value* id = json::find(reply, "id");
        const std::lock_guard lock(mutex_);
        auto answered = outstanding_.end();
        if (id != nullptr && id->IsUint64())
            answered = std::find_if(outstanding_.begin(), outstanding_.end(),
                                    [&](const outstanding& o) { return o.id == id->GetUint64(); });
        else if (id == nullptr || id->IsNull())
            answered = outstanding_.begin();  // a refusal; answers come in order
        if (answered == outstanding_.end())
            return;
        request = std::move(answered->request);
        outstanding_.erase(answered);
        front_since_ = clock::now();
    }
    if (const json::value* error = json::find(reply, "error")) {
        const dh_client_exception what = error_of(*error);
        fail_request(request, what.code, what.message);
        return;
    }
    const json::value* result = json::find(reply, "result");
    if (result != nullptr && request->process_result(*result))
        finish(*request);
    else
        fail_request(request, dh_client_code::bad_reply, "bad reply");
}

void connection::fail_request(const std::shared_ptr<device_handler_request>& request, int code,
                              const std::string& message) {
    request->report_local_error(code, message);
    finish(*request);
}

void connection::finish(device_handler_request& request) {
    const std::lock_guard lock(mutex_);
    request.is_done_ = true;
    changed_.notify_all();
}

// --- Life of the connection -------------------------------------------------------

void connection::supervise() {
    std::shared_ptr<link> open;
    state current{};
    bool reads = false;
    {
        lock_type lock(mutex_);
        current = state_;
        open = link_;
        const bool never_came = !was_up_ && clock::now() >= created_ + first_connection_limit;
        if (never_came && current != state::closed && !std::exchange(told_lost_, true))
            raise_lost_event();
        if (current == state::up)
            check_time_limits(lock);
        const bool has_something_to_read = current == state::handshaking || current == state::up;
        reads = open && has_something_to_read && link_ == open && take_reading_role(*open);
    }
    if (reads) {
        // Also what nobody waits for, and the end of the stream.
        read_once(open, milliseconds::zero());
        const std::lock_guard lock(mutex_);
        give_up_reading_role(*open);
    }
    switch (current) {
        case state::down:
            if (clock::now() - last_attempt_ >= attempt_pause)
                connect();
            break;
        case state::connecting:
            connecting_socket_is_ready(open);
            break;
        case state::handshaking: {
            lock_type lock(mutex_);
            const bool overdue = state_ == state::handshaking && link_ == open &&
                                 clock::now() - state_since_ > handshake_limit;
            if (overdue)
                fail_attempt_locked();
            else if (link_ == open && state_ == state::handshaking)
                library_threads::instance().look_when_ready(open->socket, EPOLLIN | EPOLLRDHUP);
            break;
        }
        case state::up:
        case state::closed:
            break;
    }
}

void connection::connect() {
    last_attempt_ = clock::now();
    const int socket = where_.open_socket();
    if (socket < 0) {
        const std::lock_guard lock(mutex_);
        ++failed_attempts_;
        changed_.notify_all();
        return;
    }
    const auto open = std::make_shared<link>(socket);
    {
        const std::lock_guard lock(mutex_);
        if (state_ != state::down)
            return;
        link_ = open;
        state_ = state::connecting;
        state_since_ = clock::now();
    }
    connecting_socket_is_ready(open);
}

void connection::connecting_socket_is_ready(const std::shared_ptr<link>& open) {
    pollfd writable{open->socket, POLLOUT, 0};
    const bool is_ready = ::poll(&writable, 1, 0) > 0;
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(open->socket, SOL_SOCKET, SO_ERROR, &error, &size);
    {
        const std::lock_guard lock(mutex_);
        if (state_ != state::connecting || link_ != open)
            return;
        const bool overdue = clock::now() - state_since_ > handshake_limit;
        if (error != 0 || (!is_ready && overdue)) {
            fail_attempt_locked();
            return;
        }
    }
    if (is_ready)
        begin_handshake(open);
    else
        library_threads::instance().look_when_ready(open->socket, EPOLLOUT);
}

// The other side counts as there when it has answered something.
void connection::begin_handshake(const std::shared_ptr<link>& open) {
    json::buffer line;
    wire::write_request(line, next_id.fetch_add(1, std::memory_order_relaxed), "version",
                        [](json::writer& out) {
                            out.StartObject();
                            out.EndObject();
                        });
    const ssize_t sent =
        ::send(open->socket, line.GetString(), line.GetSize(), MSG_DONTWAIT | MSG_NOSIGNAL);
    const std::lock_guard lock(mutex_);
    if (state_ != state::connecting || link_ != open)
        return;
    if (sent != static_cast<ssize_t>(line.GetSize())) {
        fail_attempt_locked();
        return;
    }
    state_ = state::handshaking;
    state_since_ = clock::now();
    library_threads::instance().look_when_ready(open->socket, EPOLLIN | EPOLLRDHUP);
}

void connection::came_up() {
    const std::lock_guard lock(mutex_);
    if (state_ != state::handshaking)
        return;
    state_ = state::up;
    was_up_ = true;
    failed_attempts_ = 0;
    library_threads::instance().look_when_ready(link_->socket, EPOLLRDHUP);
    if (!subscriptions_.empty()) {
        renewal_is_due_ = true;
        library_threads::instance().serve_soon(shared_from_this());
    }
    library_threads::instance().raise(
        {this, false, [subscriber = connection_subscriber_, name = name_] {
             if (const auto told = subscriber.lock())
                 told->connection_established_event(name);
         }});
    changed_.notify_all();
}

void connection::raise_lost_event() {
    library_threads::instance().raise(
        {this, true, [subscriber = connection_subscriber_, name = name_] {
             if (const auto told = subscriber.lock())
                 told->connection_lost_event(name);
         }});
}

// The time of a request runs from when the one before it was answered: the
// other side answers in order, and the first may rightly take its time.
void connection::check_time_limits(lock_type& lock) {
    if (outstanding_.empty() || !link_)
        return;
    const auto limit = outstanding_.front().request->time_limit();
    if (clock::now() - front_since_ < limit)
        return;
    const auto open = link_;
    lock.unlock();
    complain(overdue_, "does not answer in time");
    break_link(open, dh_client_code::timed_out, "timed out");
    lock.lock();
}

void connection::fail_attempt_locked() {
    ::shutdown(link_->socket, SHUT_RDWR);
    link_.reset();
    state_ = state::down;
    ++failed_attempts_;
    changed_.notify_all();
}

// The code is that of the request that was next to be answered; those behind
// it have lost their connection.
void connection::break_link(const std::shared_ptr<link>& open, int code,
                            const std::string& message) {
    std::deque<outstanding> failed;
    {
        const std::lock_guard lock(mutex_);
        if (link_ != open)
            return;
        ::shutdown(open->socket, SHUT_RDWR);
        link_.reset();
        failed.swap(outstanding_);
        if (state_ == state::handshaking)
            ++failed_attempts_;
        else if (state_ == state::up)
            raise_lost_event();
        if (state_ != state::closed)
            state_ = state::down;
        // Those that wait for their listing are told that it will not come.
        std::erase_if(watches_, [](const watched_tree& w) { return w.was_listed; });
        asked_before_.clear();
    }
    bool is_front = true;
    for (const outstanding& each : failed) {
        if (std::exchange(is_front, false))
            fail_request(each.request, code, message);
        else
            fail_request(each.request, dh_client_code::connection_lost, "connection lost");
    }
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    library_threads::instance().wake_supervisor();
}
