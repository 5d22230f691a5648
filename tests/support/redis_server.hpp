// A key-value store run by a test.
#pragma once

#include "eventually.hpp"
#include "process.hpp"
#include "test_root.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

// Empty, on the socket where the daemon looks for it by default and on a port
// of the loopback interface, from the constructor on.
class redis_server {
  public:
    redis_server() {
        std::filesystem::create_directories(std::filesystem::path(socket_).parent_path());
        start();
    }

    std::string tcp_address() const { return "127.0.0.1:" + std::to_string(port_); }

    // Runs again after `kill`, with nothing in it.
    void start() {
        process_.emplace(
            program,
            std::vector<std::string>{"--bind", "127.0.0.1", "--port", std::to_string(port_),
                                     "--unixsocket", socket_, "--save", "", "--dir", root()},
            process::environment(), root());
        if (!eventually([this] { return succeeds({"PING"}); }))
            throw std::runtime_error("no redis-server: " + process_->standard_output());
    }

    void kill() {
        process_.reset();
        std::filesystem::remove(socket_);
    }

    // Takes connections from now on, and answers nothing.
    void freeze() const { process_->signal(SIGSTOP); }
    void thaw() const { process_->signal(SIGCONT); }

    void set(const std::string& key, const std::string& value) { run({"SET", key, value}); }
    void remove(const std::string& key) { run({"DEL", key}); }

    // A command of the store.
    void run(const std::vector<std::string>& words) {
        if (!succeeds(words))
            throw std::runtime_error("redis-cli failed at " + words.front());
    }

  private:
    static constexpr const char* program = "/usr/bin/redis-server";

    static unsigned free_port() {
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        const bool is_bound =
            ::bind(socket, generic, size) == 0 && ::getsockname(socket, generic, &size) == 0;
        ::close(socket);
        if (!is_bound)
            throw std::runtime_error("no free port");
        return ntohs(address.sin_port);
    }

    // With the status that tells an error of the store too.
    bool succeeds(std::vector<std::string> words) const {
        words.insert(words.begin(), {"-e", "-s", socket_});
        process client("/usr/bin/redis-cli", words, {}, root());
        return client.end() == exited_with(0);
    }

    const std::string socket_ = root() + "/var/run/redis/redis.sock";
    const unsigned port_ = free_port();
    std::optional<process> process_;
};

}  // namespace test
