// A server whose answers a test makes up byte by byte: broken ones too.
#pragma once

#include "json.hpp"
#include "wire.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace test {

class line_server {
  public:
    // One request as it came.
    struct request {
        std::string id;  // as JSON text
        std::string method;
        std::string params;  // as JSON text
    };
    // Bytes to send in answer. Called by one thread for each connection.
    using answer = std::function<std::string(const request&)>;

    // An answer that closes the connection instead.
    static inline const std::string hang_up = "hang up";

    static std::string reply(const request& asked, const std::string& result) {
        return R"({"jsonrpc":"2.0","id":)" + asked.id + R"(,"result":)" + result + "}\n";
    }
    static std::string unknown_method(const request& asked) {
        return R"({"jsonrpc":"2.0","id":)" + asked.id +
               R"(,"error":{"code":-32601,"message":"unknown method"}})"
               "\n";
    }

    line_server(std::string path, answer function)
        : path_(std::move(path)), answer_(std::move(function)) {
        ::unlink(path_.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0)
            throw std::system_error(errno, std::generic_category(), path_);
        acceptor_ = std::thread([this] { accept_connections(); });
    }
    ~line_server() {
        ::shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        ::close(listener_);
        drop_connections();
        for (std::thread& thread : threads_)
            thread.join();
        for (const int socket : sockets_)
            ::close(socket);
        ::unlink(path_.c_str());
    }
    line_server(const line_server&) = delete;
    line_server& operator=(const line_server&) = delete;

    void drop_connections() {
        const std::lock_guard lock(mutex_);
        for (const int socket : sockets_)
            ::shutdown(socket, SHUT_RDWR);
    }

    std::size_t accepted_connections() const {
        const std::lock_guard lock(mutex_);
        return sockets_.size();
    }

  private:
    void accept_connections() {
        for (;;) {
            const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket < 0)
                return;
            const std::lock_guard lock(mutex_);
            sockets_.push_back(socket);
            threads_.emplace_back([this, socket] { serve(socket); });
        }
    }

    void serve(int socket) const {
        wire::line_splitter lines(wire::max_request_line);
        for (;;) {
            char* const room = lines.room(4096);
            const ssize_t got = ::recv(socket, room, lines.room_size(), 0);
            if (got <= 0)
                return;
            lines.filled(static_cast<std::size_t>(got));
            while (const auto line = lines.next()) {
                if (!answer_line(socket, *line))
                    return;
            }
        }
    }

    bool answer_line(int socket, std::string_view line) const {
        json::document parsed;
        wire::parse(line, parsed);
        const std::string bytes =
            answer_({json::to_text(parsed["id"]), parsed["method"].GetString(),
                     json::to_text(parsed["params"])});
        if (bytes == hang_up) {
            ::shutdown(socket, SHUT_RDWR);
            return false;
        }
        std::string_view rest = bytes;
        while (!rest.empty()) {
            const ssize_t sent = ::send(socket, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            rest.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    const std::string path_;
    const answer answer_;
    int listener_ = -1;
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::vector<int> sockets_;
    std::vector<std::thread> threads_;
};

}  // namespace test
