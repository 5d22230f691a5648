// The kinds of cards that are simulated.
#pragma once

#include "card_models.hpp"
#include "handler.hpp"

#include <optional>
#include <string>
#include <vector>

namespace simulator {

// What its board and its handlers make of a card.
struct card_kind {
    std::string name;        // "t47"
    std::string compatible;  // as the kernel names the board
    card_identity identity;
    plant_model port;
    std::optional<plant_model> eq_port;  // of a two-port card
    std::vector<handler_plan> (*handlers)(const card_kind&, const card_models&);
};

// Null where that kind is not simulated.
const card_kind* find_card_kind(const std::string& name);

// Where the handlers of such a card are reached, below "/tmp/device_handlers/".
std::vector<std::string> handler_names(const card_kind&);

}  // namespace simulator
