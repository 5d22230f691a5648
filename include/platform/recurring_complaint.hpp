// A fault that may come again with every message of a faulty device handler.
#pragma once

#include "host.hpp"

#include <chrono>
#include <mutex>
#include <optional>

// Tells which occurrence of a fault is worth a log line: the first one, and the
// first after a minute without any. Any thread may call.
class recurring_complaint {
  public:
    bool is_worth_a_line() {
        const std::lock_guard lock(mutex_);
        const auto now = host::time().monotonic();
        const bool is_new = !last_ || now - *last_ >= silence;
        last_ = now;
        return is_new;
    }

  private:
    static constexpr std::chrono::minutes silence{1};

    std::mutex mutex_;
    std::optional<std::chrono::nanoseconds> last_;
};
