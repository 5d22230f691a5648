// A blocking connection to one device handler, for a program of one thread.
#pragma once

#include "json.hpp"
#include "wire.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tmctl {

// Where a server listens: the path of a unix socket, or an address and a port.
struct endpoint {
    std::string socket = {};
    std::string host = {};
    unsigned port = 0;
};

// For people.
std::string description(const endpoint&);

// There is no connection, or none any more that could be used.
struct connection_error {
    std::string text;
};

// The server refused a request as a whole, or answered what does not fit it.
struct request_error {
    int code;
    std::string message;
};

// The user wants to stop.
struct interruption {};

class file_descriptor {
  public:
    explicit file_descriptor(int number) : number_(number) {}
    file_descriptor(file_descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    ~file_descriptor();

    int get() const { return number_; }

  private:
    int number_;  // -1: none
};

// Time limits are in real time. A descriptor `interrupt` that becomes readable
// ends any wait with an interruption; -1 is none.
class handler_connection {
  public:
    using clock = std::chrono::steady_clock;
    // Gets the params of an event. They live as long as the call.
    using event_handler = std::function<void(const json::value& params)>;
    using params_writer = std::function<void(json::writer&)>;

    static constexpr std::chrono::seconds reply_limit{10};
    static constexpr std::chrono::seconds run_limit{300};

    // Throws connection_error, at once where nobody listens.
    handler_connection(const endpoint& server, int interrupt, event_handler on_event = {});

    // Sends a request and waits for its result. Events that come meanwhile are
    // handled. Throws request_error, connection_error or interruption.
    json::document call(const char* method, const params_writer& params,
                        std::chrono::seconds limit = reply_limit);

    // Waits for events on the connections and handles them, until the end.
    // Throws connection_error or interruption.
    static void follow(std::initializer_list<handler_connection*> connections,
                       clock::time_point end, int interrupt);

  private:
    void send(std::string_view line, clock::time_point end);
    void receive();
    // Handles the lines that have come; true once the reply stands in `reply_`.
    bool process_lines();
    bool process(std::string_view line);
    bool take_reply(json::document& message);
    [[noreturn]] void fail(const std::string& why) const;

    const std::string where_;
    const int interrupt_;
    const event_handler on_event_;
    const file_descriptor socket_;
    wire::line_splitter lines_{wire::max_reply_line};
    std::uint64_t last_id_ = 0;
    bool awaiting_reply_ = false;
    json::document reply_;
};

}  // namespace tmctl
