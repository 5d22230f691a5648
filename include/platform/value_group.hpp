// Nodes that are ticked together.
#pragma once

#include "dh_db.hpp"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace dh::api {

// Calls `periodic_task(false)` on each of its nodes once a period, on a thread
// of its own. The group does not own its nodes, and drops those that are gone
// or were removed from the tree. A pass that takes longer than the period is
// followed by the next one at once; missed ticks are not made up.
class value_group {
  public:
    // The period is in milliseconds of the program's time. The two further
    // arguments have no meaning here; all callers pass 0.
    value_group(unsigned period_ms, unsigned, unsigned);
    ~value_group();
    value_group(const value_group&) = delete;
    value_group& operator=(const value_group&) = delete;

    // From now on the node has the group's period as its poll interval. Its
    // first tick is put off by `delay` ticks, so that heavy nodes do not all start at once.
    void add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned delay);

    // Takes all nodes out of the group, and out of the tree that they are in:
    // what was added last goes first.
    void clear_values();

    // One pass over all nodes; what the thread does once a period. Called by
    // tests and benchmarks only, on groups whose own period is long.
    void tick();

  private:
    struct member {
        std::weak_ptr<dh_db_leaf_node> node;
        unsigned delay;
    };

    void run();
    std::shared_ptr<dh_db_leaf_node> due_member(std::size_t index);

    const unsigned period_ms_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::vector<member> members_;
    std::thread thread_;
};

}  // namespace dh::api
