#include "optical_plant.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace {

using namespace simulator;

constexpr std::uint64_t seed = 7;
constexpr double default_wanted_power = 3.979;  // 40 channels that share 20 dBm
constexpr double exact = 1e-9;
constexpr double no_noise = 0.0;

double sum_in_dbm(const per_channel<double>& powers) {
    double milliwatts = 0.0;
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        milliwatts += std::pow(10.0, powers[channel] / 10.0);
    return 10.0 * std::log10(milliwatts);
}

plant_controls darkness_on_all_channels() {
    plant_controls controls = default_controls(seed);
    for (auto& channel : controls.channels)
        channel.lit = false;
    return controls;
}

// The attenuations that bring each lit channel to the wanted power: solved by
// repeated correction, as channels may push each other down.
plant_controls regulated(const optical_plant& plant, plant_controls controls, double wanted) {
    for (int pass = 0; pass < 50; ++pass) {
        const light now = plant.propagate(controls);
        for (unsigned channel = 1; channel <= channel_count; ++channel)
            controls.channels[channel].attenuation += now.output[channel] - wanted;
    }
    return controls;
}

void expect_reachable_with_headroom(const optical_plant& plant, plant_controls controls,
                                    double wanted) {
    controls = regulated(plant, controls, wanted);
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        if (!controls.channels[channel].lit)
            continue;
        EXPECT_GT(controls.channels[channel].attenuation, 0.2) << channel;
        EXPECT_LT(controls.channels[channel].attenuation, 14.8) << channel;
    }
    EXPECT_NEAR(plant.propagate(controls).booster_gain, controls.booster_gain, exact)
        << "the power limit holds the channels down";
}

void expect_reachable_with_headroom(std::uint64_t of_seed, port_mode port, double wanted) {
    plant_controls controls = default_controls(of_seed);
    for (auto& channel : controls.channels)
        channel.port = port;
    expect_reachable_with_headroom(optical_plant(of_seed), controls, wanted);
}

TEST(PowerBudget, LossesAndGainAddUpFromLaunchToOutput) {
    plant_model model;
    model.booster_tilt = 0.0;
    model.booster_ripple = 0.0;
    plant_controls controls = darkness_on_all_channels();
    controls.channels[20] = {.launch_power = 1.0, .lit = true, .attenuation = 6.0};
    const light now = optical_plant(seed, model).propagate(controls);
    // 1.0 - 5.0 span - 5.0 insertion - 6.0 attenuation + 22.0 gain; the noise adds a little.
    EXPECT_NEAR(now.output[20], 7.0, 0.01);
    EXPECT_NEAR(now.input_total, -4.0, exact);
    EXPECT_NEAR(now.booster_input_total, -15.0, exact);
}

TEST(PowerBudget, OneDecibelOfAttenuationIsOneDecibelOfOutput) {
    const optical_plant plant(seed);
    plant_controls controls = default_controls(seed);
    const double before = plant.propagate(controls).output[1];
    controls.channels[1].attenuation -= 1.0;
    EXPECT_NEAR(plant.propagate(controls).output[1], before + 1.0, 0.01);
}

TEST(PowerBudget, ExpressPortLosesMoreThanEdfaPort) {
    const optical_plant plant(seed);
    plant_controls controls = default_controls(seed);
    const double edfa = plant.propagate(controls).output[1];
    controls.channels[1].port = port_mode::express;
    EXPECT_NEAR(plant.propagate(controls).output[1], edfa - 3.0, 0.05);
}

TEST(PowerBudget, TotalIsTheSumOfTheChannels) {
    const light now = optical_plant(seed).propagate(default_controls(seed));
    EXPECT_NEAR(now.output_total, sum_in_dbm(now.output), exact);
}

TEST(PowerBudget, GainIsTiltedAndRippledOverWavelength) {
    plant_controls controls = default_controls(seed);
    for (auto& channel : controls.channels)
        channel = {.launch_power = 0.0, .lit = true};
    const light now = optical_plant(seed).propagate(controls);
    const auto [lowest, highest] = std::minmax_element(now.output.begin() + 1, now.output.end());
    EXPECT_GT(*highest - *lowest, 0.5);
    EXPECT_LT(*highest - *lowest, 1.5);
}

TEST(PowerLimit, HoldsTheTotalAndLowersTheGain) {
    plant_controls controls = default_controls(seed);
    controls.booster_gain = 34.0;
    const light now = optical_plant(seed).propagate(controls);
    EXPECT_NEAR(now.output_total, controls.booster_power_limit, exact);
    EXPECT_LT(now.booster_gain, 34.0);
}

