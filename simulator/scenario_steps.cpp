#include "scenario_steps.hpp"

#include <algorithm>

namespace simulator {
namespace {

void carry_out_on(fallible_handler& handler, const handler_action& action) {
    switch (action.what) {
        case handler_change::stop:
            return handler.set_running(false);
        case handler_change::start:
            return handler.set_running(true);
        case handler_change::restart:
            handler.restart(true);
            return;
        case handler_change::freeze:
            return handler.set_frozen(true);
        case handler_change::thaw:
            return handler.set_frozen(false);
        case handler_change::slow:
            return handler.set_delay(static_cast<float>(action.delay));
        case handler_change::fail_path:
            return handler.fail_path(action.path);
        case handler_change::mistype_path:
            return handler.mistype_path(action.path);
        case handler_change::heal_path:
            return handler.heal_path(action.path);
    }
}

void carry_out_on(supervisory_line& line, const line_cut& action) {
    line.set_cut_distance(static_cast<float>(action.distance));
    line.set_intact(false);
}

void carry_out_on(supervisory_line& line, const line_repair&) {
    line.set_intact(true);
}

void carry_out_on(supervisory_line& line, const line_loss& action) {
    line.set_fibre_loss(static_cast<float>(action.loss));
}

void carry_out_on(supervisory_line& line, const line_reflectors& action) {
    line.set_reflectors(text_of(action.reflectors));
}

}  // namespace

std::vector<timed_step> steps_of(const scenario& actions,
                                 const std::vector<std::shared_ptr<fallible_handler>>& handlers,
                                 const card_models& models) {
    std::vector<timed_step> steps;
    for (const auto& [time, name, action] : actions.on_handlers) {
        const auto handler = std::find_if(
            handlers.begin(), handlers.end(),
            [&wanted = action.handler](const auto& one) { return one->name() == wanted; });
        steps.push_back({time, name + ' ' + action.handler,
                         [one = *handler, action] { carry_out_on(*one, action); }});
    }
    for (const auto& [time, name, action] : actions.on_modules)
        steps.push_back({time, name + ' ' + module_names.at(action.module),
                         [bay = models.bay(action.module), inserted = action.inserted] {
                             bay->set_present(inserted);
                         }});
    for (const auto& [time, name, on_line] : actions.on_line)
        steps.push_back({time, name, [line = models.line, action = on_line] {
                             std::visit([&](const auto& one) { carry_out_on(*line, one); }, action);
                         }});
    for (const auto& [time, name, action] : actions.on_software)
        steps.push_back({time, name + ' ' + action.version,
                         [software = models.software, version = action.version] {
                             software->set_version(version);
                         }});
    return steps;
}

}  // namespace simulator
