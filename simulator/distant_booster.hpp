// The booster of an amplifier card whose light is that of another card's EQ
// port, simulated there: asks and tells it through the hands at that simulation.
#pragma once

#include "device_handler_client.hpp"

#include <memory>
#include <string>

namespace simulator {

// Members mean what they do in light_path. All throw
// dh_client_exception while the other card's simulation does not answer.
class distant_booster {
  public:
    // `root` is the prefix of the other card's paths, below VELT_ROOT.
    explicit distant_booster(const std::string& root);

    bool booster_on() const;
    void set_booster_enabled(bool);
    float booster_output_power() const;
    float booster_input_power() const;
    bool booster_input_lost() const;
    float booster_actual_gain() const;
    double booster_power_limit() const;
    float booster_monitor_loss() const;

    float booster_gain() const;
    void set_booster_gain(float);
    bool booster_fault() const;
    void set_booster_fault(bool);
    void set_booster_power_limit(double);

  private:
    const std::shared_ptr<device_handler_client> light_;
};

}  // namespace simulator
