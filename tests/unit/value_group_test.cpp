#include "value_group.hpp"
#include "eventually.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

namespace {

using dh::api::value_group;

constexpr unsigned an_hour_ms = 3'600'000;

class ticked_node final : public dh_db_leaf_node {
  public:
    using dh_db_leaf_node::dh_db_leaf_node;

    void periodic_task(bool pushed) override {
        EXPECT_FALSE(pushed);
        ++ticks;
        if (on_tick)
            on_tick();
    }

    std::atomic<int> ticks{0};
    std::function<void()> on_tick;
};

std::shared_ptr<ticked_node> make_node(const std::string& name) {
    return std::make_shared<ticked_node>(name);
}

TEST(ValueGroup, MemberHasTheGroupsPeriodAsItsPollInterval) {
    value_group group(an_hour_ms, 0, 0);
    const auto node = make_node("node");
    EXPECT_EQ(node->poll_interval(), 0U);
    group.add_value(node, 0);
    EXPECT_EQ(node->poll_interval(), an_hour_ms);
}

TEST(ValueGroup, EveryMemberIsTickedOnceAPass) {
    value_group group(an_hour_ms, 0, 0);
    const auto first = make_node("first");
    const auto second = make_node("second");
    group.add_value(first, 0);
    group.add_value(second, 0);
    group.tick();
    group.tick();
    EXPECT_EQ(first->ticks, 2);
    EXPECT_EQ(second->ticks, 2);
}

TEST(ValueGroup, DelayPutsOffTheFirstTickAndNoOther) {
    value_group group(an_hour_ms, 0, 0);
    const auto node = make_node("node");
    group.add_value(node, 3);
    for (int pass = 0; pass < 3; ++pass)
        group.tick();
    EXPECT_EQ(node->ticks, 0);
    group.tick();
    EXPECT_EQ(node->ticks, 1);
    group.tick();
    EXPECT_EQ(node->ticks, 2);
}

TEST(ValueGroup, NodeThatIsGoneIsDropped) {
    value_group group(an_hour_ms, 0, 0);
    auto node = make_node("node");
    const std::weak_ptr<ticked_node> watched = node;
    group.add_value(node, 0);
    node.reset();
    EXPECT_TRUE(watched.expired());
    group.tick();
}

TEST(ValueGroup, NodeThatWasRemovedFromTheTreeIsTickedNoMore) {
    value_group group(an_hour_ms, 0, 0);
    dh_db db;
    const auto node = make_node("node");
    db.add_node("data", node);
    group.add_value(node, 0);
    group.tick();
    db.remove_node("data/node");
    group.tick();
    group.tick();
    EXPECT_EQ(node->ticks, 1);
}

TEST(ValueGroup, NodeThatIsInNoTreeYetIsTicked) {
    value_group group(an_hour_ms, 0, 0);
    const auto node = make_node("node");
    group.add_value(node, 0);
    group.tick();
    EXPECT_EQ(node->ticks, 1);
}

TEST(ValueGroup, MemberLeavingDuringAPassDoesNotDisturbTheOthers) {
    value_group group(an_hour_ms, 0, 0);
    dh_db db;
    const auto first = make_node("first");
    const auto second = make_node("second");
    const auto third = make_node("third");
    for (const auto& node : {first, second, third}) {
        db.add_node("data", node);
        group.add_value(node, 0);
    }
    first->on_tick = [&] { db.remove_node("data/second"); };
    group.tick();
    EXPECT_EQ(second->ticks, 0);
    EXPECT_EQ(third->ticks, 1);
}

TEST(ValueGroup, MemberMayBeAddedDuringAPass) {
    value_group group(an_hour_ms, 0, 0);
    const auto first = make_node("first");
    const auto added = make_node("added");
    first->on_tick = [&] {
        if (first->ticks == 1)
            group.add_value(added, 0);
    };
    group.add_value(first, 0);
    group.tick();
    group.tick();
    EXPECT_GE(added->ticks, 1);
}

TEST(ValueGroup, ClearedMembersLeaveTheirTreeAndAreTickedNoMore) {
    value_group group(an_hour_ms, 0, 0);
    dh_db db;
    const auto in_tree = make_node("node");
    const auto in_none = make_node("other");
    db.add_node("data", in_tree);
    group.add_value(in_tree, 0);
    group.add_value(in_none, 0);
    group.clear_values();
    group.tick();
    EXPECT_FALSE(db.contains("data/node"));
    EXPECT_EQ(in_tree->ticks, 0);
    EXPECT_EQ(in_none->ticks, 0);
}

TEST(ValueGroup, ClearingLeavesANodeThatTookThePathOfAMemberThatIsGone) {
    value_group group(an_hour_ms, 0, 0);
    dh_db db;
    const auto member = make_node("node");
    const auto successor = make_node("node");
    db.add_node("data", member);
    group.add_value(member, 0);
    db.remove_node("data/node");
    db.add_node("data", successor);
    group.clear_values();
    EXPECT_TRUE(db.contains("data/node"));
}

TEST(ValueGroup, GroupMayBeClearedDuringAPassAndFilledAgain) {
    value_group group(an_hour_ms, 0, 0);
    dh_db db;
    const auto first = make_node("first");
    const auto second = make_node("second");
    const auto later = make_node("later");
    db.add_node("data", first);
    group.add_value(first, 0);
    group.add_value(second, 0);
    first->on_tick = [&] { group.clear_values(); };
    group.tick();
    EXPECT_FALSE(db.contains("data/first"));
    EXPECT_EQ(second->ticks, 0);
    group.add_value(later, 0);
    group.tick();
    EXPECT_EQ(first->ticks, 1);
    EXPECT_EQ(later->ticks, 1);
}

TEST(ValueGroup, ThreadTicksItsMembersOnceAPeriod) {
    const auto node = make_node("node");
    value_group group(1, 0, 0);
    group.add_value(node, 0);
    EXPECT_TRUE(test::eventually([&] { return node->ticks >= 5; }));
}

TEST(ValueGroup, NoTickComesBeforeTheFirstPeriodIsOver) {
    const auto node = make_node("node");
    {
        value_group group(an_hour_ms, 0, 0);
        group.add_value(node, 0);
    }
    EXPECT_EQ(node->ticks, 0);
}

TEST(ValueGroup, EndWaitsForTheTickInProgressAndIsTheLast) {
    const auto node = make_node("node");
    std::atomic<bool> inside{false};
    node->on_tick = [&] {
        inside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        inside = false;
    };
    {
        value_group group(1, 0, 0);
        group.add_value(node, 0);
        ASSERT_TRUE(test::eventually([&] { return inside.load(); }));
    }
    EXPECT_FALSE(inside);
}

TEST(ValueGroup, MembersMayBeAddedFromSeveralThreads) {
    value_group group(1, 0, 0);
    std::vector<std::shared_ptr<ticked_node>> nodes;
    for (int i = 0; i < 40; ++i)
        nodes.push_back(make_node(std::to_string(i)));
    std::thread other([&] {
        for (std::size_t i = 0; i < 20; ++i)
            group.add_value(nodes[i], 0);
    });
    for (std::size_t i = 20; i < 40; ++i)
        group.add_value(nodes[i], 1);
    other.join();
    for (const auto& node : nodes)
        EXPECT_TRUE(test::eventually([&] { return node->ticks > 0; }));
}

}  // namespace
