#include "wss_edge_handler.hpp"

#include "config_param.hpp"
#include "status_value.hpp"
#include "volatile_value.hpp"

#include <fmt/format.h>

#include <atomic>
#include <utility>

namespace simulator {
namespace {

using dh::api::config_param;
using dh::api::status_value;
using dh::api::volatile_value;

// Settings that the handler keeps and that move no light.
class wss_edge_settings {
  public:
    void set_lane_compensation(bool enabled) { lane_compensation_ = enabled; }
    bool lane_compensation() const { return lane_compensation_; }
    void set_monitor_port_offset(float offset) { monitor_port_offset_ = offset; }
    float monitor_port_offset() const { return monitor_port_offset_; }

  private:
    std::atomic<bool> lane_compensation_{false};
    std::atomic<float> monitor_port_offset_{20.0f};  // dB
};

void publish_channel(dh_db& db, const wss_port& port, unsigned channel) {
    const std::string of_monitor = fmt::format("data/{}/channel/{}/", port.ocm, channel);
    volatile_value<&light_path::detected>::create(db, of_monitor + "detected", port.light, channel);
    volatile_value<&light_path::power_level>::create(db, of_monitor + "powerLevel", port.light,
                                                     channel);
    volatile_value<&light_path::channel_id>::create(db, of_monitor + "id", port.light, channel);

    const std::string of_switch = fmt::format("{}/channel/{}/", port.wss, channel);
    volatile_value<&light_path::port>::create(db, "data/" + of_switch + "port", port.light,
                                              channel);
    volatile_value<&light_path::attenuation>::create(db, "data/" + of_switch + "attenuation",
                                                     port.light, channel);
    const auto mode = config_param<&light_path::set_port>::create(
        db, "config/" + of_switch + "port", port.light, channel);
    std::vector<std::string> modes;
    for (const port_mode possible : port_modes(port.light->model()))
        modes.push_back(name_of(possible));
    mode->describe_constraints(modes);
    const auto attenuation = config_param<&light_path::set_attenuation>::create(
        db, "config/" + of_switch + "attenuation", port.light, channel);
    attenuation->describe_constraints(
        dh::api::min_max_grid_range_t<double>{0.0, blocked_attenuation, attenuation_step});
}

void publish_port(dh_db& db, const wss_port& port) {
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        publish_channel(db, port, channel);
    volatile_value<&light_path::output_total_power>::create(
        db, fmt::format("data/{}/totalPower", port.ocm), port.light);
}

void publish_settings(dh_db& db, const std::shared_ptr<wss_edge_settings>& settings) {
    config_param<&wss_edge_settings::set_lane_compensation>::create(
        db, "config/laneCompensationMode", settings);
    volatile_value<&wss_edge_settings::lane_compensation>::create(db, "data/laneCompensationMode",
                                                                  settings);
    config_param<&wss_edge_settings::set_monitor_port_offset>::create(
        db, "config/ocm/2/monitorPortOffset", settings);
    volatile_value<&wss_edge_settings::monitor_port_offset>::create(
        db, "data/ocm/2/monitorPortOffset", settings);
}

}  // namespace

handler_plan wss_edge_handler(std::vector<wss_port> ports, std::string receive_monitor) {
    const auto publish = [ports = std::move(ports), receive_monitor = std::move(receive_monitor)](
                             dh_db& db, dh::api::value_group&) {
        auto settings = std::make_shared<wss_edge_settings>();
        for (const wss_port& port : ports)
            publish_port(db, port);
        if (!receive_monitor.empty())
            volatile_value<&light_path::input_total_power>::create(
                db, fmt::format("data/{}/totalPower", receive_monitor), ports.front().light);
        publish_settings(db, settings);
        status_value<std::string>::create(db, "data/dhStatus", "up", 0);
        status_value<bool>::create(db, "data/configStatus", true, 0);
        return settings;
    };
    return {"wss_edge", "wss_edge", publish};
}

}  // namespace simulator
