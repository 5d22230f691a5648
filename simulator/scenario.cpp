#include "scenario.hpp"

#include "msg_log.hpp"

#include <algorithm>
#include <type_traits>

namespace simulator {
namespace {

template <class Assign>
void adjust(plant_controls& controls, quantity what, const channel_set& channels,
            const Assign& assign) {
    switch (what) {
        case quantity::launch_power:
            for (unsigned channel = 1; channel <= channel_count; ++channel) {
                if (channels.test(channel))
                    assign(controls.channels[channel].launch_power, launch_power_range);
            }
            break;
        case quantity::span_loss:
            assign(controls.span_loss, span_loss_range);
            break;
        case quantity::booster_gain:
            assign(controls.booster_gain, booster_gain_range);
            break;
    }
}

void carry_out(plant_controls& controls, const set_action& action) {
    adjust(controls, action.what, action.channels,
           [&](double& value, const range& allowed) { value = allowed.nearest(action.value); });
}

void carry_out(plant_controls& controls, const light_action& action) {
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        if (action.channels.test(channel))
            controls.channels[channel].lit = action.lit;
    }
}

void carry_out(plant_controls& controls, const fibre_action& action) {
    controls.fibre_intact = action.intact;
}

void carry_out(plant_controls& controls, const booster_action& action) {
    controls.booster_fault = !action.enabled;
}

}  // namespace

plant_player::plant_player(std::vector<timed_plant_action> actions)
    : actions_(std::move(actions)) {}

bool plant_player::advance(plant_controls& controls, double now) {
    bool changed = false;
    while (next_ < actions_.size() && actions_[next_].time <= now) {
        const timed_plant_action& due = actions_[next_++];
        advance_changes(controls, due.time);
        begin(controls, due);
        changed = true;
    }
    return advance_changes(controls, now) || changed;
}

bool plant_player::advance_changes(plant_controls& controls, double now) {
    const bool any = !changes_.empty();
    for (running_change& running : changes_) {
        const auto& [what, channels, change, over] = running.action;
        const double share = over > 0.0 ? std::min((now - running.start) / over, 1.0) : 1.0;
        const double step = change * share - running.applied;
        running.applied += step;
        adjust(controls, what, channels, [step](double& value, const range& allowed) {
            value = allowed.nearest(value + step);
        });
    }
    std::erase_if(changes_, [now](const running_change& running) {
        return now >= running.start + running.action.over;
    });
    return any;
}

void plant_player::begin(plant_controls& controls, const timed_plant_action& due) {
    MSG_LOG("scenario", msg_log::progress) << "msg: Scenario: " << due.name;
    std::visit(
        [&](const auto& action) {
            if constexpr (std::is_same_v<std::decay_t<decltype(action)>, change_action>)
                changes_.push_back({action, due.time, 0.0});
            else
                carry_out(controls, action);
        },
        due.action);
}

}  // namespace simulator
