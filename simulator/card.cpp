#include "card.hpp"

#include "board_files.hpp"
#include "control_handler.hpp"
#include "scenario_steps.hpp"

#include <utility>

namespace simulator {
namespace {

card_models make_models(const card_kind& kind, card_options& options) {
    card_models models = options.fed_by
                             ? card_models(std::make_shared<distant_booster>(*options.fed_by))
                             : card_models(options.seed, std::move(options.actions.on_plant),
                                           kind.port, kind.eq_port);
    models.light_line(options.line_to);
    return models;
}

std::vector<std::shared_ptr<fallible_handler>> serve(const card_kind& kind,
                                                     const card_models& models,
                                                     const handler_place& place) {
    lay_board_files(place.root, kind.compatible, kind.port,
                    kind.eq_port ? &*kind.eq_port : nullptr);
    std::vector<std::shared_ptr<fallible_handler>> handlers;
    for (handler_plan& plan : kind.handlers(kind, models))
        handlers.push_back(std::make_shared<fallible_handler>(std::move(plan), place));
    return handlers;
}

}  // namespace

card::card(const card_kind& kind, card_options options)
    : models_(make_models(kind, options)),
      handlers_(serve(kind, models_, {options.root, options.interface})),
      control_(control_handler(models_, handlers_), {options.root}),
      player_(steps_of(options.actions, handlers_, models_)) {}

}  // namespace simulator
