// What light meets on a fibre, and what comes back of a pulse that is sent into
// it. Plain functions of their arguments.
#pragma once

#include "optical_plant.hpp"

#include <string>
#include <vector>

namespace simulator {

inline constexpr range line_distance_range{0.0, 1'000'000.0};  // m
inline constexpr range line_loss_range{0.0, 60.0};             // dB

// A connector, a splice or a break.
struct reflector {
    double distance = 0.0;     // from the card, m
    double reflectance = 0.0;  // of what arrives, dB; negative

    friend bool operator==(const reflector&, const reflector&) = default;
};

// "1200:-35 4800:-14": distance and reflectance of each, separated by blanks.
// Returned by distance. Throws std::invalid_argument where a distance is not
// within 0 to 1,000,000, a reflectance not within -100 to 0, or where there are
// more than 64.
std::vector<reflector> parse_reflectors(const std::string& text);
std::string text_of(const std::vector<reflector>& reflectors);

// Distances in whole metres, rising, of all that is strong enough to be told
// from noise: of what reflects, and of the echoes of light that was reflected
// three times, and so seems to come from further away. `loss_per_km` is that of
// the fibre, dB.
std::vector<int> trace_of(const std::vector<reflector>& reflectors, double loss_per_km);

}  // namespace simulator
