#include "control_handler.hpp"

#include "control_value.hpp"
#include "volatile_value.hpp"

#include <fmt/format.h>

#include <utility>

namespace simulator {
namespace {

using dh::api::volatile_value;

void publish_channel(dh_db& db, const std::shared_ptr<light_path>& light, unsigned channel) {
    using launch_power = control_value<&light_path::launch_power, &light_path::set_launch_power>;
    using lit = control_value<&light_path::lit, &light_path::set_lit>;
    const std::string base = fmt::format("sim/channel/{}/", channel);
    launch_power::create(db, base + "launchPower", light, channel);
    lit::create(db, base + "lit", light, channel);
    volatile_value<&light_path::output_power>::create(db, base + "outputPower", light, channel);
}

void publish_light(dh_db& db, const std::shared_ptr<light_path>& light) {
    using span_loss = control_value<&light_path::span_loss, &light_path::set_span_loss>;
    using fibre = control_value<&light_path::fibre_intact, &light_path::set_fibre_intact>;
    using gain = control_value<&light_path::booster_gain, &light_path::set_booster_gain>;
    using fault = control_value<&light_path::booster_fault, &light_path::set_booster_fault>;
    using limit =
        control_value<&light_path::booster_power_limit, &light_path::set_booster_power_limit>;
    using noise = control_value<&light_path::monitor_noise, &light_path::set_monitor_noise>;
    span_loss::create(db, "sim/spanLoss", light);
    fibre::create(db, "sim/fibreIntact", light);
    gain::create(db, "sim/booster/gain", light);
    fault::create(db, "sim/booster/fault", light);
    limit::create(db, "sim/booster/powerLimit", light);
    noise::create(db, "sim/monitor/noise", light);
    volatile_value<&light_path::seconds>::create(db, "sim/time", light);
}

}  // namespace

handler_plan control_handler(std::shared_ptr<light_path> light,
                             std::shared_ptr<start_state> start) {
    const auto publish = [light = std::move(light), start = std::move(start)](
                             dh_db& db, dh::api::value_group&) {
        for (unsigned channel = 1; channel <= channel_count; ++channel)
            publish_channel(db, light, channel);
        publish_light(db, light);
        control_value<&start_state::cold, &start_state::set_cold>::create(db, "sim/systemColdstart",
                                                                          start);
        return nullptr;
    };
    return {"sim", "sim", publish};
}

}  // namespace simulator
