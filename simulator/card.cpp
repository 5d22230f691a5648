#include "card.hpp"

#include "board_files.hpp"
#include "booster_handler.hpp"
#include "control_handler.hpp"
#include "wss_edge_handler.hpp"

#include <utility>

namespace simulator {

t47_card::t47_card(card_options options)
    : light_(std::make_shared<light_path>(options.seed, std::move(options.actions))),
      start_(std::make_shared<start_state>()) {
    lay_board_files(options.root, "velt,t47", light_->model());
    const card_identity identity{"VLT-Q-T47", "1.0.0", "1"};
    for (const handler_plan& plan : {system_start_handler(start_), system_info_handler(identity),
                                     wss_edge_handler({{light_, "wss", "ocm/1"}}, "ocm/2"),
                                     booster_handler(light_), control_handler(light_, start_)})
        handlers_.emplace_back(plan, options.root);
}

}  // namespace simulator
