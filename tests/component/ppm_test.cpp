// A slot for a passive module: what the tree and the log tell when a module is
// put in, pulled or swapped.
#include "ppm.hpp"

#include "plugged_module_fixture.hpp"

#include <gmock/gmock.h>

#include <array>

namespace {

using test::eventually;
using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;
using lines = std::vector<test::log_line>;

const std::string inventory_read =
    "read inventory/wdmAddLoss,inventory/wdmDropLoss,inventory/oscAddLoss,inventory/oscDropLoss";
const test::log_line inserted{7, "tm_velt_ppm/1", "msg: PPM was inserted."};
const std::string not_set = "-61 Value has not been set";

class PpmSlot : public test::plugged_module_fixture<ppm_slot> {
  protected:
    PpmSlot() : plugged_module_fixture("/tmp/device_handlers/ppm/0", "ppm/1", "tm_velt_ppm/1") {
        handler_.set("told_last", 0);
    }

    void put_in(const std::array<int, 4>& losses) {
        fill_inventory(losses);
        handler_.set("present", true);
    }
    void fill_inventory(const std::array<int, 4>& losses) {
        for (std::size_t i = 0; i < losses.size(); ++i)
            handler_.set(inventory_[i], losses[i]);
    }
    void pull() { handler_.set("present", false); }

    // In the order of the inventory.
    strings losses() {
        return {local("/pm/wdm/addLoss"), local("/pm/wdm/dropLoss"), local("/pm/osc/addLoss"),
                local("/pm/osc/dropLoss")};
    }
    bool losses_become(const strings& expected) {
        const bool are_so = eventually([&] { return losses() == expected; });
        EXPECT_EQ(losses(), expected);
        return are_so;
    }

    const strings inventory_{"inventory/wdmAddLoss", "inventory/wdmDropLoss",
                             "inventory/oscAddLoss", "inventory/oscDropLoss"};
};

TEST_F(PpmSlot, LossesAreUnsetUntilTheHandlerTellsOfAModule) {
    connect();
    EXPECT_EQ(losses(), strings(4, not_set));
    EXPECT_EQ(local("/present"), "(none)");
}

TEST_F(PpmSlot, LossesChangeByPushOnlyAndJoinNoGroup) {
    connect();
    for (const char* path :
         {"/pm/wdm/addLoss", "/pm/wdm/dropLoss", "/pm/osc/addLoss", "/pm/osc/dropLoss"})
        EXPECT_EQ(db_.find_leaf_node(root_ + path)->poll_interval(), 0U) << path;
}

TEST_F(PpmSlot, ModuleThatIsThereAtTheStartShowsItsLossesAndIsNotLoggedAsInserted) {
    put_in({45, 46, 12, 13});
    connect();
    EXPECT_TRUE(losses_become({"45", "46", "12", "13"}));
    EXPECT_EQ(local("/present"), "true");
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, InventoryIsReadInOneRoundTripInTheOrderOfTheLosses) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    EXPECT_THAT(handler_.requests(), ElementsAre(inventory_read));
}

TEST_F(PpmSlot, EmptySlotShowsZeroLosses) {
    pull();
    connect();
    EXPECT_TRUE(losses_become(strings(4, "0")));
    EXPECT_THAT(handler_.requests(), IsEmpty());
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, PulledModuleLeavesZeroLossesAndNoLine) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    pull();
    EXPECT_TRUE(losses_become(strings(4, "0")));
    EXPECT_EQ(local("/present"), "false");
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, ModuleThatIsPutInIsLoggedOnceAndShowsItsLosses) {
    pull();
    connect();
    ASSERT_TRUE(losses_become(strings(4, "0")));
    put_in({50, 51, 14, 15});
    EXPECT_TRUE(losses_become({"50", "51", "14", "15"}));
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(PpmSlot, EachInsertionIsLogged) {
    pull();
    connect();
    ASSERT_TRUE(losses_become(strings(4, "0")));
    for (int time = 1; time <= 3; ++time) {
        put_in({time, 51, 14, 15});
        ASSERT_TRUE(losses_become({std::to_string(time), "51", "14", "15"}));
        pull();
        ASSERT_TRUE(losses_become(strings(4, "0")));
    }
    EXPECT_EQ(own_lines(), lines(3, inserted));
}

TEST_F(PpmSlot, PresenceThatIsToldTwiceIsNoInsertionButReadsTheInventoryAnew) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    put_in({50, 51, 14, 15});
    EXPECT_TRUE(losses_become({"50", "51", "14", "15"}));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, ItemThatTheInventoryLacksCountsAsZero) {
    put_in({45, 46, 12, 13});
    handler_.remove("inventory/oscAddLoss");
    connect();
    EXPECT_TRUE(losses_become({"45", "46", "0", "13"}));
    EXPECT_EQ(local("/present"), "true");
}

