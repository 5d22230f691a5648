#include "panel_command.hpp"

#include "entries.hpp"
#include "live_screen.hpp"
#include "panel_picture.hpp"
#include "tmctl.hpp"

#include <chrono>

namespace tmctl {
namespace {

const json::value& value_or_null(const json::value* value) {
    static const json::value null;
    return value != nullptr ? *value : null;
}

// Keeps a panel filled from the LED handler.
class panel_source {
  public:
    panel_source(const arguments& given, const surroundings& around)
        : around_(around),
          handler_(given.server, around.interrupt,
                   [this](const json::value& event) { take_event(event); }) {}

    const front_panel& panel() const { return panel_; }

    // Asks once. False where a colour could not be read, which is reported.
    bool read() {
        bool complete = true;
        call_with_paths(handler_, "read", paths_, [&](std::size_t led, const json::value& entry) {
            const json::value* const value = found(entry, "value");
            panel_.take(paths_[led], value_or_null(value));
            if (value != nullptr)
                return;
            report_failure(around_, paths_[led], entry);
            complete = false;
        });
        return complete;
    }

    // The colours come as events, the first of them too.
    void subscribe() {
        call_with_paths(handler_, "subscribe", paths_,
                        [&](std::size_t led, const json::value& entry) {
                            if (found(entry, "value") == nullptr)
                                report_failure(around_, paths_[led], entry);
                        });
    }

    void follow(std::chrono::nanoseconds real_time) {
        handler_connection::follow({&handler_}, handler_connection::clock::now() + real_time,
                                   around_.interrupt);
    }

  private:
    void take_event(const json::value& event) {
        const json::value* const path = json::find(event, "path");
        if (path != nullptr && path->IsString())
            panel_.take({path->GetString(), path->GetStringLength()},
                        value_or_null(json::find(event, "value")));
    }

    const surroundings& around_;
    const std::vector<std::string> paths_ = led_paths();
    front_panel panel_;
    handler_connection handler_;
};

void print(const arguments& given, const surroundings& around, const front_panel& shown) {
    if (given.json) {
        for (std::size_t led = 0; led < led_count; ++led)
            around.out << led_json(shown, led) << '\n';
        return;
    }
    for (const std::string& line : picture(shown))
        around.out << (around.has_colours ? coloured(line) : line) << '\n';
}

int show_once(const arguments& given, const surroundings& around) {
    panel_source source(given, around);
    const bool complete = source.read();
    print(given, around, source.panel());
    return complete ? exit_status::done : exit_status::failed;
}

// Until interrupted.
int show_live(const arguments& given, const surroundings& around) {
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(given.interval));
    panel_source source(given, around);
    source.subscribe();
    live_screen screen(around, around.has_colours ? coloured : live_screen::paint());
    try {
        for (;;) {
            screen.show(picture(source.panel()));
            source.follow(interval);
        }
    } catch (const interruption&) {
        return exit_status::done;
    }
}

}  // namespace

int panel(const arguments& given, const surroundings& around) {
    return given.live ? show_live(given, around) : show_once(given, around);
}

}  // namespace tmctl
