#include "value_group.hpp"

#include "host.hpp"

#include <chrono>

namespace dh::api {

value_group::value_group(unsigned period_ms, unsigned, unsigned)
    : period_ms_(period_ms), thread_([this] { run(); }) {}

value_group::~value_group() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void value_group::add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned delay) {
    node->set_poll_interval(period_ms_);
    const std::lock_guard lock(mutex_);
    members_.push_back({node, delay});
}

void value_group::clear_values() {
    std::vector<member> cleared;
    {
        const std::lock_guard lock(mutex_);
        cleared.swap(members_);
    }
    for (auto last = cleared.rbegin(); last != cleared.rend(); ++last) {
        if (const auto node = last->node.lock())
            node->leave_tree();
    }
}

void value_group::run() {
    const auto period = host::real_duration(std::chrono::milliseconds(period_ms_));
    auto due = std::chrono::steady_clock::now() + period;
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            if (wake_.wait_until(lock, due, [this] { return stopping_; }))
                return;
        }
        tick();
        due = std::max(due + period, std::chrono::steady_clock::now());
    }
}

void value_group::tick() {
    // The lock is not held over a node's tick: its owner may add nodes meanwhile.
    for (std::size_t index = 0;; ++index) {
        {
            const std::lock_guard lock(mutex_);
            if (index >= members_.size() || stopping_)
                break;
        }
        if (const auto node = due_member(index))
            node->periodic_task(false);
    }
    const std::lock_guard lock(mutex_);
    std::erase_if(members_, [](const member& m) {
        const auto node = m.node.lock();
        return !node || node->was_removed();
    });
}

std::shared_ptr<dh_db_leaf_node> value_group::due_member(std::size_t index) {
    const std::lock_guard lock(mutex_);
    if (index >= members_.size())
        return nullptr;  // cleared meanwhile
    member& due = members_[index];
    if (due.delay > 0) {
        --due.delay;
        return nullptr;
    }
    auto node = due.node.lock();
    return node && !node->was_removed() ? node : nullptr;
}

}  // namespace dh::api
