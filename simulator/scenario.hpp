// What happens to the light, to the handlers and to what is plugged in while the
// card runs: actions at times, read from a JSON file.
//
//     {"description": "...",
//      "actions": [{"time": 60, "action": "change_launch_power",
//                   "channels": [3, 4], "change": -2.5, "over": 600}, ...]}
//
// `time` counts seconds of the program's time from the start of the simulator.
// The actions, with their further members (powers in dBm, losses, gains and
// changes in dB), are for the light:
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
//
// for the handlers:
//
//     stop_handler, start_handler, restart_handler    handler
//     freeze_handler, thaw_handler                    handler
//     slow_handler                                    handler, delay
//     fail_path, mistype_path, heal_path              handler, path
//
// `handler` is where it is reached below "/tmp/device_handlers/". Stopped, it
// ends as a killed process does; frozen, it hangs. `delay` is how much later it
// answers, 0 to 60 seconds of real time. At a path that fails it answers an
// error, at one that is mistyped a value of a wrong type; `path` may name
// several, separated by blanks.
//
// and for what is plugged in:
//
//     pull_module, insert_module    module
//
// `module` is "ppm/1" or "ppm/2", a passive module, or "interface/1" or
// "interface/2", a transceiver.
//
// and for the fibre of the supervisory channel:
//
//     cut_line, repair_line         distance (m); -
//     set_line_loss                 loss
//     set_reflectors                reflectors
//
// `reflectors` is what a pulse meets, as "DISTANCE:REFLECTANCE" in m and dB,
// separated by blanks: "400:-45 5200:-14".
//
// and for the card itself:
//
//     install_software              version
//
// `version` is what the system information tells from then on, a text that is
// not empty.
#pragma once

#include "fibre_trace.hpp"
#include "handler_faults.hpp"
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

// On the controls of the plant.
using plant_action =
    std::variant<set_action, change_action, light_action, fibre_action, booster_action>;

enum class handler_change {
    stop,
    start,
    restart,
    freeze,
    thaw,
    slow,
    fail_path,
    mistype_path,
    heal_path
};

struct handler_action {
    handler_change what;
    std::string handler;
    double delay = 0.0;  // of a slow handler, seconds of real time
    std::string path;    // that fails, is mistyped or healed
};

struct module_action {
    std::size_t module;  // numbered as the module_names
    bool inserted;
};

struct line_cut {
    double distance;  // m
};
struct line_repair {};
struct line_loss {
    double loss;  // of the fibre, dB
};
struct line_reflectors {
    std::vector<reflector> reflectors;
};

using line_action = std::variant<line_cut, line_repair, line_loss, line_reflectors>;

struct software_action {
    std::string version;
};

template <class Action>
struct timed {
    double time;  // seconds since the start
    std::string name;
    Action action;
};
using timed_plant_action = timed<plant_action>;
using timed_handler_action = timed<handler_action>;
using timed_module_action = timed<module_action>;
using timed_line_action = timed<line_action>;
using timed_software_action = timed<software_action>;

// Each list in the order of time; actions of one time in the order of the file.
struct scenario {
    std::vector<timed_plant_action> on_plant;
    std::vector<timed_handler_action> on_handlers;
    std::vector<timed_module_action> on_modules;
    std::vector<timed_line_action> on_line;
    std::vector<timed_software_action> on_software;
};

// A file that is no scenario. The text names the entry that is wrong.
class scenario_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline constexpr std::size_t max_scenario_bytes = std::size_t{1} << 20;
inline constexpr std::size_t max_scenario_actions = 10'000;
inline constexpr range scenario_time_range{0.0, 1e9};  // seconds
inline constexpr range scenario_change_range{-60.0, 60.0};

// Both throw scenario_error. An action on none of the handlers that are named
// is an error.
scenario parse_scenario(std::string_view text, const std::vector<std::string>& handlers = {});
scenario load_scenario(const std::string& file, const std::vector<std::string>& handlers);

// Carries out what happens to the light. Not safe for several threads at once.
class plant_player {
  public:
    explicit plant_player(std::vector<timed_plant_action> actions);

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
    void begin(plant_controls&, const timed_plant_action&);

    const std::vector<timed_plant_action> actions_;
    std::size_t next_ = 0;
    std::vector<running_change> changes_;
};

}  // namespace simulator
