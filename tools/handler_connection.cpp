#include "handler_connection.hpp"

#include "dh_error.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <vector>

namespace tmctl {
namespace {

using clock = handler_connection::clock;

std::string error_text(int error) {
    return std::generic_category().message(error);
}

int poll_timeout(clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
    constexpr std::int64_t longest = 60'000;  // who waits longer asks again
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, longest));
}

// The first of `waiting` is the interrupt. False when the time is over.
bool wait(std::vector<pollfd>& waiting, clock::time_point end) {
    for (;;) {
        const int ready = poll(waiting.data(), waiting.size(), poll_timeout(end));
        if (ready < 0 && errno != EINTR)
            throw connection_error{"poll: " + error_text(errno)};
        if (ready > 0 && waiting.front().revents != 0)
            throw interruption{};
        if (ready > 0)
            return true;
        if (clock::now() >= end)
            return false;
    }
}

bool wait_for(int socket, short events, int interrupt, clock::time_point end) {
    std::vector<pollfd> waiting{{interrupt, POLLIN, 0}, {socket, events, 0}};
    return wait(waiting, end);
}

[[noreturn]] void fail_to_connect(int error) {
    throw connection_error{"not connected: " + error_text(error)};
}

file_descriptor connected_socket(int family, const sockaddr* address, socklen_t size,
                                 int interrupt) {
    file_descriptor socket(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.get() < 0)
        fail_to_connect(errno);
    if (connect(socket.get(), address, size) == 0)
        return socket;
    if (errno != EINPROGRESS)
        fail_to_connect(errno);
    if (!wait_for(socket.get(), POLLOUT, interrupt, clock::now() + handler_connection::reply_limit))
        fail_to_connect(ETIMEDOUT);
    int error = 0;
    socklen_t error_size = sizeof error;
    getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &error_size);
    if (error != 0)
        fail_to_connect(error);
    return socket;
}

file_descriptor connected_unix_socket(const std::string& path, int interrupt) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        fail_to_connect(ENAMETOOLONG);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return connected_socket(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address,
                            interrupt);
}

file_descriptor connected_ipv6_socket(const endpoint& server, int interrupt) {
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const std::string port = std::to_string(server.port);
    if (const int error = getaddrinfo(server.host.c_str(), port.c_str(), &hints, &list); error != 0)
        throw connection_error{std::string("not connected: ") + gai_strerror(error)};
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> found(list, &freeaddrinfo);
    return connected_socket(AF_INET6, found->ai_addr, found->ai_addrlen, interrupt);
}

file_descriptor connected_socket_of(const endpoint& server, int interrupt) {
    try {
        return server.host.empty() ? connected_unix_socket(server.socket, interrupt)
                                   : connected_ipv6_socket(server, interrupt);
    } catch (const connection_error& error) {
        throw connection_error{description(server) + ": " + error.text};
    }
}

int int_or(const json::value* value, int fallback) {
    return value != nullptr && value->IsInt() ? value->GetInt() : fallback;
}

request_error as_request_error(const json::value& error) {
    const json::value* message = json::find(error, "message");
    return {int_or(json::find(error, "code"), dh_error_code::unknown),
            message != nullptr ? json::to<std::string>(*message) : "no message"};
}

}  // namespace

std::string description(const endpoint& server) {
    return server.host.empty() ? server.socket
                               : "[" + server.host + "]:" + std::to_string(server.port);
}

file_descriptor::~file_descriptor() {
    if (number_ >= 0)
        close(number_);
}

handler_connection::handler_connection(const endpoint& server, int interrupt,
                                       event_handler on_event)
    : where_(description(server)),
      interrupt_(interrupt),
      on_event_(std::move(on_event)),
      socket_(connected_socket_of(server, interrupt)) {}

