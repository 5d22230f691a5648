// Tells the echoes in a trace from the real reflections.
//
// Light that runs to and fro between places that reflect comes back late, as if
// from further away: the distance of an echo is a sum of spacings between
// places before it, some of them run through twice.
//
// All distances are in metres and unsigned numbers of 32 bits, as are their
// sums and differences, which wrap around. Plain functions of their arguments;
// any thread may call.
#pragma once

#include "otdr_measurement.hpp"

#include <cstdint>
#include <span>

// Whether some sum of the spacings, each taken 0, 1 or 2 times, is less than
// 70 m off the distance. Sums below 70 m do not count. At most one spacing less
// than a measurement has reflections; throws std::length_error beyond.
bool is_ghost(std::uint32_t distance, std::span<const std::uint32_t> spacings);

// Marks what is more than 400 m beyond the end of the fibre, where its length is
// known and above 400 m, and what is an echo of the reflections before it. The
// first reflection is never a ghost. At most as many reflections as a
// measurement has; throws std::length_error beyond.
void mark_ghosts(std::span<otdr_reflection> reflections, std::uint32_t fiber_length);
