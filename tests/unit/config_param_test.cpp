#include "config_param.hpp"
#include "log_capture.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

namespace {

using dh::api::config_param;
using test::read;
using test::write;

using strings = std::vector<std::string>;

class owner {
  public:
    void set_power(unsigned port, unsigned channel, float power) {
        if (on_set)
            on_set();
        calls.push_back(std::to_string(port) + "/" + std::to_string(channel) + "=" +
                        std::to_string(power));
    }
    void set_offset(const float& offset) { calls.push_back(std::to_string(offset)); }
    void set_count(unsigned count) { calls.push_back(std::to_string(count)); }
    void set_timeout(unsigned, long long timeout) { calls.push_back(std::to_string(timeout)); }
    void set_mode(std::string mode) { calls.push_back(std::move(mode)); }
    void set_done(bool done) { calls.push_back(done ? "true" : "false"); }

    strings calls;
    std::function<void()> on_set;
};

using power_param = config_param<&owner::set_power>;

std::string value_event(const std::string& value) {
    return R"({"event":"value","path":"control/power","value":)" + value + "}";
}

class ConfigParam : public testing::Test {
  protected:
    ConfigParam() {
        test::subscribe(*node_, session_);
        session_->clear();
    }

    std::shared_ptr<owner> owner_ = std::make_shared<owner>();
    dh_db db_;
    std::shared_ptr<power_param> node_ = power_param::create(db_, "control/power", owner_, 1U, 17U);
    std::shared_ptr<test::recording_session> session_ = std::make_shared<test::recording_session>();
};

TEST_F(ConfigParam, ReadBeforeAnyWriteGivesNull) {
    EXPECT_EQ(read(*node_), R"({"value":null})");
}

TEST_F(ConfigParam, SubscribeBeforeAnyWriteGivesNullAndNoFirstEvent) {
    const auto late = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::subscribe(*node_, late), R"({"value":null})");
    EXPECT_TRUE(late->events().empty());
    write(*node_, "-3");
    EXPECT_EQ(late->events(), strings{value_event("-3.0")});
}

TEST_F(ConfigParam, SubscribeAfterAWriteGivesTheValueAndAFirstEvent) {
    write(*node_, "-3");
    const auto late = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::subscribe(*node_, late), R"({"value":-3.0})");
    EXPECT_EQ(late->events(),
              strings{R"({"event":"value","path":"control/power","value":-3.0,"initial":true})"});
}

TEST_F(ConfigParam, WriteCallsTheSetterWithTheBoundArgumentsAndSendsOneEvent) {
    write(*node_, "-3.5");
    EXPECT_EQ(owner_->calls, strings{"1/17=-3.500000"});
    EXPECT_EQ(session_->events(), strings{value_event("-3.5")});
    EXPECT_EQ(read(*node_), R"({"value":-3.5})");
    EXPECT_EQ(test::history(db_).size(), 1U);
}

