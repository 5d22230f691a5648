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
    if (has_two_loops())
        create_paths_mx47();
    else if (device_tree_lib::instance().is_velt_t47())
        create_paths_t47();
}

void control_loop_main::create_common_paths() {
    using self = control_loop_main;
    add_volatile_value<&self::get_configDone>("/data/debug/configDone");
    add_volatile_value<&self::get_edfa_defaultAttenuation>("/data/edfa/defaultAttenuation");
    add_volatile_value<&self::get_cal_cloop_wss_il_edfaport>("/data/edfa/calCloopWssIL");
    add_config_param<&self::set_edfa_defaultAttenuation>("/config/edfa/defaultAttenuation");
}

void control_loop_main::create_paths_t47() {
    using self = control_loop_main;
    constexpr unsigned port = 0;
    create_common_paths();
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

void control_loop_main::create_paths_mx47() {
    using self = control_loop_main;
    const auto alarm = dh::api::status_value<unsigned>::create(
        proxy_->db(), control_path("/alarms/combinedModeAlarm/severity"), 1, 1);
    alarm->set(0);
    combined_mode_alarm_.set(alarm);
    create_common_paths();
    add_volatile_value<&self::slot_communication_is_alive>("/data/slotCommunicationAlive");
    add_volatile_value<&self::get_correct_neighbour_version>("/data/correctNeighbourVersion");
    add_volatile_value<&self::get_eq_defaultAttenuation>("/data/eq/defaultAttenuation");
    add_volatile_value<&self::get_mx47_cal_mon_to_boostertx_k47>("/data/eq/calMonToBoosterTxK47");
    add_volatile_value<&self::get_mx47_k47_combo_flag>("/data/combinedMode");
    add_volatile_value<&self::get_slot_communication_status>("/data/combinedModeStatus");
    add_volatile_value<&self::get_mx47_k47_actual_gain>("/data/eq/K47ActualGain");
    add_volatile_value<&self::get_mx47_k47_edfa_tx_power>("/data/eq/K47EdfaTxPower");
    add_volatile_value<&self::get_mx47_ocm_power_offset_value>("/data/eq/ocmPowerOffset");
    add_volatile_value<&self::get_cal_cloop_wss_il_eqport>("/data/eq/calCloopWssIL");
    add_config_param<&self::set_eq_defaultAttenuation>("/config/eq/defaultAttenuation");
    add_config_param<&self::set_mx47_k47_cal_mon_to_boostertx>("/config/eq/calMonToBoosterTxK47");
    add_config_param<&self::set_mx47_k47_combo_flag>("/config/combinedMode");
    add_config_param<&self::set_mx47_k47_actual_gain>("/config/eq/K47ActualGain");
    add_config_param<&self::set_mx47_k47_edfa_tx_power>("/config/eq/K47EdfaTxPower");
    add_config_param<&self::set_mx47_ocm_power_offset_value>("/config/eq/ocmPowerOffset");
    for (unsigned port = 0; port < regulators_.size(); ++port)
        create_port_paths_mx47(port);
    add_config_param<&self::set_configDone>("/config/dhReady");
}

// Ports count from 1 in paths.
void control_loop_main::create_port_paths_mx47(unsigned port) {
    using self = control_loop_main;
    const std::string data = fmt::format("/data/port/{}", port + 1);
    const std::string config = fmt::format("/config/port/{}", port + 1);
    add_volatile_value<&self::get_verbose_mode>(data + "/verbose", port);
    add_volatile_value<&self::get_wantedPowerMax>(data + "/wantedPowerMax", port);
    add_volatile_value<&self::get_wantedPowerMin>(data + "/wantedPowerMin", port);
    add_volatile_value<&self::get_maxChannels>(data + "/maxChannels", port);
    add_volatile_value<&self::get_number_of_ActiveChannels>(data + "/numberOfActiveChannels", port);
    add_volatile_value<&self::get_booster_TX_Adjustment>(data + "/boosterTxAdjustment", port);
    add_volatile_value<&self::get_booster_TX_Adjustment_Diff>(data + "/boosterTxAdjustmentDiff",
                                                              port);
    add_volatile_value<&self::get_booster_Tx>(data + "/boosterTx", port);
    add_volatile_value<&self::get_booster_Tx_Original>(data + "/boosterTx_Original", port);
    add_config_param<&self::set_verbose_mode>(config + "/verbose", port);
    add_volatile_value<&self::get_lossTimeout>(data + "/lossTimeout", port);
    add_config_param<&self::set_maxChannels>(config + "/maxChannels", port);
    add_config_param<&self::set_lossTimeout>(config + "/lossTimeout", port);
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        create_channel_paths_mx47(port, channel);
}

void control_loop_main::create_channel_paths_mx47(unsigned port, unsigned channel) {
    using self = control_loop_main;
    const std::string data = fmt::format("/data/port/{}/channel/{}", port + 1, channel);
    const std::string config = fmt::format("/config/port/{}/channel/{}", port + 1, channel);
    add_set_value<&self::get_wanted_power>(data + "/wantedPower", filtered_delay, port, channel);
    add_set_value<&self::get_optical_ControlMode>(data + "/opticalControlMode", control_mode_delay,
                                                  port, channel);
    add_measured_power<&self::get_rxPower>(data + "/rxPower", port, channel);
    add_measured_power<&self::get_mx47_ocm_rx_power_channel>(data + "/ocmRxPower", port, channel);
    add_measured_power<&self::get_mx47_ocm_tx_power_channel>(data + "/ocmTxPower", port, channel);
    add_measured_power<&self::get_txPower>(data + "/txPower", port, channel);
    add_set_value<&self::get_port_mode>(data + "/portMode", filtered_delay, port, channel);
    add_set_value<&self::get_channel_default_attenuation>(data + "/defaultAttenuation",
                                                          filtered_delay, port, channel);
    add_config_param<&self::set_wanted_power>(config + "/wantedPower", port, channel);
    add_config_param<&self::set_optical_ControlMode>(config + "/opticalControlMode", port, channel);
    add_config_param<&self::set_port_mode>(config + "/portMode", port, channel);
    add_config_param<&self::set_channel_default_attenuation>(config + "/defaultAttenuation", port,
                                                             channel);
    add_config_param<&self::set_channel_default_attenuation_nosave>(
        config + "/defaultAttenuationNoSave", port, channel);
}
