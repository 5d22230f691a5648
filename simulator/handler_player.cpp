#include "handler_player.hpp"

#include "host.hpp"
#include "msg_log.hpp"

#include <algorithm>
#include <exception>
#include <utility>

namespace simulator {
namespace {

const std::string log_channel = "scenario";

void carry_out_on(fallible_handler& handler, const handler_action& action) {
    switch (action.what) {
        case handler_change::stop:
            return handler.set_running(false);
        case handler_change::start:
            return handler.set_running(true);
        case handler_change::restart:
            handler.restart(true);
            return;
        case handler_change::freeze:
            return handler.set_frozen(true);
        case handler_change::thaw:
            return handler.set_frozen(false);
        case handler_change::slow:
            return handler.set_delay(static_cast<float>(action.delay));
        case handler_change::fail_path:
            return handler.fail_path(action.path);
        case handler_change::mistype_path:
            return handler.mistype_path(action.path);
        case handler_change::heal_path:
            return handler.heal_path(action.path);
    }
}

}  // namespace

handler_player::handler_player(std::vector<timed_handler_action> actions,
                               std::vector<std::shared_ptr<fallible_handler>> handlers)
    : start_(host::time().monotonic()),
      actions_(std::move(actions)),
      handlers_(std::move(handlers)),
      thread_([this] { run(); }) {}

handler_player::~handler_player() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void handler_player::run() {
    for (const timed_handler_action& next : actions_) {
        if (!wait_until(next.time))
            return;
        carry_out(next);
    }
}

bool handler_player::wait_until(double time) {
    const auto due = start_ + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::duration<double>(time));
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const auto left = due - host::time().monotonic();
        if (left <= std::chrono::nanoseconds::zero())
            return true;
        wake_.wait_for(lock, host::real_duration(left));
    }
    return false;
}

void handler_player::carry_out(const timed_handler_action& due) const {
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Scenario: " << due.name << ' ' << due.action.handler;
    const auto found = std::find_if(handlers_.begin(), handlers_.end(), [&](const auto& handler) {
        return handler->name() == due.action.handler;
    });
    try {
        carry_out_on(**found, due.action);
    } catch (const std::exception& error) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Scenario: " << due.name << ' '
                                               << due.action.handler << " failed: " << error.what();
    }
}

}  // namespace simulator
