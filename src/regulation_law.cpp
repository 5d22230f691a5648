#include "regulation_law.hpp"

#include <cmath>
#include <limits>

namespace regulation_law {
namespace {

constexpr double power_band = 0.7;
constexpr double fine_tuning_band = 0.2;
constexpr float fine_tuning_limit = 0.1F;
constexpr double coarse_gain = 0.5;
constexpr double coarse_limit = 3.0;
constexpr double slow_divisor = 5.0;
constexpr double low_end_margin = 0.1;
constexpr float high_end_mark = 24.0F;
constexpr int give_up_floor = 2;
constexpr float high_change = 0.5F;
constexpr float average_reset = -30.0F;

constexpr float largest_deviation = 10.0F;
constexpr float largest_full_adjustment = 0.5F;

constexpr float lowest_wanted_power = -2.0F;
constexpr float highest_wanted_power = 19.5F;
constexpr float minimum_below_standard = 10.0F;
constexpr double maximum_above_standard = 4.1;

double magnitude(float difference) {
    return std::fabs(static_cast<double>(difference));
}

}  // namespace

float average(std::span<const float> history) {
    float sum = 0.0F;
    for (const float power : history)
        sum += power;
    return sum / static_cast<float>(history.size());
}

bool restarts_average(bool peak, float old_average) {
    return !peak || old_average < average_reset;
}

bool has_changed(float published_power, float wanted_power, int extra_credit, float last_power,
                 float power) {
    return magnitude(published_power - wanted_power) >= power_band || extra_credit > 0 ||
           last_power != power;
}

bool is_outside_band(float difference) {
    return magnitude(difference) > power_band;
}

float coarse_correction(float attenuation, float difference) {
    const double now = attenuation;
    double corrected = now + coarse_gain * difference;
    if (std::fabs(now - corrected) > coarse_limit)
        corrected = now + difference / slow_divisor;
    return static_cast<float>(corrected);
}

bool has_given_up(int counter) {
    return counter < give_up_floor;
}

give_up judge_give_up(int counter, float attenuation, float power, float tilted_wanted_power) {
    const double wanted = tilted_wanted_power;
    if (has_given_up(counter))
        return give_up::earlier;
    if (attenuation < low_end_margin && power < wanted - power_band)
        return give_up::at_low_end;
    if (attenuation > high_end_mark && power > wanted + power_band)
        return give_up::at_high_end;
    return give_up::no;
}

bool is_high_change(float from, float to) {
    return std::fabs(from - to) > high_change;
}

limited_attenuation limit_attenuation(float attenuation) {
    if (attenuation < lowest_attenuation)
        return {lowest_attenuation, range_end::low};
    if (attenuation > highest_attenuation)
        return {highest_attenuation, range_end::high};
    return {attenuation, range_end::none};
}

int give_up_counter_after(int counter, range_end reached) {
    return reached == range_end::none ? give_up_start : counter - 1;
}

float fine_tuning_step(float difference) {
    if (magnitude(difference) <= fine_tuning_band)
        return difference;
    return difference > 0.0F ? fine_tuning_limit : -fine_tuning_limit;
}

lane_attenuations widen(float attenuation, float lane_difference) {
    const float half = lane_difference * 0.5F;
    return {attenuation + half, attenuation - half};
}

bool is_at_bottom(const lane_attenuations& lanes) {
    return lanes.sent <= lowest_attenuation || lanes.other <= lowest_attenuation;
}

long long loss_deadline(long long last_light, long long timeout) {
    using limits = std::numeric_limits<long long>;
    if (timeout > 0 && last_light > limits::max() - timeout)
        return limits::max();
    if (timeout < 0 && last_light < limits::min() - timeout)
        return limits::min();
    return last_light + timeout;
}

int seconds_left(long long deadline, long long now) {
    // Unsigned, so that no pair of times overflows; the log shows 32 bits of it.
    return static_cast<int>(static_cast<unsigned long long>(deadline) -
                            static_cast<unsigned long long>(now));
}

float tilt_loss(float wavelength, double fiber_length) {
    const float loss_per_length = 39.79601F + wavelength * -0.0257566F;
    return static_cast<float>(loss_per_length * fiber_length);
}

float client_side_power(float monitored, float gain, float insertion_loss, float attenuation,
                        float offset) {
    return monitored - gain + insertion_loss + attenuation + offset;
}

bool is_plausible_deviation(float deviation) {
    return std::fabs(deviation) <= largest_deviation;
}

float damped_adjustment(float deviation) {
    return std::fabs(deviation) > largest_full_adjustment ? deviation * 0.5F : deviation;
}

float adjusted_calibration(float calibration, float adjustment) {
    return static_cast<float>(static_cast<double>(calibration) + 0.5 * adjustment);
}

bool agree_to_first_decimal(float a, float b) {
    return std::round(a * 10.0F) / 10.0F == std::round(b * 10.0F) / 10.0F;
}

float share_of_power(double power_limit, int channels) {
    return static_cast<float>(power_limit - 10.0 * std::log10(static_cast<double>(channels)));
}

wanted_powers wanted_powers_for(double power_limit, int channels) {
    const float standard = share_of_power(power_limit, channels);
    const auto maximum = static_cast<float>(static_cast<double>(standard) + maximum_above_standard);
    return {limit_wanted_power(standard), limit_wanted_power(standard - minimum_below_standard),
            limit_wanted_power(maximum)};
}

float limit_wanted_power(float value) {
    if (value > highest_wanted_power)
        return highest_wanted_power;
    return value >= lowest_wanted_power ? value : lowest_wanted_power;
}

float channels_within(double power_limit, float reference_power) {
    const double decibels = power_limit - static_cast<double>(reference_power);
    return static_cast<float>(std::pow(10.0, decibels / 10.0));
}

int whole_channels(float channels) {
    constexpr auto past_the_last = 2147483648.0F;
    if (!(channels < past_the_last))
        return std::numeric_limits<int>::max();
    return static_cast<int>(channels);
}

}  // namespace regulation_law
