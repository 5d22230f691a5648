#include "card.hpp"

#include "board_files.hpp"
#include "control_handler.hpp"

#include <utility>

namespace simulator {
namespace {

std::vector<std::shared_ptr<fallible_handler>> serve(const card_kind& kind,
                                                     const card_models& models,
                                                     const std::string& root) {
    const plant_model eq_port = models.eq_light ? models.eq_light->model() : plant_model();
    lay_board_files(root, kind.compatible, models.light->model(),
                    models.eq_light ? &eq_port : nullptr);
    std::vector<std::shared_ptr<fallible_handler>> handlers;
    for (handler_plan& plan : kind.handlers(kind, models))
        handlers.push_back(std::make_shared<fallible_handler>(std::move(plan), root));
    return handlers;
}

}  // namespace

card::card(const card_kind& kind, card_options options)
    : models_(options.seed, std::move(options.actions.on_plant), kind.has_eq_port),
      handlers_(serve(kind, models_, options.root)),
      control_(control_handler(models_, handlers_), options.root),
      player_(std::move(options.actions.on_handlers), handlers_) {}

}  // namespace simulator
