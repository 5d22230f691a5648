// What a channel's power is, in the several senses in which it is reported.
#include "host.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"
#include "Regulation_loop.hpp"

#include <chrono>

namespace {

constexpr double fiber_length = 0.0;  // km; the tilt over the line is not measured

}  // namespace

long long regulation_handler::get_nowSeconds() {
    return host::time().wall().count() / 1'000'000'000;
}

float regulation_handler::get_rxAvgPowerChannel(unsigned ix) const {
    const channel_record& channel = channels_.at(ix);
    if (channel.power_history.empty())
        return channel.rxPower;
    return regulation_law::average(channel.power_history);
}

std::optional<float> regulation_handler::neighbour_gain() const {
    const float gain = k47_actual_gain_;
    if (k47_combo_flag_ && gain != regulation_law::unknown_power)
        return gain;
    return std::nullopt;
}

float regulation_handler::get_txPowerChannel(unsigned ix) const {
    const channel_record& channel = channels_.at(ix);
    if (is_mx47_ && WSS_port_ == 1)
        return channel.rxRawPower + (neighbour_gain() ? boosterTx_ : ocm_power_offset_value_);
    return channel.rxPower + channel.tx_offset;
}

float regulation_handler::get_rxPowerChannel(unsigned ix) {
    MSG_LOG(log_channel_, msg_log::detail)
        << "msg: Get_rx_power path: " << WSS_datapath_ << ix << "/port, PORT: " << WSS_port_;
    const auto port = wss_edge()->get<std::string>(wss_data_path(ix, "/port"), std::string());
    const float attenuation = get_wss_attenuation(ix);
    const float gain = get_boosterActualGain();
    const channel_record& channel = channels_.at(ix);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Get_rx_power_" << ix << ", raw rxPower: " << channel.rxPower;
    return client_side_power(channel, port, attenuation, gain);
}

float regulation_handler::client_side_power(const channel_record& channel, const std::string& port,
                                            float attenuation, float gain) const {
    const auto before = [&](float amplifier_gain, float monitored, float insertion_loss) {
        return regulation_law::client_side_power(monitored, amplifier_gain, insertion_loss,
                                                 attenuation, channel.rx_offset);
    };
    if (!is_mx47_ && port == "edfa")
        return before(gain, channel.rxPower, cal_cloop_wss_il_edfaport_);
    if (!is_mx47_ && port == "express")
        return before(gain, channel.rxPower, cal_cloop_wss_il_expressport_);
    if (is_mx47_ && WSS_port_ == 0 && port == "on")
        return before(gain, channel.rxPower, cal_cloop_wss_il_edfaport_);
    if (is_mx47_ && WSS_port_ == 1 && port == "on") {
        if (const std::optional<float> neighbour = neighbour_gain())
            return before(*neighbour, channel.rxRawPower + boosterTx_, cal_cloop_wss_il_eqport_);
        constexpr float no_amplifier = 0.0F;
        return before(no_amplifier, channel.rxRawPower + ocm_power_offset_value_,
                      cal_cloop_wss_il_eqport_);
    }
    return regulation_law::unknown_power;
}

bool regulation_handler::get_peakDetected(unsigned ix) {
    return wss_edge()->get<bool>(ocm_channel_path(ix, "/detected"), false);
}

float regulation_handler::get_rxTiltLoss(unsigned ix) const {
    if (!tiltloss_enabled_) {
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress) << "msg: Tiltloss is not enabled !!!!!";
        return 0.0F;
    }
    const channel_record& channel = channels_.at(ix);
    const float wavelength = channel.rxWaveLength;
    const float loss = regulation_law::tilt_loss(wavelength, fiber_length);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Tiltloss: fiberLength: " << fiber_length << ", Wavelength: " << wavelength
            << ", loss: " << loss << ", channelId: " << channel.channelId;
    return loss;
}

float regulation_handler::get_ocm_rx_power_channel(unsigned ix) const {
    const bool combined = k47_combo_flag_ && WSS_port_ == 1;
    return channels_.at(ix).rxRawPower + (combined ? boosterTx_ : ocm_power_offset_value_);
}

float regulation_handler::get_ocm_tx_power_channel(unsigned ix) const {
    return channels_.at(ix).rxRawPower + boosterTx_;
}

std::string regulation_handler::get_rxClientStatus(unsigned ix) const {
    return channels_.at(ix).rxLossOfSignal ? "down" : "up";
}

bool regulation_handler::get_rxLossOfSignalChannel(unsigned ix) const {
    return channels_.at(ix).rxLossOfSignal;
}

float regulation_handler::get_rxPowerDeviationChannel(unsigned ix) const {
    return channels_.at(ix).rxPowerDeviation;
}

float regulation_handler::get_rxRawPowerChannel(unsigned ix) const {
    return channels_.at(ix).rxRawPower;
}

int regulation_handler::get_rxChannelId(unsigned ix) const {
    return channels_.at(ix).channelId;
}

float regulation_handler::get_rxWaveLength(unsigned ix) const {
    return channels_.at(ix).rxWaveLength;
}

float regulation_handler::get_rxWssAttenuation(unsigned ix) const {
    return channels_.at(ix).rxWssAttenuation;
}

float regulation_handler::get_rxPowerDiffAvg(unsigned ix) const {
    return channels_.at(ix).rxPowerDiffAvg;
}
