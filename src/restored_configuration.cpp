// The settings that the card had before its restart.
#include "board.hpp"
#include "common_traffic_manager_velt.hpp"
#include "host.hpp"
#include "msg_log.hpp"
#include "traffic_manager_velt.hpp"

#include <chrono>
#include <string>

using namespace std::chrono_literals;

namespace {

constexpr char log_channel[] = "tm_velt_update_config";

using main_value = traffic_manager::traffic_manager_main_values;
using wanted_power_value = traffic_manager::traffic_manager_wanted_power_values;
using default_attenuation_value = traffic_manager::traffic_manager_default_attenuation_values;

constexpr unsigned wss_edge_attempts = 10;
constexpr auto wss_edge_pause = 2s;

// What holds on a card whose settings were never changed.
constexpr unsigned default_max_channels = 40;
constexpr unsigned default_eq_max_channels = 48;
constexpr float default_attenuation = 15.1F;       // dB
constexpr float default_ocm_power_offset = 20.0F;  // dB

constexpr unsigned edfa_port = 0;
constexpr unsigned eq_port = 1;

constexpr const char* mx47_marker = "/var/persistent/etc/enable_veltmx47";
constexpr const char* t47_marker = "/var/persistent/etc/enable_veltt47";

bool regulates_t47() {
    return device_tree_lib::instance().is_velt_t47() || host::exists(t47_marker);
}

unsigned index_of(unsigned port, unsigned channel) {
    return channel + port * traffic_manager::names_of_a_port;
}

bool read_wanted_power(unsigned port, unsigned channel, float& power) {
    return traffic_manager::read_fvalue_from_wanted_power_parameters_file(
               static_cast<wanted_power_value>(index_of(port, channel)), &power) == 0;
}

bool read_default_attenuation(unsigned port, unsigned channel, float& attenuation) {
    return traffic_manager::read_fvalue_from_channel_default_attenuation_file(
               static_cast<default_attenuation_value>(index_of(port, channel)), &attenuation) == 0;
}

unsigned read_max_channels(main_value key, unsigned fallback) {
    unsigned count = fallback;
    if (traffic_manager::read_unsigned_from_main_parameters_file(key, &count) == 0)
        MSG_LOG(log_channel, msg_log::detail)
            << "msg: Found max channels from local config: " << count;
    else
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Could not find max channels, using default: " << fallback;
    return count;
}

// `name` is the one of the log line.
float read_main_value(main_value key, const char* name, float fallback) {
    float value = fallback;
    if (traffic_manager::read_fvalue_from_main_parameters_file(key, &value) != 0)
        MSG_LOG(log_channel, msg_log::detail)
            << "msg: Could not find " << name << ", using default: " << fallback << ".";
    return value;
}

}  // namespace

// The budgets come first: setting one gives its channels their default powers.
void traffic_manager_velt::update_using_configuration_parameters() {
    await_wss_edge_configuration();
    restore_max_channels();
    if (regulates_t47())
        restore_channels_t47();
    if (control_loop_main::has_two_loops()) {
        restore_channels_mx47();
        restore_combined_mode();
    }
    restore_default_attenuations();
    MSG_LOG(log_channel, msg_log::progress) << "msg: All local configuration is done.";
}

// The setters talk to the WSS edge. One that does not get ready stops nothing.
void traffic_manager_velt::await_wss_edge_configuration() {
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Make sure WSS_EDGE is up before update config parameters.";
    bool is_ready = false;
    for (unsigned attempt = 0; attempt < wss_edge_attempts && !is_ready; ++attempt) {
        try {
            is_ready = wss_edge_->client()->get<bool>("data/configStatus", false);
        } catch (const dh_client_exception& error) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Caught exception reading WSS_EDGE data/configStatus " << error.message;
        } catch (...) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Caught unknown exception reading WSS_EDGE data/configStatus.";
        }
        host::time().sleep(wss_edge_pause);
    }
    MSG_LOG(log_channel, msg_log::detail) << "msg: WSS_EDGE has configStatus true, now we can "
                                             "start to set local configuration.";
}

void traffic_manager_velt::restore_max_channels() {
    const unsigned count = read_max_channels(main_value::par_max_channels, default_max_channels);
    const unsigned eq_count =
        read_max_channels(main_value::par_eq_max_channels, default_eq_max_channels);
    control_loop_->set_maxChannels_nosave(edfa_port, count);
    if (control_loop_main::has_two_loops())
        control_loop_->set_maxChannels_nosave(eq_port, eq_count);
}

