// What the control tree reads from and hands on to the regulators.
#include "control_loop.hpp"

#include <stdexcept>
#include <string>

regulation_handler& control_loop_main::regulator(unsigned port) const {
    if (port >= regulators_.size() || !regulators_[port])
        throw std::out_of_range("this card has no control loop of port " + std::to_string(port));
    return *regulators_[port];
}

float control_loop_main::get_cal_cloop_wss_il_edfaport() const {
    return regulator(0).get_cal_cloop_wss_il_edfaport();
}

float control_loop_main::get_cal_cloop_wss_il_expressport() const {
    return regulator(0).get_cal_cloop_wss_il_expressport();
}

float control_loop_main::get_wantedPowerMax(unsigned port) const {
    return regulator(port).get_wantedPowerMax();
}

float control_loop_main::get_wantedPowerMin(unsigned port) const {
    return regulator(port).get_wantedPowerMin();
}

float control_loop_main::get_wantedPowerDefault(unsigned port) const {
    return regulator(port).get_wantedPowerDefault();
}

void control_loop_main::set_wantedPowerMax(unsigned port, float power) {
    regulator(port).set_wantedPowerMax(power);
}

void control_loop_main::set_wantedPowerMin(unsigned port, float power) {
    regulator(port).set_wantedPowerMin(power);
}

float control_loop_main::get_wanted_power(unsigned port, unsigned channel) const {
    return regulator(port).get_wanted_power(channel);
}

float control_loop_main::get_rxPower(unsigned port, unsigned channel) const {
    return regulator(port).get_rxPowerChannel(channel);
}

float control_loop_main::get_txPower(unsigned port, unsigned channel) const {
    return regulator(port).get_txPowerChannel(channel);
}

unsigned control_loop_main::get_maxChannels(unsigned port) const {
    return static_cast<unsigned>(regulator(port).get_number_of_AllowedChannels());
}

void control_loop_main::set_number_of_AllowedChannels(unsigned port, unsigned count) {
    regulator(port).set_number_of_AllowedChannels(static_cast<int>(count));
}

unsigned control_loop_main::get_number_of_ActiveChannels(unsigned port) const {
    return static_cast<unsigned>(regulator(port).get_number_of_ActiveChannels());
}

float control_loop_main::get_booster_TX_Adjustment(unsigned port) const {
    return regulator(port).get_boosterTx_adjustment();
}

float control_loop_main::get_booster_TX_Adjustment_Diff(unsigned port) const {
    return regulator(port).get_boosterTx_adjustment_diff();
}

float control_loop_main::get_booster_Tx(unsigned port) const {
    return regulator(port).get_boosterTx();
}

float control_loop_main::get_booster_Tx_Original(unsigned port) const {
    return regulator(port).get_boosterTx_original();
}

long long control_loop_main::get_lossTimeout(unsigned port) const {
    return regulator(port).get_lossTimeout();
}

void control_loop_main::set_lossTimeout(unsigned port, long long seconds) {
    regulator(port).set_lossTimeout(seconds);
}

bool control_loop_main::get_verbose_mode(unsigned port) const {
    return regulator(port).get_verbose_mode();
}

void control_loop_main::set_verbose_mode(unsigned port, bool verbose) {
    verbose_ = verbose;
    regulator(port).set_verbose_mode(verbose);
}

std::string control_loop_main::get_port_mode(unsigned port, int channel) const {
    return regulator(port).get_port_mode(channel);
}

void control_loop_main::set_port_mode(unsigned port, int channel, const std::string& mode) {
    regulator(port).set_port_mode(channel, mode);
}

std::string control_loop_main::get_optical_ControlMode(unsigned port, unsigned channel) const {
    return regulator(port).get_opticalControlMode(channel);
}

void control_loop_main::set_optical_ControlMode(unsigned port, unsigned channel,
                                                const std::string& mode) {
    regulator(port).set_opticalControlMode(channel, mode);
}

float control_loop_main::get_channel_default_attenuation(unsigned port, unsigned channel) const {
    return regulator(port).get_channel_default_attenuation(channel);
}

float control_loop_main::get_mx47_ocm_rx_power_channel(unsigned port, unsigned channel) const {
    return regulator(port).get_ocm_rx_power_channel(channel);
}

float control_loop_main::get_mx47_ocm_tx_power_channel(unsigned port, unsigned channel) const {
    return regulator(port).get_ocm_tx_power_channel(channel);
}

float control_loop_main::get_cal_cloop_wss_il_eqport() const {
    return regulator(1).get_cal_cloop_wss_il_eqport();
}

float control_loop_main::get_mx47_ocm_power_offset_value() const {
    return regulator(1).get_ocm_power_offset_value();
}

float control_loop_main::get_mx47_cal_mon_to_boostertx_k47() const {
    return regulator(1).get_cal_mon_to_boostertx_k47();
}

void control_loop_main::set_mx47_k47_cal_mon_to_boostertx(float value) {
    regulator(1).set_cal_mon_to_boostertx_k47(value);
}

float control_loop_main::get_mx47_k47_actual_gain() const {
    return regulator(1).get_k47_actual_gain();
}

void control_loop_main::set_mx47_k47_actual_gain(float gain) {
    regulator(1).set_k47_actual_gain(gain);
}

float control_loop_main::get_mx47_k47_edfa_tx_power() const {
    return regulator(1).get_k47_edfa_tx_power();
}

void control_loop_main::set_mx47_k47_edfa_tx_power(float power) {
    regulator(1).set_k47_edfa_tx_power(power);
}

float control_loop_main::get_mx47_k47_booster_power_limit() const {
    return regulator(1).get_k47_booster_power_limit();
}

void control_loop_main::set_mx47_k47_booster_power_limit(float limit) {
    regulator(1).set_k47_booster_power_limit(limit);
}

std::string control_loop_main::get_mx47_k47_combo_flag() const {
    return regulator(1).get_k47_combo_flag() ? "enabled" : "disabled";
}
