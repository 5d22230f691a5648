// What can be put between a server and its clients, so that the server fails as
// a real one does.
#pragma once

#include "json.hpp"

#include <string_view>

// Asked by the threads of the server that it was given to; it outlives that
// server. Errors are thrown as dh_error and go out in place of the answer.
class dh_interposer {
  public:
    virtual ~dh_interposer() = default;

    // Whether nothing goes out to clients now; it waits. Asked with locks held.
    virtual bool holds_output() const = 0;
    // Returns when the server may go on to look after its sockets. What is held
    // goes out after that.
    virtual void before_service() = 0;
    // Returns when a session may go on to execute a request.
    virtual void before_request() = 0;
    // The server ends: from now on nothing waits in the two above.
    virtual void release() = 0;

    // A write to the path that is about to be executed. May refuse it.
    virtual void before_write(std::string_view path) = 0;
    // The value of a path on its way to a client, in a reply or an event. Puts
    // another value in its place, or an error, and gives true; or gives false.
    virtual bool replace_value(std::string_view path, json::value&, json::allocator&) = 0;
};