void traffic_manager_velt::restore_channels_t47() {
    try {
        for (unsigned channel = 1; channel <= control_loop_main::channel_count; ++channel) {
            float power = 0.0F;
            if (!read_wanted_power(edfa_port, channel, power)) {
                MSG_LOG(log_channel, msg_log::detail)
                    << "msg: Could not find local wanted power value, channel-ix" << channel
                    << ", continuing.";
                continue;
            }
            control_loop_->set_wanted_power_nosave(edfa_port, channel, power);
            MSG_LOG(log_channel, msg_log::progress)
                << "msg: Setting wanted power, channel-ix" << channel << ", wanted power: " << power
                << ".";
        }
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Could not update wanted power cause: " << error.message;
    } catch (...) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Could not update wanted power, unknown exception.";
    }
}

void traffic_manager_velt::restore_channels_mx47() {
    try {
        for (unsigned channel = 1; channel <= control_loop_main::channel_count; ++channel) {
            restore_wanted_power_mx47(eq_port, "EQ", channel);
            restore_wanted_power_mx47(edfa_port, "EDFA", channel);
            restore_eq_channel_attenuation(channel);
            restore_edfa_channel_attenuation(channel);
        }
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "could not update default attenuation" << error.message;
    } catch (...) {
        MSG_LOG(log_channel, msg_log::failure)
            << "could not update default attenuation, unknown exception";
    }
}

void traffic_manager_velt::restore_wanted_power_mx47(unsigned port, const char* port_name,
                                                     unsigned channel) {
    float power = 0.0F;
    if (!read_wanted_power(port, channel, power)) {
        MSG_LOG(log_channel, msg_log::detail)
            << "msg: Could not find " << port_name << " wanted power, channel-ix" << channel
            << ", continuing.";
        return;
    }
    control_loop_->set_wanted_power_nosave(port, channel, power);
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Setting " << port_name << " wanted power, channel-ix" << channel
        << ", wanted power: " << power << ".";
}

void traffic_manager_velt::restore_eq_channel_attenuation(unsigned channel) {
    float attenuation = 0.0F;
    if (!read_default_attenuation(eq_port, channel, attenuation)) {
        MSG_LOG(log_channel, msg_log::detail)
            << "msg: Could not find EQ default attenuation, channel-ix" << channel
            << ", continuing.";
        return;
    }
    control_loop_->set_channel_default_attenuation_nosave(eq_port, channel, attenuation);
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Setting EQ default attenuation, cchannel-ix" << channel
        << ", default attenuation: " << attenuation << ".";
}

void traffic_manager_velt::restore_edfa_channel_attenuation(unsigned channel) {
    float attenuation = 0.0F;
    if (!read_default_attenuation(edfa_port, channel, attenuation)) {
        MSG_LOG(log_channel, msg_log::detail)
            << "Could not find edfa default attenuation index: " << channel;
        return;
    }
    control_loop_->set_channel_default_attenuation_nosave(edfa_port, channel, attenuation);
    MSG_LOG(log_channel, msg_log::progress)
        << "Setting edfa default_attenuation, channel index: " << channel
        << ", default attenuation :" << attenuation;
}

// A text that is neither of the two leaves the mode as it is.
void traffic_manager_velt::restore_combined_mode() {
    std::string mode = "disabled";
    const bool is_found = traffic_manager::read_string_value_from_port_mode_parameters_file(
                              main_value::MX47_combo_mode, mode) == 0;
    if (!is_found) {
        MSG_LOG(log_channel, msg_log::progress) << "msg: Could not find MX47_combo_mode.";
        control_loop_->set_mx47_k47_combo_flag_nosave("disabled");
    } else if (mode == "enabled") {
        control_loop_->set_mx47_k47_combo_flag_nosave("enabled");
    }
}

// By the board itself: the marker of the two-port card only takes the express
// port away.
void traffic_manager_velt::restore_default_attenuations() {
    const device_tree_lib& board = device_tree_lib::instance();
    control_loop_->set_edfa_defaultAttenuation_nosave(read_main_value(
        main_value::par_edfa_default_attenuation, "EDFA_default_attenuation", default_attenuation));
    if (board.is_velt_t47() && !host::exists(mx47_marker)) {
        control_loop_->set_express_defaultAttenuation_nosave(
            read_main_value(main_value::par_express_default_attenuation,
                            "EXPRESS_default_attenuation", default_attenuation));
    } else if (board.is_velt_mx47()) {
        control_loop_->set_eq_defaultAttenuation_nosave(read_main_value(
            main_value::par_eq_default_attenuation, "EQ_default_attenuation", default_attenuation));
        control_loop_->set_mx47_ocm_power_offset_value_nosave(read_main_value(
            main_value::par_ocmPowerOffset, "OCM_offset", default_ocm_power_offset));
    }
}
