#include "filtered_value.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

using dh::api::compare_kind;
using dh::api::hysteresis_filtered_value;
using dh::api::polled_volatile_value_impl;
using dh::api::pushed_volatile_value_impl;
using test::read;

using strings = std::vector<std::string>;

class owner {
  public:
    float get_power(unsigned port, unsigned channel) {
        ++calls;
        last_port = port;
        last_channel = channel;
        if (on_get)
            on_get();
        return power;
    }
    std::string get_name() { return name; }

    int calls = 0;
    unsigned last_port = 0;
    unsigned last_channel = 0;
    float power = 0;
    std::string name;
    std::function<void()> on_get;
};

using polled_power = hysteresis_filtered_value<polled_volatile_value_impl<&owner::get_power>>;
using polled_name = hysteresis_filtered_value<polled_volatile_value_impl<&owner::get_name>>;
using pushed_float = hysteresis_filtered_value<pushed_volatile_value_impl<float>>;
using pushed_unsigned = hysteresis_filtered_value<pushed_volatile_value_impl<unsigned int>>;

std::string value_event(const std::string& value) {
    return R"({"event":"value","path":"data/power","value":)" + value + "}";
}

std::string error_event(int code, const std::string& message) {
    return R"({"event":"error","path":"data/power","error":{"code":)" + std::to_string(code) +
           R"(,"message":")" + message + R"("}})";
}

const test::error not_set{-61, "Value has not been set"};

// A node with the immediate limit 1.0 and the delayed limit 0.5, in a value
// group, that is ticked by hand.
class FilteredValue : public testing::Test {
  protected:
    FilteredValue() { node_->set_poll_interval(1000); }

    void tick(int times = 1) {
        for (; times > 0; --times)
            node_->periodic_task(false);
    }

    void tick_with(float power, int times = 1) {
        owner_->power = power;
        tick(times);
    }

    // The node has published the value, and nothing is recorded yet.
    void start_at(float power) {
        tick_with(power);
        test::subscribe(*node_, session_);
        session_->clear();
    }

    void fail_with(int code, const std::string& message) {
        owner_->on_get = [=] { throw dh_error(code, message); };
    }

    dh_db db_;
    std::shared_ptr<owner> owner_ = std::make_shared<owner>();
    std::shared_ptr<polled_power> node_ =
        polled_power::create(db_, "data/power", 1.0, 0.5, owner_, 3U, 17U);
    std::shared_ptr<test::recording_session> session_ = std::make_shared<test::recording_session>();
};

TEST_F(FilteredValue, ReadBeforeTheFirstTickFailsAsNotSet) {
    EXPECT_EQ(test::error_of([&] { read(*node_); }), not_set);
    EXPECT_EQ(owner_->calls, 0);
}

TEST_F(FilteredValue, FirstTickPublishesWhateverTheValueIs) {
    tick_with(0.0F);
    EXPECT_EQ(read(*node_), R"({"value":0.0})");
}

TEST_F(FilteredValue, TickAsksTheGetterOnceWithTheBoundArguments) {
    tick();
    EXPECT_EQ(owner_->calls, 1);
    EXPECT_EQ(owner_->last_port, 3U);
    EXPECT_EQ(owner_->last_channel, 17U);
}

TEST_F(FilteredValue, ReadsAndSubscribesCostNoCallOfTheOwner) {
    tick();
    read(*node_);
    test::subscribe(*node_, session_);
    EXPECT_EQ(owner_->calls, 1);
}

TEST_F(FilteredValue, DifferenceAboveTheImmediateLimitGoesOutAtOnce) {
    start_at(0);
    tick_with(1.25F);
    EXPECT_EQ(session_->events(), strings{value_event("1.25")});
    tick_with(0);
    EXPECT_EQ(session_->events().back(), value_event("0.0"));
}

TEST_F(FilteredValue, DifferenceOfExactlyTheImmediateLimitIsDelayed) {
    start_at(0);
    tick_with(1.0F, 10);
    EXPECT_TRUE(session_->events().empty());
    tick();
    EXPECT_EQ(session_->events(), strings{value_event("1.0")});
}

TEST_F(FilteredValue, DifferenceOfExactlyTheDelayedLimitIsIgnored) {
    start_at(0);
    tick_with(0.5F, 30);
    tick_with(-0.5F, 30);
    EXPECT_TRUE(session_->events().empty());
    EXPECT_EQ(read(*node_), R"({"value":0.0})");
}

