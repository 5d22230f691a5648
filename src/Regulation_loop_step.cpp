// One pass of the closed loop for one channel. The order of what is read,
// written, logged and remembered is part of the regulation's behaviour.
#include "host.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"
#include "Regulation_loop.hpp"

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <utility>

namespace law = regulation_law;

namespace {

constexpr long long adjustment_period = 120;  // minutes
constexpr float unread_power = -60.0F;
constexpr int lane_difference = 0;  // dB; the lanes of a channel are not told apart

long long minutes_since_epoch() {
    return host::time().wall().count() / 60'000'000'000;
}

}  // namespace

// What lives for one step.
struct regulation_handler::channel_step {
    channel_step(unsigned index, channel_record& record) : ix(index), channel(record) {}

    const unsigned ix;
    channel_record& channel;
    bool peak = false;  // the monitor sees the channel
    float raw = 0.0F;   // as read
    int id = 0;         // the monitor's own
    bool port_off = false;
    float power = 0.0F;       // the average, calibrated where there is a peak
    bool changed = false;     // whether there is reason to act
    std::string mode;         // the optical control mode
    long long now = 0;        // s since the epoch
    float difference = 0.0F;  // power off the wanted power
    float target = 0.0F;      // the wanted power with the tilt
};

void regulation_handler::regulate_channel(
    unsigned ix, const std::shared_ptr<device_handler_client>& wss_edge_client) {
    tell_paths(ix);
    adjust_booster_calibration();
    channel_step step = read_channel(ix, *wss_edge_client);
    take_reading(step);
    count_active_channel(step);
    if (is_budget_exceeded())
        return;
    remember_reading(step);
    if (!follow_control_mode(step))
        return;
    step.now = get_nowSeconds();
    take_peak_state(step);
    if (step.peak)
        regulate_lit_channel(step);
    else
        await_light(step);
    set_alarm(pam4_alarm_, false);
}

void regulation_handler::tell_paths(unsigned ix) const {
    if (!verbose_)
        return;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Regulate: channel-ix" << ix << ", wanted power: " << channels_.at(ix).wanted_power;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Regulate: using WSS_datapath: " << WSS_datapath_;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Regulate: using WSS_configpath: " << WSS_configpath_;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Regulate: using OCM_datapath: " << OCM_datapath_;
}

// The next time is set first, so that an adjustment that fails waits its full turn.
void regulation_handler::adjust_booster_calibration() {
    const long long minutes = minutes_since_epoch();
    if (boosterTx_next_adjustment_ >= minutes)
        return;
    boosterTx_next_adjustment_ = minutes + adjustment_period;
    const float adjustment = get_boosterTx_adjustment();
    boosterTx_ = law::adjusted_calibration(boosterTx_, adjustment);
}

regulation_handler::channel_step regulation_handler::read_channel(
    unsigned ix, device_handler_client& wss_edge_client) {
    device_handler_read_request request;
    auto peak = request.add<bool>(ocm_channel_path(ix, "/detected"), false);
    auto raw = request.add<float>(ocm_channel_path(ix, "/powerLevel"), unread_power);
    auto id = request.add<int>(ocm_channel_path(ix, "/id"), 0);
    wss_edge_client.send_request(std::move(request));
    const auto port = wss_edge()->get<std::string>(wss_data_path(ix, "/port"), std::string());
    channel_step step(ix, channels_.at(ix));
    step.peak = peak.get();
    step.raw = raw.get();
    step.id = id.get();
    step.port_off = port == "off";
    return step;
}

void regulation_handler::take_reading(channel_step& step) {
    append_to_history(step);
    step.power = get_rxAvgPowerChannel(step.ix);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: WSS_port: " << WSS_port_ << ", channelId: " << step.id
            << ", avgPower: " << step.power;
    if (step.peak)
        step.power += calibration_to_regulated_point();
    if (verbose_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: WSS_port: " << WSS_port_ << ", raw power: " << step.raw
            << ", power adjusted to calibration: " << step.power;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: WSS_port: " << WSS_port_ << ", channelId: " << step.id
            << ", raw power: " << step.raw << ", power adjusted to calibration: " << step.power
            << ", Peakdetected: " << step.peak;
    }
    // Before the record has the new reading: the power that was last published.
    step.changed = law::has_changed(get_txPowerChannel(step.ix), step.channel.wanted_power,
                                    step.channel.extra_credit, step.channel.rxPower, step.power);
}

