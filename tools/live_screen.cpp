#include "live_screen.hpp"

#include "value_text.hpp"

#include <algorithm>
#include <utility>

namespace tmctl {
namespace {

constexpr const char* hide_cursor = "\x1b[?25l";
constexpr const char* show_cursor = "\x1b[?25h";
constexpr const char* erase_rest_of_line = "\x1b[K";
constexpr const char* erase_rest_of_screen = "\x1b[J";

// The lines that there is room for, and how many there are besides.
std::vector<std::string> fitted(std::vector<std::string> lines, std::size_t room) {
    if (lines.size() <= room)
        return lines;
    const std::size_t hidden = lines.size() - room + 1;
    lines.resize(room - 1);
    lines.push_back("(" + std::to_string(hidden) + " more)");
    return lines;
}

}  // namespace

live_screen::live_screen(const surroundings& around, paint lines)
    : around_(around), paint_(std::move(lines)) {
    if (around_.terminal)
        around_.out << hide_cursor << std::flush;
}

live_screen::~live_screen() {
    if (around_.terminal)
        around_.out << show_cursor << std::flush;
}

void live_screen::show(const std::vector<std::string>& lines) {
    if (around_.terminal) {
        redraw(lines);
    } else {
        for (const std::string& line : lines)
            around_.out << line << '\n';
        around_.out << '\n';
    }
    around_.out.flush();
}

void live_screen::redraw(const std::vector<std::string>& lines) {
    const auto [rows, columns] = around_.terminal();
    const std::size_t room = std::max<std::size_t>(rows, 2) - 1;  // the cursor stands below
    if (drawn_ > 0)
        around_.out << "\r\x1b[" << std::min(drawn_, room) << 'A';
    const std::vector<std::string> picture = fitted(lines, room);
    for (const std::string& line : picture) {
        const std::string shown = cut(line, columns);
        around_.out << (paint_ ? paint_(shown) : shown) << erase_rest_of_line << '\n';
    }
    drawn_ = picture.size();
    around_.out << erase_rest_of_screen;
}

}  // namespace tmctl
