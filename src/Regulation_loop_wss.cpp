// The write side: every attenuation and port mode that reaches the WSS.
#include "board.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"
#include "Regulation_loop.hpp"

#include <fmt/format.h>

void regulation_handler::set_wss_attenuation(float value, unsigned ix) {
    channel_record& channel = channels_.at(ix);
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: WSS port: " << WSS_port_ << ", Set WSS attenuation to: " << value
        << " dB for channel-ix" << ix << ", current channel txPower: " << get_txPowerChannel(ix)
        << ", wanted power diff: " << channel.rxPowerDeviation;
    wss_edge()->set<void>(wss_config_path(ix, "/attenuation"), value);
    channel.rxWssAttenuation = value;
}

float regulation_handler::get_wss_attenuation(unsigned ix) {
    const auto attenuation = static_cast<float>(wss_edge()->get<double>(
        wss_data_path(ix, "/attenuation"), static_cast<double>(regulation_law::blocked_mark)));
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: WSS port: " << WSS_port_ << ", channel-ix" << ix
            << ", Get WSS attenuation: " << attenuation << " dB";
    return attenuation;
}

void regulation_handler::updateLastWssAtt_channel(unsigned ix) {
    channel_record& channel = channels_.at(ix);
    channel.rxWssAttenuation = get_wss_attenuation(ix);
    channel.lossTurnOffTimestamp = get_nowSeconds();
}

void regulation_handler::block_wss_channel(unsigned ix) {
    channel_record& channel = channels_.at(ix);
    if (channel.rxWssAttenuation >= regulation_law::blocked_mark)
        return;
    wss_edge()->set<void>(wss_config_path(ix, "/attenuation"), regulation_law::blocked_attenuation);
    channel.rxWssAttenuation = static_cast<float>(regulation_law::blocked_attenuation);
}

void regulation_handler::set_max_wss_attenuation(unsigned ix) {
    const std::string mode = get_port_mode(static_cast<int>(ix));
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Set max WSS attenuation, portmode: (" << mode << "), channel-ix" << ix;
    set_wss_attenuation(idle_attenuation(ix, mode), ix);
}

float regulation_handler::idle_attenuation(unsigned ix, const std::string& mode) const {
    if (is_mx47_) {
        const float attenuation = get_channel_default_attenuation(ix);
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Set max WSS attenuation mx47 :(" << attenuation << "), channel-ix" << ix;
        return attenuation;
    }
    if (mode == "edfa")
        return get_edfa_defaultAttenuation();
    if (mode == "express")
        return get_express_defaultAttenuation();
    return regulation_law::default_attenuation;
}

std::string regulation_handler::get_port_mode(int ix) {
    auto mode = wss_edge()->get<std::string>(wss_data_path(static_cast<unsigned>(ix), "/port"),
                                             std::string("off"));
    MSG_LOG(log_channel_, msg_log::detail)
        << "msg: Get port mode: " << mode << ", channel-ix" << ix;
    return mode;
}

void regulation_handler::set_port_mode(int ix, const std::string& mode) {
    const auto index = static_cast<unsigned>(ix);
    channel_record& channel = channels_.at(index);
    wss_edge()->set<void>(wss_config_path(index, "/port"), mode);
    // A channel with a peak keeps its attenuation: the regulation goes on from there.
    if (!get_peakDetected(index)) {
        if (mode == "express")
            set_wss_attenuation(express_defaultAttenuation_, index);
        else if (mode == "edfa")
            set_wss_attenuation(edfa_defaultAttenuation_, index);
        else if (mode == "on" && is_mx47_)
            set_wss_attenuation(channel.default_attenuation, index);
    }
    channel.port_mode.set(mode);
    MSG_LOG(log_channel_, msg_log::progress)
        << fmt::format("msg: Set WSS port mode, channel-ix{}, mode: {}, wanted power: {:.1f}", ix,
                       mode, static_cast<float>(channel.wanted_power));
}

void regulation_handler::set_channel_default_attenuation(unsigned ix, float value) {
    channels_.at(ix).default_attenuation = value;
    if (!is_mx47_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting channel default attenuation is not valid for mx47.";
        return;
    }
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Setting default attenuation, wss port: " << WSS_port_ << ", channel-ix" << ix
        << ", attenuation: " << value;
    if (park_if_idle(ix, "on", value))
        MSG_LOG(log_channel_, msg_log::detail) << "msg: Channel port is 'on' and peak is 'off'.";
}

float regulation_handler::get_channel_default_attenuation(unsigned ix) const {
    return channels_.at(ix).default_attenuation;
}

bool regulation_handler::park_if_idle(unsigned ix, const char* mode, float attenuation) {
    if (get_port_mode(static_cast<int>(ix)) != mode || get_peakDetected(ix))
        return false;
    set_wss_attenuation(attenuation, ix);
    return true;
}

void regulation_handler::park_idle_channels(const char* mode, float attenuation) {
    for (unsigned ix = 1; ix <= last_channel; ++ix)
        park_if_idle(ix, mode, attenuation);
}

void regulation_handler::set_edfa_defaultAttenuation(float value) {
    edfa_defaultAttenuation_ = value;
    if (is_mx47_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting EDFA default attenuation is not valid for mx47.";
        return;
    }
    MSG_LOG(log_channel_, msg_log::progress) << "msg: Set EDFA default att to " << value;
    if (device_tree_lib::instance().is_velt_t47())
        park_idle_channels("edfa", value);
}

float regulation_handler::get_edfa_defaultAttenuation() const {
    const float attenuation = edfa_defaultAttenuation_;
    MSG_LOG(log_channel_, msg_log::progress) << "msg: EDFA default att: " << attenuation;
    return attenuation;
}

void regulation_handler::set_express_defaultAttenuation(float value) {
    express_defaultAttenuation_ = value;
    if (is_mx47_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting EXPRESS default attenuation is not valid for mx47.";
        return;
    }
    MSG_LOG(log_channel_, msg_log::progress) << "msg: Set EXPRESS default att: " << value;
    park_idle_channels("express", value);
}

float regulation_handler::get_express_defaultAttenuation() const {
    const float attenuation = express_defaultAttenuation_;
    MSG_LOG(log_channel_, msg_log::progress) << "msg: EXPRESS default att: " << attenuation;
    return attenuation;
}

// Channels that are "on" exist on the cards that refuse this default, so where
// it is taken it finds none.
void regulation_handler::set_eq_defaultAttenuation(float value) {
    eq_defaultAttenuation_ = value;
    if (is_mx47_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting EQ default attenuation is not valid for mx47.";
        return;
    }
    park_idle_channels("on", value);
}

float regulation_handler::get_eq_defaultAttenuation() const {
    const float attenuation = eq_defaultAttenuation_;
    MSG_LOG(log_channel_, msg_log::progress) << "msg: EQ default att: " << attenuation;
    return attenuation;
}

void regulation_handler::set_ocm_lanecompensation() {
    if (const client_pointer client = wss_edge_client_.get())
        client->set<void>("config/laneCompensationMode", get_enable_lanecompensation());
}