json::document handler_connection::call(const char* method, const params_writer& params,
                                        std::chrono::seconds limit) {
    const clock::time_point end = clock::now() + limit;
    json::buffer line;
    wire::write_request(line, ++last_id_, method, params);
    if (line.GetSize() > wire::max_request_line)
        throw request_error{wire::error_code::not_a_request, "the request is over 1 MiB"};
    send({line.GetString(), line.GetSize()}, end);
    awaiting_reply_ = true;
    while (!process_lines()) {
        if (!wait_for(socket_.get(), POLLIN, interrupt_, end) || clock::now() >= end)
            fail("timed out");
        receive();
    }
    return std::move(reply_);
}

void handler_connection::follow(std::initializer_list<handler_connection*> connections,
                                clock::time_point end, int interrupt) {
    std::vector<pollfd> waiting{{interrupt, POLLIN, 0}};
    for (const handler_connection* connection : connections)
        waiting.push_back({connection->socket_.get(), POLLIN, 0});
    do {
        // What came along with an earlier reply has not been handled yet.
        for (handler_connection* connection : connections)
            connection->process_lines();
        if (!wait(waiting, end))
            return;
        for (std::size_t i = 0; i < connections.size(); ++i) {
            if (waiting[i + 1].revents != 0)
                connections.begin()[i]->receive();
        }
    } while (clock::now() < end);
}

void handler_connection::send(std::string_view line, clock::time_point end) {
    while (!line.empty()) {
        if (!wait_for(socket_.get(), POLLOUT, interrupt_, end))
            fail("timed out");
        const ssize_t sent = ::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            line.remove_prefix(static_cast<std::size_t>(sent));
        else if (errno == EPIPE || errno == ECONNRESET)
            return;  // the server may have told why before it hung up
        else if (errno != EAGAIN && errno != EINTR)
            fail("connection lost: " + error_text(errno));
    }
}

void handler_connection::receive() {
    constexpr std::size_t chunk = std::size_t{64} << 10;
    char* const room = lines_.room(chunk);
    const ssize_t got = recv(socket_.get(), room, lines_.room_size(), 0);
    if (got > 0)
        lines_.filled(static_cast<std::size_t>(got));
    else if (got == 0)
        fail("connection lost");
    else if (errno != EAGAIN && errno != EINTR)
        fail("connection lost: " + error_text(errno));
}

bool handler_connection::process_lines() {
    while (const auto line = lines_.next()) {
        if (process(*line))
            return true;
    }
    if (lines_.too_long())
        fail("bad reply: a line over 16 MiB");
    return false;
}

bool handler_connection::process(std::string_view line) {
    json::document message;
    if (!wire::parse(line, message))
        fail("bad reply: a line that is not JSON");
    const json::value* method = json::find(message, "method");
    if (method == nullptr)
        return take_reply(message);
    const json::value* params = json::find(message, "params");
    const bool is_event = method->IsString() && std::string_view("event") == method->GetString();
    if (is_event && params != nullptr && params->IsObject() && on_event_)
        on_event_(*params);
    return false;
}

bool handler_connection::take_reply(json::document& message) {
    const json::value* id = json::find(message, "id");
    const json::value* error = json::find(message, "error");
    const bool of_nothing = id == nullptr || id->IsNull();
    const bool of_request = !of_nothing && id->IsUint64() && id->GetUint64() == last_id_;
    if (!of_nothing && !(of_request && awaiting_reply_))
        fail("bad reply: to a request that was not made");
    awaiting_reply_ = false;
    if (error != nullptr) {
        const request_error refusal = as_request_error(*error);
        if (refusal.code == wire::error_code::too_many_sessions)
            fail("not connected: " + refusal.message);
        throw refusal;
    }
    // What has an id is an object.
    if (of_nothing || !message.HasMember("result"))
        fail("bad reply: without id or result");
    json::value found(std::move(message["result"]));
    static_cast<json::value&>(message).Swap(found);
    reply_.Swap(message);
    return true;
}

void handler_connection::fail(const std::string& why) const {
    throw connection_error{where_ + ": " + why};
}

}  // namespace tmctl
