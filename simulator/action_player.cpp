#include "action_player.hpp"

#include "host.hpp"
#include "msg_log.hpp"

#include <algorithm>
#include <exception>
#include <utility>

namespace simulator {
namespace {

const std::string log_channel = "scenario";

std::vector<timed_step> in_order(std::vector<timed_step> steps) {
    std::stable_sort(steps.begin(), steps.end(),
                     [](const timed_step& a, const timed_step& b) { return a.time < b.time; });
    return steps;
}

void carry_out(const timed_step& due) {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Scenario: " << due.name;
    try {
        due.action();
    } catch (const std::exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Scenario: " << due.name << " failed: " << error.what();
    }
}

}  // namespace

action_player::action_player(std::vector<timed_step> steps)
    : start_(host::time().monotonic()),
      steps_(in_order(std::move(steps))),
      thread_([this] { run(); }) {}

action_player::~action_player() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void action_player::run() {
    for (const timed_step& next : steps_) {
        if (!wait_until(next.time))
            return;
        carry_out(next);
    }
}

bool action_player::wait_until(double time) {
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

}  // namespace simulator
