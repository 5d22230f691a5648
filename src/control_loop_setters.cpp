// Settings that change what the regulation does, and those of them that are
// kept over a restart. The form without saving serves the start-up, which takes
// its values from the file.
#include "common_traffic_manager_velt.hpp"
#include "control_loop.hpp"
#include "msg_log.hpp"

#include <fmt/format.h>

namespace {

constexpr char log_channel[] = "tm_velt_cloop";

using main_value = traffic_manager::traffic_manager_main_values;
using wanted_power_value = traffic_manager::traffic_manager_wanted_power_values;
using default_attenuation_value = traffic_manager::traffic_manager_default_attenuation_values;

// The name of a channel's setting: those of port 1 stand behind those of port 0.
template <class Value>
Value of_channel(unsigned port, unsigned channel) {
    return static_cast<Value>(channel + port * traffic_manager::names_of_a_port);
}

}  // namespace

void control_loop_main::set_edfa_defaultAttenuation(float attenuation) {
    set_edfa_defaultAttenuation_nosave(attenuation);
    MSG_LOG(log_channel, msg_log::progress) << "msg: Writing EDFA default att to " << attenuation;
    traffic_manager::write_fvalue_to_main_parameters_file(main_value::par_edfa_default_attenuation,
                                                          attenuation);
}

void control_loop_main::set_edfa_defaultAttenuation_nosave(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Setting EDFA default att to " << attenuation;
    edfa_default_attenuation_ = attenuation;
    regulator(0).set_edfa_defaultAttenuation(attenuation);
}

void control_loop_main::set_express_defaultAttenuation(float attenuation) {
    set_express_defaultAttenuation_nosave(attenuation);
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Writing EXPRESS default att to " << attenuation;
    traffic_manager::write_fvalue_to_main_parameters_file(
        main_value::par_express_default_attenuation, attenuation);
}

void control_loop_main::set_express_defaultAttenuation_nosave(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Setting EXPRESS default att to " << attenuation;
    express_default_attenuation_ = attenuation;
    regulator(0).set_express_defaultAttenuation(attenuation);
}

void control_loop_main::set_eq_defaultAttenuation(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Setting EQ default att: " << attenuation;
    apply_eq_default_attenuation(attenuation);
    MSG_LOG(log_channel, msg_log::progress) << "msg: Writing EQ default att: " << attenuation;
    traffic_manager::write_fvalue_to_main_parameters_file(main_value::par_eq_default_attenuation,
                                                          attenuation);
}

void control_loop_main::set_eq_defaultAttenuation_nosave(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Setting EQ default att to " << attenuation;
    apply_eq_default_attenuation(attenuation);
}

void control_loop_main::apply_eq_default_attenuation(float attenuation) {
    eq_default_attenuation_ = attenuation;
    regulator(1).set_eq_defaultAttenuation(attenuation);
}

void control_loop_main::set_wanted_power(unsigned port, unsigned channel, float power) {
    regulator(port).set_wanted_power(channel, power);
    traffic_manager::write_fvalue_to_wanted_power_parameters_file(
        of_channel<wanted_power_value>(port, channel), power);
}

void control_loop_main::set_wanted_power_nosave(unsigned port, unsigned channel, float power) {
    regulator(port).set_wanted_power(channel, power);
    MSG_LOG(log_channel, msg_log::detail)
        << "msg: Set wanted power nosave channel-ix" << channel << ", power: " << power;
}

void control_loop_main::set_channel_default_attenuation(unsigned port, unsigned channel,
                                                        float attenuation) {
    apply_channel_default_attenuation("set_channel_default_attenuation", port, channel,
                                      attenuation);
    traffic_manager::write_fvalue_to_channel_default_attenuation_file(
        of_channel<default_attenuation_value>(port, channel), attenuation);
}

void control_loop_main::set_channel_default_attenuation_nosave(unsigned port, unsigned channel,
                                                               float attenuation) {
    apply_channel_default_attenuation("set_channel_default_attenuation_nosave", port, channel,
                                      attenuation);
}

void control_loop_main::apply_channel_default_attenuation(const char* setter, unsigned port,
                                                          unsigned channel, float attenuation) {
    MSG_LOG(log_channel, msg_log::detail)
        << fmt::format("{}, msg: WSS port: {}, channel-ix{}, default attenuation: {:f}", setter,
                       port, channel, attenuation);
    regulator(port).set_channel_default_attenuation(channel, attenuation);
}

void control_loop_main::set_maxChannels(unsigned port, unsigned count) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Set max channel to " << count;
    apply_max_channels(port, count);
    // Not the shared field: the other port's may have been set meanwhile.
    traffic_manager::write_unsigned_to_main_parameters_file(static_cast<main_value>(port), count);
}

void control_loop_main::set_maxChannels_nosave(unsigned port, unsigned count) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Set max channel nosave to " << count;
    apply_max_channels(port, count);
}

void control_loop_main::apply_max_channels(unsigned port, unsigned count) {
    max_channels_ = count;
    set_number_of_AllowedChannels(port, count);
    calculate_wanted_power(port);
}

void control_loop_main::calculate_wanted_power(unsigned port) {
    regulation_handler& of_port = regulator(port);
    of_port.calculate_wanted_power();
    const float default_power = of_port.get_wantedPowerDefault();
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Calculate wanted power for WSS port: " << port
        << ", max channels: " << static_cast<int>(max_channels_);
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        of_port.set_wanted_power(channel, default_power);
}

void control_loop_main::set_mx47_ocm_power_offset_value(float offset) {
    set_mx47_ocm_power_offset_value_nosave(offset);
    traffic_manager::write_fvalue_to_main_parameters_file(main_value::par_ocmPowerOffset, offset);
}

void control_loop_main::set_mx47_ocm_power_offset_value_nosave(float offset) {
    regulator(1).set_ocm_power_offset_value(offset);
}

void control_loop_main::set_mx47_k47_combo_flag(const std::string& text) {
    set_mx47_k47_combo_flag_nosave(text);
    traffic_manager::write_string_value_to_port_mode_parameters_file(
        main_value::MX47_combo_mode, combo_flag_ ? "enabled" : "disabled");
}

void control_loop_main::set_mx47_k47_combo_flag_nosave(const std::string& text) {
    regulation_handler& eq_regulator = regulator(1);
    if (text == "enabled")
        combo_flag_ = true;
    else
        module_poll_.between_polls(
            [] {
                MSG_LOG(log_channel, msg_log::detail) << "msg: Waiting for module poll to finish.";
            },
            [this] {
                combo_flag_ = false;
                slot_communication_status_.set("n/a");
                set_combined_mode_alarm(0);
            });
    eq_regulator.set_k47_combo_flag(combo_flag_);
}
