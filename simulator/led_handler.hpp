// The handler of the front panel's LEDs.
#pragma once

#include "front_panel.hpp"
#include "handler.hpp"

#include <memory>

namespace simulator {

handler_plan led_handler(std::shared_ptr<front_panel> panel);

}  // namespace simulator
