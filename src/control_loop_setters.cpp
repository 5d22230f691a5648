// What stands behind the paths of the control tree and behind the restoring of
// the configuration.
#include "control_loop.hpp"
#include "msg_log.hpp"

namespace {

constexpr char log_channel[] = "tm_velt_cloop";

}  // namespace

void control_loop_main::set_edfa_defaultAttenuation(float attenuation) {
    set_edfa_defaultAttenuation_nosave(attenuation);
}

void control_loop_main::set_edfa_defaultAttenuation_nosave(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Setting EDFA default att to " << attenuation;
    edfa_default_attenuation_ = attenuation;
    regulators_[0]->set_edfa_defaultAttenuation(attenuation);
}

void control_loop_main::set_express_defaultAttenuation(float attenuation) {
    set_express_defaultAttenuation_nosave(attenuation);
}

void control_loop_main::set_express_defaultAttenuation_nosave(float attenuation) {
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Setting EXPRESS default att to " << attenuation;
    express_default_attenuation_ = attenuation;
    regulators_[0]->set_express_defaultAttenuation(attenuation);
}

float control_loop_main::get_cal_cloop_wss_il_edfaport() const {
    return regulators_[0]->get_cal_cloop_wss_il_edfaport();
}

float control_loop_main::get_cal_cloop_wss_il_expressport() const {
    return regulators_[0]->get_cal_cloop_wss_il_expressport();
}

float control_loop_main::get_wantedPowerMax(unsigned port) const {
    return regulators_[port]->get_wantedPowerMax();
}

float control_loop_main::get_wantedPowerMin(unsigned port) const {
    return regulators_[port]->get_wantedPowerMin();
}

float control_loop_main::get_wantedPowerDefault(unsigned port) const {
    return regulators_[port]->get_wantedPowerDefault();
}

void control_loop_main::set_wantedPowerMax(unsigned port, float power) {
    regulators_[port]->set_wantedPowerMax(power);
}

void control_loop_main::set_wantedPowerMin(unsigned port, float power) {
    regulators_[port]->set_wantedPowerMin(power);
}

float control_loop_main::get_wanted_power(unsigned port, unsigned channel) const {
    return regulators_[port]->get_wanted_power(channel);
}

void control_loop_main::set_wanted_power(unsigned port, unsigned channel, float power) {
    regulators_[port]->set_wanted_power(channel, power);
}

void control_loop_main::set_wanted_power_nosave(unsigned port, unsigned channel, float power) {
    regulators_[port]->set_wanted_power(channel, power);
    MSG_LOG(log_channel, msg_log::detail)
        << "msg: Set wanted power nosave channel-ix" << channel << ", power: " << power;
}

float control_loop_main::get_rxPower(unsigned port, unsigned channel) const {
    return regulators_[port]->get_rxPowerChannel(channel);
}

float control_loop_main::get_txPower(unsigned port, unsigned channel) const {
    return regulators_[port]->get_txPowerChannel(channel);
}

unsigned control_loop_main::get_maxChannels(unsigned port) const {
    return static_cast<unsigned>(regulators_[port]->get_number_of_AllowedChannels());
}

void control_loop_main::set_maxChannels(unsigned port, unsigned count) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Set max channel to " << count;
    apply_max_channels(port, count);
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

void control_loop_main::set_number_of_AllowedChannels(unsigned port, unsigned count) {
    regulators_[port]->set_number_of_AllowedChannels(static_cast<int>(count));
}

unsigned control_loop_main::get_number_of_ActiveChannels(unsigned port) const {
    return static_cast<unsigned>(regulators_[port]->get_number_of_ActiveChannels());
}

void control_loop_main::calculate_wanted_power(unsigned port) {
    regulation_handler& regulator = *regulators_[port];
    regulator.calculate_wanted_power();
    const float default_power = regulator.get_wantedPowerDefault();
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Calculate wanted power for WSS port: " << port
        << ", max channels: " << static_cast<int>(max_channels_);
    for (unsigned channel = 1; channel <= channel_count; ++channel)
        regulator.set_wanted_power(channel, default_power);
}

float control_loop_main::get_booster_TX_Adjustment(unsigned port) const {
    return regulators_[port]->get_boosterTx_adjustment();
}

float control_loop_main::get_booster_TX_Adjustment_Diff(unsigned port) const {
    return regulators_[port]->get_boosterTx_adjustment_diff();
}

float control_loop_main::get_booster_Tx(unsigned port) const {
    return regulators_[port]->get_boosterTx();
}

float control_loop_main::get_booster_Tx_Original(unsigned port) const {
    return regulators_[port]->get_boosterTx_original();
}

long long control_loop_main::get_lossTimeout(unsigned port) const {
    return regulators_[port]->get_lossTimeout();
}

void control_loop_main::set_lossTimeout(unsigned port, long long seconds) {
    regulators_[port]->set_lossTimeout(seconds);
}

bool control_loop_main::get_verbose_mode(unsigned port) const {
    return regulators_[port]->get_verbose_mode();
}

void control_loop_main::set_verbose_mode(unsigned port, bool verbose) {
    verbose_ = verbose;
    regulators_[port]->set_verbose_mode(verbose);
}

std::string control_loop_main::get_port_mode(unsigned port, int channel) const {
    return regulators_[port]->get_port_mode(channel);
}

void control_loop_main::set_port_mode(unsigned port, int channel, const std::string& mode) {
    regulators_[port]->set_port_mode(channel, mode);
}

std::string control_loop_main::get_optical_ControlMode(unsigned port, unsigned channel) const {
    return regulators_[port]->get_opticalControlMode(channel);
}

void control_loop_main::set_optical_ControlMode(unsigned port, unsigned channel,
                                                const std::string& mode) {
    regulators_[port]->set_opticalControlMode(channel, mode);
}

void control_loop_main::set_mx47_k47_combo_flag_nosave(const std::string& text) {
    combo_flag_ = text == "enabled";
    regulators_[1]->set_k47_combo_flag(combo_flag_);
}