TEST_F(PpmSlot, ItemOfTheWrongTypeCountsAsZero) {
    put_in({45, 46, 12, 13});
    handler_.set_json("inventory/wdmAddLoss", R"("much")");
    handler_.set_json("inventory/wdmDropLoss", "-1");
    handler_.set_json("inventory/oscDropLoss", "1.5");
    connect();
    EXPECT_TRUE(losses_become({"0", "0", "12", "0"}));
}

TEST_F(PpmSlot, ItemThatFailsCountsAsZero) {
    put_in({45, 46, 12, 13});
    handler_.set_error("inventory/wdmDropLoss", -5, "unreadable");
    connect();
    EXPECT_TRUE(losses_become({"45", "0", "12", "13"}));
}

TEST_F(PpmSlot, LargestLossIsCopiedUnscaled) {
    put_in({0, 1, 2, 3});
    handler_.set_json("inventory/wdmAddLoss", "4294967295");
    connect();
    EXPECT_TRUE(losses_become({"4294967295", "1", "2", "3"}));
}

TEST_F(PpmSlot, LostHandlerHidesTheModuleAndKeepsItsLosses) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    lose_handler();
    EXPECT_EQ(local("/present"), "false");
    EXPECT_EQ(losses(), (strings{"45", "46", "12", "13"}));
}

TEST_F(PpmSlot, RestartedHandlerWithTheSameModuleKeepsTheLossesAndIsNoInsertion) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    lose_handler();
    return_handler();
    EXPECT_TRUE(becomes("/present", "true"));
    let_events_come();
    EXPECT_EQ(losses(), (strings{"45", "46", "12", "13"}));
    EXPECT_THAT(handler_.requests(), ElementsAre(inventory_read, inventory_read));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, ModuleSwappedWhileTheHandlerIsAwayShowsItsLossesAndIsNoInsertion) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    lose_handler();
    EXPECT_EQ(local("/present"), "false");
    EXPECT_EQ(losses(), (strings{"45", "46", "12", "13"}));
    fill_inventory({60, 61, 16, 17});
    return_handler();
    EXPECT_TRUE(losses_become({"60", "61", "16", "17"}));
    EXPECT_TRUE(becomes("/present", "true"));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, ModulePulledWhileTheHandlerIsAwayLeavesZeroLosses) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    lose_handler();
    pull();
    return_handler();
    EXPECT_TRUE(losses_become(strings(4, "0")));
    EXPECT_EQ(local("/present"), "false");
    put_in({50, 51, 14, 15});
    EXPECT_TRUE(losses_become({"50", "51", "14", "15"}));
    EXPECT_EQ(own_lines(), lines{inserted});
}

TEST_F(PpmSlot, LossOfAHandlerThatNeverToldOfAModuleMakesNoPresence) {
    connect();
    lose_handler();
    EXPECT_EQ(local("/present"), "(none)");
    EXPECT_EQ(losses(), strings(4, not_set));
}

// The inventory cannot be read, so the insertion is not over.
TEST_F(PpmSlot, InventoryThatCannotBeReadLeavesTheLossesAndTheMemoryOfAnEmptySlot) {
    pull();
    connect();
    ASSERT_TRUE(losses_become(strings(4, "0")));
    handler_.fail_requests(-7, "busy");
    put_in({50, 51, 14, 15});
    ASSERT_TRUE(eventually([&] { return own_lines().size() == 1; }));
    let_events_come();
    EXPECT_EQ(losses(), strings(4, "0"));
    EXPECT_EQ(local("/present"), "true");

    handler_.fail_requests(0);
    handler_.set("present", true);
    EXPECT_TRUE(losses_become({"50", "51", "14", "15"}));
    EXPECT_EQ(own_lines(), lines(2, inserted));
}

