// Waiting for a condition with a bound.
#pragma once

#include <chrono>
#include <thread>

namespace test {

// Whether the condition came to hold within the bound. The bound only ends a
// test that has failed; it is far above what a slow machine takes.
template <class Condition>
bool eventually(const Condition& condition, std::chrono::seconds bound = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace test
