// The command that shows the channels.
#pragma once

#include "arguments.hpp"
#include "surroundings.hpp"

namespace tmctl {

// Gives the exit status: 1 where a value of the traffic manager could not be
// read, or what was waited for did not come about. Throws usage_error,
// connection_error, request_error or interruption.
int channels(const arguments&, const surroundings&);

}  // namespace tmctl
