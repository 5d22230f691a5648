// The arithmetic of the power regulation: values in, values out.
//
// Nothing here reads a clock or a device. Powers are in dBm, differences and
// attenuations in dB, times in whole seconds. A difference is positive where
// there is more power than wanted; more attenuation then lowers it.
//
// Every bit of a result counts: where a sum is in double, and where it is rounded
// to float, is part of the law.
#pragma once

#include <cstddef>
#include <span>

namespace regulation_law {

inline constexpr std::size_t history_length = 5;
inline constexpr int fine_tuning_steps = 7;  // granted by any change
inline constexpr int give_up_start = 10;
inline constexpr int loss_reload = 15;
inline constexpr float default_attenuation = 15.0F;
inline constexpr float lowest_attenuation = 0.0F;  // of a regulated channel
inline constexpr float highest_attenuation = 15.0F;
inline constexpr float unblock_mark = 20.0F;  // above it a channel is parked before it regulates
inline constexpr float lost_mark = 23.0F;     // above it a channel without a peak counts as blocked
inline constexpr float blocked_mark = 25.0F;
inline constexpr double blocked_attenuation = 25.5;
inline constexpr float no_light = -35.0F;  // raw power above it is light
inline constexpr float unknown_power = -99.0F;
inline constexpr float single_card_power_limit = 20.0F;  // of the booster

// --- taking the reading ---

// The mean, summed in order; the history is not empty.
float average(std::span<const float> history);

// Whether a new reading starts the average afresh.
bool restarts_average(bool peak, float old_average);

// Whether there is reason to look at the channel: off its target by the power
// last published, fine-tuning steps left, or a power that moved.
bool has_changed(float published_power, float wanted_power, int extra_credit, float last_power,
                 float power);

bool is_outside_band(float difference);

// --- correction outside the band ---

// Half the difference at once; where that would be more than 3 dB, a fifth.
float coarse_correction(float attenuation, float difference);

// Whether the counter says that the channel was given up before.
bool has_given_up(int counter);

enum class give_up { no, earlier, at_low_end, at_high_end };

// Whether the channel has come to where no correction helps. Giving up is told,
// and is no brake.
give_up judge_give_up(int counter, float attenuation, float power, float tilted_wanted_power);

bool is_high_change(float from, float to);

enum class range_end { none, low, high };

struct limited_attenuation {
    float value;
    range_end reached;
};

limited_attenuation limit_attenuation(float attenuation);

// The counter after a correction; it falls with each that was cut off.
int give_up_counter_after(int counter, range_end reached);

// --- fine-tuning inside the band ---

// The whole difference, or 0.1 dB of it where it is above 0.2 dB.
float fine_tuning_step(float difference);

// --- what is sent to the WSS ---

struct lane_attenuations {
    float sent;   // to the WSS
    float other;  // what its pair would stand at
};

// The attenuation widened by half the difference of a channel's two lanes.
lane_attenuations widen(float attenuation, float lane_difference);

bool is_at_bottom(const lane_attenuations& lanes);

// --- loss of light ---

// Last second in which a channel that had light at `last_light` keeps its
// attenuation. A time-out too long for the clock never ends.
long long loss_deadline(long long last_light, long long timeout);

int seconds_left(long long deadline, long long now);

// --- calibration ---

float tilt_loss(float wavelength, double fiber_length);

// Power at the client side of booster and WSS, from the monitored power.
float client_side_power(float monitored, float gain, float insertion_loss, float attenuation,
                        float offset);

// Whether the booster's own power can be so far off the monitor's: up to 10 dB.
bool is_plausible_deviation(float deviation);

// The deviation, or half of it where it is above 0.5 dB.
float damped_adjustment(float deviation);

// The calibration moved by half an adjustment.
float adjusted_calibration(float calibration, float adjustment);

bool agree_to_first_decimal(float a, float b);

// --- wanted power and channel budget ---

struct wanted_powers {
    float standard;  // what each channel gets unless told otherwise
    float minimum;
    float maximum;
};

// The share of each of so many channels in the booster's power limit, without limits.
float share_of_power(double power_limit, int channels);

// The standard wanted power and its limits for so many channels.
wanted_powers wanted_powers_for(double power_limit, int channels);

// -2.0 to 19.5; what is no number becomes the lowest.
float limit_wanted_power(float value);

// How many channels of the reference power fit the limit, with its fraction.
float channels_within(double power_limit, float reference_power);

// Truncated towards zero, and to what an int holds.
int whole_channels(float channels);

}  // namespace regulation_law
