// From a measured or a stored float to a count.
#pragma once

#include <limits>

// Truncated; 0 for what is below 0 or no number, the highest for what is above it.
inline unsigned saturated_unsigned(float number) {
    constexpr unsigned highest = std::numeric_limits<unsigned>::max();
    if (!(number > 0.0F))
        return 0;
    return number < static_cast<float>(highest) ? static_cast<unsigned>(number) : highest;
}
