// Ports for the servers of a test.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

// A port of TCP over IPv6 that nobody listens on.
inline unsigned free_port() {
    const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(socket);
    return ntohs(address.sin6_port);
}

}  // namespace test
