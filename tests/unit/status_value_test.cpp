#include "status_value.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <functional>

namespace {

using dh::api::status_value;
using test::read;

using strings = std::vector<std::string>;
using plain_status = status_value<unsigned int>;
using debounced_status = status_value<bool, std::greater<bool>>;

std::string value_event(const std::string& value) {
    return R"({"event":"value","path":"data/state","value":)" + value + "}";
}

template <class Node>
class status_fixture : public testing::Test {
  protected:
    template <class T>
    status_fixture(T initial, unsigned delay_cycles)
        : node_(Node::create(db_, "data/state", initial, delay_cycles)) {
        test::subscribe(*node_, session_);
        session_->clear();
    }

    dh_db db_;
    std::shared_ptr<Node> node_;
    std::shared_ptr<test::recording_session> session_ = std::make_shared<test::recording_session>();
};

class StatusValue : public status_fixture<plain_status> {
  protected:
    StatusValue() : status_fixture(1U, 0) {}
};

TEST_F(StatusValue, ReadGivesTheInitialValue) {
    EXPECT_EQ(read(*node_), R"({"value":1})");
}

TEST_F(StatusValue, ChangeGoesOutAtOnce) {
    node_->set(2);
    EXPECT_EQ(session_->events(), strings{value_event("2")});
    EXPECT_EQ(read(*node_), R"({"value":2})");
}

TEST_F(StatusValue, SettingTheSameValueSendsNothing) {
    node_->set(1);
    node_->set(2);
    node_->set(2);
    EXPECT_EQ(session_->events(), strings{value_event("2")});
}

TEST_F(StatusValue, ChangeGoesOutAtOnceInAValueGroupToo) {
    node_->set_poll_interval(1000);
    node_->set(2);
    EXPECT_EQ(session_->events(), strings{value_event("2")});
}

TEST_F(StatusValue, EveryChangeIsRecordedInTheHistory) {
    node_->set(2);
    node_->set(3);
    const strings entries = test::history(db_);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_TRUE(entries[0].ends_with(R"("value":3})")) << entries[0];
    EXPECT_TRUE(entries[1].ends_with(R"("value":2})")) << entries[1];
}

TEST_F(StatusValue, SubscribeGivesTheValueAndAFirstEventToThatSessionAlone) {
    const auto other = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::subscribe(*node_, other), R"({"value":1})");
    EXPECT_EQ(other->events(),
              strings{R"({"event":"value","path":"data/state","value":1,"initial":true})"});
    EXPECT_TRUE(session_->events().empty());
    EXPECT_TRUE(test::history(db_).empty());
}

TEST_F(StatusValue, EventsMayBeReplacedByNewerOnesOfThePath) {
    node_->set(2);
    EXPECT_EQ(session_->replaceable_paths(), strings{"data/state"});
}

TEST_F(StatusValue, SecondSubscribeOfASessionDoublesNoEvent) {
    test::subscribe(*node_, session_);
    session_->clear();
    node_->set(2);
    EXPECT_EQ(session_->events(), strings{value_event("2")});
}

TEST_F(StatusValue, UnsubscribedSessionGetsNoMoreEvents) {
    node_->unsubscribe(session_);
    node_->set(2);
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(StatusValue, CannotBeWrittenByClients) {
    EXPECT_EQ(test::error_of([&] { test::write(*node_, "2"); }),
              (test::error{-95, "Operation not supported: data/state"}));
    EXPECT_EQ(read(*node_), R"({"value":1})");
}

TEST_F(StatusValue, RunsNoCodeOfAnOwner) {
    EXPECT_FALSE(node_->runs_owner_code());
    EXPECT_TRUE(node_->subscription_supported());
}

TEST_F(StatusValue, DescribesItself) {
    node_->set_poll_interval(1000);
    EXPECT_EQ(node_->get_info(), "status value (read,subscribe)");
    EXPECT_EQ(test::info(*node_), R"({"type":"status value","valueType":"unsigned int",)"
                                  R"("capabilities":{"read":true,"subscribe":true},)"
                                  R"("hysteresis":{"lessFunction":"std::equal_to<unsigned int>",)"
                                  R"("delayCycles":0,"pollInterval":1000}})");
}

TEST(StatusValueOfText, DescribesItsTypeByItsFullName) {
    dh_db db;
    const auto node = status_value<std::string>::create(db, "data/name", "a", 0);
    const std::string name =
        "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
    EXPECT_EQ(test::info(*node), R"({"type":"status value","valueType":")" + name +
                                     R"(","capabilities":{"read":true,"subscribe":true},)"
                                     R"("hysteresis":{"lessFunction":"std::equal_to<)" +
                                     name + R"( >","delayCycles":0,"pollInterval":0}})");
}

