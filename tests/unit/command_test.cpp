#include "command.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using dh::api::command;

class owner {
  public:
    bool measure(bool start) {
        ++calls;
        if (refuses)
            throw dh_error(7, "busy");
        return start;
    }
    bool save(int number) {
        ++calls;
        return number == -5;
    }

    int calls = 0;
    bool refuses = false;
};

class Command : public testing::Test {
  protected:
    std::shared_ptr<owner> owner_ = std::make_shared<owner>();
    dh_db db_;
    std::shared_ptr<command<& owner::measure>> node_ =
        command<&owner::measure>::create(db_, "command/measure", owner_);
};

TEST_F(Command, RunGivesTheResultOfTheOwner) {
    EXPECT_EQ(test::run(*node_, "true"), R"({"value":true})");
    EXPECT_EQ(test::run(*node_, "false"), R"({"value":false})");
    EXPECT_EQ(owner_->calls, 2);
}

TEST_F(Command, TheSameArgumentTwiceRunsTwice) {
    test::run(*node_, "true");
    test::run(*node_, "true");
    EXPECT_EQ(owner_->calls, 2);
}

TEST_F(Command, ArgumentOfTheWrongTypeDoesNotTouchTheOwner) {
    EXPECT_EQ(test::conversion_error_of([&] { test::run(*node_, "1"); }),
              "expected bool, found 32-bit unsigned integer");
    EXPECT_EQ(owner_->calls, 0);
}

TEST_F(Command, TakesIntegers) {
    const auto save = command<&owner::save>::create(db_, "command/save", owner_);
    EXPECT_EQ(test::run(*save, "-5"), R"({"value":true})");
    EXPECT_EQ(test::conversion_error_of([&] { test::run(*save, "2147483648"); }),
              "expected int, found 32-bit unsigned integer");
}

TEST_F(Command, FailsOnceTheOwnerIsGone) {
    owner_.reset();
    EXPECT_EQ(test::error_of([&] { test::run(*node_, "true"); }),
              (test::error{-2, "Object has been removed"}));
}

TEST_F(Command, WrongArgumentIsReportedBeforeAMissingOwner) {
    owner_.reset();
    EXPECT_NE(test::conversion_error_of([&] { test::run(*node_, "1"); }), "");
}

TEST_F(Command, ExceptionOfTheOwnerGoesToTheWriter) {
    owner_->refuses = true;
    EXPECT_EQ(test::error_of([&] { test::run(*node_, "true"); }), (test::error{7, "busy"}));
}

TEST_F(Command, CannotBeReadSetOrSubscribed) {
    const test::error refused{-95, "Operation not supported: command/measure"};
    const auto session = std::make_shared<test::recording_session>();
    EXPECT_EQ(test::error_of([&] { test::read(*node_); }), refused);
    EXPECT_EQ(test::error_of([&] { test::write(*node_, "true"); }), refused);
    EXPECT_EQ(test::error_of([&] { test::subscribe(*node_, session); }), refused);
    EXPECT_EQ(owner_->calls, 0);
}

TEST_F(Command, IsAWriteWithAResponse) {
    EXPECT_TRUE(node_->write_returns_response());
    EXPECT_TRUE(node_->runs_owner_code());
    EXPECT_FALSE(node_->subscription_supported());
}

TEST_F(Command, DescribesItself) {
    EXPECT_EQ(node_->get_info(), "command value returning response (write)");
    EXPECT_EQ(test::info(*node_), R"({"type":"command","valueType":"bool","returnType":"bool",)"
                                  R"("capabilities":{"write":true}})");
    const auto save = command<&owner::save>::create(db_, "command/save", owner_);
    EXPECT_EQ(test::info(*save), R"({"type":"command","valueType":"int","returnType":"bool",)"
                                 R"("capabilities":{"write":true}})");
}

}  // namespace
