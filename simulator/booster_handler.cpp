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

template <class Light>
using enable_value = hysteresis_filtered_value<polled_volatile_value_impl<&Light::booster_on>>;
template <class Light>
using input_lost_value =
    hysteresis_filtered_value<polled_volatile_value_impl<&Light::booster_input_lost>>;
template <class Light>
using input_power_value =
    hysteresis_filtered_value<polled_volatile_value_impl<&Light::booster_input_power>>;

// How much the input power moves before subscribers hear of it, dB.
constexpr double input_power_immediate_limit = 0.5;
constexpr double input_power_delayed_limit = 0.1;

template <class Light>
class booster_settings {
  public:
    booster_settings(std::shared_ptr<Light> light, std::shared_ptr<enable_value<Light>> enable)
        : light_(std::move(light)), enable_(std::move(enable)) {}

    // The state that is published follows at once, not at the next tick.
    void set_enable(bool enabled) {
        light_->set_booster_enabled(enabled);
        enable_->periodic_task(false);
    }

  private:
    const std::shared_ptr<Light> light_;
    const std::shared_ptr<enable_value<Light>> enable_;
};

// Polled from now on, and published before the first tick.
template <class Node>
void add_polled(dh::api::value_group& group, const std::shared_ptr<Node>& node) {
    node->periodic_task(false);
    group.add_value(node, 0);
}

template <class Light>
std::shared_ptr<enable_value<Light>> publish_state(dh_db& db, dh::api::value_group& group,
                                                   const std::shared_ptr<Light>& light) {
    volatile_value<&Light::booster_output_power>::create(db, "data/txPower", light);
    volatile_value<&Light::booster_actual_gain>::create(db, "data/actualGain", light);
    volatile_value<&Light::booster_power_limit>::create(db, "data/powerLimit", light);
    add_polled(group,
               input_power_value<Light>::create(db, "data/rxPower", input_power_immediate_limit,
                                                input_power_delayed_limit, light));
    add_polled(group, input_lost_value<Light>::create(db, "data/rx/losPin", light));
    auto enable = enable_value<Light>::create(db, "data/enable", light);
    add_polled(group, enable);
    return enable;
}

template <class Light>
std::shared_ptr<void> publish_booster(dh_db& db, dh::api::value_group& group,
                                      const std::shared_ptr<Light>& light) {
    auto settings =
        std::make_shared<booster_settings<Light>>(light, publish_state(db, group, light));
    config_param<&booster_settings<Light>::set_enable>::create(db, "config/enable", settings);
    const auto gain = config_param<&Light::set_booster_gain>::create(db, "config/gain", light);
    gain->describe_constraints(dh::api::min_max_range_t<float>{
        static_cast<float>(booster_gain_range.low), static_cast<float>(booster_gain_range.high)});
    status_value<bool>::create(db, "data/configStatus", true, 0);
    return settings;
}

}  // namespace

handler_plan booster_handler(std::shared_ptr<light_path> light) {
    return {"booster", "booster",
            [light = std::move(light)](dh_db& db, dh::api::value_group& group) {
                return publish_booster(db, group, light);
            },
            booster_port};
}

template <class Light>
handler_plan amplifier_handler(std::shared_ptr<Light> light) {
    return {"booster", "booster",
            [light = std::move(light)](dh_db& db, dh::api::value_group& group) {
                auto settings = publish_booster(db, group, light);
                volatile_value<&Light::booster_monitor_loss>::create(db, "data/boosterTx", light);
                return settings;
            },
            booster_port};
}

template handler_plan amplifier_handler(std::shared_ptr<light_path>);
template handler_plan amplifier_handler(std::shared_ptr<distant_booster>);

}  // namespace simulator
