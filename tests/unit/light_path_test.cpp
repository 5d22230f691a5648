#include "light_path.hpp"

#include "dh_error.hpp"
#include "log_capture.hpp"
#include "manual_time.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace {

using namespace simulator;
using namespace std::chrono_literals;

class LightPath : public testing::Test {
  protected:
    explicit LightPath(const std::string& actions = "")
        : light(1, parse_scenario("{\"actions\":[" + actions + "]}").on_plant) {}

    test::log_capture log;
    test::manual_time time;
    light_path light;
};

TEST_F(LightPath, MeterKeepsItsReadingForASweep) {
    const float before = light.power_level(1);
    light.set_attenuation(1, 10.0);
    EXPECT_EQ(light.power_level(1), before);
    time.advance(light_path::sweep_period - 1ns);
    EXPECT_EQ(light.power_level(1), before);
    time.advance(1ns);
    EXPECT_NEAR(light.power_level(1), before + 5.0f, 0.1f);
}

TEST_F(LightPath, ValuesOfOneChannelThatAreReadTogetherBelongTogether) {
    EXPECT_TRUE(light.detected(1));
    light.set_lit(1, false);
    EXPECT_GT(light.power_level(1), -32.0f);
    time.advance(light_path::sweep_period);
    EXPECT_FALSE(light.detected(1));
    EXPECT_LT(light.power_level(1), -35.0f);
}

TEST_F(LightPath, EachSweepReadsWithNoiseOfItsOwn) {
    light.set_monitor_noise(0.5f);
    std::set<float> channel;
    std::set<float> output;
    std::set<float> input;
    for (int sweep = 0; sweep < 20; ++sweep) {
        channel.insert(light.power_level(1));
        output.insert(light.output_total_power());
        input.insert(light.input_total_power());
        time.advance(light_path::sweep_period);
    }
    EXPECT_GT(channel.size(), 5U);
    EXPECT_GT(output.size(), 5U);
    EXPECT_GT(input.size(), 5U);
}

TEST_F(LightPath, AttenuationInForceIsTheNearestThatCanBeSet) {
    light.set_attenuation(1, 7.46);
    EXPECT_EQ(light.attenuation(1), 7.5);
    light.set_attenuation(1, 99.0);
    EXPECT_EQ(light.attenuation(1), 25.5);
    EXPECT_EQ(light.attenuation(2), 15.0);
}

TEST_F(LightPath, UnknownPortModeIsRefusedAndChangesNothing) {
    light.set_port(1, "express");
    try {
        light.set_port(1, "on");
        FAIL() << "was taken";
    } catch (const dh_error& error) {
        EXPECT_EQ(error.code, -22);
    }
    EXPECT_EQ(light.port(1), "express");
}

TEST_F(LightPath, HandsAreHeldToTheRangesThatExist) {
    EXPECT_THROW(light.set_launch_power(1, -60.5f), dh_error);
    EXPECT_THROW(light.set_span_loss(-0.1f), dh_error);
    EXPECT_THROW(light.set_booster_gain(35.5f), dh_error);
    EXPECT_THROW(light.set_booster_power_limit(30.5), dh_error);
    EXPECT_THROW(light.set_monitor_noise(-1.0f), dh_error);
    EXPECT_THROW(light.set_monitor_noise(std::nanf("")), dh_error);
}

TEST_F(LightPath, BoosterLosesItsInputWithTheFibre) {
    EXPECT_FALSE(light.booster_input_lost());
    light.set_fibre_intact(false);
    EXPECT_TRUE(light.booster_input_lost());
    light.set_fibre_intact(true);
    EXPECT_FALSE(light.booster_input_lost());
}

TEST_F(LightPath, DisablingTheBoosterTakesTheLightAway) {
    const float before = light.booster_output_power();
    light.set_booster_enabled(false);
    EXPECT_FALSE(light.booster_on());
    EXPECT_LT(light.booster_output_power(), before - 40.0f);
    light.set_booster_enabled(true);
    EXPECT_EQ(light.booster_output_power(), before);
}

TEST_F(LightPath, ActualGainShowsWhatThePowerLimitLeaves) {
    EXPECT_EQ(light.booster_actual_gain(), 22.0f);
    const float output = light.booster_output_power();
    light.set_booster_power_limit(10.0);
    EXPECT_NEAR(light.booster_output_power(), 10.15f, 0.011f);
    EXPECT_NEAR(light.booster_actual_gain(), 22.0f - (output - 10.15f), 0.02f);
    EXPECT_EQ(light.booster_gain(), 22.0f);
}

class LightPathWithScenario : public LightPath {
  protected:
    LightPathWithScenario()
        : LightPath(R"({"time":10,"action":"darken_channels","channels":3},
                       {"time":20,"action":"change_span_loss","change":2,"over":10})") {}
};

TEST_F(LightPathWithScenario, FollowsTheProgramsTime) {
    EXPECT_TRUE(light.lit(3));
    time.advance(10s);
    EXPECT_FALSE(light.lit(3));
    time.advance(15s);
    EXPECT_NEAR(light.span_loss(), 6.0f, 1e-4f);
    EXPECT_NEAR(light.seconds(), 25.0, 1e-9);
}

TEST_F(LightPathWithScenario, AWriteDoesNotHideWhatWasDueBefore) {
    time.advance(25s);
    light.set_span_loss(10.0f);
    time.advance(5s);
    EXPECT_NEAR(light.span_loss(), 11.0f, 1e-4f);
}

TEST_F(LightPathWithScenario, TellsTheLogWhatItDoes) {
    time.advance(10s);
    light.lit(3);
    EXPECT_EQ(log.count("msg: Scenario: darken_channels"), 1U);
}

}  // namespace
