// Whether a poll is under way, for those who must not change its ground.
#pragma once

#include "host.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>

// One thread polls again and again, others change what the polls depend on.
// Between two polls there may be no more than a moment, so one who waits is
// woken by the end of a poll, and the next one does not begin before it is done.
class running_poll {
  public:
    // Begins a poll where `is_wanted()` says so, and tells whether it has.
    template <class Predicate>
    bool begin_if(const Predicate& is_wanted) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return waiting_ == 0; });
        is_running_ = is_wanted();
        return is_running_;
    }

    void end() {
        const std::lock_guard lock(mutex_);
        is_running_ = false;
        changed_.notify_all();
    }

    // Calls `action` while no poll is running. Until then calls `each_second` at
    // once and then once a second of the program's time.
    template <class Function, class Action>
    void between_polls(const Function& each_second, const Action& action) {
        std::unique_lock lock(mutex_);
        const turn taken(*this);
        while (is_running_) {
            each_second();
            changed_.wait_for(lock, host::real_duration(std::chrono::seconds(1)),
                              [this] { return !is_running_; });
        }
        action();
    }

  private:
    // Keeps the next poll from beginning; made and ended under the mutex.
    struct turn {
        explicit turn(running_poll& poll_) : poll(poll_) { ++poll.waiting_; }
        ~turn() {
            --poll.waiting_;
            poll.changed_.notify_all();
        }
        turn(const turn&) = delete;
        turn& operator=(const turn&) = delete;
        running_poll& poll;
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_running_ = false;
    unsigned waiting_ = 0;
};
