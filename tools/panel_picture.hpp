// The front panel: the colour that each LED was given, and how the panel looks.
#pragma once

#include "json.hpp"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tmctl {

enum class led_colour { unknown, off, green, red, yellow };

const char* name(led_colour);

inline constexpr std::size_t led_count = 8;

// As the LED handler names them, below "config/".
inline constexpr std::array<const char*, led_count> led_names{
    "powerLed",      "statusLed",     "ocmLed/txLed",     "ocmLed/rxLed",
    "edfaLed/txLed", "edfaLed/rxLed", "expressLed/txLed", "expressLed/rxLed"};

// Where the LED handler has each colour, in the order of the names.
std::vector<std::string> led_paths();

class front_panel {
  public:
    // The value of an LED's path; one that is no colour makes it unknown. Any
    // other path is passed over.
    void take(std::string_view path, const json::value& value);

    const std::array<led_colour, led_count>& colours() const { return colours_; }

  private:
    const std::vector<std::string> paths_ = led_paths();
    std::array<led_colour, led_count> colours_{};
};

// The panel as lines without control characters: an LED is "( )", or holds the
// first letter of its colour, or '?'.
std::vector<std::string> picture(const front_panel&);

// Such a line, with its LEDs in their colours on a terminal.
std::string coloured(std::string line);

// An LED as an object of one line.
std::string led_json(const front_panel&, std::size_t led);

}  // namespace tmctl