TEST_F(ConfigParam, WritingTheSameValueTwiceCallsTheSetterOnceAndSendsOneEvent) {
    write(*node_, "-3.5");
    write(*node_, "-3.5");
    EXPECT_EQ(owner_->calls.size(), 1U);
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(ConfigParam, FirstWriteOfZeroIsAChange) {
    write(*node_, "0");
    EXPECT_EQ(owner_->calls.size(), 1U);
    EXPECT_EQ(read(*node_), R"({"value":0.0})");
}

TEST_F(ConfigParam, SetterThatThrowsLeavesTheValueAndSendsNothing) {
    write(*node_, "-3.5");
    session_->clear();
    owner_->on_set = [] { throw dh_error(42, "out of range"); };
    EXPECT_EQ(test::error_of([&] { write(*node_, "7"); }), (test::error{42, "out of range"}));
    EXPECT_EQ(read(*node_), R"({"value":-3.5})");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(ConfigParam, RefusedFirstWriteLeavesTheParameterEmpty) {
    owner_->on_set = [] { throw std::runtime_error("no"); };
    EXPECT_THROW(write(*node_, "7"), std::runtime_error);
    EXPECT_EQ(read(*node_), R"({"value":null})");
}

TEST_F(ConfigParam, NanIsRefusedBeforeTheSetter) {
    const json::value nan(std::nan(""));
    EXPECT_EQ(test::error_of([&] { node_->set("value", nan); }),
              (test::error{-61, "Argument value is NaN."}));
    EXPECT_TRUE(owner_->calls.empty());
    EXPECT_EQ(read(*node_), R"({"value":null})");
}

TEST_F(ConfigParam, InfinityIsRefusedBeforeTheSetter) {
    const json::value infinity(-std::numeric_limits<double>::infinity());
    const test::error refused{-61, "Argument value is infinite."};
    EXPECT_EQ(test::error_of([&] { node_->set("value", infinity); }), refused);
    EXPECT_TRUE(owner_->calls.empty());
}

TEST_F(ConfigParam, NumberTooLargeForAFloatIsRefusedAsInfinite) {
    EXPECT_EQ(test::error_of([&] { write(*node_, "1e39"); }),
              (test::error{-61, "Argument value is infinite."}));
    EXPECT_TRUE(owner_->calls.empty());
}

TEST_F(ConfigParam, ValueOfTheWrongTypeTouchesNothing) {
    EXPECT_EQ(test::conversion_error_of([&] { write(*node_, R"("-3")"); }),
              "expected float, found string");
    EXPECT_TRUE(owner_->calls.empty());
    EXPECT_TRUE(session_->events().empty());
    EXPECT_EQ(read(*node_), R"({"value":null})");
}

TEST_F(ConfigParam, IntegerIsAFloatWhenADoubleHoldsIt) {
    write(*node_, "16777217");
    EXPECT_EQ(read(*node_), R"({"value":16777216.0})");
    EXPECT_EQ(test::conversion_error_of([&] { write(*node_, "9007199254740993"); }),
              "expected float, found 64-bit unsigned integer");
    EXPECT_EQ(read(*node_), R"({"value":16777216.0})");
}

TEST_F(ConfigParam, FloatTravelsAsTheDoubleOfItsExactValue) {
    write(*node_, "0.1");
    EXPECT_EQ(read(*node_), R"({"value":0.10000000149011612})");
}

TEST_F(ConfigParam, ResetEmptiesTheValueWithoutAnEvent) {
    write(*node_, "-3.5");
    session_->clear();
    node_->reset();
    EXPECT_EQ(read(*node_), R"({"value":null})");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(ConfigParam, AfterAResetTheSameValueIsAChangeAgain) {
    write(*node_, "-3.5");
    node_->reset();
    write(*node_, "-3.5");
    EXPECT_EQ(owner_->calls.size(), 2U);
    EXPECT_EQ(session_->events().size(), 2U);
}

TEST_F(ConfigParam, WriteAfterTheOwnerIsGoneFails) {
    owner_.reset();
    EXPECT_EQ(test::error_of([&] { write(*node_, "-3.5"); }),
              (test::error{-2, "Object has been removed"}));
    EXPECT_EQ(read(*node_), R"({"value":null})");
}

TEST_F(ConfigParam, DoesNotKeepItsOwnerAlive) {
    const std::weak_ptr<owner> watched = owner_;
    write(*node_, "1");
    owner_.reset();
    EXPECT_TRUE(watched.expired());
}

// A parameter is empty when it is made, so the warning is never due.
TEST_F(ConfigParam, ReadsOfAParameterThatWasWrittenGiveNoWarning) {
    const test::log_capture log;
    read(*node_);
    write(*node_, "1");
    read(*node_);
    node_->reset();
    read(*node_);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ConfigParam, ReaderWaitsForAWriteInProgress) {
    std::future<std::string> reader;
    owner_->on_set = [&] {
        reader = std::async(std::launch::async, [&] { return read(*node_); });
        EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    };
    write(*node_, "1");
    EXPECT_EQ(reader.get(), R"({"value":1.0})");
}

TEST_F(ConfigParam, ConcurrentWritesAndReadsSeeWholeValues) {
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i)
            write(*node_, std::to_string(i));
    });
    for (int i = 0; i < 500; ++i)
        read(*node_);
    writer.join();
    EXPECT_EQ(read(*node_), R"({"value":499.0})");
    EXPECT_EQ(session_->events().size(), 500U);
}

TEST_F(ConfigParam, RunsCodeOfItsOwner) {
    EXPECT_TRUE(node_->runs_owner_code());
    EXPECT_FALSE(node_->write_returns_response());
    EXPECT_TRUE(node_->subscription_supported());
}

