// What stands behind the handlers of a card.
#pragma once

#include "distant_booster.hpp"
#include "front_panel.hpp"
#include "light_path.hpp"
#include "osc_link.hpp"
#include "otdr_unit.hpp"
#include "pluggable_modules.hpp"
#include "supervisory_line.hpp"
#include "system_handlers.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace simulator {

struct card_models {
    // The light of the second port of a two-port card knows no actions.
    card_models(std::uint64_t seed, std::vector<timed_plant_action> actions,
                const plant_model& port, const std::optional<plant_model>& eq_port)
        : light(std::make_shared<light_path>(seed, std::move(actions), port)),
          eq_light(eq_port ? std::make_shared<light_path>(
                                 seed + 1, std::vector<timed_plant_action>(), *eq_port)
                           : nullptr) {}

    // An amplifier card without light of its own.
    explicit card_models(std::shared_ptr<distant_booster> feeding) : fed_by(std::move(feeding)) {}

    std::shared_ptr<light_path> light;        // null where another card's is amplified
    std::shared_ptr<distant_booster> fed_by;  // in place of `light`
    std::shared_ptr<light_path> eq_light;     // null on a card of one port
    std::shared_ptr<installed_software> software = std::make_shared<installed_software>("1.0.0");
    std::shared_ptr<start_state> start = std::make_shared<start_state>();
    // Of the handlers "osc1" and "osc2".
    std::array<std::shared_ptr<osc_link>, 2> osc{std::make_shared<osc_link>(),
                                                 std::make_shared<osc_link>()};
    // Of the handlers "ppm/0" and "ppm/1", "sfp/0" and "sfp/1".
    std::array<std::shared_ptr<ppm_bay>, 2> ppm{std::make_shared<ppm_bay>(),
                                                std::make_shared<ppm_bay>()};
    std::array<std::shared_ptr<sfp_bay>, 2> sfp{std::make_shared<sfp_bay>(),
                                                std::make_shared<sfp_bay>()};
    // The fibre that leads to "osc2" and "sfp/1", and what measures it from there;
    // null where nobody is served.
    std::shared_ptr<supervisory_line> line;
    std::array<std::shared_ptr<otdr_unit>, 2> otdr;
    std::shared_ptr<front_panel> panel = std::make_shared<front_panel>();

    // Lets light into the line; from the card at that root, or from a far end
    // that always sends.
    void light_line(const std::optional<std::string>& far_root) {
        line = std::make_shared<supervisory_line>(osc[1], sfp[1], far_root);
        otdr = {std::make_shared<otdr_unit>(sfp[0], nullptr),
                std::make_shared<otdr_unit>(sfp[1], line)};
    }

    // Numbered as the module_names.
    std::shared_ptr<module_bay> bay(std::size_t module) const {
        const std::array<std::shared_ptr<module_bay>, module_names.size()> bays{ppm[0], ppm[1],
                                                                                sfp[0], sfp[1]};
        return bays.at(module);
    }
};

}  // namespace simulator
