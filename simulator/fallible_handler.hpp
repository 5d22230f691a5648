// A device handler that can be stopped, started and made to fail while the card
// runs.
#pragma once

#include "handler.hpp"
#include "handler_faults.hpp"

#include <mutex>
#include <optional>
#include <string>

namespace simulator {

// Serves the plan from its construction on, which throws as dh_server does.
// Any thread may call any member but those of the handler's own server.
class fallible_handler {
  public:
    fallible_handler(handler_plan plan, handler_place place);

    // As scenarios and the control tree call it: where it is reached.
    const std::string& name() const { return plan_.socket; }

    // Stopped, it ends as a killed process does; started, it comes with a fresh
    // tree, and throws as dh_server does where it cannot. Both keep delay and
    // paths, not the frost.
    bool running() const;
    void set_running(bool);
    // Stops and starts it, whatever the argument. True, or it throws.
    bool restart(bool);

    // As in handler_faults. Freezing a handler that is stopped is dh_error -22.
    bool frozen() const { return faults_.frozen(); }
    void set_frozen(bool);
    float delay() const { return faults_.delay(); }
    void set_delay(float delay) { faults_.set_delay(delay); }
    std::string error_path() const { return faults_.error_path(); }
    void set_error_path(const std::string& paths) { faults_.set_error_path(paths); }
    std::string wrong_type_path() const { return faults_.wrong_type_path(); }
    void set_wrong_type_path(const std::string& paths) { faults_.set_wrong_type_path(paths); }
    void fail_path(const std::string& paths) { faults_.fail_path(paths); }
    void mistype_path(const std::string& paths) { faults_.mistype_path(paths); }
    void heal_path(const std::string& paths) { faults_.heal_path(paths); }

  private:
    // Both with `mutex_` held.
    void start();
    void stop();

    const handler_plan plan_;
    const handler_place place_;
    handler_faults faults_;

    mutable std::mutex mutex_;  // guards what runs; held while it starts and stops
    std::optional<handler> running_;
};

}  // namespace simulator
