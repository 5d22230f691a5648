// The ghosts of 15 reflections that are none, the most work that a trace can
// give: our detection beside the plain enumeration of all sums.
#include "ghost_detection.hpp"
#include "ghost_enumeration.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <random>

namespace {

using trace = std::array<otdr_reflection, otdr_measurement::max_reflections>;

constexpr std::size_t rounds = 10;
constexpr double wanted_ratio = 200.0;

bool has_ghosts(trace judged) {
    mark_ghosts(judged, 0);
    return std::any_of(judged.begin(), judged.end(),
                       [](const otdr_reflection& each) { return each.is_ghost; });
}

// Each further away than all sums of the spacings before it.
trace doubling() {
    trace made{};
    std::uint32_t distance = 1000;
    for (otdr_reflection& each : made) {
        each.distance = distance;
        distance = 2 * distance + 100;
    }
    return made;
}

// Anywhere within the numbers, so that sums stand in no order.
trace scattered() {
    std::mt19937 random(15);
    std::uniform_int_distribution<std::uint32_t> anywhere;
    trace made{};
    do {
        for (otdr_reflection& each : made)
            each.distance = anywhere(random);
    } while (has_ghosts(made));
    return made;
}

bool compare(const char* what, const trace& judged) {
    trace ours = judged;
    trace enumerated = judged;
    const auto measured = bench::side_by_side(
        rounds, 1, [&] { mark_ghosts(ours, 0); },
        [&] { test::mark_ghosts_by_enumeration(enumerated, 0); });
    const double ours_us = bench::percentile(measured.ours, 0.5);
    const double enumerated_us = bench::percentile(measured.limit, 0.5);
    const double ratio = enumerated_us / ours_us;
    std::printf("%-36s %10.1f %12.1f %10.0f  at least %.0f\n", what, ours_us, enumerated_us, ratio,
                wanted_ratio);
    return ours == enumerated && !has_ghosts(judged) && ratio >= wanted_ratio;
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    std::printf("%-36s %10s %12s %10s  %s\n", "15 reflections, no ghosts, p50 us", "ours",
                "enumeration", "faster by", "wanted");
    const bool doubling_is_fast = compare("distances that double", doubling());
    const bool scattered_is_fast = compare("distances anywhere in 32 bits", scattered());
    return doubling_is_fast && scattered_is_fast ? 0 : 1;
}
