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
    // `has_eq_port` adds the light of the second port of a two-port card, which
    // knows no actions.
    card_models(std::uint64_t seed, std::vector<timed_plant_action> actions, bool has_eq_port)
        : light(std::make_shared<light_path>(seed, std::move(actions),
                                             has_eq_port ? edfa_port_model() : plant_model())),
          eq_light(has_eq_port ? std::make_shared<light_path>(
                                     seed + 1, std::vector<timed_plant_action>(), eq_port_model())
                               : nullptr) {}

    std::shared_ptr<light_path> light;
    std::shared_ptr<light_path> eq_light;  // null on a card of one port
    std::shared_ptr<start_state> start = std::make_shared<start_state>();
    // Of the handlers "osc1" and "osc2".
    std::array<std::shared_ptr<osc_link>, 2> osc{std::make_shared<osc_link>(),
                                                 std::make_shared<osc_link>()};
};

}  // namespace simulator
