#include "led_handler.hpp"

#include "config_param.hpp"

#include <fmt/format.h>

#include <utility>

namespace simulator {
namespace {

// A handler that comes up finds the LEDs as the one before left them.
void publish_led(dh_db& db, const std::shared_ptr<front_panel>& panel, std::size_t led) {
    using colour_setting = dh::api::config_param<&front_panel::set_colour>;
    const auto setting =
        colour_setting::create(db, fmt::format("config/{}/status", led_names[led]), panel, led);
    setting->describe_constraints(std::vector<std::string>{"off", "green", "red", "yellow"});
    json::document memory;
    setting->set("value", json::from(panel->colour(led), memory.GetAllocator()));
}

}  // namespace

handler_plan led_handler(std::shared_ptr<front_panel> panel) {
    return {"led_velt", "led_velt", [panel = std::move(panel)](dh_db& db, dh::api::value_group&) {
                for (std::size_t led = 0; led < led_count; ++led)
                    publish_led(db, panel, led);
                return panel;
            }};
}

}  // namespace simulator
