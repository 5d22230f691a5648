// The command line client of the card's device handlers.
#pragma once

#include "surroundings.hpp"

#include <string>
#include <vector>

namespace tmctl {

namespace exit_status {
inline constexpr int done = 0;
inline constexpr int failed = 1;  // something was refused, or did not come about
inline constexpr int usage = 2;
inline constexpr int not_connected = 3;
inline constexpr int interrupted = 130;  // by the user, before it was done
}  // namespace exit_status

// Runs the command line, without the program's name; gives the exit status.
int run(const std::vector<std::string>& words, const surroundings&);

}  // namespace tmctl
