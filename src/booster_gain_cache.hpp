// The gain of the booster as last read.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>

// One for the whole process: many channels of both ports are worked back
// through the same booster, at the cost of one read. Any thread may call;
// nothing here blocks.
class booster_gain_cache {
  public:
    static booster_gain_cache& instance() {
        static booster_gain_cache cache;
        return cache;
    }

    // Back to the start of the process: nothing read, nobody asked.
    void clear() {
        const std::lock_guard lock(mutex_);
        accesses_ = 0;
        read_at_ = 0;
        gain_ = 0.0F;
    }

    // How often the gain was asked for, this time included.
    int count_access() { return accesses_.fetch_add(1, std::memory_order_relaxed) + 1; }

    // The gain in dB, unless it is 4 seconds old.
    std::optional<float> gain_at(long long now) const {
        const std::lock_guard lock(mutex_);
        if (now - read_at_ < lifetime)
            return gain_;
        return std::nullopt;
    }

    void store(float gain, long long now) {
        const std::lock_guard lock(mutex_);
        gain_ = gain;
        read_at_ = now;
    }

  private:
    static constexpr long long lifetime = 4;  // s

    std::atomic<int> accesses_{0};
    mutable std::mutex mutex_;
    long long read_at_ = 0;  // s since the epoch
    float gain_ = 0.0F;
};
