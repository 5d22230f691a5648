// The handler of the booster amplifier.
#pragma once

#include "handler.hpp"
#include "light_path.hpp"

#include <memory>

namespace simulator {

handler_plan booster_handler(std::shared_ptr<light_path> light);

}  // namespace simulator
