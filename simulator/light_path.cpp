#include "light_path.hpp"

#include "dh_error.hpp"
#include "host.hpp"
#include "require_within.hpp"

#include <utility>

namespace simulator {
namespace {

port_mode require_port_mode(const std::string& name, const plant_model& model) {
    for (const port_mode mode : port_modes(model)) {
        if (name == name_of(mode))
            return mode;
    }
    throw dh_error(dh_error_code::invalid_argument, "no such port mode: " + name.substr(0, 40));
}

}  // namespace

light_path::light_path(std::uint64_t seed, std::vector<timed_plant_action> actions,
                       plant_model model)
    : start_(host::time().monotonic()),
      plant_(seed, model),
      player_(std::move(actions)),
      controls_(default_controls(seed, model)) {
    recompute();
}

std::chrono::nanoseconds light_path::elapsed() const {
    return host::time().monotonic() - start_;
}

double light_path::seconds() {
    return std::chrono::duration<double>(elapsed()).count();
}

void light_path::advance() {
    if (player_.advance(controls_, seconds()))
        recompute();
}

void light_path::recompute() {
    light_ = plant_.propagate(controls_);
}

template <class Read>
auto light_path::look(const Read& read) {
    const std::lock_guard lock(mutex_);
    advance();
    return read();
}

template <class Change>
void light_path::change(const Change& apply) {
    const std::lock_guard lock(mutex_);
    advance();
    apply();
    recompute();
}

template <class Reading, class Measure>
const Reading& light_path::fresh(held<Reading>& meter, const Measure& measure) {
    const std::chrono::nanoseconds now = elapsed();
    if (!meter.valid || now - meter.taken >= sweep_period) {
        const auto sweep = static_cast<std::uint64_t>(now / sweep_period);
        meter = {measure(sweep), now, true};
    }
    return meter.reading;
}

channel_reading light_path::read_channel(unsigned channel) {
    return look([&] {
        return fresh(channel_readings_[channel], [&](std::uint64_t sweep) {
            return plant_.read_channel(light_, channel, sweep, controls_.monitor_noise);
        });
    });
}

std::string light_path::port(unsigned channel) {
    return look([&] { return name_of(controls_.channels[channel].port); });
}

void light_path::set_port(unsigned channel, const std::string& mode) {
    const port_mode wanted = require_port_mode(mode, plant_.model());
    change([&] { controls_.channels[channel].port = wanted; });
}

double light_path::attenuation(unsigned channel) {
    return look([&] { return controls_.channels[channel].attenuation; });
}

void light_path::set_attenuation(unsigned channel, double attenuation) {
    const double applied = settable_attenuation(attenuation);
    change([&] { controls_.channels[channel].attenuation = applied; });
}

bool light_path::detected(unsigned channel) {
    return read_channel(channel).detected;
}

float light_path::power_level(unsigned channel) {
    return read_channel(channel).power;
}

int light_path::channel_id(unsigned channel) {
    return read_channel(channel).id;
}

float light_path::output_total_power() {
    return look([&] {
        return fresh(output_total_, [&](std::uint64_t sweep) {
            return plant_.read_output_total(light_, sweep, controls_.monitor_noise);
        });
    });
}

float light_path::input_total_power() {
    return look([&] {
        return fresh(input_total_, [&](std::uint64_t sweep) {
            return plant_.read_input_total(light_, sweep, controls_.monitor_noise);
        });
    });
}

bool light_path::booster_on() {
    return look([&] { return controls_.booster_on(); });
}

void light_path::set_booster_enabled(bool enabled) {
    change([&] { controls_.booster_enabled = enabled; });
}

float light_path::booster_output_power() {
    return look([&] { return plant_.booster_output_power(light_); });
}

float light_path::booster_input_power() {
    return look([&] { return plant_.booster_input_power(light_); });
}

bool light_path::booster_input_lost() {
    return booster_input_power() < plant_.model().booster_input_threshold;
}

float light_path::booster_actual_gain() {
    return look([&] { return static_cast<float>(light_.booster_gain); });
}

double light_path::booster_power_limit() {
    return look([&] { return controls_.booster_power_limit; });
}

float light_path::booster_monitor_loss() const {
    const plant_model& built = model();
    return static_cast<float>(built.has_booster ? built.monitor_tap_loss
                                                : built.neighbour_monitor_tap_loss);
}

void light_path::set_booster_power_limit(double limit) {
    require_within(booster_power_limit_range, limit);
    change([&] { controls_.booster_power_limit = limit; });
}

float light_path::launch_power(unsigned channel) {
    return look([&] { return static_cast<float>(controls_.channels[channel].launch_power); });
}

void light_path::set_launch_power(unsigned channel, float power) {
    require_within(launch_power_range, power);
    change([&] { controls_.channels[channel].launch_power = power; });
}

bool light_path::lit(unsigned channel) {
    return look([&] { return controls_.channels[channel].lit; });
}

void light_path::set_lit(unsigned channel, bool lit) {
    change([&] { controls_.channels[channel].lit = lit; });
}

float light_path::span_loss() {
    return look([&] { return static_cast<float>(controls_.span_loss); });
}

void light_path::set_span_loss(float loss) {
    require_within(span_loss_range, loss);
    change([&] { controls_.span_loss = loss; });
}

bool light_path::fibre_intact() {
    return look([&] { return controls_.fibre_intact; });
}

void light_path::set_fibre_intact(bool intact) {
    change([&] { controls_.fibre_intact = intact; });
}

float light_path::booster_gain() {
    return look([&] { return static_cast<float>(controls_.booster_gain); });
}

void light_path::set_booster_gain(float gain) {
    require_within(booster_gain_range, gain);
    change([&] { controls_.booster_gain = gain; });
}

bool light_path::booster_fault() {
    return look([&] { return controls_.booster_fault; });
}

void light_path::set_booster_fault(bool fault) {
    change([&] { controls_.booster_fault = fault; });
}

bool light_path::booster_enabled() {
    return look([&] { return controls_.booster_enabled; });
}

bool light_path::booster_connected() {
    return look([&] { return controls_.booster_connected; });
}

void light_path::set_booster_connected(bool connected) {
    change([&] { controls_.booster_connected = connected; });
}

float light_path::monitor_noise() {
    return look([&] { return static_cast<float>(controls_.monitor_noise); });
}

void light_path::set_monitor_noise(float noise) {
    require_within(monitor_noise_range, noise);
    change([&] { controls_.monitor_noise = noise; });
}

float light_path::output_power(unsigned channel) {
    return look([&] { return static_cast<float>(light_.output[channel]); });
}

}  // namespace simulator
