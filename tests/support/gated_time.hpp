// A clock whose sleepers a test lets go by.
#pragma once

#include "host.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <vector>

namespace test {

// In force for the life of the object. A sleep turns the clock by its span, but
// waits until the test lets that much time pass: so a waiting loop of another
// thread stands still where the test wants it. Sleeps are recorded.
class gated_time final : public host::time_source {
  public:
    explicit gated_time(std::chrono::nanoseconds wall = std::chrono::hours(24 * 365))
        : now_(wall), override_(*this) {}

    std::chrono::nanoseconds wall() override {
        const std::lock_guard lock(mutex_);
        return now_;
    }
    std::chrono::nanoseconds monotonic() override { return wall(); }

    void sleep(std::chrono::nanoseconds span) override {
        std::unique_lock lock(mutex_);
        const auto waiting = waiting_.insert(span);
        changed_.notify_all();
        changed_.wait(lock, [&] { return is_open_ || allowed_ >= span; });
        waiting_.erase(waiting);
        if (!is_open_)
            allowed_ -= span;
        now_ += span;
        if (sleeps_.size() < most_recorded)
            sleeps_.push_back(span);
    }

    // Lets sleeps of this span in all go by.
    void let_pass(std::chrono::nanoseconds span) {
        const std::lock_guard lock(mutex_);
        allowed_ += span;
        changed_.notify_all();
    }

    // From now on no sleep waits.
    void open() {
        const std::lock_guard lock(mutex_);
        is_open_ = true;
        changed_.notify_all();
    }

    // From now on every sleep waits.
    void close() {
        const std::lock_guard lock(mutex_);
        is_open_ = false;
        allowed_ = {};
    }

    // Whether somebody came to wait in a sleep that the time left does not cover.
    bool comes_to_rest(std::chrono::seconds bound = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound, [&] {
            return !is_open_ && !waiting_.empty() && *waiting_.rbegin() > allowed_;
        });
    }

    // The first sleeps that ended, in order.
    std::vector<std::chrono::nanoseconds> sleeps() const {
        const std::lock_guard lock(mutex_);
        return sleeps_;
    }

  private:
    static constexpr std::size_t most_recorded = 1000;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::nanoseconds now_;
    std::chrono::nanoseconds allowed_{};
    bool is_open_ = false;
    std::multiset<std::chrono::nanoseconds> waiting_;
    std::vector<std::chrono::nanoseconds> sleeps_;
    host::time_override override_;
};

}  // namespace test
