// What happens to the light while the card runs: actions at times, read from a
// JSON file and carried out on the controls of the plant.
//
//     {"description": "...",
//      "actions": [{"time": 60, "action": "change_launch_power",
//                   "channels": [3, 4], "change": -2.5, "over": 600}, ...]}
//
// `time` counts seconds of the program's time from the start of the simulator.
// The actions, with their further members (powers in dBm, losses, gains and
// changes in dB):
//
//     light_channels, darken_channels      channels
//     set_launch_power                     channels, power
//     change_launch_power                  channels, change, over
//     set_span_loss, change_span_loss      loss; change, over
//     set_booster_gain, change_booster_gain  gain; change, over
//     cut_fibre, repair_fibre, booster_off, booster_on
//
// `channels` is a channel, a list of channels, or "all". `over` is the time in
// seconds that a change takes; without it the change is a step.
#pragma once

#include "optical_plant.hpp"

#include <bitset>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace simulator {

// Numbered as the channels; bit 0 is not used.
using channel_set = std::bitset<channel_count + 1>;

enum class quantity { launch_power, span_loss, booster_gain };

struct set_action {
    quantity what;
    channel_set channels;  // of a launch power
    double value;
};

struct change_action {
    quantity what;
    channel_set channels;  // of a launch power
    double change;
    double over;  // seconds; 0 for a step
};

struct light_action {
    channel_set channels;
    bool lit;
};

struct fibre_action {
    bool intact;
};

struct booster_action {
    bool enabled;
};

// Actions on the light. Actions on the handlers are further alternatives, for
// whoever owns the handlers.
using scenario_action =
    std::variant<set_action, change_action, light_action, fibre_action, booster_action>;

struct timed_action {
    double time;  // seconds since the start
    std::string name;
    scenario_action action;
};

// In the order of time; those of one time in the order of the file.
using scenario = std::vector<timed_action>;

// A file that is no scenario. The text names the entry that is wrong.
class scenario_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline constexpr std::size_t max_scenario_bytes = std::size_t{1} << 20;
inline constexpr std::size_t max_scenario_actions = 10'000;
inline constexpr range scenario_time_range{0.0, 1e9};  // seconds
inline constexpr range scenario_change_range{-60.0, 60.0};

// Both throw scenario_error.
scenario parse_scenario(std::string_view text);
scenario load_scenario(const std::string& file);

// Carries a scenario out. Not safe for several threads at once.
class scenario_player {
  public:
    explicit scenario_player(scenario actions);

    // Brings the controls to the time given, in seconds since the start, which
    // never goes back. Whether anything was changed.
    bool advance(plant_controls&, double now);

  private:
    struct running_change {
        change_action action;
        double start;
        double applied;  // of the change, dB
    };

    bool advance_changes(plant_controls&, double now);
    void begin(plant_controls&, const timed_action&);

    const scenario actions_;
    std::size_t next_ = 0;
    std::vector<running_change> changes_;
};

}  // namespace simulator
