// Collects the log's records instead of writing them.
#pragma once

#include "msg_log.hpp"

#include <mutex>
#include <string>
#include <vector>

namespace test {

struct log_line {
    int severity;
    std::string channel;
    std::string text;  // without the code trace

    friend bool operator==(const log_line&, const log_line&) = default;
};

class log_capture {
  public:
    explicit log_capture(msg_log::severity_level level = msg_log::trace)
        : previous_level_(msg_log::instance().level()) {
        msg_log::instance().set_level(level);
        msg_log::instance().set_sink(&log_capture::append, this);
    }
    ~log_capture() {
        msg_log::instance().set_sink(nullptr, nullptr);
        msg_log::instance().set_level(previous_level_);
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<log_line> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

    // The texts, in order, of one severity or, with 0, of all.
    std::vector<std::string> texts(int severity = 0) const {
        std::vector<std::string> found;
        for (const log_line& line : lines()) {
            if (severity == 0 || line.severity == severity)
                found.push_back(line.text);
        }
        return found;
    }

    std::size_t count(const std::string& text) const {
        std::size_t found = 0;
        for (const log_line& line : lines())
            found += line.text == text ? 1 : 0;
        return found;
    }

    void clear() {
        const std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    static void append(void* context, msg_log::severity_level severity, const std::string& channel,
                       const std::string& text) {
        auto& capture = *static_cast<log_capture*>(context);
        const std::lock_guard lock(capture.mutex_);
        capture.lines_.push_back({severity, channel, text.substr(0, text.rfind(" ["))});
    }

    const msg_log::severity_level previous_level_;
    mutable std::mutex mutex_;
    std::vector<log_line> lines_;
};

}  // namespace test
