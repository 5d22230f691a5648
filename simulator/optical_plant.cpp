#include "optical_plant.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace simulator {
namespace {

constexpr double reading_step = 0.01;   // dB
constexpr double launch_spread = 4.0;   // dB between the weakest and the strongest
constexpr double ripple_periods = 2.5;  // of the booster's gain over the band
constexpr unsigned dark_every = 6;      // channels
constexpr int first_channel_id = 13;    // number of the frequency 191.3 THz in its grid
constexpr double photon_noise = -51.9;  // dBm in a channel's slot of 50 GHz

// Meters that have noise of their own; a channel's meter is its number.
constexpr std::uint64_t output_total_meter = 100;
constexpr std::uint64_t input_total_meter = 101;

double milliwatts(double dbm) {
    return std::pow(10.0, dbm / 10.0);
}

double dbm(double power_mw) {
    return power_mw > 0.0 ? std::max(10.0 * std::log10(power_mw), darkness) : darkness;
}

// Mixes 64 bits so that neighbours have nothing in common (the finisher of
// the splitmix generator).
std::uint64_t mixed(std::uint64_t bits) {
    bits += 0x9e3779b97f4a7c15U;
    bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9U;
    bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebU;
    return bits ^ (bits >> 31);
}

// Evenly spread over 0 to 1.
double fraction(std::uint64_t bits) {
    return static_cast<double>(bits >> 11) * 0x1.0p-53;
}

// Evenly spread over -1 to 1, of a quantity's own stream.
double deviation(std::uint64_t seed, std::uint64_t stream, std::uint64_t index) {
    return 2.0 * fraction(mixed(mixed(mixed(seed) + stream) + index)) - 1.0;
}

// Of standard deviation 1, and never beyond 3: three even deviations together.
double bounded_noise(std::uint64_t seed, std::uint64_t meter, std::uint64_t sweep) {
    double sum = 0.0;
    for (std::uint64_t part = 0; part < 3; ++part)
        sum += deviation(mixed(seed + part), meter, sweep);
    return sum;
}

// -1 at the lowest channel, 1 at the highest.
double place_in_band(unsigned channel) {
    return (2.0 * channel - 1.0 - channel_count) / (channel_count - 1.0);
}

double insertion_loss(const plant_model& model, port_mode mode) {
    switch (mode) {
        case port_mode::express:
            return model.express_insertion_loss;
        case port_mode::on:
            return model.port_insertion_loss;
        case port_mode::edfa:
        case port_mode::off:
            break;
    }
    return model.edfa_insertion_loss;
}

double wss_loss(const plant_model& model, const plant_controls::channel& channel) {
    const bool blocked =
        channel.port == port_mode::off || channel.attenuation >= blocked_attenuation;
    return insertion_loss(model, channel.port) + channel.attenuation +
           (blocked ? model.extinction : 0.0);
}

}  // namespace

std::string name_of(port_mode mode) {
    switch (mode) {
        case port_mode::edfa:
            return "edfa";
        case port_mode::express:
            return "express";
        case port_mode::on:
            return "on";
        case port_mode::off:
            break;
    }
    return "off";
}

double settable_attenuation(double attenuation) {
    const double within = range{0.0, blocked_attenuation}.nearest(attenuation);
    // Divided, not multiplied: gives the number that a reader would write.
    return std::round(within / attenuation_step) / std::round(1.0 / attenuation_step);
}

double range::nearest(double value) const {
    return value > low ? std::min(value, high) : low;
}

std::vector<port_mode> port_modes(const plant_model& model) {
    if (model.first_port == port_mode::on)
        return {port_mode::off, port_mode::on};
    return {port_mode::off, port_mode::edfa, port_mode::express};
}

plant_model edfa_port_model() {
    plant_model model;
    model.first_port = port_mode::on;
    return model;
}

// Fed by strong light: what passes without an amplifier is to be of use.
plant_model eq_port_model() {
    plant_model model;
    model.first_port = port_mode::on;
    model.port_insertion_loss = 4.0;
    model.has_booster = false;
    model.monitor_tap_loss = 20.0;
    model.booster_tilt = 0.0;
    model.booster_ripple = 0.0;
    model.first_launch_power = 16.0;
    model.first_span_loss = 3.0;
    model.first_booster_gain = 5.0;
    model.first_booster_power_limit = 21.0;
    return model;
}

plant_model amplifier_model() {
    plant_model model = eq_port_model();
    model.has_booster = true;
    model.monitor_tap_loss = model.neighbour_monitor_tap_loss;
    return model;
}

