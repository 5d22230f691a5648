// The hands at the simulation: what no handler of a real card has, under "sim/"
// on a socket of its own.
#pragma once

#include "card_models.hpp"
#include "fallible_handler.hpp"
#include "handler.hpp"

#include <memory>
#include <vector>

namespace simulator {

handler_plan control_handler(card_models models,
                             std::vector<std::shared_ptr<fallible_handler>> handlers);

}  // namespace simulator