TEST(PowerLimit, OneChannelMorePushesTheOthersDown) {
    const optical_plant plant(seed);
    plant_controls controls = default_controls(seed);
    controls.booster_gain = 34.0;
    controls.channels[10].lit = false;
    const double alone = plant.propagate(controls).output[1];
    controls.channels[10].lit = true;
    EXPECT_LT(plant.propagate(controls).output[1], alone - 0.05);
}

TEST(PowerLimit, ChannelsBelowItDoNotTouchEachOther) {
    const optical_plant plant(seed);
    plant_controls controls = default_controls(seed);
    controls.channels[10].lit = false;
    const double alone = plant.propagate(controls).output[1];
    controls.channels[10].lit = true;
    EXPECT_EQ(plant.propagate(controls).output[1], alone);
}

TEST(Darkness, OffPortBlockedChannelAndCutFibreShowNoPeak) {
    const optical_plant plant(seed);
    const plant_controls lit = default_controls(seed);
    const auto detected = [&](const plant_controls& controls) {
        return plant.read_channel(plant.propagate(controls), 1, 0, no_noise).detected;
    };
    ASSERT_TRUE(detected(lit));
    plant_controls off = lit;
    off.channels[1].port = port_mode::off;
    EXPECT_FALSE(detected(off));
    plant_controls blocked = lit;
    blocked.channels[1].attenuation = blocked_attenuation;
    EXPECT_FALSE(detected(blocked));
    plant_controls cut = lit;
    cut.fibre_intact = false;
    EXPECT_FALSE(detected(cut));
}

TEST(Darkness, DarkChannelShowsTheBoostersNoiseFloor) {
    const optical_plant plant(seed);
    const light now = plant.propagate(default_controls(seed));
    const channel_reading dark = plant.read_channel(now, 6, 0, no_noise);
    EXPECT_FALSE(dark.detected);
    EXPECT_GT(dark.power, darkness);
    EXPECT_LT(dark.power, -35.0f);
}

TEST(Darkness, WithoutLightAndPumpEveryMeterShowsItsFloor) {
    const optical_plant plant(seed);
    plant_controls controls = darkness_on_all_channels();
    controls.booster_enabled = false;
    const light now = plant.propagate(controls);
    EXPECT_EQ(plant.read_channel(now, 1, 0, no_noise).power, -60.0f);
    EXPECT_EQ(plant.read_output_total(now, 0, no_noise), -60.0f);
    EXPECT_EQ(plant.read_input_total(now, 0, no_noise), -60.0f);
    EXPECT_EQ(plant.booster_output_power(now), -60.0f);
    EXPECT_EQ(plant.booster_input_power(now), -60.0f);
}

TEST(Booster, FaultTurnsItOffWhateverItWasTold) {
    const optical_plant plant(seed);
    plant_controls controls = default_controls(seed);
    controls.booster_fault = true;
    EXPECT_FALSE(controls.booster_on());
    EXPECT_NEAR(plant.propagate(controls).booster_gain, -30.0, exact);
    controls.booster_fault = false;
    controls.booster_enabled = false;
    EXPECT_FALSE(controls.booster_on());
    EXPECT_NEAR(plant.propagate(controls).booster_gain, -30.0, exact);
}

TEST(Monitor, TotalPlusTapLossAgreesWithTheBoosterWithinSomeTenths) {
    const optical_plant plant(seed);
    const light now = plant.propagate(default_controls(seed));
    const double calibrated =
        plant.read_output_total(now, 0, no_noise) + plant.model().monitor_tap_loss;
    EXPECT_NEAR(plant.booster_output_power(now), calibrated, 0.3);
    EXPECT_NE(plant.booster_output_power(now), static_cast<float>(calibrated));
}

TEST(Monitor, ChannelReadingIsOffByAtMostItsRipple) {
    const optical_plant plant(seed);
    const light now = plant.propagate(default_controls(seed));
    double worst = 0.0;
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        const double read = plant.read_channel(now, channel, 0, no_noise).power;
        worst =
            std::max(worst, std::abs(read + plant.model().monitor_tap_loss - now.output[channel]));
    }
    EXPECT_LE(worst, plant.model().monitor_ripple + 0.006);
    EXPECT_GT(worst, 0.02);
}