TEST_F(FilteredValue, TenTicksBetweenTheLimitsSendNothingAndTheEleventhSends) {
    start_at(0);
    tick_with(0.75F, 10);
    EXPECT_TRUE(session_->events().empty());
    EXPECT_EQ(read(*node_), R"({"value":0.0})");
    tick();
    EXPECT_EQ(session_->events(), strings{value_event("0.75")});
    EXPECT_EQ(read(*node_), R"({"value":0.75})");
}

TEST_F(FilteredValue, TickWithinTheDelayedLimitRestartsTheCount) {
    start_at(0);
    tick_with(0.75F, 10);
    tick_with(0.25F);
    tick_with(0.75F, 10);
    EXPECT_TRUE(session_->events().empty());
    tick();
    EXPECT_EQ(session_->events(), strings{value_event("0.75")});
}

TEST_F(FilteredValue, LatestValueOfADriftIsWhatGoesOut) {
    start_at(0);
    tick_with(0.625F, 10);
    tick_with(0.875F);
    EXPECT_EQ(session_->events(), strings{value_event("0.875")});
}

TEST_F(FilteredValue, DriftThatGoesOnAfterADelayedPublicationGoesOutOnEachTick) {
    start_at(0);
    tick_with(0.75F, 11);
    tick_with(1.5F);
    tick_with(2.25F);
    EXPECT_EQ(session_->events(),
              (strings{value_event("0.75"), value_event("1.5"), value_event("2.25")}));
}

TEST_F(FilteredValue, StandstillAfterADelayedPublicationRestartsTheCount) {
    start_at(0);
    tick_with(0.75F, 12);
    tick_with(1.5F, 10);
    EXPECT_EQ(session_->events().size(), 1U);
    tick();
    EXPECT_EQ(session_->events().size(), 2U);
}

TEST_F(FilteredValue, ImmediatePublicationKeepsTheCount) {
    start_at(0);
    tick_with(0.75F, 10);
    tick_with(5.0F);
    tick_with(5.75F);
    EXPECT_EQ(session_->events(), (strings{value_event("5.0"), value_event("5.75")}));
}

TEST_F(FilteredValue, OutsideAValueGroupADelayedDifferenceGoesOutAtOnce) {
    start_at(0);
    node_->set_poll_interval(0);
    tick_with(0.75F);
    EXPECT_EQ(session_->events(), strings{value_event("0.75")});
}

TEST_F(FilteredValue, PushedRunsDoNotCount) {
    start_at(0);
    owner_->power = 0.75F;
    for (int i = 0; i < 30; ++i)
        node_->periodic_task(true);
    EXPECT_TRUE(session_->events().empty());
    tick(10);
    EXPECT_TRUE(session_->events().empty());
    node_->periodic_task(true);
    EXPECT_EQ(session_->events(), strings{value_event("0.75")});
}

TEST_F(FilteredValue, LimitsAreNarrowedToFloat) {
    const auto node = polled_power::create(db_, "data/narrow", 0.1, 0.05, owner_, 0U, 0U);
    node->set_poll_interval(1000);
    owner_->power = 0;
    node->periodic_task(false);
    owner_->power = 0.1F;
    node->periodic_task(false);
    EXPECT_EQ(read(*node), R"({"value":0.0})");
}

TEST_F(FilteredValue, GetterThatStartsToThrowMakesOneErrorEventForEachMessage) {
    start_at(0);
    fail_with(42, "no light");
    tick(3);
    EXPECT_EQ(session_->events(), strings{error_event(42, "no light")});
    fail_with(42, "no answer");
    tick(2);
    fail_with(43, "no answer");
    tick();
    EXPECT_EQ(session_->events(),
              (strings{error_event(42, "no light"), error_event(42, "no answer"),
                       error_event(43, "no answer")}));
}

TEST_F(FilteredValue, ReadInErrorThrowsTheError) {
    start_at(0);
    fail_with(42, "no light");
    tick();
    EXPECT_EQ(test::error_of([&] { read(*node_); }), (test::error{42, "no light"}));
}

TEST_F(FilteredValue, ErrorEventsAreNotReplaceableAndNotInTheHistory) {
    start_at(0);
    const std::size_t before = test::history(db_).size();
    fail_with(42, "no light");
    tick();
    EXPECT_TRUE(session_->replaceable_paths().empty());
    EXPECT_EQ(test::history(db_).size(), before);
}

