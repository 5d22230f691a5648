// A client that knows sockets and lines only, so that a test sees the wire as it is.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace test {

class raw_client {
  public:
    using clock = std::chrono::steady_clock;

    // Above what a slow machine takes; only a test that has failed waits for it.
    static constexpr std::chrono::seconds bound{60};

    explicit raw_client(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), path);
    }
    ~raw_client() { close(); }
    raw_client(const raw_client&) = delete;
    raw_client& operator=(const raw_client&) = delete;

    // Sends all of it, waiting where the other side does not read. False where
    // the other side has gone or takes nothing within the bound.
    bool send(std::string_view bytes) {
        const auto end = clock::now() + bound;
        while (!bytes.empty()) {
            const std::size_t sent = send_now(bytes);
            bytes.remove_prefix(sent);
            if (sent == 0 && (!may_send_ || !wait(POLLOUT, end)))
                return false;
        }
        return true;
    }

    // Sends what the socket takes at once; gives how many bytes that were.
    std::size_t send_now(std::string_view bytes) {
        const ssize_t sent =
            ::send(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        may_send_ = sent >= 0 || errno == EAGAIN;
        return sent > 0 ? static_cast<std::size_t>(sent) : 0;
    }

    bool send_line(std::string_view line) { return send(std::string(line) + "\n"); }

    // The next line without its LF; nothing where the other side has closed or
    // the bound has passed.
    std::optional<std::string> read_line() {
        const auto end = clock::now() + bound;
        for (;;) {
            if (const auto found = received_.find('\n', scanned_); found != std::string::npos) {
                std::string line = received_.substr(0, found);
                received_.erase(0, found + 1);
                scanned_ = 0;
                return line;
            }
            scanned_ = received_.size();
            if (!receive(end))
                return std::nullopt;
        }
    }

    // Sends the line and gives the next one that comes.
    std::string ask(std::string_view line) {
        send_line(line);
        return read_line().value_or("(no answer)");
    }

    // Whether the other side closes within the bound; what it still sends is
    // passed over.
    bool is_closed_by_peer() {
        const auto end = clock::now() + bound;
        while (receive(end))
            received_.clear();
        return at_end_;
    }

    // Whether something has arrived that was not read yet.
    bool has_arrived() const {
        pollfd readable{socket_, POLLIN, 0};
        return !received_.empty() || ::poll(&readable, 1, 0) > 0;
    }

    void half_close() { ::shutdown(socket_, SHUT_WR); }
    void close() {
        if (socket_ >= 0)
            ::close(socket_);
        socket_ = -1;
    }

  private:
    bool wait(short events, clock::time_point end) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now());
        pollfd ready{socket_, events, 0};
        return left.count() > 0 && ::poll(&ready, 1, static_cast<int>(left.count())) > 0;
    }

    bool receive(clock::time_point end) {
        char buffer[65536];
        if (!wait(POLLIN, end))
            return false;
        const ssize_t got = ::recv(socket_, buffer, sizeof buffer, 0);
        at_end_ = got <= 0;
        if (got > 0)
            received_.append(buffer, static_cast<std::size_t>(got));
        return got > 0;
    }

    int socket_;
    bool may_send_ = true;
    bool at_end_ = false;
    std::string received_;
    std::size_t scanned_ = 0;
};

}  // namespace test
