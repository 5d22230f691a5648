#include "distant_booster.hpp"

namespace simulator {
namespace {

std::string path(const char* name) {
    return std::string("sim/eq/booster/") + name;
}

}  // namespace

distant_booster::distant_booster(const std::string& root)
    : light_(device_handler_client::create(root + "/tmp/device_handlers/sim", "EQ port", {})) {}

bool distant_booster::booster_on() const {
    return light_->get<bool>(path("on"));
}

void distant_booster::set_booster_enabled(bool enabled) {
    light_->set<void>(path("enabled"), enabled);
}

float distant_booster::booster_output_power() const {
    return light_->get<float>(path("txPower"));
}

float distant_booster::booster_input_power() const {
    return light_->get<float>(path("rxPower"));
}

bool distant_booster::booster_input_lost() const {
    return light_->get<bool>(path("inputLost"));
}

float distant_booster::booster_actual_gain() const {
    return light_->get<float>(path("actualGain"));
}

float distant_booster::booster_monitor_loss() const {
    return light_->get<float>(path("monitorLoss"));
}

float distant_booster::booster_gain() const {
    return light_->get<float>(path("gain"));
}

void distant_booster::set_booster_gain(float gain) {
    light_->set<void>(path("gain"), gain);
}

bool distant_booster::booster_fault() const {
    return light_->get<bool>(path("fault"));
}

void distant_booster::set_booster_fault(bool fault) {
    light_->set<void>(path("fault"), fault);
}

double distant_booster::booster_power_limit() const {
    return light_->get<double>(path("powerLimit"));
}

void distant_booster::set_booster_power_limit(double limit) {
    light_->set<void>(path("powerLimit"), limit);
}

}  // namespace simulator
