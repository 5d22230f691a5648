// One measurement of the span by the light that comes back from it.
#pragma once

#include "json.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// A place from which light comes back, or seems to.
struct otdr_reflection {
    std::uint32_t distance = 0;  // m
    bool is_ghost = false;       // an echo of others, or beyond the end of the fibre

    friend bool operator==(const otdr_reflection&, const otdr_reflection&) = default;
};

// Of fixed size, so that it is copied as a block.
struct otdr_measurement {
    static constexpr std::size_t max_reflections = 15;

    bool valid = false;
    std::int64_t timestamp = 0;  // s since the Unix epoch
    std::uint8_t num_of_reflections = 0;
    std::uint32_t osc_fiber_length = 0;  // m; 0 where the supervisory link was not up
    bool osc_link_up = false;
    std::array<otdr_reflection, max_reflections> reflections{};

    std::span<otdr_reflection> reported();
    std::span<const otdr_reflection> reported() const;

    friend bool operator==(const otdr_measurement&, const otdr_measurement&) = default;
};

// The measurement as clients get it and as it is stored.
json::document as_json(const otdr_measurement&);