plant_controls default_controls(std::uint64_t seed, const plant_model& model) {
    constexpr std::uint64_t launch_stream = 1;
    plant_controls controls;
    controls.span_loss = model.first_span_loss;
    controls.booster_connected = model.has_booster;
    controls.booster_gain = model.first_booster_gain;
    controls.booster_power_limit = model.first_booster_power_limit;
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        controls.channels[channel].lit = channel % dark_every != 0;
        controls.channels[channel].port = model.first_port;
        controls.channels[channel].launch_power =
            model.first_launch_power +
            0.5 * launch_spread * deviation(seed, launch_stream, channel);
    }
    return controls;
}

optical_plant::optical_plant(std::uint64_t seed, plant_model model) : seed_(seed), model_(model) {
    constexpr std::uint64_t ripple_stream = 2;
    constexpr std::uint64_t monitor_stream = 3;
    const double phase = std::numbers::pi * deviation(seed_, ripple_stream, 0);
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        const double place = place_in_band(channel);
        booster_shape_[channel] =
            0.5 * model_.booster_tilt * place +
            model_.booster_ripple * std::sin(std::numbers::pi * ripple_periods * place + phase);
        monitor_error_[channel] = model_.monitor_ripple * deviation(seed_, monitor_stream, channel);
    }
}

double optical_plant::gain_of(unsigned channel, double average_gain) const {
    return average_gain + booster_shape_[channel];
}

double optical_plant::amplified_by(const plant_controls& controls) const {
    if (!controls.booster_connected)
        return 0.0;
    return controls.booster_on() ? controls.booster_gain : -model_.booster_absorption;
}

light optical_plant::propagate(const plant_controls& controls) const {
    per_channel<double> booster_input{};  // mW
    double input_total = 0.0;
    double booster_input_total = 0.0;
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        const auto& control = controls.channels[channel];
        if (!control.lit || !controls.fibre_intact)
            continue;
        const double at_card = control.launch_power - controls.span_loss;
        booster_input[channel] = milliwatts(at_card - wss_loss(model_, control));
        input_total += milliwatts(at_card);
        booster_input_total += booster_input[channel];
    }

    // Spontaneous emission, as if that much light came in with each channel.
    const bool amplifies = controls.booster_connected && controls.booster_on();
    const double emission =
        amplifies ? milliwatts(photon_noise + model_.booster_noise_figure) : 0.0;
    const double gain = amplified_by(controls);
    per_channel<double> output{};  // mW
    double output_total = 0.0;
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        output[channel] = (booster_input[channel] + emission) * milliwatts(gain_of(channel, gain));
        output_total += output[channel];
    }
    const double excess = controls.booster_connected
                              ? std::max(0.0, dbm(output_total) - controls.booster_power_limit)
                              : 0.0;

    light result;
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        result.output[channel] = dbm(output[channel] * milliwatts(-excess));
    result.input_total = dbm(input_total);
    result.booster_input_total = dbm(booster_input_total);
    result.output_total = dbm(output_total * milliwatts(-excess));
    result.booster_gain = gain - excess;
    result.monitor_tap_loss = controls.booster_connected && !model_.has_booster
                                  ? model_.neighbour_monitor_tap_loss
                                  : model_.monitor_tap_loss;
    return result;
}

channel_reading optical_plant::read_channel(const light& light, unsigned channel,
                                            std::uint64_t sweep, double noise) const {
    const double at_monitor =
        light.output[channel] - light.monitor_tap_loss + monitor_error_[channel];
    channel_reading result;
    result.power = reading(at_monitor, channel, sweep, noise);
    result.detected = result.power >= static_cast<float>(model_.detection_threshold);
    result.id = first_channel_id + static_cast<int>(channel) - 1;
    return result;
}

float optical_plant::read_output_total(const light& light, std::uint64_t sweep,
                                       double noise) const {
    return reading(light.output_total - light.monitor_tap_loss, output_total_meter, sweep, noise);
}

float optical_plant::read_input_total(const light& light, std::uint64_t sweep, double noise) const {
    return reading(light.input_total - model_.receive_tap_loss, input_total_meter, sweep, noise);
}

float optical_plant::booster_output_power(const light& light) const {
    const bool dark = light.output_total <= darkness;
    return reading(light.output_total + (dark ? 0.0 : model_.booster_meter_error), 0, 0, 0.0);
}

float optical_plant::booster_input_power(const light& light) const {
    return reading(light.booster_input_total, 0, 0, 0.0);
}

float optical_plant::reading(double power, std::uint64_t meter, std::uint64_t sweep,
                             double noise) const {
    if (power <= darkness)
        return static_cast<float>(darkness);
    const double noisy = power + noise * bounded_noise(seed_, meter, sweep);
    const double steps = std::round(noisy / reading_step);
    return static_cast<float>(std::max(steps / std::round(1.0 / reading_step), darkness));
}

}  // namespace simulator
