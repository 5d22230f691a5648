#include "arguments.hpp"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tmctl::parse_arguments;
using tmctl::usage_error;

std::string complaint(const std::vector<std::string>& words) {
    try {
        parse_arguments(words);
    } catch (const usage_error& error) {
        return error.text;
    }
    return "none";
}

TEST(TmctlArguments, TheDefaultServerIsTheTrafficManagersSocket) {
    const auto parsed = parse_arguments({"get", "control/config/dhReady"});
    EXPECT_EQ(parsed.command, "get");
    EXPECT_THAT(parsed.operands, ElementsAre("control/config/dhReady"));
    EXPECT_THAT(parsed.server.socket, testing::EndsWith("/tmp/device_managers/traffic_manager"));
    EXPECT_TRUE(parsed.server.host.empty());
    ASSERT_TRUE(parsed.wss_edge);
    EXPECT_THAT(parsed.wss_edge->socket, testing::EndsWith("/tmp/device_handlers/wss_edge"));
}

TEST(TmctlArguments, ThePanelAsksTheLedHandler) {
    EXPECT_THAT(parse_arguments({"panel"}).server.socket,
                testing::EndsWith("/tmp/device_handlers/led_velt"));
    EXPECT_EQ(parse_arguments({"--socket", "s", "panel"}).server.socket, "s");
    EXPECT_TRUE(parse_arguments({"panel", "--live", "--interval", "2"}).live);
    EXPECT_EQ(complaint({"panel", "powerLed"}), "panel got too many words");
    EXPECT_EQ(complaint({"panel", "--host", "::1"}), "--host does not go with panel");
    EXPECT_EQ(complaint({"panel", "--until", "dark"}), "--until does not go with panel");
}

TEST(TmctlArguments, OptionsStandBeforeOrBehindTheCommand) {
    EXPECT_TRUE(parse_arguments({"--json", "get", "a"}).json);
    EXPECT_TRUE(parse_arguments({"get", "a", "--json"}).json);
    EXPECT_EQ(parse_arguments({"--socket", "s", "ls"}).server.socket, "s");
}

TEST(TmctlArguments, AHostHasPort5100UnlessToldOtherwise) {
    EXPECT_EQ(parse_arguments({"--host", "::1", "version"}).server.port, 5100U);
    EXPECT_EQ(parse_arguments({"--host", "::1", "--port", "7", "version"}).server.port, 7U);
}

TEST(TmctlArguments, AHostMayCarryItsScope) {
    EXPECT_EQ(parse_arguments({"--host", "fe80::1%eth0", "version"}).server.host, "fe80::1%eth0");
}

TEST(TmctlArguments, TheWssOfAnotherCardIsNotAsked) {
    EXPECT_FALSE(parse_arguments({"--host", "::1", "channels"}).wss_edge);
}

TEST(TmctlArguments, ANegativeNumberIsAValue) {
    EXPECT_THAT(parse_arguments({"set", "a", "-2.5", "b", "-.5"}).operands,
                ElementsAre("a", "-2.5", "b", "-.5"));
}

TEST(TmctlArguments, AfterTwoDashesAllAreWords) {
    EXPECT_THAT(parse_arguments({"set", "a", "--", "--json"}).operands, ElementsAre("a", "--json"));
}

TEST(TmctlArguments, HelpNeedsNoCommand) {
    EXPECT_TRUE(parse_arguments({"--help"}).help);
    EXPECT_TRUE(parse_arguments({"get", "-h"}).help);
}

TEST(TmctlArguments, WhatCannotBeUnderstoodIsRefused) {
    EXPECT_EQ(complaint({}), "a command is needed");
    EXPECT_EQ(complaint({"fetch", "a"}), "unknown command 'fetch'");
    EXPECT_EQ(complaint({"get", "--fast", "a"}), "unknown option '--fast'");
    EXPECT_EQ(complaint({"get"}), "get needs more words");
    EXPECT_EQ(complaint({"version", "a"}), "version got too many words");
    EXPECT_EQ(complaint({"set", "a", "1", "b"}), "set needs a value for each path");
    EXPECT_EQ(complaint({"run", "a", "1", "b", "2"}), "run got too many words");
    EXPECT_EQ(complaint({"watch", "--tree", "a", "b"}), "watch got too many words");
    EXPECT_EQ(complaint({"get", "a", "--live"}), "--live does not go with get");
    EXPECT_EQ(complaint({"channels", "--live", "--json"}), "--live does not go with --json");
    EXPECT_EQ(complaint({"get", "a", "--socket"}), "--socket needs a value");
    EXPECT_EQ(complaint({"get", "a", "--socket", "s", "--host", "::1"}),
              "--socket does not go with --host");
    EXPECT_EQ(complaint({"get", "a", "--port", "7"}), "--port needs --host");
    EXPECT_EQ(complaint({"get", "a", "--host", "10.0.0.1"}), "not an IPv6 address: '10.0.0.1'");
    EXPECT_THAT(complaint({"get", "a", "--host", "::1", "--port", "65536"}),
                HasSubstr("not a number of at most 65535"));
    EXPECT_EQ(complaint({"channels", "--live", "--interval", "nan"}),
              "not a time in seconds: 'nan'");
    EXPECT_EQ(complaint({"channels", "--until", "late"}), "not a state of a channel: 'late'");
}

TEST(TmctlArguments, TextThatIsNotUtf8IsRefused) {
    EXPECT_THAT(complaint({"get", "a\xff"}), HasSubstr("not UTF-8"));
    EXPECT_THAT(complaint({"get", "a", "--socket", "\xff"}), HasSubstr("needs a value"));
}

TEST(TmctlArguments, ControlCharactersOfABadWordAreNotEchoed) {
    EXPECT_EQ(complaint({"a\x1b[2J"}), "unknown command 'a\\u001b[2J'");
}

TEST(TmctlArguments, ChannelsAreNumbersAndRanges) {
    EXPECT_THAT(tmctl::parse_channels({"7", "3-5", "4"}, 48), ElementsAre(3, 4, 5, 7));
    EXPECT_THAT(tmctl::parse_channels({}, 48), testing::IsEmpty());
}

TEST(TmctlArguments, ChannelsThatDoNotExistAreRefused) {
    for (const char* word : {"0", "49", "5-3", "1-", "-3", "x", "", "1-49", "99999999999"})
        EXPECT_THROW(tmctl::parse_channels({word}, 48), usage_error) << word;
}

}  // namespace
