// Combined mode on a card that finds nobody in the neighbour slot: it has no
// interface to it.
#include "control_tree_fixture.hpp"
#include "redis_server.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <net/if.h>

#include <algorithm>
#include <optional>
#include <string>

using test::eventually;

namespace {

const std::string status_path = "control/data/combinedModeStatus";
const std::string alarm_path = "control/alarms/combinedModeAlarm/severity";
const std::string alive_path = "control/data/slotCommunicationAlive";
const std::string mode_path = "control/config/combinedMode";

class ModulePoll : public test::control_tree_fixture {
  protected:
    ModulePoll() : control_tree_fixture("velt,mx47") {
        booster_->set("data/enable", false);
        system_info_.emplace("/tmp/device_handlers/system_info");
        put_card_in_slot("1");
    }

    ~ModulePoll() override { destroy_loop(); }

    void SetUp() override {
        if (if_nametoindex("eth_module") != 0)
            GTEST_SKIP() << "this machine has an interface eth_module";
    }

    void put_card_in_slot(const std::string& location) {
        system_info_->set("data/locationIndex", location);
    }

    void put_in_store(const std::string& slot, const std::string& present,
                      const std::string& product = "") {
        store_.set("/v1/rows/slot/" + slot + "/present", present);
        if (!product.empty())
            store_.set(product_key(slot), product);
    }

    static std::string product_key(const std::string& slot) {
        return "/v1/rows/module/" + slot + "/system/info/inventory/productName";
    }

    void poll_in_combined_mode() {
        create_loop();
        loop_->set_mx47_k47_combo_flag_nosave("enabled");
        loop_->set_configDone(true);
        time_.open();
        ASSERT_TRUE(polls_again());
    }

    // Whether a poll that began after this call has ended.
    bool polls_again() {
        const std::size_t before = log_.count("msg: No slot neighbour.");
        return eventually([&] { return log_.count("msg: No slot neighbour.") >= before + 3; });
    }

    // Between two polls: what the tree shows in the middle of one is another thing.
    void expect_eventually(const std::string& status, unsigned alarm) {
        EXPECT_TRUE(eventually([&] {
            return read<std::string>(status_path) == status && read<unsigned>(alarm_path) == alarm;
        })) << read<std::string>(status_path)
            << " " << read<unsigned>(alarm_path);
        EXPECT_FALSE(read<bool>(alive_path));
    }

    std::optional<test::scripted_handler> system_info_;
    test::redis_server store_;
};

}  // namespace

TEST_F(ModulePoll, StoreWithoutTheSlotIsAnAlarm) {
    poll_in_combined_mode();
    expect_eventually("alarm", 1);
}

TEST_F(ModulePoll, EmptySlotIsAnAlarmWhateverItsLastCardWas) {
    put_in_store("2", "false", "VLT-Q-K47");
    poll_in_combined_mode();
    expect_eventually("alarm", 1);
}

TEST_F(ModulePoll, AmplifierCardThatDoesNotAnswerIsNoAlarm) {
    put_in_store("2", "true", "VLT-Q-K47");
    poll_in_combined_mode();
    expect_eventually("connecting", 0);
    ASSERT_TRUE(polls_again());
    expect_eventually("connecting", 0);
}

TEST_F(ModulePoll, AnotherCardInTheSlotIsAnAlarm) {
    put_in_store("2", "true", "VLT-Q-T47");
    poll_in_combined_mode();
    expect_eventually("alarm", 1);
}

TEST_F(ModulePoll, CardWithoutANameInTheStoreLeavesTheAlarmAsItIs) {
    put_in_store("2", "true");
    poll_in_combined_mode();
    expect_eventually("connecting", 0);
    put_in_store("2", "false");
    expect_eventually("alarm", 1);
    put_in_store("2", "true");
    ASSERT_TRUE(polls_again());
    expect_eventually("connecting", 1);
}

// The limit of the neighbour is read, and then not used.
TEST_F(ModulePoll, EqPortIsRegulatedForTwentyDecibelsWhateverTheNeighboursLimit) {
    create_loop();
    loop_->set_mx47_k47_booster_power_limit(25.0F);
    loop_->set_mx47_k47_combo_flag_nosave("enabled");
    EXPECT_EQ(loop_->get_mx47_k47_booster_power_limit(), 25.0F);
    loop_->set_configDone(true);
    time_.open();
    EXPECT_TRUE(eventually([this] { return loop_->get_mx47_k47_booster_power_limit() == 20.0F; }));
}

TEST_F(ModulePoll, AlarmFollowsTheSlot) {
    put_in_store("2", "true", "VLT-Q-K47");
    poll_in_combined_mode();
    expect_eventually("connecting", 0);
    put_in_store("2", "true", "VLT-Q-T47");
    expect_eventually("alarm", 1);
    put_in_store("2", "true", "VLT-Q-K47");
    expect_eventually("connecting", 0);
    put_in_store("2", "false");
    expect_eventually("alarm", 1);
}

TEST_F(ModulePoll, StoreThatDiesIsAnAlarmUntilItReturns) {
    put_in_store("2", "true", "VLT-Q-K47");
    poll_in_combined_mode();
    expect_eventually("connecting", 0);
    store_.kill();
    expect_eventually("alarm", 1);
    store_.start();
    put_in_store("2", "true", "VLT-Q-K47");
    expect_eventually("connecting", 0);
}

namespace {
class ModulePollAtLocation : public ModulePoll, public testing::WithParamInterface<const char*> {};
}  // namespace

TEST_P(ModulePollAtLocation, HasItsNeighbourInTheFirstSlot) {
    put_card_in_slot(GetParam());
    put_in_store("1", "true", "VLT-Q-K47");
    put_in_store("2", "false");
    poll_in_combined_mode();
    expect_eventually("connecting", 0);
}

INSTANTIATE_TEST_SUITE_P(AnyButTheFirst, ModulePollAtLocation,
                         testing::Values("2", "3", "", "one", "11"));

TEST_F(ModulePoll, LocationIsReadOnce) {
    put_in_store("2", "true", "VLT-Q-K47");
    poll_in_combined_mode();
    put_card_in_slot("2");
    ASSERT_TRUE(polls_again());
    expect_eventually("connecting", 0);
    const auto requests = system_info_->requests();
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "read data/locationIndex"), 1);
}

TEST_F(ModulePoll, SwitchedOffItIsWithoutAnAlarmAndPollsNoMore) {
    poll_in_combined_mode();
    expect_eventually("alarm", 1);
    write(mode_path, std::string("disabled"));
    const std::size_t polls = log_.count("msg: No slot neighbour.");
    EXPECT_EQ(read<std::string>(status_path), "n/a");
    EXPECT_EQ(read<unsigned>(alarm_path), 0U);
    EXPECT_FALSE(read<bool>(alive_path));
    EXPECT_EQ(read<std::string>("control/data/combinedMode"), "disabled");
    booster_->forget_requests();
    ASSERT_TRUE(eventually([this] { return booster_->requests().size() >= 3; }));
    EXPECT_EQ(log_.count("msg: No slot neighbour."), polls);
    EXPECT_EQ(read<std::string>(status_path), "n/a");
}

TEST_F(ModulePoll, IsSwitchedOffAndOnWhilePollsFollowEachOtherAtOnce) {
    poll_in_combined_mode();
    for (int turn = 0; turn < 10; ++turn) {
        write(mode_path, std::string("off"));
        EXPECT_EQ(read<std::string>(status_path), "n/a");
        write(mode_path, std::string("enabled"));
        ASSERT_TRUE(polls_again());
    }
}
