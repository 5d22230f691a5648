#include "outbox.hpp"

#include <sys/socket.h>
#include <cerrno>
#include <string>
#include <unordered_set>
#include <utility>

outbox::outbox(int socket, std::size_t limit, std::function<void()> await_writable,
               const dh_interposer* interposer)
    : socket_(socket),
      limit_(limit),
      await_writable_(std::move(await_writable)),
      interposer_(interposer) {}

void outbox::push_value_event(const std::string& path, std::shared_ptr<const std::string> line) {
    const std::lock_guard lock(mutex_);
    if (!send_at_once(*line))
        push_event_locked({kind::value_event, path, std::move(line)});
}

void outbox::push_event(std::shared_ptr<const std::string> line) {
    const std::lock_guard lock(mutex_);
    if (!send_at_once(*line))
        push_event_locked({kind::event, {}, std::move(line)});
}

// False where the line has to wait; what has gone of it is counted then.
bool outbox::send_at_once(std::string_view line) {
    if (broken_)
        return true;
    const std::size_t sent = waiting_.empty() ? send_some(line) : 0;
    if (sent == line.size() || broken_)
        return true;
    front_sent_ += sent;
    return false;
}

void outbox::push_reply(std::string_view line) {
    const std::lock_guard lock(mutex_);
    if (broken_)
        return;
    if (waiting_.empty())
        line.remove_prefix(send_some(line));
    if (!line.empty() && !broken_)
        keep({kind::reply, {}, std::make_shared<const std::string>(line)});
}

void outbox::push_event_locked(entry&& waiting) {
    keep(std::move(waiting));
    if (event_bytes_ <= limit_)
        return;
    keep_only_newest_values();
    if (event_bytes_ > limit_)
        break_locked();
}

std::size_t outbox::send_some(std::string_view bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size() && !is_held()) {
        const ssize_t result =
            ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
        } else if (errno != EINTR) {
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                break_locked();
            break;
        }
    }
    sent_total_ += sent;
    return sent;
}

void outbox::flush() {
    const std::lock_guard lock(mutex_);
    if (broken_)
        return;
    send_waiting();
    if (!waiting_.empty() && !broken_)
        await_writable_();
    progress_.notify_all();
}

void outbox::send_waiting() {
    while (!waiting_.empty() && !broken_) {
        const std::string_view line = *waiting_.front().line;
        front_sent_ += send_some(line.substr(front_sent_));
        if (broken_ || front_sent_ < line.size())
            return;
        bytes_of(waiting_.front()) -= line.size();
        waiting_.pop_front();
        front_sent_ = 0;
    }
}

void outbox::keep(entry&& waiting) {
    const bool first = waiting_.empty();
    bytes_of(waiting) += waiting.line->size();
    waiting_.push_back(std::move(waiting));
    if (first)
        await_writable_();
}

void outbox::keep_only_newest_values() {
    std::unordered_set<std::string> newer;
    std::deque<entry> kept;
    while (!waiting_.empty()) {
        entry& last = waiting_.back();
        const bool is_partly_sent = waiting_.size() == 1 && front_sent_ > 0;
        const bool stays = last.what != kind::value_event || newer.insert(last.path).second;
        if (stays || is_partly_sent)
            kept.push_front(std::move(last));
        else
            event_bytes_ -= last.line->size();
        waiting_.pop_back();
    }
    waiting_ = std::move(kept);
}

bool outbox::wait_for_client(bool all, std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    const auto ready = [&] { return broken_ || (all ? waiting_.empty() : reply_bytes_ <= limit_); };
    while (!ready()) {
        const std::uint64_t sent_before = sent_total_;
        const bool moved = progress_.wait_for(
            lock, patience, [&] { return ready() || sent_total_ != sent_before; });
        if (!moved && !is_held())
            break_locked();
    }
    return !broken_;
}

void outbox::break_off() {
    const std::lock_guard lock(mutex_);
    break_locked();
}

void outbox::break_locked() {
    if (broken_)
        return;
    broken_ = true;
    ::shutdown(socket_, SHUT_RDWR);
    if (!waiting_.empty()) {
        waiting_.clear();
        front_sent_ = reply_bytes_ = event_bytes_ = 0;
    }
    progress_.notify_all();
}
