#include "pluggable_modules.hpp"

#include "require_within.hpp"

namespace simulator {

bool ppm_bay::present() const {
    return get(&passive_module::present);
}

void ppm_bay::set_present(bool present) {
    change(&passive_module::present, present);
}

unsigned ppm_bay::loss(std::size_t which) const {
    return get(&passive_module::losses).at(which);
}

void ppm_bay::set_loss(std::size_t which, unsigned loss) {
    change([&](passive_module& now) { now.losses.at(which) = loss; });
}

bool sfp_bay::present() const {
    return get(&transceiver::present);
}

void sfp_bay::set_present(bool present) {
    change(&transceiver::present, present);
}

float sfp_bay::rx_power() const {
    return get(&transceiver::rx_power);
}

void sfp_bay::set_rx_power(float power) {
    require_within(transceiver_power_range, power);
    change(&transceiver::rx_power, power);
}

float sfp_bay::tx_power() const {
    return get(&transceiver::tx_power);
}

void sfp_bay::set_tx_power(float power) {
    require_within(transceiver_power_range, power);
    change(&transceiver::tx_power, power);
}

bool sfp_bay::otdr_support() const {
    return get(&transceiver::otdr_support);
}

void sfp_bay::set_otdr_support(bool supported) {
    change(&transceiver::otdr_support, supported);
}

}  // namespace simulator