TEST_F(FilteredValue, RecoveryIsPublishedAtOnceWhateverTheDifference) {
    start_at(0);
    fail_with(42, "no light");
    tick();
    owner_->on_get = nullptr;
    tick();
    EXPECT_EQ(session_->events(), (strings{error_event(42, "no light"), value_event("0.0")}));
}

TEST_F(FilteredValue, RecoveryRestartsTheCount) {
    start_at(0);
    tick_with(0.75F, 10);
    fail_with(42, "no light");
    tick();
    owner_->on_get = nullptr;
    tick();
    session_->clear();
    tick_with(1.5F, 10);
    EXPECT_TRUE(session_->events().empty());
    tick();
    EXPECT_EQ(session_->events(), strings{value_event("1.5")});
}

TEST_F(FilteredValue, SubscribeInErrorGivesTheErrorAsValue) {
    const std::string error = R"({"code":-61,"message":"Value has not been set"})";
    EXPECT_EQ(test::subscribe(*node_, session_), R"({"value":)" + error + "}");
    EXPECT_EQ(session_->events(), strings{R"({"event":"value","path":"data/power","value":)" +
                                          error + R"(,"initial":true})"});
}

TEST_F(FilteredValue, SubscribeGivesThePublishedValueNotTheLatest) {
    start_at(0);
    tick_with(0.75F);
    EXPECT_EQ(test::subscribe(*node_, session_), R"({"value":0.0})");
    EXPECT_EQ(session_->events(),
              strings{R"({"event":"value","path":"data/power","value":0.0,"initial":true})"});
}

TEST_F(FilteredValue, NanIsAnErrorStateThatNamesThePath) {
    start_at(0);
    tick_with(std::nanf(""));
    EXPECT_EQ(session_->events(),
              strings{error_event(-61, "Value returned for path data/power is NaN.")});
}

TEST_F(FilteredValue, InfinityIsAnErrorStateThatNamesThePath) {
    start_at(0);
    tick_with(std::numeric_limits<float>::infinity());
    EXPECT_EQ(session_->events(),
              strings{error_event(-61, "Value returned for path data/power is infinite.")});
}

TEST_F(FilteredValue, VanishedOwnerIsAnErrorState) {
    start_at(0);
    owner_.reset();
    tick();
    EXPECT_EQ(session_->events(), strings{error_event(-2, "Object has been removed")});
}

TEST_F(FilteredValue, WhateverElseTheGetterThrowsIsAnUnknownError) {
    start_at(0);
    owner_->on_get = [] { throw std::runtime_error("text of its own"); };
    tick();
    owner_->on_get = [] { throw dh_client_exception{110, "timed out"}; };
    tick();
    owner_->on_get = [] { throw 5; };
    tick();
    EXPECT_EQ(session_->events(), strings{error_event(-1, "Unknown error!")});
}

TEST_F(FilteredValue, TickDuringATickIsTurnedAway) {
    owner_->on_get = [this] { node_->periodic_task(false); };
    tick();
    EXPECT_EQ(owner_->calls, 1);
}

TEST_F(FilteredValue, TickAfterATickThatFailedIsNotTurnedAway) {
    fail_with(1, "first");
    tick();
    tick();
    EXPECT_EQ(owner_->calls, 2);
}

TEST_F(FilteredValue, GetterRunsWithoutTheNodesMutex) {
    start_at(0);
    std::string seen;
    owner_->on_get = [&] { seen = read(*node_); };
    tick();
    EXPECT_EQ(seen, R"({"value":0.0})");
}

TEST_F(FilteredValue, TicksAndReadsOfSeveralThreadsDoNotDisturbEachOther) {
    start_at(0);
    std::thread reader([&] {
        for (int i = 0; i < 300; ++i) {
            read(*node_);
            test::subscribe(*node_, session_);
        }
    });
    for (int i = 1; i <= 300; ++i)
        tick_with(static_cast<float>(2 * i));
    reader.join();
    EXPECT_EQ(read(*node_), R"({"value":600.0})");
}

