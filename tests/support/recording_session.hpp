// A session that keeps what nodes send to it.
#pragma once

#include "dh_db.hpp"
#include "wire.hpp"

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

// The members of an event line as JSON text, without their time. Throws where
// the line is no event.
inline std::string event_without_time(const std::string& line) {
    json::document event;
    if (!line.ends_with('\n') || !wire::parse(line, event))
        throw std::runtime_error("not a line of JSON: " + line);
    json::value& params = event["params"];
    if (!params.EraseMember("time"))
        throw std::runtime_error("an event without time: " + line);
    const std::string envelope = R"({"jsonrpc":"2.0","method":"event","params":)";
    if (json::to_text(event) != envelope + json::to_text(params) + "}")
        throw std::runtime_error("not an event: " + line);
    return json::to_text(params);
}

class recording_session final : public dh_session {
  public:
    void send_value_event(const std::string& path,
                          std::shared_ptr<const std::string> line) override {
        const std::lock_guard lock(mutex_);
        replaceable_.push_back(path);
        lines_.push_back(*line);
    }

    void send_event(std::shared_ptr<const std::string> line) override {
        const std::lock_guard lock(mutex_);
        lines_.push_back(*line);
    }

    // The events so far, each without its time.
    std::vector<std::string> events() const {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        for (const std::string& line : lines_)
            found.push_back(event_without_time(line));
        return found;
    }

    // The lines as they came, and the paths of those that a newer one may replace.
    std::vector<std::string> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    std::vector<std::string> replaceable_paths() const {
        const std::lock_guard lock(mutex_);
        return replaceable_;
    }

    void clear() {
        const std::lock_guard lock(mutex_);
        lines_.clear();
        replaceable_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<std::string> replaceable_;
};

}  // namespace test
