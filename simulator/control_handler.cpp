#include "control_handler.hpp"

#include "command.hpp"
#include "control_value.hpp"
#include "volatile_value.hpp"

#include <fmt/format.h>

#include <cstddef>
#include <string>
#include <utility>

namespace simulator {
namespace {

using dh::api::volatile_value;

// `base` is "sim/", or "sim/eq/" of the second port of a card.
void publish_channel(dh_db& db, const std::string& base, const std::shared_ptr<light_path>& light,
                     unsigned channel) {
    using launch_power = control_value<&light_path::launch_power, &light_path::set_launch_power>;
    using lit = control_value<&light_path::lit, &light_path::set_lit>;
    const std::string of_channel = fmt::format("{}channel/{}/", base, channel);
    launch_power::create(db, of_channel + "launchPower", light, channel);
    lit::create(db, of_channel + "lit", light, channel);
    volatile_value<&light_path::output_power>::create(db, of_channel + "outputPower", light,
                                                      channel);
}

void publish_light(dh_db& db, const std::string& base, const std::shared_ptr<light_path>& light) {
    using span_loss = control_value<&light_path::span_loss, &light_path::set_span_loss>;
    using fibre = control_value<&light_path::fibre_intact, &light_path::set_fibre_intact>;
    using noise = control_value<&light_path::monitor_noise, &light_path::set_monitor_noise>;
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        publish_channel(db, base, light, channel);
    span_loss::create(db, base + "spanLoss", light);
    fibre::create(db, base + "fibreIntact", light);
    noise::create(db, base + "monitor/noise", light);
}

// `base` is "sim/booster/", or "sim/eq/booster/" of a neighbour's.
template <class Light>
void publish_booster(dh_db& db, const std::string& base, const std::shared_ptr<Light>& light) {
    using gain = control_value<&Light::booster_gain, &Light::set_booster_gain>;
    using fault = control_value<&Light::booster_fault, &Light::set_booster_fault>;
    using limit = control_value<&Light::booster_power_limit, &Light::set_booster_power_limit>;
    gain::create(db, base + "gain", light);
    fault::create(db, base + "fault", light);
    limit::create(db, base + "powerLimit", light);
}

// Where an amplifier card's simulation finds its light.
void publish_neighbour_booster(dh_db& db, const std::shared_ptr<light_path>& light) {
    using connected =
        control_value<&light_path::booster_connected, &light_path::set_booster_connected>;
    using enabled = control_value<&light_path::booster_enabled, &light_path::set_booster_enabled>;
    const std::string base = "sim/eq/booster/";
    publish_booster(db, base, light);
    connected::create(db, base + "connected", light);
    enabled::create(db, base + "enabled", light);
    volatile_value<&light_path::booster_on>::create(db, base + "on", light);
    volatile_value<&light_path::booster_input_power>::create(db, base + "rxPower", light);
    volatile_value<&light_path::booster_input_lost>::create(db, base + "inputLost", light);
    volatile_value<&light_path::booster_output_power>::create(db, base + "txPower", light);
    volatile_value<&light_path::booster_actual_gain>::create(db, base + "actualGain", light);
    volatile_value<&light_path::booster_monitor_loss>::create(db, base + "monitorLoss", light);
}

void publish_osc(dh_db& db, const std::shared_ptr<osc_link>& link, std::size_t number) {
    using link_status = control_value<&osc_link::link_status, &osc_link::set_link_status>;
    using state = control_value<&osc_link::state, &osc_link::set_state>;
    using length = control_value<&osc_link::length, &osc_link::set_length>;
    using dispersion = control_value<&osc_link::dispersion, &osc_link::set_dispersion>;
    using neighbour = control_value<&osc_link::neighbour, &osc_link::set_neighbour>;
    const std::string base = fmt::format("sim/osc/{}/", number);
    link_status::create(db, base + "linkStatus", link);
    state::create(db, base + "state", link);
    length::create(db, base + "length", link);
    dispersion::create(db, base + "dispersion", link);
    neighbour::create(db, base + "neighbour", link);
}

void publish_ppm(dh_db& db, const std::shared_ptr<ppm_bay>& bay, std::size_t number) {
    using present = control_value<&ppm_bay::present, &ppm_bay::set_present>;
    using loss = control_value<&ppm_bay::loss, &ppm_bay::set_loss>;
    const std::string base = fmt::format("sim/ppm/{}/", number);
    present::create(db, base + "present", bay);
    for (std::size_t which = 0; which < ppm_loss_count; ++which)
        loss::create(db, base + ppm_loss_names[which], bay, which);
}

void publish_sfp(dh_db& db, const std::shared_ptr<sfp_bay>& bay, std::size_t number) {
    using present = control_value<&sfp_bay::present, &sfp_bay::set_present>;
    using rx_power = control_value<&sfp_bay::rx_power, &sfp_bay::set_rx_power>;
    using tx_power = control_value<&sfp_bay::tx_power, &sfp_bay::set_tx_power>;
    using otdr_support = control_value<&sfp_bay::otdr_support, &sfp_bay::set_otdr_support>;
    const std::string base = fmt::format("sim/interface/{}/", number);
    present::create(db, base + "present", bay);
    rx_power::create(db, base + "rxPower", bay);
    tx_power::create(db, base + "txPower", bay);
    otdr_support::create(db, base + "otdrSupport", bay);
}

void publish_otdr(dh_db& db, const std::shared_ptr<otdr_unit>& otdr, std::size_t number) {
    using measuring_time =
        control_value<&otdr_unit::measuring_time, &otdr_unit::set_measuring_time>;
    using failing = control_value<&otdr_unit::failing, &otdr_unit::set_failing>;
    const std::string base = fmt::format("sim/interface/{}/otdr/", number);
    measuring_time::create(db, base + "measuringTime", otdr);
    failing::create(db, base + "failing", otdr);
}

void publish_line(dh_db& db, const std::shared_ptr<supervisory_line>& line) {
    using self = supervisory_line;
    using fibre_loss = control_value<&self::fibre_loss, &self::set_fibre_loss>;
    using connector_loss = control_value<&self::connector_loss, &self::set_connector_loss>;
    using far_power = control_value<&self::far_power, &self::set_far_power>;
    using intact = control_value<&self::intact, &self::set_intact>;
    using cut_distance = control_value<&self::cut_distance, &self::set_cut_distance>;
    using reflectors = control_value<&self::reflectors, &self::set_reflectors>;
    const std::string base = "sim/line/";
    fibre_loss::create(db, base + "fibreLoss", line);
    connector_loss::create(db, base + "connectorLoss", line);
    far_power::create(db, base + "farPower", line);
    intact::create(db, base + "intact", line);
    cut_distance::create(db, base + "cutDistance", line);
    reflectors::create(db, base + "reflectors", line);
    volatile_value<&self::sent_power>::create(db, base + "sentPower", line);
}

void publish_handler(dh_db& db, const std::shared_ptr<fallible_handler>& handler) {
    using running = control_value<&fallible_handler::running, &fallible_handler::set_running>;
    using frozen = control_value<&fallible_handler::frozen, &fallible_handler::set_frozen>;
    using delay = control_value<&fallible_handler::delay, &fallible_handler::set_delay>;
    using error_path =
        control_value<&fallible_handler::error_path, &fallible_handler::set_error_path>;
    using wrong_type_path =
        control_value<&fallible_handler::wrong_type_path, &fallible_handler::set_wrong_type_path>;
    const std::string base = "sim/handler/" + handler->name() + "/";
    running::create(db, base + "running", handler);
    dh::api::command<&fallible_handler::restart>::create(db, base + "restart", handler);
    frozen::create(db, base + "frozen", handler);
    delay::create(db, base + "delay", handler);
    error_path::create(db, base + "errorPath", handler);
    wrong_type_path::create(db, base + "wrongTypePath", handler);
}

}  // namespace

handler_plan control_handler(card_models models,
                             std::vector<std::shared_ptr<fallible_handler>> handlers) {
    const auto publish = [models = std::move(models), handlers = std::move(handlers)](
                             dh_db& db, dh::api::value_group&) {
        if (models.light) {
            publish_light(db, "sim/", models.light);
            publish_booster(db, "sim/booster/", models.light);
            volatile_value<&light_path::seconds>::create(db, "sim/time", models.light);
        } else {
            publish_booster(db, "sim/booster/", models.fed_by);
        }
        if (models.eq_light) {
            publish_light(db, "sim/eq/", models.eq_light);
            publish_neighbour_booster(db, models.eq_light);
        }
        control_value<&installed_software::version, &installed_software::set_version>::create(
            db, "sim/softwareVersion", models.software);
        for (std::size_t index = 0; index < models.osc.size(); ++index)
            publish_osc(db, models.osc[index], index + 1);
        for (std::size_t index = 0; index < models.ppm.size(); ++index)
            publish_ppm(db, models.ppm[index], index + 1);
        for (std::size_t index = 0; index < models.sfp.size(); ++index)
            publish_sfp(db, models.sfp[index], index + 1);
        for (std::size_t index = 0; index < models.otdr.size(); ++index)
            publish_otdr(db, models.otdr[index], index + 1);
        publish_line(db, models.line);
        for (const auto& handler : handlers)
            publish_handler(db, handler);
        control_value<&start_state::cold, &start_state::set_cold>::create(db, "sim/systemColdstart",
                                                                          models.start);
        return nullptr;
    };
    return {"sim", "sim", publish};
}

}  // namespace simulator