TEST_F(FilteredValue, OutsideATreeItPublishesWithoutEvents) {
    polled_power outside(
        "power", {compare_kind::default_limits, 1, 0.5F}, [] { return 7.0F; },
        std::weak_ptr<owner>(owner_), polled_power::bound_type(1U, 2U));
    EXPECT_EQ(read(outside), R"({"value":7.0})");
    owner_->power = 9;
    outside.periodic_task(false);
    EXPECT_EQ(read(outside), R"({"value":9.0})");
    owner_->on_get = [] { throw dh_error(1, "first"); };
    outside.periodic_task(false);
    EXPECT_EQ(test::error_of([&] { read(outside); }), (test::error{1, "first"}));
}

TEST_F(FilteredValue, CannotBeWrittenByClients) {
    EXPECT_EQ(test::error_of([&] { test::write(*node_, "1"); }),
              (test::error{-95, "Operation not supported: data/power"}));
}

TEST_F(FilteredValue, CountsAsANodeThatRunsCodeOfItsOwner) {
    EXPECT_TRUE(node_->runs_owner_code());
    EXPECT_TRUE(node_->subscription_supported());
}

TEST_F(FilteredValue, DescribesItself) {
    EXPECT_EQ(node_->get_info(), "polled volatile value (read, subscribe)");
    EXPECT_EQ(test::info(*node_),
              R"({"type":"polled volatile value","valueType":"float",)"
              R"("capabilities":{"read":true,"subscribe":true},)"
              R"("hysteresis":{"function":"default","ImmediateLimit":"1","delayedLimit":"0.5",)"
              R"("delayCycles":10,"pollInterval":1000}})");
}

TEST_F(FilteredValue, DescriptionOutsideAValueGroupHasNoPollInterval) {
    node_->set_poll_interval(0);
    EXPECT_EQ(test::info(*node_),
              R"({"type":"polled volatile value","valueType":"float",)"
              R"("capabilities":{"read":true,"subscribe":true},)"
              R"("hysteresis":{"function":"default","ImmediateLimit":"1","delayedLimit":"0.5",)"
              R"("delayCycles":10}})");
}

TEST(FilteredValueWithoutLimits, EveryDifferentValueGoesOutAtOnce) {
    dh_db db;
    const auto source = std::make_shared<owner>();
    const auto node = polled_power::create(db, "data/power", source, 0U, 0U);
    node->set_poll_interval(1000);
    node->periodic_task(false);
    const auto session = std::make_shared<test::recording_session>();
    test::subscribe(*node, session);
    session->clear();
    source->power = 1e-30F;
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(session->events().size(), 1U);
}

TEST(FilteredValueWithoutLimits, ComparesTexts) {
    dh_db db;
    const auto source = std::make_shared<owner>();
    const auto node = polled_name::create(db, "data/power", source);
    source->name = "a";
    node->periodic_task(false);
    const auto session = std::make_shared<test::recording_session>();
    test::subscribe(*node, session);
    session->clear();
    node->periodic_task(false);
    EXPECT_TRUE(session->events().empty());
    source->name = "b";
    node->periodic_task(false);
    EXPECT_EQ(session->events(), strings{value_event(R"("b")")});
}

std::string hysteresis_of(compare_kind kind) {
    const pushed_float node("power", {kind, 1.5F, 0.1F}, [] { return 0.0F; });
    const std::string start = R"({"type":"pushed volatile value","valueType":"float",)"
                              R"("capabilities":{"read":true,"subscribe":true},"hysteresis":)";
    const std::string text = test::info(node);
    EXPECT_TRUE(text.starts_with(start)) << text;
    return text.substr(start.size(), text.size() - start.size() - 1);
}

TEST(FilteredValueInfo, NamesEachKindOfComparison) {
    EXPECT_EQ(hysteresis_of(compare_kind::custom_with_limits),
              R"({"function":"custom","ImmediateLimit":"1.5","delayedLimit":"0.1"})");
    EXPECT_EQ(hysteresis_of(compare_kind::custom), R"({"function":"custom"})");
    EXPECT_EQ(hysteresis_of(compare_kind::default_limits),
              R"({"function":"default","ImmediateLimit":"1.5","delayedLimit":"0.1",)"
              R"("delayCycles":10})");
    EXPECT_EQ(hysteresis_of(compare_kind::equal), R"({"function":"equal"})");
    EXPECT_EQ(hysteresis_of(static_cast<compare_kind>(9)), R"({"function":"unknown"})");
}

// What the first value function throws becomes the node's first error.
struct first_fill_row {
    const char* name;
    std::function<float()> function;
    test::error error;
};

