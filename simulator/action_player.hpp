// Carries out what a scenario has for the handlers and the modules.
#pragma once

#include "scenario.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace simulator {

// What to do at a time; the name says it in the log.
using timed_step = timed<std::function<void()>>;

// Does each step at its time on a thread of its own, from its construction to
// its destruction; one that throws std::exception is logged. Time is the program's.
class action_player {
  public:
    // In any order; steps of one time are done in that of the list.
    explicit action_player(std::vector<timed_step> steps);
    ~action_player();
    action_player(const action_player&) = delete;
    action_player& operator=(const action_player&) = delete;

  private:
    void run();
    // False where this object ends before that time, in seconds since the start.
    bool wait_until(double time);

    const std::chrono::nanoseconds start_;
    const std::vector<timed_step> steps_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace simulator
