// What a pulse that is sent into the simulated fibre brings back.
#include "fibre_trace.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using simulator::parse_reflectors;
using simulator::reflector;
using simulator::text_of;
using simulator::trace_of;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double lossless = 0.0;

TEST(Reflectors, AreReadFromATextAndSortedByTheirDistance) {
    const auto read = parse_reflectors("  4800:-14.5 1200.5:-35  ");
    EXPECT_THAT(read, ElementsAre(reflector{1200.5, -35.0}, reflector{4800.0, -14.5}));
    EXPECT_EQ(text_of(read), "1200.5:-35 4800:-14.5");
    EXPECT_EQ(parse_reflectors(text_of(read)), read);
    EXPECT_THAT(parse_reflectors(""), IsEmpty());
}

TEST(Reflectors, OtherTextsAreRefused) {
    for (const char* text : {"1200", "1200:", ":-35", "1200:x", "x:-35", "-1:-35", "1200:1",
                             "1200:-101", "1000001:-35", "1200:nan", "inf:-35", "1200:-35,"})
        EXPECT_THROW(parse_reflectors(text), std::invalid_argument) << text;
    std::string many;
    for (int i = 0; i < 65; ++i)
        many += "100:-35 ";
    EXPECT_THROW(parse_reflectors(many), std::invalid_argument);
}

TEST(FibreTrace, OfGoodConnectorsShowsThemOnly) {
    EXPECT_THAT(trace_of({{1000.0, -45.0}, {20'000.0, -45.0}}, lossless),
                ElementsAre(1000, 20'000));
}

TEST(FibreTrace, ShowsTheEchoesAmongBadConnectors) {
    // From the second back to the first and forth again, once.
    EXPECT_THAT(trace_of({{1000.0, -20.0}, {4000.0, -20.0}}, lossless),
                ElementsAre(1000, 4000, 7000));
    EXPECT_THAT(trace_of({{1000.0, -14.0}, {4000.0, -14.0}, {9000.0, -14.0}}, lossless),
                ElementsAre(1000, 4000, 7000, 9000, 12'000, 14'000, 17'000));
}

TEST(FibreTrace, ShowsNothingThatIsTooWeak) {
    EXPECT_THAT(trace_of({{1000.0, -75.0}, {2000.0, -75.1}}, lossless), ElementsAre(1000));
    // There and back over 100 km.
    EXPECT_THAT(trace_of({{1000.0, -45.0}, {100'000.0, -45.0}}, 0.2), ElementsAre(1000));
    EXPECT_THAT(trace_of({{1000.0, -45.0}, {100'000.0, -35.0}}, 0.2), ElementsAre(1000, 100'000));
}

TEST(FibreTrace, TakesNeighboursThatItCannotTellApartForOne) {
    EXPECT_THAT(trace_of({{1000.0, -45.0}, {1004.0, -45.0}, {1005.0, -45.0}}, lossless),
                ElementsAre(1000, 1005));
}

TEST(FibreTrace, OfAFibreWithoutReflectorsIsEmpty) {
    EXPECT_THAT(trace_of({}, lossless), IsEmpty());
}

}  // namespace