TEST(StatusValueOfText, CarriesAnyText) {
    dh_db db;
    const auto node = status_value<std::string>::create(db, "data/name", "", 0);
    node->set("line\n\"quoted\" \\ \x01 \xc3\xa4");
    EXPECT_EQ(read(*node), "{\"value\":\"line\\n\\\"quoted\\\" \\\\ \\u0001 \xc3\xa4\"}");
}

TEST(StatusValueOutsideATree, KeepsItsChangePendingAndSendsNothing) {
    plain_status node("state", 1, 0);
    node.set(2);
    node.periodic_task(false);
    EXPECT_EQ(read(node), R"({"value":1})");
    EXPECT_EQ(node.latest(), 2U);
}

// A change from false to true waits for delay cycles + 1 ticks.
class DebouncedStatusValue : public status_fixture<debounced_status> {
  protected:
    DebouncedStatusValue() : status_fixture(false, 1) { node_->set_poll_interval(1000); }

    void tick(int times) {
        for (; times > 0; --times)
            node_->periodic_task(false);
    }
};

TEST_F(DebouncedStatusValue, DelayedChangeLeavesOnTheSecondTickForOneDelayCycle) {
    node_->set(true);
    EXPECT_TRUE(session_->events().empty());
    tick(1);
    EXPECT_TRUE(session_->events().empty());
    tick(1);
    EXPECT_EQ(session_->events(), strings{value_event("true")});
    tick(5);
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(DebouncedStatusValue, ReadGivesTheOldValueUntilTheTickThatPublishes) {
    node_->set(true);
    tick(1);
    EXPECT_EQ(read(*node_), R"({"value":false})");
    EXPECT_TRUE(node_->latest());
    tick(1);
    EXPECT_EQ(read(*node_), R"({"value":true})");
}

TEST_F(DebouncedStatusValue, SubscriberDuringTheDelayGetsThePublishedValue) {
    node_->set(true);
    const auto late = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::subscribe(*node_, late), R"({"value":false})");
    EXPECT_EQ(late->events(),
              strings{R"({"event":"value","path":"data/state","value":false,"initial":true})"});
}

TEST_F(DebouncedStatusValue, ChangeInTheOtherDirectionGoesOutAtOnce) {
    node_->set(true);
    tick(2);
    session_->clear();
    node_->set(false);
    EXPECT_EQ(session_->events(), strings{value_event("false")});
}

TEST_F(DebouncedStatusValue, ChangeThatIsTakenBackIsNeverSeen) {
    node_->set(true);
    tick(1);
    node_->set(false);
    tick(5);
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DebouncedStatusValue, CountStartsAnewWithEachPendingChange) {
    node_->set(true);
    tick(1);
    node_->set(false);
    node_->set(true);
    tick(1);
    EXPECT_TRUE(session_->events().empty());
    tick(1);
    EXPECT_EQ(session_->events(), strings{value_event("true")});
}

TEST_F(DebouncedStatusValue, TicksWithoutAPendingChangeDoNotCount) {
    tick(10);
    node_->set(true);
    tick(1);
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DebouncedStatusValue, ArgumentOfATickHasNoMeaning) {
    node_->set(true);
    node_->periodic_task(true);
    node_->periodic_task(true);
    EXPECT_EQ(session_->events(), strings{value_event("true")});
}

TEST_F(DebouncedStatusValue, OutsideAValueGroupEveryChangeGoesOutAtOnce) {
    node_->set_poll_interval(0);
    node_->set(true);
    EXPECT_EQ(session_->events(), strings{value_event("true")});
}

TEST_F(DebouncedStatusValue, RemovedNodeSendsNothing) {
    node_->set(true);
    db_.remove_node("data/state");
    session_->clear();
    tick(5);
    node_->set(false);
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DebouncedStatusValue, DescribesItself) {
    EXPECT_EQ(test::info(*node_), R"({"type":"status value","valueType":"bool",)"
                                  R"("capabilities":{"read":true,"subscribe":true},)"
                                  R"("hysteresis":{"lessFunction":"std::greater<bool>",)"
                                  R"("delayCycles":1,"pollInterval":1000}})");
}

// The count is not cleared by a publication: a change that follows while
// another is pending goes on counting.
TEST(StatusValueWithALongDelay, LaterChangeWhileOneIsPendingDoesNotRestartTheCount) {
    dh_db db;
    const auto node =
        status_value<unsigned int, std::greater<unsigned int>>::create(db, "data/state", 0, 2);
    node->set_poll_interval(1000);
    node->set(1);
    node->periodic_task(false);
    node->periodic_task(false);
    node->set(2);
    node->periodic_task(false);
    EXPECT_EQ(read(*node), R"({"value":2})");
}

}  // namespace
