// What the actions of a scenario are on the handlers, the modules, the line and
// the software of a card.
#pragma once

#include "action_player.hpp"
#include "card_models.hpp"
#include "fallible_handler.hpp"

#include <memory>
#include <vector>

namespace simulator {

// Each action's handler is among the handlers.
std::vector<timed_step> steps_of(const scenario&,
                                 const std::vector<std::shared_ptr<fallible_handler>>& handlers,
                                 const card_models&);

}  // namespace simulator