void regulation_handler::append_to_history(channel_step& step) {
    std::vector<float>& history = step.channel.power_history;
    if (law::restarts_average(step.peak, get_rxAvgPowerChannel(step.ix)))
        history.clear();
    history.push_back(step.raw);
    if (history.size() > law::history_length)
        history.erase(history.begin());
}

float regulation_handler::calibration_to_regulated_point() const {
    const bool before_any_booster = WSS_port_ == 1 && !k47_combo_flag_;
    return before_any_booster ? ocm_power_offset_value_ : boosterTx_;
}

void regulation_handler::count_active_channel(channel_step& step) {
    const int index = static_cast<int>(step.ix);
    step.channel.active = step.peak && !step.port_off;
    if (step.channel.active)
        active_channels_.insert(index);
    else
        active_channels_.erase(index);
    number_of_ActiveChannels_ = static_cast<int>(active_channels_.size());
}

bool regulation_handler::is_budget_exceeded() const {
    const int active = number_of_ActiveChannels_;
    const int allowed = number_of_AllowedChannels_;
    if (active <= allowed)
        return false;
    MSG_LOG(log_channel_, msg_log::failure)
        << "msg: Max number of active channels already reached: " << active
        << ". Please check your settings! Current allowed channels: " << allowed;
    return true;
}

void regulation_handler::remember_reading(channel_step& step) {
    step.channel.channelId = step.id;
    step.channel.rxPower = step.power;
    step.channel.rxRawPower = step.raw;
}

// Whether the channel is to be regulated in this step.
bool regulation_handler::follow_control_mode(channel_step& step) {
    step.mode = step.channel.opticalControlMode.get();
    if (step.mode == "off") {
        block_wss_channel(step.ix);
        return false;
    }
    if (step.mode != "power") {
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress)
                << "msg: Not in power mode. opticalControlMode: " << step.mode;
        return false;
    }
    if (step.channel.rxWssAttenuation > law::unblock_mark) {
        unblock_channel(step);
        return false;
    }
    return true;
}

void regulation_handler::unblock_channel(const channel_step& step) {
    if (verbose_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Starting regulation, opticalControlMode: " << step.mode;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting default attenuation, opticalControlMode: " << step.mode;
    }
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Requesting WSS unblock on channel-ix" << step.ix << ", channelId: " << step.id;
    set_max_wss_attenuation(step.ix);
}

void regulation_handler::take_peak_state(channel_step& step) {
    channel_record& channel = step.channel;
    if (step.peak == channel.rxLossOfSignal) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: channelId: " << step.id << ", New channel detected, channel-ix" << step.ix
            << ", WSS_port: " << WSS_port_;
        channel.extra_credit = law::fine_tuning_steps;
        if (!step.peak)
            restart_loss_timer(step);
    }
    channel.rxLossOfSignal = !step.peak;
    set_alarm(client_alarms_.at(step.ix).lossOfSignal, !step.peak);
}

void regulation_handler::restart_loss_timer(channel_step& step) {
    step.channel.lossTurnOffTimestamp = step.now;
    step.channel.loss_counter = law::loss_reload;
}

void regulation_handler::set_alarm(const alarm_node& node, bool raised) {
    if (node)
        node->set(raised ? 1 : 0);
}

// --- a channel with a peak ---

