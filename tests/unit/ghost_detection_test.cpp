#include "ghost_detection.hpp"
#include "ghost_enumeration.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using distances = std::vector<std::uint32_t>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned differential_cases = 5'000;
#else
constexpr unsigned differential_cases = 100'000;
#endif

std::vector<otdr_reflection> trace_of(const distances& places) {
    std::vector<otdr_reflection> trace;
    for (const std::uint32_t distance : places)
        trace.push_back({distance, false});
    return trace;
}

std::vector<bool> ghosts_of(const distances& places, std::uint32_t fiber_length = 0) {
    auto trace = trace_of(places);
    mark_ghosts(trace, fiber_length);
    std::vector<bool> ghosts;
    for (const otdr_reflection& each : trace)
        ghosts.push_back(each.is_ghost);
    return ghosts;
}

TEST(GhostDetection, NothingInATraceWithoutReflections) {
    EXPECT_THAT(ghosts_of({}), ElementsAre());
}

TEST(GhostDetection, FirstReflectionIsNeverAGhost) {
    EXPECT_THAT(ghosts_of({1000}), ElementsAre(false));
    EXPECT_THAT(ghosts_of({90'000}, 1000), ElementsAre(false));
    std::vector<otdr_reflection> marked{{1000, true}};
    mark_ghosts(marked, 0);
    EXPECT_FALSE(marked[0].is_ghost);
}

TEST(GhostDetection, MultiplesOfTheFirstDistanceAreGhosts) {
    EXPECT_THAT(ghosts_of({1000, 2000, 3000}), ElementsAre(false, true, true));
}

TEST(GhostDetection, SpacingTakenThreeTimesIsNoGhost) {
    EXPECT_THAT(ghosts_of({1000, 3000}), ElementsAre(false, false));
}

TEST(GhostDetection, ToleranceIsExclusiveOnBothSides) {
    EXPECT_THAT(ghosts_of({1000, 1070}), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 1069}), ElementsAre(false, true));
    EXPECT_THAT(ghosts_of({1000, 930}), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 931}), ElementsAre(false, true));
    EXPECT_THAT(ghosts_of({1000, 2070}), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 2069}), ElementsAre(false, true));
}

