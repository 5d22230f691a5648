// Ranges of what hands may turn.
#pragma once

#include "dh_error.hpp"
#include "optical_plant.hpp"

#include <fmt/format.h>

namespace simulator {

// The value. Throws dh_error -22 where it is outside of the range.
inline double require_within(const range& allowed, double value) {
    if (!allowed.contains(value))
        throw dh_error(dh_error_code::invalid_argument,
                       fmt::format("{} is outside {} to {}", value, allowed.low, allowed.high));
    return value;
}

}  // namespace simulator
