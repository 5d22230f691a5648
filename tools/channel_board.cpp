#include "channel_board.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace tmctl {
namespace {

// In dB; fine-tuning goes by up to 0.2, what brings a channel to its band by 0.35 and more.
constexpr double largest_fine_step = 0.3;
constexpr double fallback_idle = 15.0;          // dB, of port modes without a value of their own
constexpr double attenuation_tolerance = 0.05;  // dB, what the hardware may round

struct named_state {
    channel_state state;
    const char* name;
};

constexpr std::array named_states{
    named_state{channel_state::unknown, "unknown"},
    named_state{channel_state::blocked, "blocked"},
    named_state{channel_state::untended, "untended"},
    named_state{channel_state::dark, "dark"},
    named_state{channel_state::parked, "parked"},
    named_state{channel_state::regulating, "regulating"},
    named_state{channel_state::fine, "fine"},
};

std::optional<double> as_number(const json::value& value) {
    return value.IsNumber() ? std::optional(value.GetDouble()) : std::nullopt;
}

std::optional<std::string> as_text(const json::value& value) {
    return value.IsString() ? std::optional(json::to<std::string>(value)) : std::nullopt;
}

// Light, of what the monitor detects, or the severity of the alarm "loss of signal".
std::optional<bool> as_light(const json::value& told) {
    if (told.IsBool())
        return told.GetBool();
    return told.IsUint() ? std::optional(told.GetUint() == 0) : std::nullopt;
}

// Whether the attenuation is the one that idle channels stand at.
bool is_idle(const channel_readings& channel, const std::optional<double>& attenuation) {
    return attenuation && channel.idle_attenuation &&
           std::abs(*attenuation - *channel.idle_attenuation) < attenuation_tolerance;
}

void count_correction(channel_progress& progress, double step, program_time now) {
    ++progress.fine;
    if (step > largest_fine_step)
        progress.to_band += std::exchange(progress.fine, 0);
    progress.last_correction = now;
    if (!progress.first_correction)
        progress.first_correction = now;
}

void note_correction(channel_readings& channel, const channel_readings& before, program_time now) {
    if (channel.commanded == before.commanded || is_idle(channel, channel.commanded))
        return;
    // What nobody has commanded yet stands as the hardware came up.
    const std::optional<double>& old = before.commanded ? before.commanded : before.attenuation;
    if (old && channel.commanded)
        count_correction(channel.progress, std::abs(*channel.commanded - *old), now);
}

void note_band(channel_readings& channel, program_time now) {
    std::optional<program_time>& entered = channel.progress.band_entered;
    if (channel.state() != channel_state::fine)
        entered.reset();
    else if (!entered)
        entered = now;
}

}  // namespace

const char* name(channel_state state) {
    return std::ranges::find(named_states, state, &named_state::state)->name;
}

bool is_state_name(std::string_view text) {
    return std::ranges::any_of(named_states,
                               [text](const named_state& known) { return text == known.name; });
}

program_time channel_progress::way_to_band() const {
    if (!first_correction || !band_entered)
        return program_time::zero();
    return std::max(*band_entered - *first_correction, program_time::zero());
}

channel_state channel_readings::state() const {
    if (mode == "off")
        return channel_state::blocked;
    if (mode && mode != "power")
        return channel_state::untended;
    if (!mode || !light)
        return channel_state::unknown;
    if (!*light)
        return is_idle(*this, attenuation) ? channel_state::parked : channel_state::dark;
    if (const auto away = difference())
        return std::abs(*away) > band ? channel_state::regulating : channel_state::fine;
    return channel_state::unknown;
}

std::optional<double> channel_readings::difference() const {
    if (!light.value_or(false) || !tx || !wanted)
        return std::nullopt;
    return *tx - *wanted;
}

channel_board::channel_board(std::vector<channel_paths> channels, program_time now)
    : paths_(std::move(channels)), start_(now), channels_(paths_.size()) {
    for (std::size_t i = 0; i < paths_.size(); ++i) {
        const channel_paths& paths = paths_[i];
        channels_[i].channel = paths.channel;
        numbers_[paths.wanted] = {i, &channel_readings::wanted};
        numbers_[paths.rx] = {i, &channel_readings::rx};
        numbers_[paths.tx] = {i, &channel_readings::tx};
        numbers_[paths.attenuation] = {i, &channel_readings::attenuation};
        numbers_[paths.commanded] = {i, &channel_readings::commanded};
        texts_[paths.mode] = {i, &channel_readings::mode};
        texts_[paths.port] = {i, &channel_readings::port};
        losses_[paths.loss.empty() ? paths.detected : paths.loss] = i;
        for (const auto& [port, path] : paths.idle_attenuation)
            idle_attenuations_[path];
    }
}

void channel_board::take(std::string_view path, const json::value& value, program_time now) {
    if (const auto number = numbers_.find(path); number != numbers_.end()) {
        const auto& [index, field] = number->second;
        const channel_readings before = channels_[index];
        channels_[index].*field = as_number(value);
        note_correction(channels_[index], before, now);
    } else if (const auto text = texts_.find(path); text != texts_.end()) {
        channels_[text->second.first].*text->second.second = as_text(value);
    } else if (const auto loss = losses_.find(path); loss != losses_.end()) {
        channels_[loss->second].light = as_light(value);
    } else if (const auto idle = idle_attenuations_.find(path); idle != idle_attenuations_.end()) {
        idle->second = as_number(value);
    } else {
        return;
    }
    find_idle_attenuations();
    for (channel_readings& channel : channels_)
        note_band(channel, now);
}

void channel_board::find_idle_attenuations() {
    for (std::size_t i = 0; i < channels_.size(); ++i) {
        channel_readings& channel = channels_[i];
        if (!channel.port)
            continue;
        const auto& by_port = paths_[i].idle_attenuation;
        const auto path = by_port.find(*channel.port);
        channel.idle_attenuation =
            path == by_port.end() ? fallback_idle : idle_attenuations_[path->second];
    }
}

bool channel_board::settled(const channel_readings& channel, program_time now,
                            program_time quiet) const {
    return channel.state() == channel_state::fine &&
           now - channel.progress.last_correction.value_or(start_) >= quiet;
}

}  // namespace tmctl
