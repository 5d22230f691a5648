// The published control tree.
#include "control_loop.hpp"

#include "board.hpp"

#include <fmt/format.h>

namespace {

// Ticks by which the first poll of a filtered node is put off.
constexpr unsigned filtered_delay = 4;
constexpr unsigned control_mode_delay = 6;

// Changes of a measured power that are worth an event, in dB.
constexpr double immediate_limit = 0.09;
constexpr double delayed_limit = 0.05;

std::string control_path(const std::string& path) {
    return "control" + path;
}

}  // namespace

template <auto Getter, class... Bound>
void control_loop_main::add_volatile_value(const std::string& path, Bound... bound) {
    proxy_->value_group().add_value(
        dh::api::volatile_value<Getter>::create(proxy_->db(), control_path(path), weak_from_this(),
                                                bound...),
        0);
}

template <auto Setter, class... Bound>
void control_loop_main::add_config_param(const std::string& path, Bound... bound) {
    proxy_->value_group().add_value(
        dh::api::config_param<Setter>::create(proxy_->db(), control_path(path), weak_from_this(),
                                              bound...),
        0);
}

template <auto Getter, class... Bound>
void control_loop_main::add_measured_power(const std::string& path, Bound... bound) {
    using node = dh::api::hysteresis_filtered_value<dh::api::polled_volatile_value_impl<Getter>>;
    proxy_->value_group().add_value(node::create(proxy_->db(), control_path(path), immediate_limit,
                                                 delayed_limit, shared_from_this(), bound...),
                                    filtered_delay);
}

template <auto Getter, class... Bound>
void control_loop_main::add_set_value(const std::string& path, unsigned delay, Bound... bound) {
    using node = dh::api::hysteresis_filtered_value<dh::api::polled_volatile_value_impl<Getter>>;
    proxy_->value_group().add_value(
        node::create(proxy_->db(), control_path(path), shared_from_this(), bound...), delay);
}

void control_loop_main::create_paths() {
    if (!has_two_loops() && device_tree_lib::instance().is_velt_t47())
        create_paths_t47();
}

void control_loop_main::create_paths_t47() {
    using self = control_loop_main;
    constexpr unsigned port = 0;
    add_volatile_value<&self::get_configDone>("/data/debug/configDone");
    add_volatile_value<&self::get_edfa_defaultAttenuation>("/data/edfa/defaultAttenuation");
    add_volatile_value<&self::get_cal_cloop_wss_il_edfaport>("/data/edfa/calCloopWssIL");
    add_config_param<&self::set_edfa_defaultAttenuation>("/config/edfa/defaultAttenuation");
    add_volatile_value<&self::get_express_defaultAttenuation>("/data/express/defaultAttenuation");
    add_volatile_value<&self::get_wantedPowerMax>("/data/wantedPowerMax", port);
    add_volatile_value<&self::get_wantedPowerMin>("/data/wantedPowerMin", port);
    add_volatile_value<&self::get_maxChannels>("/data/maxChannels", port);
    add_volatile_value<&self::get_number_of_ActiveChannels>("/data/numberOfActiveChannels", port);
    add_volatile_value<&self::get_booster_TX_Adjustment>("/data/boosterTxAdjustment", port);
    add_volatile_value<&self::get_booster_TX_Adjustment_Diff>("/data/boosterTxAdjustmentDiff",
                                                              port);
    add_volatile_value<&self::get_booster_Tx>("/data/boosterTx", port);
    add_volatile_value<&self::get_booster_Tx_Original>("/data/boosterTx_Original", port);
    add_volatile_value<&self::get_verbose_mode>("/data/verbose", port);
    add_volatile_value<&self::get_lossTimeout>("/data/lossTimeout", port);
    add_volatile_value<&self::get_cal_cloop_wss_il_expressport>("/data/express/calCloopWssIL");
    add_config_param<&self::set_verbose_mode>("/config/verbose", port);
    add_config_param<&self::set_express_defaultAttenuation>("/config/express/defaultAttenuation");
    add_config_param<&self::set_maxChannels>("/config/maxChannels", port);
    add_config_param<&self::set_lossTimeout>("/config/lossTimeout", port);
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        create_channel_paths_t47(channel);
    add_config_param<&self::set_configDone>("/config/dhReady");
}

void control_loop_main::create_channel_paths_t47(unsigned channel) {
    using self = control_loop_main;
    constexpr unsigned port = 0;
    const std::string data = fmt::format("/data/{}", channel);
    const std::string config = fmt::format("/config/{}", channel);
    add_set_value<&self::get_wanted_power>(data + "/wantedPower", filtered_delay, port, channel);
    add_set_value<&self::get_optical_ControlMode>(data + "/opticalControlMode", control_mode_delay,
                                                  port, channel);
    add_measured_power<&self::get_rxPower>(data + "/rxPower", port, channel);
    add_measured_power<&self::get_txPower>(data + "/txPower", port, channel);
    add_set_value<&self::get_port_mode>(data + "/portMode", filtered_delay, port, channel);
    add_config_param<&self::set_wanted_power>(config + "/wantedPower", port, channel);
    add_config_param<&self::set_optical_ControlMode>(config + "/opticalControlMode", port, channel);
    add_config_param<&self::set_port_mode>(config + "/portMode", port, channel);
}
