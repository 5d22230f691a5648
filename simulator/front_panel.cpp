#include "front_panel.hpp"

#include "dh_error.hpp"

namespace simulator {

void front_panel::set_colour(std::size_t led, const std::string& colour) {
    if (colour != "off" && colour != "green" && colour != "red" && colour != "yellow")
        throw dh_error(dh_error_code::invalid_argument, "an LED has no such colour");
    const std::lock_guard lock(mutex_);
    colours_.at(led) = colour;
}

}  // namespace simulator