void regulation_handler::regulate_lit_channel(channel_step& step) {
    channel_record& channel = step.channel;
    restart_loss_timer(step);
    const float wanted_power = channel.wanted_power;
    if (verbose_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Set lossTurnOffTimestamp: " << channel.lossTurnOffTimestamp;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Modified wanted power on channelId: " << step.id
            << ", is currently: " << wanted_power;
    }
    step.difference = step.power - wanted_power;
    channel.rxPowerDeviation = step.difference;
    const bool outside_band = law::is_outside_band(step.difference);
    if (outside_band)
        tell_decision(step);
    if (!step.changed) {
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress) << "msg: Power on channelId: " << step.id
                                                     << " has not changed, do nothing this time...";
        return;
    }
    channel.rxPowerMax = std::max(channel.rxPowerMax, step.power);
    channel.rxPowerMin = std::min(channel.rxPowerMin, step.power);
    const float tilt = get_rxTiltLoss(step.ix);
    step.target = wanted_power + tilt;
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Tilt factor on channelId: " << step.id << ", tilt: " << tilt;
    refresh_power_alarms(step);
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Powerdiff: " << step.difference << ", measured power: " << step.power;
    if (outside_band)
        correct_coarsely(step);
    else
        fine_tune(step);
}

void regulation_handler::tell_decision(const channel_step& step) const {
    if (!verbose_)
        return;
    if (law::has_given_up(step.channel.giveup_counter))
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Powerdiff > 0.7 giving up on channel-ix" << step.ix
            << ", powerdiff: " << step.difference << ", lanediff: " << lane_difference;
    else
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Decision!!! powerdiffaverage: " << step.difference
            << ", measured power: " << step.power << ", lanediffaverage: " << lane_difference;
}

void regulation_handler::refresh_power_alarms(const channel_step& step) {
    const alarm_limits& limits = client_limits_.at(step.ix);
    const alarm_nodes& nodes = client_alarms_.at(step.ix);
    set_alarm(nodes.highPower, step.difference > limits.high_power_diff_limit);
    set_alarm(nodes.lowPower, step.difference < limits.low_power_diff_limit);
}

void regulation_handler::correct_coarsely(channel_step& step) {
    channel_record& channel = step.channel;
    const float attenuation = get_wss_attenuation(step.ix);
    channel.last_wss_diff = 0.0F;
    if (verbose_) {
        MSG_LOG(log_channel_, msg_log::progress) << "msg: Last WSS diff for channel-ix" << step.ix
                                                 << ", diff: " << channel.last_wss_diff;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Readout attenuation for channel-ix" << step.ix << ", is: " << attenuation;
    }
    const float corrected = law::coarse_correction(attenuation, step.difference);
    consider_giving_up(step, corrected);
    const float limited = limit_correction(step, corrected);
    if (limited == channel.rxWssAttenuation)
        return;
    const law::lane_attenuations lanes = widen(step, limited);
    set_wss_attenuation(lanes.sent, step.ix);
    channel.rxWssAttenuation = limited;
    channel.extra_credit = law::fine_tuning_steps;
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Attenuation for channelId: " << step.id << ", channel-ix" << step.ix
            << ", to: " << limited;
}

void regulation_handler::consider_giving_up(channel_step& step, float corrected) {
    const law::give_up verdict =
        law::judge_give_up(step.channel.giveup_counter, corrected, step.power, step.target);
    if (verdict != law::give_up::no)
        step.channel.giveup_counter = 0;
    if (!verbose_)
        return;
    if (verdict == law::give_up::earlier)
        MSG_LOG(log_channel_, msg_log::progress) << "msg: Powerdiff > 0.7 giving up on channel-ix"
                                                 << step.ix << ", powerdiff: " << step.difference;
    if (verdict == law::give_up::at_low_end)
        MSG_LOG(log_channel_, msg_log::progress) << "msg: NEAR WSS LOW END Giving up on channel-ix"
                                                 << step.ix << ", power diff: " << step.difference;
    if (verdict == law::give_up::at_high_end)
        MSG_LOG(log_channel_, msg_log::progress) << "msg: NEAR WSS HIGH END Giving up on channel-ix"
                                                 << step.ix << ", power diff: " << step.difference;
    const float previous = step.channel.rxWssAttenuation;
    if (law::is_high_change(previous, corrected))
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: HIGH Attenuation diff will be set on channel-ix" << step.ix
            << ", value: " << corrected << ", previous att: " << previous
            << ", new value: " << corrected;
}

