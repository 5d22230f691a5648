#include "volatile_value.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

namespace {

using dh::api::volatile_value;
using test::read;

class owner {
  public:
    float get_power(unsigned port) {
        ++calls;
        if (refuses)
            throw std::runtime_error("no answer");
        return power + static_cast<float>(port);
    }
    std::string get_name() const { return "name"; }
    double get_level() const { return level; }

    int calls = 0;
    bool refuses = false;
    float power = 0;
    double level = 0;
};

class VolatileValue : public testing::Test {
  protected:
    std::shared_ptr<owner> owner_ = std::make_shared<owner>();
    dh_db db_;
    std::shared_ptr<volatile_value<& owner::get_power>> node_ =
        volatile_value<&owner::get_power>::create(db_, "data/power", owner_, 2U);
};

TEST_F(VolatileValue, EveryReadAsksTheOwnerAnew) {
    EXPECT_EQ(read(*node_), R"({"value":2.0})");
    owner_->power = 0.5F;
    EXPECT_EQ(read(*node_), R"({"value":2.5})");
    EXPECT_EQ(owner_->calls, 2);
}

TEST_F(VolatileValue, ReadAfterTheOwnerIsGoneFailsEachTime) {
    owner_.reset();
    const test::error gone{-2, "Object has been removed"};
    EXPECT_EQ(test::error_of([&] { read(*node_); }), gone);
    EXPECT_EQ(test::error_of([&] { read(*node_); }), gone);
}

TEST_F(VolatileValue, NanIsAnErrorThatNamesThePath) {
    owner_->power = std::nanf("");
    EXPECT_EQ(test::error_of([&] { read(*node_); }),
              (test::error{-61, "Value returned for path data/power is NaN."}));
}

TEST_F(VolatileValue, InfinityIsAnErrorThatNamesThePath) {
    owner_->power = -std::numeric_limits<float>::infinity();
    EXPECT_EQ(test::error_of([&] { read(*node_); }),
              (test::error{-61, "Value returned for path data/power is infinite."}));
}

TEST_F(VolatileValue, ExceptionOfTheGetterGoesToTheReader) {
    owner_->refuses = true;
    EXPECT_THROW(read(*node_), std::runtime_error);
}

TEST_F(VolatileValue, DoublesAreNotChecked) {
    const auto level = volatile_value<&owner::get_level>::create(db_, "data/level", owner_);
    owner_->level = std::nan("");
    EXPECT_EQ(read(*level), R"({"value":null})");
}

TEST_F(VolatileValue, GetterWithoutArgumentsWorks) {
    const auto name = volatile_value<&owner::get_name>::create(db_, "data/name", owner_);
    EXPECT_EQ(read(*name), R"({"value":"name"})");
}

TEST_F(VolatileValue, CannotBeWrittenOrSubscribed) {
    const test::error refused{-95, "Operation not supported: data/power"};
    const auto session = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::error_of([&] { test::write(*node_, "1"); }), refused);
    EXPECT_EQ(test::error_of([&] { test::subscribe(*node_, session); }), refused);
    EXPECT_EQ(owner_->calls, 0);
}

TEST_F(VolatileValue, RunsCodeOfItsOwner) {
    EXPECT_TRUE(node_->runs_owner_code());
}

TEST_F(VolatileValue, DescribesItselfWithItsTypeLast) {
    EXPECT_EQ(node_->get_info(), "volatile value (read)");
    EXPECT_EQ(test::info(*node_),
              R"({"valueType":"float","capabilities":{"read":true},"type":"volatile value"})");
}

}  // namespace
