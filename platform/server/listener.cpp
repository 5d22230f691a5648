#include "listener.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace {

constexpr int backlog = 128;

sockaddr_un unix_address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    path.copy(address.sun_path, path.size());
    return address;
}

bool somebody_listens(const sockaddr_un& address) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0)
        return false;
    const int result =
        ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const bool answered = result == 0 || errno == EAGAIN || errno == EINPROGRESS;
    ::close(probe);
    return answered;
}

void set_option(int socket, int level, int option, int value) {
    ::setsockopt(socket, level, option, &value, sizeof value);
}

// A client whose card was pulled must not hold its session for ever.
void notice_dead_peer(int socket) {
    set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    set_option(socket, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    set_option(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

}  // namespace

listener listener::on_unix_path(const std::string& path) {
    const sockaddr_un address = unix_address(path);
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty())
        std::filesystem::create_directories(folder);
    std::error_code ignored;
    if (std::filesystem::is_socket(path, ignored)) {
        if (somebody_listens(address))
            throw std::system_error(EADDRINUSE, std::generic_category(),
                                    "somebody is listening on " + path + " already");
        ::unlink(path.c_str());
    }
    listener made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::bind(made.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(made.socket_, backlog) != 0)
        made.fail(path);
    return made;
}

listener listener::on_interface(const std::string& interface, unsigned port) {
    listener made(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    set_option(made.socket_, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    set_option(made.socket_, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_any;
    address.sin6_port = htons(static_cast<in_port_t>(port));
    if (::setsockopt(made.socket_, SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                     static_cast<socklen_t>(interface.size())) != 0 ||
        ::bind(made.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(made.socket_, backlog) != 0)
        made.fail(interface);
    return made;
}

listener::~listener() {
    if (socket_ >= 0)
        ::close(socket_);
}

listener::listener(listener&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}

listener& listener::operator=(listener&& other) noexcept {
    std::swap(socket_, other.socket_);
    return *this;
}

int listener::accept() const {
    const int client = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0)
        notice_dead_peer(client);
    return client;
}

void listener::fail(const std::string& what) const {
    throw std::system_error(errno, std::generic_category(), what);
}
