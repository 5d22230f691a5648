// Errors of nodes and of client calls.
#pragma once

#include <exception>
#include <string>
#include <utility>

// Raised by a node or its owner. The server hands code and message on to the
// client that made the request, unchanged.
class dh_error : public std::exception {
  public:
    dh_error(int error_code, std::string text) : code(error_code), message(std::move(text)) {}

    const char* what() const noexcept override { return message.c_str(); }

    int code;
    std::string message;
};

// Raised to the caller of a client call: either what the other side answered,
// or one of the local codes below. Deliberately no std::exception, so callers
// catch it first, then std::exception, then anything.
struct dh_client_exception {
    int code;
    std::string message;
};

// Codes of errors that the libraries add to those of nodes.
namespace dh_error_code {
inline constexpr int handler_not_available = 11;
inline constexpr int unknown = -1;
inline constexpr int no_such_path = -2;
inline constexpr int invalid_argument = -22;
inline constexpr int bad_value = -61;
inline constexpr int not_supported = -95;
}  // namespace dh_error_code

// Codes that a client raises without having asked the server.
namespace dh_client_code {
inline constexpr int bad_reply = 71;
inline constexpr int connection_lost = 104;
inline constexpr int not_connected = 107;
inline constexpr int timed_out = 110;
}  // namespace dh_client_code
