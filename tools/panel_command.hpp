// The command that draws the front panel.
#pragma once

#include "arguments.hpp"
#include "surroundings.hpp"

namespace tmctl {

// Gives the exit status: 1 where the colour of an LED could not be read. Throws
// connection_error, request_error or interruption.
int panel(const arguments&, const surroundings&);

}  // namespace tmctl
