// A clock that tests turn by hand.
#pragma once

#include "host.hpp"

#include <atomic>
#include <chrono>

namespace test {

// In force for the life of the object. A sleep takes no time of its own: it
// turns the clock.
class manual_time final : public host::time_source {
  public:
    explicit manual_time(std::chrono::nanoseconds wall = std::chrono::hours(24 * 365))
        : wall_(wall.count()), override_(*this) {}

    std::chrono::nanoseconds wall() override { return std::chrono::nanoseconds(wall_.load()); }
    std::chrono::nanoseconds monotonic() override { return wall(); }
    void sleep(std::chrono::nanoseconds span) override {
        slept_ += span.count();
        advance(span);
    }

    void advance(std::chrono::nanoseconds span) { wall_ += span.count(); }
    std::chrono::nanoseconds slept() const { return std::chrono::nanoseconds(slept_.load()); }

  private:
    std::atomic<std::int64_t> wall_;
    std::atomic<std::int64_t> slept_{0};
    host::time_override override_;
};

}  // namespace test
