// A port for a transceiver: what the tree and the log tell when one is put in,
// pulled, or its handler restarts.
#include "sfp_interface.hpp"

#include "manual_time.hpp"
#include "plugged_module_fixture.hpp"

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using test::eventually;
using testing::IsEmpty;
using lines = std::vector<test::log_line>;

const test::log_line inserted{7, "tm_velt_sfp/1", "msg: SFP was inserted."};

// In force before the threads of the proxy are there.
class turned_clock {
  protected:
    test::manual_time time_;
};

class SfpInterface : public turned_clock, public test::plugged_module_fixture<sfp_interface> {
  protected:
    SfpInterface()
        : plugged_module_fixture("/tmp/device_handlers/sfp/0", "interface/1", "tm_velt_sfp/1") {
        handler_.set("told_last", 0);
    }

    void put_in() { handler_.set("present", true); }
    void pull() { handler_.set("present", false); }

    std::size_t subscriptions_of_presence() const {
        return log_.count("Subscription started on 'present' -> 'interface/1/present'");
    }
};

TEST_F(SfpInterface, TransceiverThatIsThereAtTheStartIsNotLoggedAsInserted) {
    put_in();
    connect();
    EXPECT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(SfpInterface, PulledAndPutInAgainGivesOneLineWhenItIsPutIn) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    pull();
    ASSERT_TRUE(becomes("/present", "false"));
    let_events_come();
    EXPECT_THAT(own_lines(), IsEmpty());
    put_in();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(SfpInterface, FirstTransceiverOfAnEmptyPortIsLogged) {
    pull();
    connect();
    ASSERT_TRUE(becomes("/present", "false"));
    let_events_come();
    put_in();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(SfpInterface, PresenceThatIsToldTwiceIsOneInsertion) {
    pull();
    connect();
    ASSERT_TRUE(becomes("/present", "false"));
    let_events_come();
    put_in();
    put_in();
    let_events_come();
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(SfpInterface, AlarmOfAMissingTransceiverIsFilledByTheMirror) {
    handler_.set("alarms/transceiverMissing/severity", 3);
    connect();
    EXPECT_TRUE(becomes("/alarms/transceiverMissing/severity", "3"));
    handler_.set("alarms/transceiverMissing/severity", 0);
    EXPECT_TRUE(becomes("/alarms/transceiverMissing/severity", "0"));
}

TEST_F(SfpInterface, FirstConnectionWaitsForNothingAndLeavesThePresenceToTheMirror) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    EXPECT_EQ(time_.slept(), 0s);
    EXPECT_EQ(subscriptions_of_presence(), 1U);
}

TEST_F(SfpInterface, LostHandlerHidesTheTransceiver) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    lose_handler();
    EXPECT_EQ(local("/present"), "false");
}

TEST_F(SfpInterface, ReturningHandlerIsGivenThreeSecondsAndThenAskedForThePresence) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    lose_handler();
    EXPECT_EQ(time_.slept(), 0s);
    return_handler();
    EXPECT_EQ(time_.slept(), 3s);
    // Once with the whole tree, and once by itself.
    EXPECT_TRUE(eventually([&] { return subscriptions_of_presence() == 3; }));
    EXPECT_TRUE(becomes("/present", "true"));
}

TEST_F(SfpInterface, RestartedHandlerWithTheTransceiverInPlaceIsNoInsertion) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    lose_handler();
    return_handler();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_THAT(own_lines(), IsEmpty());
    pull();
    ASSERT_TRUE(becomes("/present", "false"));
    let_events_come();
    put_in();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(SfpInterface, TransceiverPulledWhileTheHandlerIsAwayIsAnInsertionWhenItIsPutBack) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    lose_handler();
    pull();
    return_handler();
    let_events_come();
    EXPECT_EQ(local("/present"), "false");
    put_in();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(SfpInterface, LossWithoutAPresenceAsksForItWithTheNextConnectionAllTheSame) {
    connect();
    lose_handler();
    EXPECT_EQ(local("/present"), "(none)");
    put_in();
    return_handler();
    EXPECT_EQ(time_.slept(), 3s);
    EXPECT_TRUE(becomes("/present", "true"));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(SfpInterface, EachLossCostsOneWait) {
    put_in();
    connect();
    for (int time = 1; time <= 2; ++time) {
        lose_handler();
        return_handler();
        EXPECT_EQ(time_.slept(), time * 3s);
    }
    module_->on_connect();
    EXPECT_EQ(time_.slept(), 6s);
}

TEST_F(SfpInterface, UnsubscribeEndsTheMirror) {
    put_in();
    connect();
    ASSERT_TRUE(becomes("/present", "true"));
    let_events_come();
    module_->unsubscribe();
    const auto observer = std::make_shared<test::recording_subscriber>("present");
    module_->client()->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value present true"); }));
    pull();
    ASSERT_TRUE(eventually([&] { return observer->has("value present false"); }));
    EXPECT_EQ(local("/present"), "true");
    module_->client()->remove_subscriber(observer);
}

TEST_F(SfpInterface, FirstIsTheLowerAndSecondTheUpper) {
    const auto first = sfp_interface::create(0, proxy_, nullptr);
    const auto second = sfp_interface::create(1, proxy_, nullptr);
    EXPECT_EQ(first->get_port_id(), 1U);
    EXPECT_EQ(second->get_port_id(), 2U);
    EXPECT_EQ(first->get_port_type(), "lower");
    EXPECT_EQ(second->get_port_type(), "upper");
}

TEST_F(SfpInterface, SecondOpensTheSocketNumberedOneAndIsMirroredUnderTwo) {
    test::scripted_handler second_handler("/tmp/device_handlers/sfp/1");
    second_handler.set("number", 1);
    handler_.set("number", 0);
    const auto first = sfp_interface::create(0, proxy_, nullptr);
    const auto second = sfp_interface::create(1, proxy_, nullptr);
    EXPECT_EQ(first->client()->get<int>("number"), 0);
    EXPECT_EQ(second->client()->get<int>("number"), 1);
    EXPECT_EQ(first->client()->name(), "interface/1");
    EXPECT_EQ(second->client()->name(), "interface/2");
    ASSERT_EQ(proxy_->clients.size(), 2U);
    EXPECT_EQ(proxy_->clients[0], first->client());
    EXPECT_EQ(proxy_->clients[1], second->client());
}

}  // namespace
