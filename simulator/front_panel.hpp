// The LEDs of the card's front panel.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string>

namespace simulator {

inline constexpr std::size_t led_count = 8;

// As the handler names them, below "config/".
inline constexpr std::array<const char*, led_count> led_names{
    "powerLed",      "statusLed",     "ocmLed/txLed",     "ocmLed/rxLed",
    "edfaLed/txLed", "edfaLed/rxLed", "expressLed/txLed", "expressLed/rxLed"};

// Each LED keeps its colour while its handler is away. Any thread may call.
class front_panel {
  public:
    front_panel() { colours_.fill("off"); }

    std::string colour(std::size_t led) const {
        const std::lock_guard lock(mutex_);
        return colours_.at(led);
    }
    // "off", "green", "red" or "yellow"; anything else is dh_error -22.
    void set_colour(std::size_t led, const std::string&);

  private:
    mutable std::mutex mutex_;
    std::array<std::string, led_count> colours_;
};

}  // namespace simulator
