// What stands behind the handlers of a card.
#pragma once

#include "light_path.hpp"
#include "osc_link.hpp"
#include "system_handlers.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace simulator {

struct card_models {
    explicit card_models(std::uint64_t seed, std::vector<timed_plant_action> actions = {})
        : light(std::make_shared<light_path>(seed, std::move(actions))) {}

    std::shared_ptr<light_path> light;
    std::shared_ptr<start_state> start = std::make_shared<start_state>();
    // Of the handlers "osc1" and "osc2".
    std::array<std::shared_ptr<osc_link>, 2> osc{std::make_shared<osc_link>(),
                                                 std::make_shared<osc_link>()};
};

}  // namespace simulator