TEST(Monitor, PeakBeginsAtTheThreshold) {
    plant_model model;
    model.monitor_ripple = 0.0;
    const optical_plant plant(seed, model);
    light now;
    now.monitor_tap_loss = model.monitor_tap_loss;
    now.output[1] = model.detection_threshold + model.monitor_tap_loss;
    EXPECT_TRUE(plant.read_channel(now, 1, 0, no_noise).detected);
    now.output[1] -= 0.01;
    EXPECT_FALSE(plant.read_channel(now, 1, 0, no_noise).detected);
}

TEST(Monitor, ReadingsComeInHundredths) {
    const optical_plant plant(seed);
    const light now = plant.propagate(default_controls(seed));
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        const float read = plant.read_channel(now, channel, channel, 0.3).power;
        EXPECT_EQ(read, static_cast<float>(std::round(100.0 * read) / 100.0));
    }
}

TEST(Monitor, NoiseIsBoundedAndQuietChannelsOftenReadTheSame) {
    const optical_plant plant(seed);
    const plant_controls controls = default_controls(seed);
    const light now = plant.propagate(controls);
    const float quiet = plant.read_channel(now, 1, 0, no_noise).power;
    int same = 0;
    int different = 0;
    for (std::uint64_t sweep = 0; sweep < 1000; ++sweep) {
        const float read = plant.read_channel(now, 1, sweep, controls.monitor_noise).power;
        EXPECT_NEAR(read, quiet, 0.026);
        ++(read == quiet ? same : different);
    }
    EXPECT_GT(same, 300);
    EXPECT_GT(different, 50);
}

TEST(Monitor, NoiseHasTheStandardDeviationAskedFor) {
    const optical_plant plant(seed);
    light now;
    now.output[3] = 0.0;
    const double quiet = plant.read_channel(now, 3, 0, no_noise).power;
    double squares = 0.0;
    constexpr int sweeps = 2000;
    for (std::uint64_t sweep = 0; sweep < sweeps; ++sweep)
        squares += std::pow(plant.read_channel(now, 3, sweep, 0.5).power - quiet, 2.0);
    EXPECT_NEAR(std::sqrt(squares / sweeps), 0.5, 0.05);
}

TEST(Monitor, ChannelIdsCountUpAndAreNotTheChannelNumbers) {
    const optical_plant plant(seed);
    EXPECT_EQ(plant.read_channel(light{}, 1, 0, no_noise).id, 13);
    EXPECT_EQ(plant.read_channel(light{}, 48, 0, no_noise).id, 60);
}

TEST(Seed, RepeatsExactly) {
    const plant_controls controls = default_controls(seed);
    const optical_plant first(seed);
    const optical_plant second(seed);
    const light one = first.propagate(controls);
    const light other = second.propagate(default_controls(seed));
    EXPECT_EQ(one.output, other.output);
    for (std::uint64_t sweep = 0; sweep < 100; ++sweep)
        EXPECT_EQ(first.read_channel(one, 5, sweep, 1.0).power,
                  second.read_channel(other, 5, sweep, 1.0).power);
}

TEST(Seed, AnotherOneGivesAnotherCard) {
    const plant_controls controls = default_controls(seed);
    const plant_controls others = default_controls(seed + 1);
    EXPECT_NE(controls.channels[1].launch_power, others.channels[1].launch_power);
    EXPECT_NE(optical_plant(seed).propagate(controls).output,
              optical_plant(seed + 1).propagate(controls).output);
}

TEST(DefaultControls, LightFortyChannelsWithinTheSpread) {
    const plant_controls controls = default_controls(seed);
    int lit = 0;
    double lowest = 0.0;
    double highest = 0.0;
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        lit += controls.channels[channel].lit ? 1 : 0;
        lowest = std::min(lowest, controls.channels[channel].launch_power);
        highest = std::max(highest, controls.channels[channel].launch_power);
    }
    EXPECT_EQ(lit, 40);
    EXPECT_GE(lowest, -2.0);
    EXPECT_LE(highest, 2.0);
    EXPECT_GT(highest - lowest, 2.0);
}

TEST(DefaultControls, ParkedChannelsAllShowAPeakOnBothPorts) {
    for (std::uint64_t any = 1; any <= 20; ++any) {
        const optical_plant plant(any);
        plant_controls controls = default_controls(any);
        for (const port_mode port : {port_mode::edfa, port_mode::express}) {
            for (auto& channel : controls.channels)
                channel.port = port;
            const light now = plant.propagate(controls);
            for (unsigned channel = 1; channel <= channel_count; ++channel)
                EXPECT_EQ(plant.read_channel(now, channel, 0, no_noise).detected,
                          controls.channels[channel].lit);
        }
    }
}

