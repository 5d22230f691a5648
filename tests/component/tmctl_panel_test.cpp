// The panel that the tool draws, of a handler made in the test.
#include "scripted_handler.hpp"
#include "test_root.hpp"
#include "tmctl_runs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace exit_status = tmctl::exit_status;
using test::outcome;
using test::running_tool;
using testing::HasSubstr;
using testing::Not;

class TmctlPanel : public testing::Test {
  protected:
    TmctlPanel() {
        test::empty_root();
        handler_.emplace("/tmp/device_handlers/led_velt");
        for (const std::string led :
             {"powerLed", "statusLed", "ocmLed/txLed", "ocmLed/rxLed", "edfaLed/txLed",
              "edfaLed/rxLed", "expressLed/txLed", "expressLed/rxLed"})
            light(led, "off");
        light("powerLed", "green");
        light("ocmLed/rxLed", "yellow");
    }

    void light(const std::string& led, const std::string& colour) {
        handler_->set("config/" + led + "/status", colour);
    }

    static tmctl::terminal_size wide_terminal() { return {24, 80}; }

    std::optional<test::scripted_handler> handler_;
};

TEST_F(TmctlPanel, IsDrawnOnceWithLettersForColours) {
    const outcome shown = test::run({"panel"});
    EXPECT_EQ(shown.status, exit_status::done);
    EXPECT_EQ(shown.out,
              "+-----------------------------------------+\n"
              "|  POWER (G)   STATUS ( )                 |\n"
              "|                                         |\n"
              "|             OCM      EDFA    EXPRESS    |\n"
              "|     TX      ( )      ( )       ( )      |\n"
              "|     RX      (Y)      ( )       ( )      |\n"
              "+-----------------------------------------+\n");
    EXPECT_EQ(shown.err, "");
}

TEST_F(TmctlPanel, HasItsColoursWhereTheyAreShown) {
    running_tool tool({"panel"}, wide_terminal);
    EXPECT_EQ(tool.join(), exit_status::done);
    EXPECT_THAT(tool.out(), HasSubstr("POWER \x1b[1;32m(G)\x1b[0m   STATUS ( )"));
    EXPECT_THAT(tool.out(), HasSubstr("\x1b[1;33m(Y)\x1b[0m"));
}

TEST_F(TmctlPanel, AsJsonIsAnObjectALed) {
    const outcome shown = test::run({"--json", "panel"});
    EXPECT_EQ(shown.status, exit_status::done);
    EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 8);
    EXPECT_THAT(shown.out, HasSubstr("{\"led\":\"ocmLed/rxLed\",\"colour\":\"yellow\"}\n"));
}

TEST_F(TmctlPanel, LedThatCannotBeReadIsReportedAndTheOthersAreShown) {
    handler_->set_error("config/statusLed/status", -5, "stuck");
    const outcome shown = test::run({"panel"});
    EXPECT_EQ(shown.status, exit_status::failed);
    EXPECT_THAT(shown.out, HasSubstr("POWER (G)   STATUS (?)"));
    EXPECT_EQ(shown.err, "tmctl: config/statusLed/status: -5 stuck\n");
}

TEST_F(TmctlPanel, HandlerThatIsAwayIsNotConnected) {
    handler_.reset();
    EXPECT_EQ(test::run({"panel"}).status, exit_status::not_connected);
    EXPECT_EQ(test::run({"panel", "--live"}).status, exit_status::not_connected);
}

TEST_F(TmctlPanel, LiveFollowsTheLedsUntilItIsInterrupted) {
    running_tool tool({"panel", "--live", "--interval", "0.01"}, wide_terminal);
    ASSERT_TRUE(tool.shows("POWER \x1b[1;32m(G)\x1b[0m   STATUS ( )"));
    light("statusLed", "red");
    EXPECT_TRUE(tool.shows("STATUS \x1b[1;31m(R)\x1b[0m"));
    light("powerLed", "blue");
    EXPECT_TRUE(tool.shows("POWER (?)"));
    tool.interrupt();
    EXPECT_EQ(tool.join(), exit_status::done);
    EXPECT_THAT(tool.out(), HasSubstr("\x1b[?25h"));  // the cursor is back
}

TEST_F(TmctlPanel, LivePicturesFollowEachOtherPlainlyWhereThereIsNoTerminal) {
    running_tool tool({"panel", "--live", "--interval", "0.01"});
    ASSERT_TRUE(tool.shows("POWER (G)   STATUS ( )"));
    light("statusLed", "green");
    EXPECT_TRUE(tool.shows("POWER (G)   STATUS (G)"));
    tool.interrupt();
    EXPECT_EQ(tool.join(), exit_status::done);
    EXPECT_THAT(tool.out(), Not(HasSubstr("\x1b")));
}

// Colours take no room.
TEST_F(TmctlPanel, LivePictureIsCutToTheWidthOfTheTerminal) {
    running_tool tool({"panel", "--live", "--interval", "0.01"}, [] {
        return tmctl::terminal_size{24, 12};
    });
    EXPECT_TRUE(tool.shows("|  POWER \x1b[1;32m(G)\x1b[0m\x1b[K\n"));
    tool.interrupt();
    tool.join();
    EXPECT_THAT(tool.out(), Not(HasSubstr("STATUS")));
}

TEST_F(TmctlPanel, LiveEndsWithItsHandler) {
    running_tool tool({"panel", "--live", "--interval", "0.01"});
    ASSERT_TRUE(tool.shows("POWER (G)"));
    handler_.reset();
    EXPECT_EQ(tool.join(), exit_status::not_connected);
}

}  // namespace
