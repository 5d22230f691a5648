#include "otdr_unit.hpp"

#include "dh_error.hpp"
#include "fibre_trace.hpp"
#include "host.hpp"
#include "require_within.hpp"

#include <algorithm>
#include <chrono>

namespace simulator {
namespace {

constexpr int measurement_failed = -5;

// Between two looks at the transceiver during a measurement.
constexpr std::chrono::duration<double> look_interval{0.1};

}  // namespace

void otdr_unit::require_transceiver() const {
    if (!transceiver_->present() || !transceiver_->otdr_support())
        throw dh_error(measurement_failed, "there is no transceiver that measures reflections");
}

bool otdr_unit::measure(bool) {
    const std::lock_guard one_at_a_time(measuring_);
    require_transceiver();
    for (std::chrono::duration<double> left(measuring_time()); left.count() > 0.0;) {
        const auto nap = std::min(left, look_interval);
        host::time().sleep(std::chrono::duration_cast<std::chrono::nanoseconds>(nap));
        left -= nap;
        require_transceiver();
    }
    if (failing())
        throw dh_error(measurement_failed, "the measurement failed");
    std::vector<int> measured =
        line_ ? trace_of(line_->met_by_a_pulse(), line_->loss_per_km()) : std::vector<int>();
    if (measured.size() > max_reported_reflections)
        measured.resize(max_reported_reflections);
    const std::lock_guard lock(mutex_);
    distances_ = std::move(measured);
    return true;
}

int otdr_unit::detected() const {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(distances_.size());
}

int otdr_unit::distance(unsigned number) const {
    const std::lock_guard lock(mutex_);
    if (number == 0 || number > distances_.size())
        throw dh_error(dh_error_code::bad_value, "Value has not been set");
    return distances_[number - 1];
}

float otdr_unit::measuring_time() const {
    const std::lock_guard lock(mutex_);
    return measuring_time_;
}

void otdr_unit::set_measuring_time(float seconds) {
    require_within(measuring_time_range, seconds);
    const std::lock_guard lock(mutex_);
    measuring_time_ = seconds;
}

bool otdr_unit::failing() const {
    const std::lock_guard lock(mutex_);
    return failing_;
}

void otdr_unit::set_failing(bool failing) {
    const std::lock_guard lock(mutex_);
    failing_ = failing;
}

}  // namespace simulator
