// The ghosts of a trace by trying all sums one after the other: what the
// detection has to agree with, and is measured beside.
#pragma once

#include "otdr_measurement.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace test {

inline bool is_ghost_by_enumeration(std::uint32_t distance,
                                    std::span<const std::uint32_t> spacings) {
    constexpr std::uint32_t tolerance = 70;
    const std::size_t count = spacings.size();
    std::vector<std::uint32_t> times(count + 1, 0);  // a number to the base 3, and its overflow
    while (times[count] == 0) {
        std::uint32_t sum = 0;
        for (std::size_t k = 0; k < count; ++k)
            sum += times[k] * spacings[k];
        if (sum - tolerance < distance && sum + tolerance > distance)
            return true;
        std::size_t digit = 0;
        while (digit < count && times[digit] == 2)
            times[digit++] = 0;
        ++times[digit];
    }
    return false;
}

inline void mark_ghosts_by_enumeration(std::span<otdr_reflection> reflections,
                                       std::uint32_t fiber_length) {
    if (reflections.empty())
        return;
    reflections[0].is_ghost = false;
    std::size_t judged = reflections.size();
    if (fiber_length > 400) {
        for (std::size_t k = reflections.size() - 1; k >= 1; --k) {
            if (reflections[k].distance > fiber_length + 400) {
                reflections[k].is_ghost = true;
                --judged;
            }
        }
    }
    if (judged < 2)
        return;
    std::vector<std::uint32_t> spacings{reflections[0].distance};
    for (std::size_t k = 1; k < judged; ++k)
        spacings.push_back(reflections[k].distance - reflections[k - 1].distance);
    for (std::size_t k = 1; k < judged; ++k)
        reflections[k].is_ghost =
            is_ghost_by_enumeration(reflections[k].distance, std::span(spacings).first(k));
}

}  // namespace test
