// Carries out what a scenario has for the handlers.
#pragma once

#include "fallible_handler.hpp"
#include "scenario.hpp"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace simulator {

// Does each action at its time on a thread of its own, from its construction
// to its destruction; an action that fails is logged. Time is the program's.
class handler_player {
  public:
    // Each action's handler is among the handlers.
    handler_player(std::vector<timed_handler_action> actions,
                   std::vector<std::shared_ptr<fallible_handler>> handlers);
    ~handler_player();
    handler_player(const handler_player&) = delete;
    handler_player& operator=(const handler_player&) = delete;

  private:
    void run();
    // False where this object ends before that time, in seconds since the start.
    bool wait_until(double time);
    void carry_out(const timed_handler_action&) const;

    const std::chrono::nanoseconds start_;
    const std::vector<timed_handler_action> actions_;
    const std::vector<std::shared_ptr<fallible_handler>> handlers_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace simulator
