#include "library_threads.hpp"

#include "connection.hpp"
#include "msg_log.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <exception>
#include <thread>
#include <utility>

namespace dh::client {
namespace {

// How often the supervisor looks at its connections, in milliseconds: between
// two attempts to connect, and when all stand.
constexpr int retry_pause_ms = 100;
constexpr int quiet_pause_ms = 500;

// Events of one connection that wait to be told, before they cancel each other.
constexpr std::ptrdiff_t max_waiting_of_a_connection = 32;

using ready_events = std::array<epoll_event, 16>;

int make_wake(int poll) {
    const int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.fd = wake;
    ::epoll_ctl(poll, EPOLL_CTL_ADD, wake, &interest);
    return wake;
}

void wake_up(int wake) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake, &one, sizeof one);
}

void clear(int wake) {
    std::uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t got = ::read(wake, &ignored, sizeof ignored);
}

// A socket leaves the poll by itself when it is closed.
void poll_once(int poll, int socket, std::uint32_t events) {
    epoll_event interest{};
    interest.events = events | EPOLLONESHOT;
    interest.data.fd = socket;
    if (::epoll_ctl(poll, EPOLL_CTL_MOD, socket, &interest) != 0)
        ::epoll_ctl(poll, EPOLL_CTL_ADD, socket, &interest);
}

}  // namespace

library_threads& library_threads::instance() {
    static auto* const threads = new library_threads;
    return *threads;
}

library_threads::library_threads()
    : supervisor_poll_(::epoll_create1(EPOLL_CLOEXEC)),
      supervisor_wake_(make_wake(supervisor_poll_)),
      event_poll_(::epoll_create1(EPOLL_CLOEXEC)),
      event_wake_(make_wake(event_poll_)) {
    std::thread([this] { run_supervisor(); }).detach();
    std::thread([this] { run_events(); }).detach();
    std::thread([this] { run_connection_events(); }).detach();
}

void library_threads::supervise(const std::shared_ptr<connection>& added) {
    {
        const std::lock_guard lock(mutex_);
        supervised_.push_back(added);
    }
    wake_supervisor();
}

void library_threads::wake_supervisor() {
    wake_up(supervisor_wake_);
}

void library_threads::look_when_ready(int socket, std::uint32_t events) {
    poll_once(supervisor_poll_, socket, events);
}

void library_threads::serve_when_readable(int socket, const std::shared_ptr<connection>& served) {
    {
        const std::lock_guard lock(mutex_);
        by_socket_.insert_or_assign(socket, served);
    }
    poll_once(event_poll_, socket, EPOLLIN | EPOLLRDHUP);
}

void library_threads::serve_soon(const std::shared_ptr<connection>& served) {
    {
        const std::lock_guard lock(mutex_);
        served_soon_.push_back(served);
    }
    wake_up(event_wake_);
}

void library_threads::raise(connection_event raised) {
    const std::lock_guard lock(raised_mutex_);
    const auto is_of_it = [&](const connection_event& waiting) { return waiting.of == raised.of; };
    if (raised.is_loss && std::ranges::count_if(raised_, is_of_it) >= max_waiting_of_a_connection) {
        const auto newest = std::find_if(raised_.rbegin(), raised_.rend(), is_of_it);
        if (!newest->is_loss) {
            raised_.erase(std::next(newest).base());
            return;
        }
    }
    raised_.push_back(std::move(raised));
    raised_change_.notify_one();
}

std::vector<std::shared_ptr<connection>> library_threads::supervised() {
    std::vector<std::shared_ptr<connection>> alive;
    const std::lock_guard lock(mutex_);
    std::erase_if(supervised_, [&](const std::weak_ptr<connection>& weak) {
        auto strong = weak.lock();
        if (!strong)
            return true;
        alive.push_back(std::move(strong));
        return false;
    });
    return alive;
}

void library_threads::run_supervisor() {
    int pause = quiet_pause_ms;
    for (;;) {
        ready_events ready{};
        const int count =
            ::epoll_wait(supervisor_poll_, ready.data(), static_cast<int>(ready.size()), pause);
        for (int i = 0; i < count; ++i) {
            if (ready[static_cast<std::size_t>(i)].data.fd == supervisor_wake_)
                clear(supervisor_wake_);
        }
        pause = quiet_pause_ms;
        for (const auto& each : supervised()) {
            each->supervise();
            if (each->is_down())
                pause = retry_pause_ms;
        }
    }
}

std::shared_ptr<connection> library_threads::connection_of(int socket) {
    const std::lock_guard lock(mutex_);
    const auto found = by_socket_.find(socket);
    return found == by_socket_.end() ? nullptr : found->second.lock();
}

std::vector<std::shared_ptr<connection>> library_threads::take_served_soon() {
    std::vector<std::shared_ptr<connection>> alive;
    const std::lock_guard lock(mutex_);
    for (const auto& weak : served_soon_) {
        if (auto strong = weak.lock())
            alive.push_back(std::move(strong));
    }
    served_soon_.clear();
    return alive;
}

void library_threads::run_events() {
    for (;;) {
        ready_events ready{};
        const int count =
            ::epoll_wait(event_poll_, ready.data(), static_cast<int>(ready.size()), -1);
        for (int i = 0; i < count; ++i) {
            const int socket = ready[static_cast<std::size_t>(i)].data.fd;
            if (socket == event_wake_) {
                clear(event_wake_);
                for (const auto& each : take_served_soon())
                    each->serve_events();
            } else if (const auto served = connection_of(socket)) {
                served->serve_events();
            }
        }
    }
}

void library_threads::run_connection_events() {
    for (;;) {
        connection_event event{};
        {
            std::unique_lock lock(raised_mutex_);
            raised_change_.wait(lock, [this] { return !raised_.empty(); });
            event = std::move(raised_.front());
            raised_.pop_front();
        }
        try {
            event.tell();
        } catch (const std::exception& error) {
            MSG_LOG("dh_client", msg_log::failure)
                << "msg: A connection event was not handled: " << error.what();
        }
    }
}

}  // namespace dh::client