TEST_F(ConfigParam, TicksLeaveItAlone) {
    node_->periodic_task(false);
    EXPECT_EQ(read(*node_), R"({"value":null})");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(ConfigParam, OutsideATreeItStoresAndSendsNothing) {
    power_param outside("power", owner_, {1U, 17U});
    write(outside, "2");
    EXPECT_EQ(read(outside), R"({"value":2.0})");
    EXPECT_TRUE(test::history(db_).empty());
}

const std::string plain_info = R"({"type":"config param","valueType":"float",)"
                               R"("capabilities":{"read":true,"write":true,"subscribe":true})";

TEST_F(ConfigParam, DescribesItself) {
    EXPECT_EQ(node_->get_info(), "config value (read,write,subscribe)");
    EXPECT_EQ(test::info(*node_), plain_info + "}");
}

TEST_F(ConfigParam, DescribesDefaultAndRange) {
    node_->describe_default(1.5F);
    node_->describe_constraints(dh::api::min_max_range_t<float>{-2, 3});
    EXPECT_EQ(test::info(*node_),
              plain_info + R"(,"defaultValue":1.5,"constraints":{"min":-2.0,"max":3.0}})");
}

TEST_F(ConfigParam, DescribesARangeWithGrid) {
    node_->describe_constraints(dh::api::min_max_grid_range_t<float>{-2, 3, 0.5F});
    EXPECT_EQ(test::info(*node_),
              plain_info + R"(,"constraints":{"min":-2.0,"max":3.0,"grid":0.5}})");
}

TEST_F(ConfigParam, DescribesAllowedValues) {
    node_->describe_constraints(std::vector<float>{1, 2});
    EXPECT_EQ(test::info(*node_), plain_info + R"(,"constraints":{"allowed":[1.0,2.0]}})");
}

TEST_F(ConfigParam, ConstraintsAreNotEnforced) {
    node_->describe_constraints(dh::api::min_max_range_t<float>{-2, 3});
    write(*node_, "99");
    EXPECT_EQ(read(*node_), R"({"value":99.0})");
}

class ConfigParamOfAType : public testing::Test {
  protected:
    std::shared_ptr<owner> owner_ = std::make_shared<owner>();
    dh_db db_;
};

TEST_F(ConfigParamOfAType, FloatByReferenceIsAFloat) {
    const auto node = config_param<&owner::set_offset>::create(db_, "offset", owner_);
    write(*node, "0.25");
    EXPECT_EQ(owner_->calls, strings{"0.250000"});
    EXPECT_EQ(test::info(*node), plain_info + "}");
    EXPECT_EQ(test::error_of([&] { write(*node, "1e39"); }),
              (test::error{-61, "Argument value is infinite."}));
}

TEST_F(ConfigParamOfAType, TextTakesEveryJsonValue) {
    const auto node = config_param<&owner::set_mode>::create(db_, "mode", owner_);
    write(*node, R"("equal")");
    write(*node, R"({"a": [1, true]})");
    write(*node, "null");
    EXPECT_EQ(owner_->calls, (strings{"equal", R"({"a":[1,true]})", "null"}));
    EXPECT_EQ(read(*node), R"({"value":"null"})");
}

TEST_F(ConfigParamOfAType, FirstWriteOfEmptyTextIsAChange) {
    const auto node = config_param<&owner::set_mode>::create(db_, "mode", owner_);
    write(*node, R"("")");
    EXPECT_EQ(owner_->calls, strings{""});
    EXPECT_EQ(read(*node), R"({"value":""})");
}

TEST_F(ConfigParamOfAType, UnsignedRefusesNegativeNumbersAndFractions) {
    const auto node = config_param<&owner::set_count>::create(db_, "count", owner_);
    EXPECT_EQ(test::conversion_error_of([&] { write(*node, "-1"); }),
              "expected uint, found 32-bit signed integer");
    EXPECT_EQ(test::conversion_error_of([&] { write(*node, "1.0"); }),
              "expected uint, found float");
    write(*node, "4294967295");
    EXPECT_EQ(read(*node), R"({"value":4294967295})");
}

TEST_F(ConfigParamOfAType, LongIntegerKeepsAllItsDigits) {
    const auto node = config_param<&owner::set_timeout>::create(db_, "timeout", owner_, 0U);
    write(*node, "-9007199254740993");
    EXPECT_EQ(owner_->calls, strings{"-9007199254740993"});
    EXPECT_EQ(read(*node), R"({"value":-9007199254740993})");
    EXPECT_NE(test::info(*node).find(R"("valueType":"long long")"), std::string::npos);
}

TEST_F(ConfigParamOfAType, BoolTakesNoNumber) {
    const auto node = config_param<&owner::set_done>::create(db_, "done", owner_);
    EXPECT_EQ(test::conversion_error_of([&] { write(*node, "1"); }),
              "expected bool, found 32-bit unsigned integer");
    write(*node, "false");
    EXPECT_EQ(read(*node), R"({"value":false})");
}

}  // namespace
