// A reflection measurement as lines for people. Plain functions of their arguments.
#pragma once

#include "json.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tmctl {

struct trace_reflection {
    std::int64_t distance;  // m
    bool is_ghost;
};

struct reflection_trace {
    std::int64_t timestamp = 0;     // s since the Unix epoch
    std::int64_t fiber_length = 0;  // m; 0 where it was not known
    std::vector<trace_reflection> reflections;
};

// What the traffic manager published; nothing where that is no measurement, or
// an empty slot.
std::optional<reflection_trace> trace_from(const json::value& measurement);

// A reflection, the one of the reference point that it stands for, or both.
struct trace_comparison {
    std::optional<trace_reflection> measured;
    std::optional<trace_reflection> reference;
};

// By distance. Each is matched once, with the nearest that is at most 70 m
// away, within which the card cannot tell two apart.
std::vector<trace_comparison> compare(const reflection_trace& measured,
                                      const reflection_trace& reference);

// A heading, and a line for each reflection; with a reference point one for
// each that is gone since, too.
std::vector<std::string> trace_table(const reflection_trace& measured,
                                     const std::optional<reflection_trace>& reference);

// The span from the card to its end, or to the furthest reflection: '|' a
// reflection, 'g' a ghost, and below it the reference point.
std::vector<std::string> trace_picture(const reflection_trace& measured,
                                       const std::optional<reflection_trace>& reference);

}  // namespace tmctl
