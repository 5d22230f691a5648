// One control loop's light as its handlers see it: the plant, driven by what
// the handlers write, by the scenario and by hands at the control socket.
#pragma once

#include "optical_plant.hpp"
#include "scenario.hpp"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace simulator {

// Owner of the nodes that the handlers publish. Any thread may call any member.
// Time is the program's. Nothing runs of its own: each call first brings the
// scenario up to the time of the call.
//
// The monitor sweeps once in `sweep_period`: a meter that has been read keeps
// its reading for that long, so that the values of one channel that are read
// together belong together.
//
// Channels are 1 to `channel_count`; the tree has nodes for no others.
class light_path {
  public:
    static constexpr std::chrono::nanoseconds sweep_period = std::chrono::seconds(1);

    light_path(std::uint64_t seed, std::vector<timed_plant_action> actions, plant_model model = {});

    const plant_model& model() const { return plant_.model(); }

    // WSS. The attenuation written is brought to the nearest that can be set;
    // the one read is the one in force. An unknown port mode is dh_error -22.
    std::string port(unsigned channel);
    void set_port(unsigned channel, const std::string& mode);
    double attenuation(unsigned channel);
    void set_attenuation(unsigned channel, double attenuation);

    // Channel monitor.
    bool detected(unsigned channel);
    float power_level(unsigned channel);
    int channel_id(unsigned channel);
    float output_total_power();
    float input_total_power();

    // Booster.
    bool booster_on();
    void set_booster_enabled(bool);
    float booster_output_power();
    float booster_input_power();
    bool booster_input_lost();
    float booster_actual_gain();
    double booster_power_limit();
    // From the booster's output to the channel monitor, dB.
    float booster_monitor_loss() const;

    // What hands may turn. A value out of its range is dh_error -22.
    float launch_power(unsigned channel);
    void set_launch_power(unsigned channel, float);
    bool lit(unsigned channel);
    void set_lit(unsigned channel, bool);
    float span_loss();
    void set_span_loss(float);
    bool fibre_intact();
    void set_fibre_intact(bool);
    float booster_gain();
    void set_booster_gain(float);
    bool booster_fault();
    void set_booster_fault(bool);
    bool booster_enabled();
    bool booster_connected();
    void set_booster_connected(bool);
    void set_booster_power_limit(double);
    float monitor_noise();
    void set_monitor_noise(float);

    // The true power of a channel at the booster's output.
    float output_power(unsigned channel);
    // Seconds since the start, as the scenario counts them.
    double seconds();

  private:
    template <class Reading>
    struct held {
        Reading reading{};
        std::chrono::nanoseconds taken{};
        bool valid = false;
    };

    std::chrono::nanoseconds elapsed() const;
    // Both with `mutex_` held.
    void advance();
    void recompute();
    template <class Reading, class Measure>
    const Reading& fresh(held<Reading>&, const Measure&);
    channel_reading read_channel(unsigned channel);

    // Reads or changes the controls at the time of the call.
    template <class Read>
    auto look(const Read&);
    template <class Change>
    void change(const Change&);

    const std::chrono::nanoseconds start_;
    const optical_plant plant_;

    std::mutex mutex_;  // guards all below
    plant_player player_;
    plant_controls controls_;
    light light_;
    per_channel<held<channel_reading>> channel_readings_{};
    held<float> output_total_;
    held<float> input_total_;
};

}  // namespace simulator
