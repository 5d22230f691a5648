// The hands at the simulation: what no handler of a real card has, under "sim/"
// on a socket of its own.
#pragma once

#include "handler.hpp"
#include "light_path.hpp"
#include "system_handlers.hpp"

#include <memory>

namespace simulator {

handler_plan control_handler(std::shared_ptr<light_path> light, std::shared_ptr<start_state> start);

}  // namespace simulator
