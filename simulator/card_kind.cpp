#include "card_kind.hpp"

#include "booster_handler.hpp"
#include "led_handler.hpp"
#include "osc_handler.hpp"
#include "pluggable_handlers.hpp"
#include "wss_edge_handler.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <utility>

namespace simulator {
namespace {

// What a card of every kind has, and what its own kind adds.
std::vector<handler_plan> with_common_handlers(const card_kind& kind, const card_models& models,
                                               std::vector<handler_plan> own) {
    std::vector<handler_plan> plans{system_start_handler(models.start),
                                    system_info_handler(kind.identity, models.software)};
    std::move(own.begin(), own.end(), std::back_inserter(plans));
    for (std::size_t i = 0; i < models.osc.size(); ++i)
        plans.push_back(osc_handler(fmt::format("osc{}", i + 1), models.osc[i]));
    for (std::size_t i = 0; i < models.ppm.size(); ++i)
        plans.push_back(ppm_handler(fmt::format("ppm/{}", i), models.ppm[i]));
    for (std::size_t i = 0; i < models.sfp.size(); ++i)
        plans.push_back(sfp_handler(fmt::format("sfp/{}", i), models.sfp[i], models.otdr[i]));
    plans.push_back(led_handler(models.panel));
    return plans;
}

// EDFA and express ports, one control loop.
std::vector<handler_plan> t47_handlers(const card_kind& kind, const card_models& models) {
    return with_common_handlers(kind, models,
                                {wss_edge_handler({{models.light, "wss", "ocm/1"}}, "ocm/2"),
                                 booster_handler(models.light)});
}

// EDFA and EQ ports, a control loop each.
std::vector<handler_plan> mx47_handlers(const card_kind& kind, const card_models& models) {
    return with_common_handlers(
        kind, models,
        {wss_edge_handler({{models.light, "wss/1", "ocm/1"}, {models.eq_light, "wss/2", "ocm/2"}},
                          ""),
         booster_handler(models.light)});
}

// An amplifier, in the slot beside the card that feeds it.
std::vector<handler_plan> k47_handlers(const card_kind& kind, const card_models& models) {
    return with_common_handlers(
        kind, models,
        {models.light ? amplifier_handler(models.light) : amplifier_handler(models.fed_by)});
}

const std::array<card_kind, 3>& card_kinds() {
    static const std::array<card_kind, 3> kinds{{
        {"t47", "velt,t47", {"VLT-Q-T47", "1"}, plant_model(), std::nullopt, t47_handlers},
        {"mx47",
         "velt,mx47",
         {"VLT-Q-MX47", "1"},
         edfa_port_model(),
         eq_port_model(),
         mx47_handlers},
        {"k47", "velt,k47", {"VLT-Q-K47", "2"}, amplifier_model(), std::nullopt, k47_handlers},
    }};
    return kinds;
}

}  // namespace

const card_kind* find_card_kind(const std::string& name) {
    const auto& kinds = card_kinds();
    const auto* const found = std::find_if(
        kinds.begin(), kinds.end(), [&](const card_kind& kind) { return kind.name == name; });
    return found == kinds.end() ? nullptr : found;
}

std::vector<std::string> handler_names(const card_kind& kind) {
    std::vector<std::string> names;
    for (const handler_plan& plan :
         kind.handlers(kind, card_models(0, {}, kind.port, kind.eq_port)))
        names.push_back(plan.socket);
    return names;
}

}  // namespace simulator
