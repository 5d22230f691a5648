// A listening socket.
#pragma once

#include <string>

class listener {
  public:
    // Throws std::system_error where somebody listens on the path already, or
    // the socket cannot be made. A stale socket file is replaced.
    static listener on_unix_path(const std::string& path);
    // On the port of that interface only. Throws std::system_error where the
    // interface is not there.
    static listener on_interface(const std::string& interface, unsigned port);

    ~listener();
    listener(listener&& other) noexcept;
    listener& operator=(listener&& other) noexcept;

    int socket() const { return socket_; }
    // The next client, or -1 where none waits.
    int accept() const;

  private:
    explicit listener(int socket) : socket_(socket) {}
    [[noreturn]] void fail(const std::string& what) const;

    int socket_ = -1;
};
