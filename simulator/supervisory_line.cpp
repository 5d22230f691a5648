#include "supervisory_line.hpp"

#include "dh_error.hpp"
#include "require_within.hpp"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace simulator {
namespace {

using namespace std::chrono_literals;

constexpr float no_power = -99.0F;      // dBm, of a transceiver that is not there
constexpr double dark_reading = -40.0;  // dBm, what a receiver shows without light
constexpr double sensitivity = -36.0;   // dBm, below which there is no link

// Real time between two looks at what may have changed elsewhere.
constexpr auto look_interval = 50ms;

// What the end of the fibre and a break send back, dB.
constexpr double end_reflectance = -40.0;
constexpr double break_reflectance = -14.0;

constexpr double metres_per_km = 1000.0;

}  // namespace

supervisory_line::supervisory_line(std::shared_ptr<osc_link> link,
                                   std::shared_ptr<sfp_bay> transceiver,
                                   const std::optional<std::string>& far_root)
    : link_(std::move(link)),
      transceiver_(std::move(transceiver)),
      far_end_(far_root ? device_handler_client::create(*far_root + "/tmp/device_handlers/sim",
                                                        "far end", {})
                        : nullptr),
      thread_([this] { run(); }) {}

supervisory_line::~supervisory_line() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

line_state supervisory_line::now() const {
    const std::lock_guard lock(mutex_);
    return now_;
}

template <class Edit>
void supervisory_line::change(const Edit& edit) {
    {
        const std::lock_guard lock(mutex_);
        edit(now_);
        is_to_look_ = true;
    }
    changed_.notify_all();
}

float supervisory_line::fibre_loss() const {
    return static_cast<float>(now().fibre_loss);
}

void supervisory_line::set_fibre_loss(float loss) {
    require_within(line_loss_range, loss);
    change([&](line_state& line) { line.fibre_loss = loss; });
}

float supervisory_line::connector_loss() const {
    return static_cast<float>(now().connector_loss);
}

void supervisory_line::set_connector_loss(float loss) {
    require_within(line_loss_range, loss);
    change([&](line_state& line) { line.connector_loss = loss; });
}

float supervisory_line::far_power() const {
    return static_cast<float>(now().far_power);
}

void supervisory_line::set_far_power(float power) {
    require_within(transceiver_power_range, power);
    change([&](line_state& line) { line.far_power = power; });
}

bool supervisory_line::intact() const {
    return now().intact;
}

void supervisory_line::set_intact(bool intact) {
    change([&](line_state& line) { line.intact = intact; });
}

float supervisory_line::cut_distance() const {
    return static_cast<float>(now().cut_distance);
}

void supervisory_line::set_cut_distance(float distance) {
    require_within(line_distance_range, distance);
    change([&](line_state& line) { line.cut_distance = distance; });
}

std::string supervisory_line::reflectors() const {
    return text_of(now().reflectors);
}

void supervisory_line::set_reflectors(const std::string& text) {
    try {
        change([parsed = parse_reflectors(text)](line_state& line) { line.reflectors = parsed; });
    } catch (const std::invalid_argument& error) {
        throw dh_error(dh_error_code::invalid_argument, error.what());
    }
}

float supervisory_line::sent_power() const {
    return transceiver_->present() ? transceiver_->tx_power() : no_power;
}

std::vector<reflector> supervisory_line::met_by_a_pulse() const {
    const line_state line = now();
    std::vector<reflector> met = line.reflectors;
    const double length = static_cast<double>(link_->length()) * metres_per_km;
    const bool is_cut = !line.intact && line.cut_distance < length;
    const reflector end = is_cut ? reflector{line.cut_distance, break_reflectance}
                                 : reflector{length, end_reflectance};
    std::erase_if(met, [&](const reflector& each) { return each.distance >= end.distance; });
    met.push_back(end);
    return met;
}

double supervisory_line::loss_per_km() const {
    const double length = link_->length();
    return length > 0.0 ? now().fibre_loss / length : 0.0;
}

void supervisory_line::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        is_to_look_ = false;
        const line_state line = now_;
        lock.unlock();
        receive(line);
        lock.lock();
        changed_.wait_for(lock, look_interval, [this] { return stopping_ || is_to_look_; });
    }
}

std::optional<double> supervisory_line::far_light(const line_state& line) const {
    if (!far_end_)
        return line.far_power;
    if (!far_end_->is_connected())
        return std::nullopt;  // nobody is there, and nobody is waited for
    try {
        const auto power = far_end_->get<float>("sim/line/sentPower");
        return power > no_power ? std::optional<double>(power) : std::nullopt;
    } catch (const dh_client_exception&) {
        return std::nullopt;
    }
}

void supervisory_line::receive(const line_state& line) {
    const std::optional<double> sent = line.intact ? far_light(line) : std::nullopt;
    const double arriving =
        sent ? std::max(dark_reading, *sent - line.fibre_loss - line.connector_loss) : dark_reading;
    const auto received = static_cast<float>(arriving);
    // What hands have set meanwhile stays until the span changes.
    if (received_ != received)
        transceiver_->set_rx_power(received);
    received_ = received;
    link_->set_lit(transceiver_->present() && arriving > sensitivity);
}

}  // namespace simulator
