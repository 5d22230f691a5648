// The three threads that all clients of the process share. They run until the
// process is gone.
#pragma once

#include "device_handler_client.hpp"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace dh::client {

using connection = device_handler_client_base::connection;

class library_threads {
  public:
    static library_threads& instance();

    // From now on the connection is supervised, for as long as it lives.
    void supervise(const std::shared_ptr<connection>&);
    // The supervisor looks at its connections at once.
    void wake_supervisor();
    // The supervisor looks at its connections when the socket has something
    // (`events` of epoll), once.
    void look_when_ready(int socket, std::uint32_t events);

    // The event thread serves the connection when its socket has something, once.
    void serve_when_readable(int socket, const std::shared_ptr<connection>&);
    // The event thread serves the connection soon.
    void serve_soon(const std::shared_ptr<connection>&);

    // A connection that came up or was lost, and how its subscriber is told.
    struct connection_event {
        const connection* of;
        bool is_loss;
        std::function<void()> tell;
    };
    // The connection thread tells of it, after those it was given before. Of a
    // connection that comes and goes faster than that can be told only the state
    // in which it is goes on to be told: a return that waits and the loss after
    // it cancel each other.
    void raise(connection_event);

  private:
    library_threads();

    void run_supervisor();
    void run_events();
    void run_connection_events();
    std::vector<std::shared_ptr<connection>> supervised();
    std::shared_ptr<connection> connection_of(int socket);
    std::vector<std::shared_ptr<connection>> take_served_soon();

    const int supervisor_poll_;
    const int supervisor_wake_;
    const int event_poll_;
    const int event_wake_;

    std::mutex mutex_;
    std::vector<std::weak_ptr<connection>> supervised_;
    std::unordered_map<int, std::weak_ptr<connection>> by_socket_;
    std::vector<std::weak_ptr<connection>> served_soon_;

    std::mutex raised_mutex_;
    std::condition_variable raised_change_;
    std::deque<connection_event> raised_;
};

}  // namespace dh::client
