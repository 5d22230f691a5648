#include "panel_picture.hpp"

#include "value_text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace tmctl {
namespace {

struct appearance {
    const char* name;
    const char* lens;  // on the panel
    const char* code;  // SGR parameters of the terminal; empty for its own colour
};

// In the order of led_colour.
constexpr std::array<appearance, 5> appearances{{
    {"unknown", "(?)", ""},
    {"off", "( )", ""},
    {"green", "(G)", "1;32"},
    {"red", "(R)", "1;31"},
    {"yellow", "(Y)", "1;33"},
}};

const appearance& look_of(led_colour colour) {
    return appearances.at(static_cast<std::size_t>(colour));
}

led_colour colour_of(const json::value& value) {
    if (!value.IsString())
        return led_colour::unknown;
    const auto* const found =
        std::find_if(appearances.begin(), appearances.end(),
                     [&](const appearance& look) { return value == look.name; });
    return static_cast<led_colour>(found == appearances.end() ? 0 : found - appearances.begin());
}

}  // namespace

const char* name(led_colour colour) {
    return look_of(colour).name;
}

std::vector<std::string> led_paths() {
    std::vector<std::string> paths;
    paths.reserve(led_names.size());
    for (const char* const led : led_names)
        paths.push_back(fmt::format("config/{}/status", led));
    return paths;
}

void front_panel::take(std::string_view path, const json::value& value) {
    const auto found = std::find(paths_.begin(), paths_.end(), path);
    if (found != paths_.end())
        colours_.at(static_cast<std::size_t>(found - paths_.begin())) = colour_of(value);
}

std::vector<std::string> picture(const front_panel& panel) {
    const auto lens = [&](std::size_t led) { return look_of(panel.colours().at(led)).lens; };
    const std::string edge = "+-----------------------------------------+";
    return {edge,
            fmt::format("|  POWER {}   STATUS {}                 |", lens(0), lens(1)),
            "|                                         |",
            "|             OCM      EDFA    EXPRESS    |",
            fmt::format("|     TX      {}      {}       {}      |", lens(2), lens(4), lens(6)),
            fmt::format("|     RX      {}      {}       {}      |", lens(3), lens(5), lens(7)),
            edge};
}

std::string coloured(std::string line) {
    for (const appearance& look : appearances) {
        if (*look.code == '\0')
            continue;
        const std::string lens = look.lens;
        const std::string lit = fmt::format("\x1b[{}m{}\x1b[0m", look.code, lens);
        for (std::size_t at = line.find(lens); at != std::string::npos;
             at = line.find(lens, at + lit.size()))
            line.replace(at, lens.size(), lit);
    }
    return line;
}

std::string led_json(const front_panel& panel, std::size_t led) {
    json::document object(rapidjson::kObjectType);
    json::add(object, "led", led_names.at(led), object.GetAllocator());
    json::add(object, "colour", name(panel.colours().at(led)), object.GetAllocator());
    return json_text(object);
}

}  // namespace tmctl
