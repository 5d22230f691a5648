#include "const_value.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

namespace {

using dh::api::const_value;

class ConstValue : public testing::Test {
  protected:
    dh_db db_;
    std::shared_ptr<const_value<unsigned int>> node_ =
        const_value<unsigned int>::create(db_, "data/slots", 4000000000U);
};

TEST_F(ConstValue, ReadGivesTheValueUnderTheKey) {
    EXPECT_EQ(test::read(*node_), R"({"value":4000000000})");
    EXPECT_EQ(test::read(*node_, "slots"), R"({"slots":4000000000})");
}

TEST_F(ConstValue, StandsInTheTreeAtItsPath) {
    EXPECT_EQ(db_.find_leaf_node("data/slots"), node_);
}

TEST_F(ConstValue, CannotBeWrittenRunOrSubscribed) {
    const test::error refused{-95, "Operation not supported: data/slots"};
    const auto session = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::error_of([&] { test::write(*node_, "1"); }), refused);
    EXPECT_EQ(test::error_of([&] { test::run(*node_, "1"); }), refused);
    EXPECT_EQ(test::error_of([&] { test::subscribe(*node_, session); }), refused);
    EXPECT_FALSE(node_->subscription_supported());
    EXPECT_FALSE(node_->write_returns_response());
}

TEST_F(ConstValue, TicksAndResetsLeaveItAlone) {
    node_->periodic_task(false);
    node_->reset();
    EXPECT_EQ(test::read(*node_), R"({"value":4000000000})");
}

TEST_F(ConstValue, RunsNoCodeOfAnOwner) {
    EXPECT_FALSE(node_->runs_owner_code());
}

TEST_F(ConstValue, DescribesItself) {
    EXPECT_EQ(node_->get_info(), "const value (read)");
    EXPECT_EQ(test::info(*node_),
              R"({"type":"const value","valueType":"unsigned int","capabilities":{"read":true}})");
}

}  // namespace
