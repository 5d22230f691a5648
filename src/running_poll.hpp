// Whether a poll is under way, for those who must not change its ground.
#pragma once

#include "host.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>

// One thread polls, others wait. A wait is woken by the end of the poll itself:
// the next one may begin a moment later.
class running_poll {
  public:
    void begin() {
        const std::lock_guard lock(mutex_);
        is_running_ = true;
    }

    void end() {
        const std::lock_guard lock(mutex_);
        is_running_ = false;
        ++ended_;
        changed_.notify_all();
    }

    // Returns once the poll that is running now has ended. Calls `each_second`
    // at once and then once a second, of the program's time, until then.
    template <class Function>
    void await_end(const Function& each_second) {
        std::unique_lock lock(mutex_);
        const auto awaited = ended_;
        while (is_running_ && ended_ == awaited) {
            each_second();
            changed_.wait_for(lock, host::real_duration(std::chrono::seconds(1)),
                              [&] { return ended_ != awaited; });
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_running_ = false;
    unsigned long ended_ = 0;
};
