// The server side of the library: a tree of nodes, and the sockets on which
// clients reach it.
#pragma once

#include "dh_db.hpp"
#include "dh_interposer.hpp"

#include <memory>
#include <string>

// Bounds of one server. The defaults are those of the protocol.
struct server_limits {
    std::size_t sessions = 64;                        // of all its sockets together
    std::size_t unread_bytes = std::size_t{4} << 20;  // that a session leaves unread
};

// Serves a tree from its constructor on. A session's requests run in order on
// a thread of the session's own; sessions do not wait for each other.
class dh_server {
  public:
    // `name` is what the method `version` answers. Throws std::system_error
    // where somebody is listening on the unix path already; a stale socket file
    // is replaced, and missing folders are made. The path is taken as it is.
    // Where there is an interposer, it outlives the server.
    dh_server(std::string name, const std::string& unix_path, server_limits limits = {},
              dh_interposer* interposer = nullptr);
    ~dh_server();
    dh_server(const dh_server&) = delete;
    dh_server& operator=(const dh_server&) = delete;

    dh_db& db();

    // Listens on the port of that interface only. Where the interface is not
    // there, logs it at severity 3 and tries again every 5 seconds.
    void listen_on_interface(const std::string& interface, unsigned port);

    // Tells all subscribers that the server ends, and gives up the unix path.
    void announce_end();

    // Closes all sockets without a word and gives up the unix path, as the end
    // of a process that was killed does. Nothing is left then but to destroy.
    void break_off();

    class implementation;

  private:
    dh_db db_;  // before the sessions, which use it
    std::unique_ptr<implementation> implementation_;
};

// The server of a daemon process: takes SIGTERM and SIGINT as the end.
class device_handler_api {
  public:
    // Blocks SIGTERM and SIGINT for the process, so make it before any other
    // thread. A signal before `start` ends the process with status 0. Throws as dh_server does. The
    // third argument has no meaning here.
    device_handler_api(const std::string& unix_path, unsigned port, bool);
    ~device_handler_api();
    device_handler_api(const device_handler_api&) = delete;
    device_handler_api& operator=(const device_handler_api&) = delete;

    dh_db& db() { return server_.db(); }

    // Listens on the port given to the constructor, on this interface only.
    void start_ipv6_socket(std::string interface);

    // Runs until SIGTERM or SIGINT.
    void start();

  private:
    class termination;

    const unsigned port_;
    std::unique_ptr<termination> termination_;
    dh_server server_;
};
