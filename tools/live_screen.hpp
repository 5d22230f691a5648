// A picture of some lines that is refreshed in place on a terminal.
#pragma once

#include "surroundings.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tmctl {

// Hides the cursor for the life of the object. Where there is no terminal the
// pictures simply follow each other.
class live_screen {
  public:
    // Gives a line its colours, after it was cut to the terminal's width.
    using paint = std::function<std::string(std::string line)>;

    explicit live_screen(const surroundings&, paint = {});
    ~live_screen();
    live_screen(const live_screen&) = delete;
    live_screen& operator=(const live_screen&) = delete;

    // Lines without control characters. Shows as many as the terminal has room for.
    void show(const std::vector<std::string>& lines);

  private:
    void redraw(const std::vector<std::string>& lines);

    const surroundings& around_;
    const paint paint_;
    std::size_t drawn_ = 0;  // lines of the picture that stands on the terminal
};

}  // namespace tmctl
