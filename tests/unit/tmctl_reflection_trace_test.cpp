// How tmctl shows a reflection measurement.
#include "reflection_trace.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using testing::ElementsAre;
using testing::SizeIs;
using tmctl::reflection_trace;
using tmctl::trace_from;
using tmctl::trace_picture;
using tmctl::trace_table;

std::optional<reflection_trace> parsed(const std::string& text) {
    json::document document;
    document.Parse(text.data(), text.size());
    return trace_from(document);
}

TEST(ReflectionTrace, IsReadFromAMeasurement) {
    const auto trace = parsed(
        R"({"valid":true,"timestamp":1700000000,"numOfReflections":2,"oscFiberlength":20000,)"
        R"("oscLinkUp":true,"distances":[1000,4294967295],"ghosts":[false,true]})");
    ASSERT_TRUE(trace);
    EXPECT_EQ(trace->timestamp, 1'700'000'000);
    EXPECT_EQ(trace->fiber_length, 20'000);
    ASSERT_THAT(trace->reflections, SizeIs(2));
    EXPECT_EQ(trace->reflections[0].distance, 1000);
    EXPECT_FALSE(trace->reflections[0].is_ghost);
    EXPECT_EQ(trace->reflections[1].distance, 4'294'967'295);
    EXPECT_TRUE(trace->reflections[1].is_ghost);
}

TEST(ReflectionTrace, OfWhatIsNoMeasurementIsNone) {
    for (const char* text :
         {"null", "5", "{}",
          R"({"valid":false,"timestamp":0,"oscFiberlength":0,"distances":[],"ghosts":[]})",
          R"({"valid":true,"timestamp":1,"oscFiberlength":0,"distances":[1],"ghosts":[]})",
          R"({"valid":true,"timestamp":1,"oscFiberlength":0,"distances":["1"],"ghosts":[true]})",
          R"({"valid":true,"timestamp":1,"oscFiberlength":0,"distances":[1],"ghosts":[1]})",
          R"({"valid":true,"timestamp":"1","oscFiberlength":0,"distances":[],"ghosts":[]})"})
        EXPECT_FALSE(parsed(text)) << text;
}

TEST(ReflectionTrace, TableWithoutAReferencePointTellsOfNoChanges) {
    EXPECT_THAT(trace_table({0, 20'000, {{1000, false}, {2000, true}}}, std::nullopt),
                ElementsAre("  #     distance  kind      ",  //
                            "  1      1000 m   reflection",  //
                            "  2      2000 m   ghost     "));
}

TEST(ReflectionTrace, TableTellsWhatIsNewMovedOrGone) {
    const reflection_trace reference{0, 20'000, {{1000, false}, {5000, false}, {9000, true}}};
    EXPECT_THAT(
        trace_table({0, 20'000, {{1000, false}, {3000, false}, {5070, false}}}, reference),
        ElementsAre("  #     distance  kind        since the reference point",
                    "  1      1000 m   reflection  same", "  2      3000 m   reflection  new",
                    "  3      5070 m   reflection  +70 m", "  -      9000 m   ghost       gone"));
}

TEST(ReflectionTrace, TableTellsWhatHasBecomeAGhostOrIsNoneAnyLonger) {
    const reflection_trace reference{0, 20'000, {{1000, false}, {5000, true}, {9000, true}}};
    EXPECT_THAT(trace_table({0, 20'000, {{1000, true}, {4990, false}, {9000, true}}}, reference),
                ElementsAre("  #     distance  kind        since the reference point",
                            "  1      1000 m   ghost       same, was a reflection",
                            "  2      4990 m   reflection  -10 m, was a ghost",
                            "  3      9000 m   ghost       same"));
}

TEST(ReflectionTrace, EachReflectionOfTheReferencePointIsMatchedOnce) {
    const auto all = tmctl::compare({0, 0, {{1000, false}, {1010, false}, {1071, false}}},
                                    {0, 0, {{1001, false}}});
    ASSERT_THAT(all, SizeIs(3));
    EXPECT_TRUE(all[0].reference);
    EXPECT_FALSE(all[1].reference);
    EXPECT_FALSE(all[2].reference);
}

TEST(ReflectionTrace, NearestReflectionsAreMatchedWhateverTheirOrder) {
    const auto added =
        tmctl::compare({0, 0, {{940, false}, {1000, false}}}, {0, 0, {{1000, false}}});
    ASSERT_THAT(added, SizeIs(2));
    EXPECT_FALSE(added[0].reference);
    EXPECT_TRUE(added[1].reference);
    const auto moved = tmctl::compare({0, 0, {{1040, false}, {1060, false}}},
                                      {0, 0, {{1000, false}, {1060, false}}});
    ASSERT_THAT(moved, SizeIs(2));
    EXPECT_EQ(moved[0].reference->distance, 1000);
    EXPECT_EQ(moved[1].reference->distance, 1060);
}

TEST(ReflectionTrace, PictureShowsTheSpanToItsEndWithGhostsMarked) {
    EXPECT_THAT(
        trace_picture({0, 63'000, {{0, false}, {1000, false}, {2000, true}, {63'000, false}}},
                      std::nullopt),
        ElementsAre("card  ||g" + std::string(60, '-') + "|  63.000 km"));
}

TEST(ReflectionTrace, PictureHasOneScaleForTheReferencePointToo) {
    EXPECT_THAT(trace_picture({0, 0, {{10, false}}}, reflection_trace{0, 0, {{630, false}}}),
                ElementsAre("card  -|" + std::string(62, '-') + "  0.630 km",
                            "ref   " + std::string(63, '-') + "|"));
}

TEST(ReflectionTrace, PictureOfNothingIsAnEmptySpan) {
    EXPECT_THAT(trace_picture({}, std::nullopt),
                ElementsAre("card  " + std::string(64, '-') + "  0.001 km"));
}

TEST(ReflectionTrace, PictureDoesNotHideAReflectionByAGhostOfTheSameColumn) {
    const auto lines =
        trace_picture({0, 63'000, {{1000, true}, {1001, false}, {1002, true}}}, std::nullopt);
    EXPECT_EQ(lines.front()[7], '|');
}

}  // namespace