TEST_F(PpmSlot, FirstInventoryThatCannotBeReadLeavesTheMemoryOfAFilledSlot) {
    handler_.fail_requests(-7, "busy");
    put_in({50, 51, 14, 15});
    connect();
    ASSERT_TRUE(eventually([&] { return handler_.requests().size() == 1; }));
    let_events_come();
    EXPECT_EQ(losses(), strings(4, not_set));
    handler_.fail_requests(0);
    handler_.set("present", true);
    EXPECT_TRUE(losses_become({"50", "51", "14", "15"}));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(PpmSlot, UnsubscribeEndsTheMirror) {
    put_in({45, 46, 12, 13});
    connect();
    ASSERT_TRUE(losses_become({"45", "46", "12", "13"}));
    let_events_come();
    module_->unsubscribe();
    const auto observer = std::make_shared<test::recording_subscriber>("present");
    module_->client()->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value present true"); }));
    pull();
    ASSERT_TRUE(eventually([&] { return observer->has("value present false"); }));
    EXPECT_EQ(local("/present"), "true");
    EXPECT_EQ(losses(), (strings{"45", "46", "12", "13"}));
    module_->client()->remove_subscriber(observer);
}

TEST_F(PpmSlot, SlotWithoutItsPathsSkipsWhatItCannotFillAndComplainsOfWhatItCannotClear) {
    put_in({45, 46, 12, 13});
    const auto client = device_handler_client::create("/tmp/device_handlers/ppm/0", "ppm/1", {});
    const auto bare = std::make_shared<ppm_slot>(0, proxy_, client);
    bare->on_insert();  // of nothing that is known
    const auto present = proxy_->add_status_path<bool>("ppm/1/present", true);
    bare->on_insert();
    EXPECT_THAT(handler_.requests(), ElementsAre(inventory_read));
    EXPECT_THAT(own_lines(), IsEmpty());
    present->set(false);
    bare->on_insert();
    EXPECT_EQ(own_lines(), (lines{{3, "tm_velt_ppm/1", "uninitialized PM value on index 0"},
                                  {3, "tm_velt_ppm/1", "uninitialized PM value on index 1"},
                                  {3, "tm_velt_ppm/1", "uninitialized PM value on index 2"},
                                  {3, "tm_velt_ppm/1", "uninitialized PM value on index 3"}}));
}

TEST_F(PpmSlot, FirstIsTheUpperAndSecondTheLower) {
    const auto first = ppm_slot::create(0, proxy_, nullptr);
    const auto second = ppm_slot::create(1, proxy_, nullptr);
    EXPECT_EQ(first->get_ppm_id(), 1U);
    EXPECT_EQ(second->get_ppm_id(), 2U);
    EXPECT_EQ(first->get_ppm_position(), "upper");
    EXPECT_EQ(second->get_ppm_position(), "lower");
}

TEST_F(PpmSlot, SecondOpensTheSocketNumberedOneAndIsMirroredUnderTwo) {
    test::scripted_handler second_handler("/tmp/device_handlers/ppm/1");
    second_handler.set("number", 1);
    handler_.set("number", 0);
    const auto first = ppm_slot::create(0, proxy_, nullptr);
    const auto second = ppm_slot::create(1, proxy_, nullptr);
    EXPECT_EQ(first->client()->get<int>("number"), 0);
    EXPECT_EQ(second->client()->get<int>("number"), 1);
    EXPECT_EQ(first->client()->name(), "ppm/1");
    EXPECT_EQ(second->client()->name(), "ppm/2");
    EXPECT_TRUE(db_.contains("ppm/1/pm/wdm/addLoss"));
    EXPECT_TRUE(db_.contains("ppm/2/pm/osc/dropLoss"));
    ASSERT_EQ(proxy_->clients.size(), 2U);
    EXPECT_EQ(proxy_->clients[0], first->client());
    EXPECT_EQ(proxy_->clients[1], second->client());
}

}  // namespace