TEST(GhostDetection, BeyondTheEndIsOffUpToAFiberOfFourHundredMetres) {
    EXPECT_THAT(ghosts_of({1000, 50'000}, 0), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 50'000}, 400), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 50'000}, 401), ElementsAre(false, true));
}

TEST(GhostDetection, MoreThanFourHundredMetresBeyondTheEndIsAGhost) {
    EXPECT_THAT(ghosts_of({1000, 10'400}, 10'000), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({1000, 10'401}, 10'000), ElementsAre(false, true));
    EXPECT_THAT(ghosts_of({10'401, 15'000}, 10'000), ElementsAre(false, true));
}

TEST(GhostDetection, EachReflectionBeyondTheEndIsJudgedByItself) {
    // The last one is within the fibre and does not end the search.
    EXPECT_THAT(ghosts_of({1000, 20'000, 30'000, 5000}, 10'000),
                ElementsAre(false, false, true, false));
    // Two are beyond the end, so echoes are looked for in the first two only,
    // and that takes back what the end had said of the second.
    EXPECT_THAT(ghosts_of({1000, 20'000, 30'000, 2000}, 10'000),
                ElementsAre(false, false, true, false));
}

TEST(GhostDetection, AllButTheFirstBeyondTheEndLeavesNothingToSearch) {
    EXPECT_THAT(ghosts_of({1000, 20'000, 2000'000}, 10'000), ElementsAre(false, true, true));
}

TEST(GhostDetection, SumsBelowTheToleranceDoNotCount) {
    EXPECT_FALSE(is_ghost(10, distances{}));
    EXPECT_FALSE(is_ghost(0, distances{0, 0}));
    EXPECT_FALSE(is_ghost(40, distances{34}));  // 34 and 68
    EXPECT_TRUE(is_ghost(40, distances{35}));   // 70
    EXPECT_FALSE(is_ghost(0, distances{35}));
    EXPECT_TRUE(is_ghost(1, distances{35}));
}

TEST(GhostDetection, SumsWrapAroundAtThirtyTwoBits) {
    constexpr std::uint32_t half = std::uint32_t{1} << 31;
    EXPECT_TRUE(is_ghost(1000, distances{half, 500}));  // 2 x 500
    EXPECT_TRUE(is_ghost(2000, distances{half + 1000}));
    EXPECT_TRUE(is_ghost(900, distances{5000, 0U - 4100U}));
    EXPECT_THAT(ghosts_of({5000, 900}), ElementsAre(false, false));
    EXPECT_THAT(ghosts_of({5000, 900, 900}), ElementsAre(false, false, true));
}

TEST(GhostDetection, SumsThatWrapAroundWithTheToleranceDoNotCount) {
    constexpr std::uint32_t highest = std::numeric_limits<std::uint32_t>::max();
    EXPECT_TRUE(is_ghost(highest - 1, distances{highest - 70}));
    EXPECT_FALSE(is_ghost(highest, distances{highest - 70}));
    EXPECT_FALSE(is_ghost(highest - 69, distances{highest - 69}));
    EXPECT_FALSE(is_ghost(highest, distances{highest}));
}

TEST(GhostDetection, MoreSpacingsThanAMeasurementHasAreRefused) {
    EXPECT_FALSE(is_ghost(1, distances(14, 1000)));
    EXPECT_THROW(is_ghost(1, distances(15, 1000)), std::length_error);
}

// --- beside the plain enumeration ---

// Traces of all the kinds that a search may get wrong.
class trace_source {
  public:
    struct sample {
        distances places;
        std::uint32_t fiber_length;
    };

    sample next() {
        // Most are short: the enumeration takes three times as long for each
        // further reflection.
        const std::size_t count = number(0, 499) == 0 ? number(9, 13) : number(0, 8);
        distances places = places_of(count);
        return {places, fiber_length_for(places)};
    }

    distances of_equal_spacings(std::size_t count) {
        return growing(count,
                       [this, spacing = number(1, 20'000)] { return spacing + number(0, 2) * 35; });
    }

    std::uint32_t number(std::uint32_t lowest, std::uint32_t most) {
        return std::uniform_int_distribution<std::uint32_t>(lowest, most)(random_);
    }

  private:
    template <class Spacing>
    static distances growing(std::size_t count, const Spacing& spacing) {
        distances places;
        std::uint32_t place = 0;
        for (std::size_t i = 0; i < count; ++i)
            places.push_back(place += spacing());
        return places;
    }

    distances places_of(std::size_t count) {
        switch (number(0, 8)) {
            case 0:
                return growing(count, [this] { return number(1, 20'000); });
            case 1:
                return of_equal_spacings(count);
            case 2:  // spacings below the tolerance
                return growing(count, [this] { return number(0, 75); });
            case 3:  // sums around 2^32
                return growing(count,
                               [this] { return around(std::uint32_t{1} << number(29, 31)); });
            case 4:
                return growing(count, [this] { return number(0, highest); });
            case 5: {  // nearer and nearer
                distances places = growing(count, [this] { return number(1, 20'000); });
                std::reverse(places.begin(), places.end());
                return places;
            }
            case 6:
                return near_the_bounds(count);
            case 7:  // at either end of the numbers
                return growing(count, [this] { return around(0); });
            default: {  // in no order
                distances places = growing(count, [this] { return number(1, 5000); });
                std::shuffle(places.begin(), places.end(), random_);
                return places;
            }
        }
    }

    // Each a sum of the spacings before it, off by about the tolerance.
    distances near_the_bounds(std::size_t count) {
        distances places;
        distances spacings;
        for (std::size_t i = 0; i < count; ++i) {
            std::uint32_t place = i == 0 ? number(1, 5000) : 0;
            for (const std::uint32_t spacing : spacings)
                place += number(0, 2) * spacing;
            place += number(0, 1) == 0 ? 0U - number(68, 72) : number(68, 72);
            spacings.push_back(place - (places.empty() ? 0 : places.back()));
            places.push_back(place);
        }
        return places;
    }

    std::uint32_t around(std::uint32_t middle) { return middle + number(0, 300) - 150; }

    std::uint32_t fiber_length_for(const distances& places) {
        switch (number(0, 3)) {
            case 0:
                return number(395, 405);
            case 1:
                return number(0, 60'000);
            case 2:  // one of them is just at the end
                return places.empty()
                           ? 0
                           : places[number(0, static_cast<std::uint32_t>(places.size()) - 1)] -
                                 number(398, 402);
            default:
                return 0;
        }
    }

    static constexpr std::uint32_t highest = std::numeric_limits<std::uint32_t>::max();

    std::mt19937 random_{20'261};
};

void expect_agreement(const distances& places, std::uint32_t fiber_length) {
    auto found = trace_of(places);
    mark_ghosts(found, fiber_length);
    auto expected = trace_of(places);
    test::mark_ghosts_by_enumeration(expected, fiber_length);
    ASSERT_EQ(found, expected) << "fibre of " << fiber_length << " m, reflections at "
                               << testing::PrintToString(places);
}

TEST(GhostDetection, AgreesWithTheEnumerationOfAllSums) {
    trace_source source;
    for (unsigned i = 0; i < differential_cases && !HasFatalFailure(); ++i) {
        const auto sample = source.next();
        expect_agreement(sample.places, sample.fiber_length);
    }
}

TEST(GhostDetection, AgreesWithTheEnumerationOnFullTraces) {
    trace_source source;
    constexpr unsigned traces = std::max(1U, differential_cases / 10'000);
    for (unsigned i = 0; i < traces && !HasFatalFailure(); ++i) {
        distances places;
        for (std::size_t k = 0; k < otdr_measurement::max_reflections; ++k)
            places.push_back(source.number(0, std::numeric_limits<std::uint32_t>::max()));
        expect_agreement(places, 0);
        expect_agreement(source.of_equal_spacings(otdr_measurement::max_reflections), 0);
    }
    distances equal;
    for (std::uint32_t k = 1; k <= otdr_measurement::max_reflections; ++k)
        equal.push_back(k * 1000);
    expect_agreement(equal, 0);
}

}  // namespace
