// What a command talks to besides the server.
#pragma once

#include <functional>
#include <ostream>

namespace tmctl {

struct terminal_size {
    std::size_t rows;
    std::size_t columns;
};

struct surroundings {
    std::ostream& out;
    std::ostream& err;
    int interrupt = -1;                         // becomes readable when the user wants to stop
    bool has_colours = false;                   // whether `out` shows them
    std::function<terminal_size()> terminal{};  // empty where `out` is no terminal
};

}  // namespace tmctl
