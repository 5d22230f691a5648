// The commands that ask once and end. Each gives its exit status, and throws
// usage_error, connection_error, request_error or interruption.
#pragma once

#include "arguments.hpp"
#include "surroundings.hpp"

namespace tmctl {

int get(const arguments&, const surroundings&);
int set(const arguments&, const surroundings&);
int run_node(const arguments&, const surroundings&);
int list(const arguments&, const surroundings&);
int info(const arguments&, const surroundings&);
int history(const arguments&, const surroundings&);
int version(const arguments&, const surroundings&);

}  // namespace tmctl
