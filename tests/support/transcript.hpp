// What a regulator does, in order: its log lines, and what it asks its handlers for.
#pragma once

#include "msg_log.hpp"
#include "scripted_handler.hpp"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace test {

// Lines are "SEVERITY TEXT" and "HANDLER read PATHS" or "HANDLER write PATH=VALUE".
class transcript {
  public:
    // The severity is the highest that is taken down.
    explicit transcript(msg_log::severity_level level = msg_log::detail)
        : previous_level_(msg_log::instance().level()) {
        msg_log::instance().set_level(level);
        msg_log::instance().set_sink(&transcript::append_log_line, this);
    }
    ~transcript() {
        msg_log::instance().set_sink(nullptr, nullptr);
        msg_log::instance().set_level(previous_level_);
    }
    transcript(const transcript&) = delete;
    transcript& operator=(const transcript&) = delete;

    void follow(const std::string& name, scripted_handler& handler) {
        handler.on_request(
            [this, name](const std::string& request) { append(name + " " + request); });
    }

    // The lines since the last call.
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

  private:
    static void append_log_line(void* context, msg_log::severity_level severity,
                                const std::string& channel, const std::string& text) {
        if (channel.starts_with("tm_velt_regulation"))
            static_cast<transcript*>(context)->append(std::to_string(severity) + " " +
                                                      text.substr(0, text.rfind(" [")));
    }

    void append(std::string line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
    }

    const msg_log::severity_level previous_level_;
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace test
