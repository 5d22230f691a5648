// Wanted power of the channels, the budget of channels, and the modes that
// change these sums.
#include "board.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"
#include "Regulation_loop.hpp"

#include <fmt/format.h>

void regulation_handler::calculate_wanted_power() {
    const bool combined = k47_combo_flag_;
    float limit = regulation_law::single_card_power_limit;
    if (combined) {
        limit = k47_booster_power_limit_;
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress)
                << fmt::format("msg: Reading booster power limit: {:f}", limit);
    }
    const int channels = number_of_AllowedChannels_;
    const auto powers = regulation_law::wanted_powers_for(limit, channels);
    wantedPowerDefault_ = powers.standard;
    wantedPowerMin_ = powers.minimum;
    wantedPowerMax_ = powers.maximum;
    if (WSS_port_ == 1 && device_tree_lib::instance().is_velt_mx47() && !combined)
        open_wanted_power_range(channels);
}

// The EQ port feeds no booster of its own that could be overloaded.
void regulation_handler::open_wanted_power_range(int channels) {
    const auto limit = booster_client_->get<double>(
        "data/powerLimit", static_cast<double>(regulation_law::single_card_power_limit));
    wantedPowerDefault_ = regulation_law::share_of_power(limit, channels);
    wantedPowerMin_ = -20.0F;
    wantedPowerMax_ = 20.0F;
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress) << "msg: I am a mx47, comboflag is false, setting "
                                                    "maximum range for wanted power.";
}

void regulation_handler::calculate_maximum_allowed_channels() {
    const auto limit = booster_client_->get<double>("data/powerLimit", 25.0);
    const float channels = regulation_law::channels_within(limit, channel_power_reference_);
    const int whole = regulation_law::whole_channels(channels);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "calculate_maximum_allowed_channels, msg: Number of max allowed channels: "
            << channels << ", floor: " << whole;
    number_of_AllowedChannels_ = whole;
}

void regulation_handler::set_limited_wanted_power(unsigned ix) {
    channel_record& channel = channels_.at(ix);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << fmt::format("msg: Limiting wanted power, channel-ix{}, current wanted power: {:f}",
                           ix, static_cast<float>(channel.wanted_power));
    if (channel.wanted_power < wantedPowerMin_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << fmt::format("msg: Raising  wanted power, channel-ix{}, current wanted power: {:f}",
                           ix, static_cast<float>(channel.wanted_power));
        channel.wanted_power = wantedPowerMin_;
    }
    if (channel.wanted_power > wantedPowerMax_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << fmt::format("msg: Lowering wanted power, channel-ix{}, current wanted power: {:f}",
                           ix, static_cast<float>(channel.wanted_power));
        channel.wanted_power = wantedPowerMax_;
    }
}

void regulation_handler::set_wanted_power(unsigned ix, float value) {
    channel_record& channel = channels_.at(ix);
    MSG_LOG(log_channel_, msg_log::progress) << fmt::format(
        "msg: Setting wanted power, channel-ix{}, wanted power: {:.1f}, set to {:.1f}", ix,
        static_cast<float>(channel.wanted_power), value);
    channel.wanted_power = value;
}

float regulation_handler::get_wanted_power(unsigned ix) const {
    return channels_.at(ix).wanted_power;
}

void regulation_handler::set_wantedPowerMax(float value) {
    wantedPowerMax_ = regulation_law::limit_wanted_power(value);
}

void regulation_handler::set_wantedPowerMin(float value) {
    wantedPowerMin_ = regulation_law::limit_wanted_power(value);
}

void regulation_handler::set_wantedPowerDefault(float value) {
    wantedPowerDefault_ = regulation_law::limit_wanted_power(value);
}

void regulation_handler::set_opticalControlMode(unsigned ix, const std::string& mode) {
    channel_record& channel = channels_.at(ix);
    channel.opticalControlMode.set(mode);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: channel-ix" << ix << ", channelId: " << channel.channelId
            << ", Set optical control mode to " << mode;
}

std::string regulation_handler::get_opticalControlMode(unsigned ix) const {
    return channels_.at(ix).opticalControlMode.get();
}

void regulation_handler::set_k47_combo_flag(bool value) {
    k47_combo_flag_ = value;
    calculate_wanted_power();
    if (WSS_port_ != 1)
        return;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Switching combo mode, recalculating default wanted power, mode: "
        << (value ? "enabled" : "disabled");
    for (unsigned ix = 1; ix <= last_channel; ++ix)
        set_limited_wanted_power(ix);
}
