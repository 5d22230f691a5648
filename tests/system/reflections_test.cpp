// Reflection measurements of a simulated span, as the one who hunts a bad
// connector makes them.
#include "simulated_card_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <string>

namespace {

using test::eventually;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class Reflections : public test::simulated_card_fixture {
  protected:
    void SetUp() override {
        start("k47");
        ASSERT_TRUE(becomes("otdr/data/configStatus", true));
        ASSERT_TRUE(becomes("interface/line/1/data/osc/linkStatus", std::string("up")));
    }
};

TEST_F(Reflections, AreMeasuredAndShown) {
    const std::string shown = tmctl({"otdr", "measure"});
    EXPECT_THAT(shown, HasSubstr("4 reflections, 0 of them ghosts, fibre 20.000 km"));
    EXPECT_THAT(shown, HasSubstr("  2      5200 m   reflection\n"));
    EXPECT_THAT(shown, Not(HasSubstr("since the reference point")));
    EXPECT_EQ(tmctl({"otdr", "show", "1"}), shown);
    EXPECT_THAT(tmctl({"otdr"}),
                AllOf(HasSubstr("measurement 2  empty"), HasSubstr("reference     empty")));
    EXPECT_THAT(tmctl({"otdr", "show", "2"}, 1), HasSubstr("measurement 2  empty"));
}

TEST_F(Reflections, OfABadConnectorAreToldFromItsEchoes) {
    tmctl({"otdr", "measure"});
    tmctl({"otdr", "save", "1"});
    // The connector at 5200 m is loose; the one before it echoes with it.
    hands_->set<void>("sim/line/reflectors", std::string("400:-35 5200:-14 12100:-48"));
    const std::string shown = tmctl({"otdr", "measure"});
    EXPECT_THAT(shown, HasSubstr("   10000 m   ghost       new\n"));
    EXPECT_THAT(shown, HasSubstr("    5200 m   reflection  same\n"));
    EXPECT_THAT(shown, HasSubstr("\nref   "));

    // Repaired: everything as it was.
    hands_->set<void>("sim/line/reflectors", std::string("400:-45 5210:-50 12100:-48"));
    const std::string repaired = tmctl({"otdr", "measure"});
    EXPECT_THAT(repaired, HasSubstr("    5210 m   reflection  +10 m\n"));
    EXPECT_THAT(repaired, Not(HasSubstr("m   ghost")));
}

TEST_F(Reflections, ReferencePointOutlivesTheDaemonAndTheRingDoesNot) {
    tmctl({"otdr", "measure"});
    tmctl({"otdr", "save", "1"});
    start_daemon();
    ASSERT_TRUE(becomes("otdr/data/configStatus", true));
    EXPECT_THAT(tmctl({"otdr"}),
                AllOf(HasSubstr("measurement 1  empty"), HasSubstr("4 reflections")));
    tmctl({"otdr", "delete", "ref"});
    EXPECT_THAT(tmctl({"otdr"}), HasSubstr("reference     empty"));
}

TEST_F(Reflections, MeasurementIsForgotten) {
    tmctl({"otdr", "measure"});
    tmctl({"otdr", "delete", "1"});
    EXPECT_THAT(tmctl({"otdr"}), HasSubstr("measurement 1  empty"));
    EXPECT_THAT(tmctl({"otdr", "save", "1"}, 1),
                HasSubstr("tmctl: -22 No data available for OTDR serie."));
}

TEST_F(Reflections, MeasurementOfATransceiverThatIsPulledMeanwhileFails) {
    hands_->set<void>("sim/interface/2/otdr/measuringTime", 300.0F);
    auto measurement = std::async(std::launch::async, [] { return tmctl({"otdr", "measure"}, 1); });
    EXPECT_EQ(measurement.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    hands_->set<void>("sim/interface/2/present", false);
    EXPECT_THAT(measurement.get(),
                HasSubstr("tmctl: -22 No OTDR measurement data available, please try again."));
    EXPECT_TRUE(becomes("otdr/present", false));
    EXPECT_THAT(tmctl({"otdr"}, 1), HasSubstr("tmctl: -2 "));
    hands_->set<void>("sim/interface/2/present", true);
    EXPECT_TRUE(becomes("otdr/data/pointer", 0U));
}

TEST_F(Reflections, LightThatIsLostDuringAMeasurementLeavesItWithoutALength) {
    hands_->set<void>("sim/interface/2/otdr/measuringTime", 200.0F);
    auto measurement = std::async(std::launch::async, [] { return tmctl({"otdr", "measure"}); });
    EXPECT_EQ(measurement.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    hands_->set<void>("sim/line/cutDistance", 8000.0F);
    hands_->set<void>("sim/line/intact", false);
    const std::string shown = measurement.get();
    EXPECT_THAT(shown, HasSubstr("fibre of unknown length"));
    EXPECT_THAT(shown, HasSubstr("    8000 m   reflection\n"));
}

TEST_F(Reflections, WordsThatTheCommandDoesNotKnowAreRefused) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{"otdr", "look"},
                                                  {"otdr", "show"},
                                                  {"otdr", "show", "0"},
                                                  {"otdr", "show", "6"},
                                                  {"otdr", "show", "ref"},
                                                  {"otdr", "measure", "1"},
                                                  {"otdr", "save", "x"}})
        EXPECT_THAT(tmctl(words, 2), HasSubstr("usage: tmctl"));
}

}  // namespace
