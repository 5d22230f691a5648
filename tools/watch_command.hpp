// The command that shows events until it is interrupted.
#pragma once

#include "arguments.hpp"
#include "surroundings.hpp"

namespace tmctl {

// Gives the exit status: 1 where a path could not be subscribed, or when no
// subscription is left. Throws connection_error or request_error.
int watch(const arguments&, const surroundings&);

}  // namespace tmctl