class FirstFill : public testing::TestWithParam<first_fill_row> {};

TEST_P(FirstFill, ExceptionBecomesTheFirstError) {
    dh_db db;
    const auto node = pushed_float::create(db, "data/power", GetParam().function);
    EXPECT_EQ(test::error_of([&] { read(*node); }), GetParam().error);
}

const std::error_code no_entry(ENOENT, std::generic_category());

struct bare_exception : std::exception {
    const char* what() const noexcept override { return "bare"; }
};

INSTANTIATE_TEST_SUITE_P(
    Of, FirstFill,
    testing::Values(
        first_fill_row{"DhError", []() -> float { throw dh_error(42, "text"); }, {42, "text"}},
        first_fill_row{"ClientException",
                       []() -> float {
                           throw dh_client_exception{107, "not connected"};
                       },
                       {107, "not connected"}},
        first_fill_row{"SystemError",
                       []() -> float { throw std::system_error(no_entry, "open"); },
                       {ENOENT, "System error (open: " + no_entry.message() + ")"}},
        first_fill_row{"RuntimeError",
                       []() -> float { throw std::runtime_error("text"); },
                       {-1, "Runtime error (text)"}},
        first_fill_row{"LogicError",
                       []() -> float { throw std::invalid_argument("text"); },
                       {-1, "Logic error (text)"}},
        first_fill_row{"StandardException",
                       []() -> float { throw bare_exception(); },
                       {-1, "Generic error (bare)"}},
        first_fill_row{"AnythingElse", []() -> float { throw 5; }, {-1, "Unknown error"}}),
    [](const auto& row) { return row.param.name; });

class PushedValue : public testing::Test {
  protected:
    PushedValue() {
        test::subscribe(*node_, session_);
        session_->clear();
    }

    dh_db db_;
    std::shared_ptr<pushed_float> node_ = pushed_float::create(db_, "data/power");
    std::shared_ptr<test::recording_session> session_ = std::make_shared<test::recording_session>();
};

TEST_F(PushedValue, ReadBeforeTheFirstPushFailsAsNotSet) {
    EXPECT_EQ(test::error_of([&] { read(*node_); }), not_set);
}

TEST_F(PushedValue, TickBeforeTheFirstPushChangesNothing) {
    node_->periodic_task(false);
    EXPECT_EQ(test::error_of([&] { read(*node_); }), not_set);
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(PushedValue, PushGoesOutAtOnceAndOnce) {
    node_->push(0.5F);
    node_->push(0.5F);
    node_->periodic_task(false);
    EXPECT_EQ(session_->events(), strings{value_event("0.5")});
    EXPECT_EQ(read(*node_), R"({"value":0.5})");
}

TEST_F(PushedValue, FirstValueIsThatOfTheGivenFunction) {
    const auto node = pushed_float::create(db_, "data/first", [] { return 2.5F; });
    EXPECT_EQ(read(*node), R"({"value":2.5})");
}

TEST_F(PushedValue, NanAndInfinityAreRefusedAndChangeNothing) {
    node_->push(0.5F);
    session_->clear();
    EXPECT_EQ(test::error_of([&] { node_->push(std::nanf("")); }),
              (test::error{-61, "Argument value is NaN."}));
    EXPECT_EQ(test::error_of([&] { node_->push(-std::numeric_limits<float>::infinity()); }),
              (test::error{-61, "Argument value is infinite."}));
    node_->periodic_task(false);
    EXPECT_EQ(read(*node_), R"({"value":0.5})");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(PushedValue, IntegersAreCompared) {
    const auto node = pushed_unsigned::create(db_, "data/count");
    node->push(7);
    EXPECT_EQ(read(*node), R"({"value":7})");
    EXPECT_EQ(test::info(*node), R"({"type":"pushed volatile value","valueType":"unsigned int",)"
                                 R"("capabilities":{"read":true,"subscribe":true},)"
                                 R"("hysteresis":{"function":"equal"}})");
}

TEST_F(PushedValue, DescribesItself) {
    EXPECT_EQ(node_->get_info(), "pushed volatile value (read, subscribe)");
    EXPECT_EQ(test::info(*node_), R"({"type":"pushed volatile value","valueType":"float",)"
                                  R"("capabilities":{"read":true,"subscribe":true},)"
                                  R"("hysteresis":{"function":"equal"}})");
}

}  // namespace
