// Fields that the poll thread and the server's threads share without a lock
// that would order their work: each access is whole, and nothing more.
#pragma once

#include <atomic>
#include <mutex>
#include <utility>

// A number or a flag. Reads as a T; a read sees the value of the moment.
template <class T>
class shared_number {
  public:
    explicit shared_number(T value = T()) : value_(value) {}
    shared_number(const shared_number&) = delete;
    shared_number& operator=(const shared_number& other) { return *this = T(other); }

    operator T() const { return value_.load(std::memory_order_relaxed); }
    shared_number& operator=(T value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }

  private:
    std::atomic<T> value_;
};

// A value that is no single machine word, as a string; read and written as a whole.
template <class T>
class shared_value {
  public:
    explicit shared_value(T value = T()) : value_(std::move(value)) {}
    shared_value(const shared_value&) = delete;
    shared_value& operator=(const shared_value&) = delete;

    T get() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    void set(T value) {
        const std::lock_guard lock(mutex_);
        std::swap(value_, value);
    }

  private:
    mutable std::mutex mutex_;
    T value_;
};
