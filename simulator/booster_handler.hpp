// The handler of the booster amplifier.
#pragma once

#include "distant_booster.hpp"
#include "handler.hpp"
#include "light_path.hpp"

#include <memory>

namespace simulator {

handler_plan booster_handler(std::shared_ptr<light_path> light);

// That of an amplifier card, which also tells a neighbour card how far its
// output is from the monitor. `Light` is light_path or distant_booster.
template <class Light>
handler_plan amplifier_handler(std::shared_ptr<Light> light);

}  // namespace simulator
