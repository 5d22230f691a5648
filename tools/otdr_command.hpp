// The command that measures the reflections of the span, and shows them.
#pragma once

#include "arguments.hpp"
#include "surroundings.hpp"

namespace tmctl {

// Gives the exit status: 1 where something was refused or failed. Throws
// usage_error, connection_error, request_error or interruption.
int otdr(const arguments&, const surroundings&);

}  // namespace tmctl
