#include "booster_handler.hpp"

#include "config_param.hpp"
#include "filtered_value.hpp"
#include "status_value.hpp"
#include "volatile_value.hpp"

#include <utility>

namespace simulator {
namespace {

using dh::api::config_param;
using dh::api::hysteresis_filtered_value;
using dh::api::polled_volatile_value_impl;
using dh::api::status_value;
using dh::api::volatile_value;

using enable_value = hysteresis_filtered_value<polled_volatile_value_impl<&light_path::booster_on>>;
using input_lost_value =
    hysteresis_filtered_value<polled_volatile_value_impl<&light_path::booster_input_lost>>;
using input_power_value =
    hysteresis_filtered_value<polled_volatile_value_impl<&light_path::booster_input_power>>;

// How much the input power moves before subscribers hear of it, dB.
constexpr double input_power_immediate_limit = 0.5;
constexpr double input_power_delayed_limit = 0.1;

class booster_settings {
  public:
    booster_settings(std::shared_ptr<light_path> light, std::shared_ptr<enable_value> enable)
        : light_(std::move(light)), enable_(std::move(enable)) {}

    // The state that is published follows at once, not at the next tick.
    void set_enable(bool enabled) {
        light_->set_booster_enabled(enabled);
        enable_->periodic_task(false);
    }

  private:
    const std::shared_ptr<light_path> light_;
    const std::shared_ptr<enable_value> enable_;
};

// Polled from now on, and published before the first tick.
template <class Node>
void add_polled(dh::api::value_group& group, const std::shared_ptr<Node>& node) {
    node->periodic_task(false);
    group.add_value(node, 0);
}

std::shared_ptr<enable_value> publish_state(dh_db& db, dh::api::value_group& group,
                                            const std::shared_ptr<light_path>& light) {
    volatile_value<&light_path::booster_output_power>::create(db, "data/txPower", light);
    volatile_value<&light_path::booster_actual_gain>::create(db, "data/actualGain", light);
    volatile_value<&light_path::booster_power_limit>::create(db, "data/powerLimit", light);
    add_polled(group, input_power_value::create(db, "data/rxPower", input_power_immediate_limit,
                                                input_power_delayed_limit, light));
    add_polled(group, input_lost_value::create(db, "data/rx/losPin", light));
    auto enable = enable_value::create(db, "data/enable", light);
    add_polled(group, enable);
    return enable;
}

}  // namespace

handler_plan booster_handler(std::shared_ptr<light_path> light) {
    const auto publish = [light = std::move(light)](dh_db& db, dh::api::value_group& group) {
        auto settings = std::make_shared<booster_settings>(light, publish_state(db, group, light));
        config_param<&booster_settings::set_enable>::create(db, "config/enable", settings);
        const auto gain =
            config_param<&light_path::set_booster_gain>::create(db, "config/gain", light);
        gain->describe_constraints(
            dh::api::min_max_range_t<float>{static_cast<float>(booster_gain_range.low),
                                            static_cast<float>(booster_gain_range.high)});
        status_value<bool>::create(db, "data/configStatus", true, 0);
        return settings;
    };
    return {"booster", "booster", publish};
}

}  // namespace simulator
