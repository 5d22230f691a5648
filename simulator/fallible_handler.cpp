#include "fallible_handler.hpp"

#include "dh_error.hpp"

#include <utility>

namespace simulator {

fallible_handler::fallible_handler(handler_plan plan, handler_place place)
    : plan_(std::move(plan)), place_(std::move(place)) {
    start();
}

bool fallible_handler::running() const {
    const std::lock_guard lock(mutex_);
    return running_.has_value();
}

void fallible_handler::set_running(bool running) {
    const std::lock_guard lock(mutex_);
    if (running)
        start();
    else
        stop();
}

bool fallible_handler::restart(bool) {
    const std::lock_guard lock(mutex_);
    stop();
    start();
    return true;
}

void fallible_handler::set_frozen(bool frozen) {
    const std::lock_guard lock(mutex_);
    if (frozen && !running_)
        throw dh_error(dh_error_code::invalid_argument, "handler " + name() + " is stopped");
    faults_.set_frozen(frozen);
}

void fallible_handler::start() {
    if (running_)
        return;
    faults_.begin();
    running_.emplace(plan_, place_, &faults_);
    faults_.open();
}

void fallible_handler::stop() {
    if (!running_)
        return;
    running_->break_off();
    running_.reset();
    faults_.set_frozen(false);
}

}  // namespace simulator