TEST(DefaultControls, WantedPowersAreReachableWithHeadroomBothWays) {
    for (std::uint64_t any = 1; any <= 20; ++any) {
        for (const double change : {-2.0, 0.0, 2.0}) {
            SCOPED_TRACE(testing::Message() << "seed " << any << ", change " << change);
            expect_reachable_with_headroom(any, port_mode::edfa, default_wanted_power + change);
            expect_reachable_with_headroom(any, port_mode::express, default_wanted_power + change);
        }
    }
}

TEST(SettableAttenuation, IsClampedAndInTenths) {
    EXPECT_EQ(settable_attenuation(-1.0), 0.0);
    EXPECT_EQ(settable_attenuation(0.04), 0.0);
    EXPECT_EQ(settable_attenuation(7.46), 7.5);
    EXPECT_EQ(settable_attenuation(static_cast<double>(7.3f)), 7.3);
    EXPECT_EQ(settable_attenuation(25.5), 25.5);
    EXPECT_EQ(settable_attenuation(1e300), 25.5);
    EXPECT_EQ(settable_attenuation(std::numeric_limits<double>::quiet_NaN()), 0.0);
}

TEST(PortMode, CardOfOnePortHasOtherModesThanOneOfTwo) {
    const auto names = [](const simulator::plant_model& model) {
        std::string all;
        for (const port_mode mode : simulator::port_modes(model))
            all += name_of(mode) + " ";
        return all;
    };
    EXPECT_EQ(names({}), "off edfa express ");
    EXPECT_EQ(names(simulator::edfa_port_model()), "off on ");
    EXPECT_EQ(names(simulator::eq_port_model()), "off on ");
}

TEST(EqPort, ShowsItsMonitorWhatLeavesTheSwitch) {
    const auto model = simulator::eq_port_model();
    const simulator::optical_plant plant(1, model);
    auto controls = simulator::default_controls(1, model);
    auto& channel = controls.channels[1];
    channel.launch_power = 10.0;
    channel.attenuation = 6.0;
    const double output = 10.0 - controls.span_loss - model.port_insertion_loss - 6.0;
    for (const bool booster_enabled : {true, false}) {
        controls.booster_enabled = booster_enabled;
        const auto light = plant.propagate(controls);
        EXPECT_NEAR(light.output[1], output, 1e-9);
        EXPECT_NEAR(plant.read_channel(light, 1, 0, 0.0).power, output - model.monitor_tap_loss,
                    model.monitor_ripple + 0.005);
    }
}

// An EQ port with the booster of an amplifier card behind it.
plant_controls connected_controls(std::uint64_t of_seed) {
    plant_controls controls = default_controls(of_seed, eq_port_model());
    controls.booster_connected = true;
    return controls;
}

TEST(NeighbourBooster, AmplifiesTheEqPortWhereItIsConnected) {
    const optical_plant plant(seed, eq_port_model());
    const light alone = plant.propagate(default_controls(seed, eq_port_model()));
    plant_controls controls = connected_controls(seed);
    const light amplified = plant.propagate(controls);
    EXPECT_NEAR(amplified.output[1], alone.output[1] + controls.booster_gain, 0.01);
    EXPECT_NEAR(alone.booster_gain, 0.0, exact);
    controls.booster_power_limit = 2.0;
    EXPECT_NEAR(plant.propagate(controls).output_total, 2.0, 1e-6);
}

TEST(NeighbourBooster, TakesTheMonitorToItsOutput) {
    const plant_model model = eq_port_model();
    const optical_plant plant(seed, model);
    const light amplified = plant.propagate(connected_controls(seed));
    EXPECT_NEAR(plant.read_channel(amplified, 1, 0, no_noise).power,
                amplified.output[1] - model.neighbour_monitor_tap_loss,
                model.monitor_ripple + 0.01);
}

TEST(NeighbourBooster, LeavesTheWantedPowersOfAFullBudgetWithinReach) {
    const double wanted = 20.0 - 10.0 * std::log10(static_cast<double>(channel_count));
    for (std::uint64_t of_seed = 1; of_seed <= 20; ++of_seed)
        expect_reachable_with_headroom(optical_plant(of_seed, eq_port_model()),
                                       connected_controls(of_seed), wanted);
}

}  // namespace