float regulation_handler::limit_correction(channel_step& step, float corrected) {
    const law::limited_attenuation limited = law::limit_attenuation(corrected);
    int& counter = step.channel.giveup_counter;
    counter = law::give_up_counter_after(counter, limited.reached);
    if (!verbose_)
        return limited.value;
    if (limited.reached == law::range_end::none)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting max GIVEUPCOUNTER on channel-ix" << step.ix;
    else
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting " << (limited.reached == law::range_end::low ? "min" : "max")
            << " attenuation on channel-ix" << step.ix << ", att is: " << limited.value
            << ". Tick down give upp counter: " << counter;
    return limited.value;
}

regulation_law::lane_attenuations regulation_handler::widen(const channel_step& step,
                                                            float attenuation) const {
    const law::lane_attenuations lanes = law::widen(attenuation, step.channel.last_wss_diff);
    if (verbose_ && law::is_at_bottom(lanes))
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Banging at bottom: channel-ix" << step.ix << ", to: " << lanes.other
            << ", index+1 att: " << lanes.sent << ", lanediff: " << lane_difference
            << ", giveup counter: " << step.channel.giveup_counter;
    return lanes;
}

void regulation_handler::fine_tune(channel_step& step) {
    channel_record& channel = step.channel;
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Power is near target finetuning: " << step.target << ", channelId: " << step.id
            << ", power: " << step.power << ", extra credit: " << channel.extra_credit;
    float correction = step.difference;
    if (channel.extra_credit > 0) {
        --channel.extra_credit;
        correction = law::fine_tuning_step(step.difference);
        // From what was commanded, not from a read-back.
        const float commanded = channel.rxWssAttenuation;
        const float tuned = law::limit_attenuation(commanded + correction).value;
        if (tuned != commanded)
            send_fine_tuning(step, tuned);
    }
    channel.last_correction = correction;
}

void regulation_handler::send_fine_tuning(channel_step& step, float attenuation) {
    const law::lane_attenuations lanes = widen(step, attenuation);
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Finetune channelId: " << step.id << ", attenuation: " << attenuation
        << ", channel-ix" << step.ix << ", txPwr: " << get_txPowerChannel(step.ix)
        << ", finetuning " << law::fine_tuning_steps - step.channel.extra_credit << " of "
        << law::fine_tuning_steps;
    set_wss_attenuation(lanes.sent, step.ix);
    step.channel.rxWssAttenuation = attenuation;
}

// --- a channel without a peak ---

void regulation_handler::await_light(channel_step& step) {
    channel_record& channel = step.channel;
    if (channel.rxWssAttenuation > law::lost_mark)
        blocked_channel_lost_ = true;
    if (step.raw > law::no_light) {
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress)
                << "msg: We lost peak flag , but still have power (> -35dBm) measured: "
                << step.power << " dBm, on channelId: " << step.id << ", channel-ix" << step.ix;
        restart_loss_timer(step);
    }
    const long long deadline = law::loss_deadline(channel.lossTurnOffTimestamp, lossTimeout_);
    if (deadline >= step.now) {
        if (verbose_)
            MSG_LOG(log_channel_, msg_log::progress)
                << "msg: Counting down, time left: " << law::seconds_left(deadline, step.now)
                << ", channel-ix" << step.ix << ", channelId: " << step.id;
        return;
    }
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Timestamp now is: " << step.now << ", timeouttime: " << deadline
            << ", channelId: " << step.id;
    if (channel.lossTurnOffTimestamp >= 1)
        act_on_loss(step);
}

// Once for each loss: also where the write fails, until light was seen again.
void regulation_handler::act_on_loss(channel_step& step) {
    channel_record& channel = step.channel;
    channel.lossTurnOffTimestamp = -1;
    if (verbose_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Loss counter counting down channelId: " << step.id
            << ", counter: " << channel.loss_counter;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Setting max attenuation for channelId: " << step.id;
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Previous WSS attenuation: " << channel.rxWssAttenuation;
        MSG_LOG(log_channel_, msg_log::progress) << "msg: Power value now: " << step.power;
    }
    if (channel.rxWssAttenuation >= law::default_attenuation)
        return;
    if (verbose_)
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: No light on channel-ix" << step.ix << ", opticalControlMode: " << step.mode;
    set_max_wss_attenuation(step.ix);
    channel.giveup_counter = law::give_up_start;
}
