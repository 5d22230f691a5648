#include "value_text.hpp"

#include "wire.hpp"

#include <gmock/gmock.h>

namespace {

json::document parsed(std::string_view text) {
    json::document value;
    EXPECT_TRUE(wire::parse(text, value));
    return value;
}

std::string text_of(std::string_view text) {
    return tmctl::value_text(parsed(text));
}

std::string time_of(std::string_view text) {
    const json::document value = parsed(text);
    return tmctl::time_text(&value);
}

TEST(TmctlValueText, AFloatThatTravelledAsADoubleIsShortAgain) {
    EXPECT_EQ(text_of("3.9793999195098877"), "3.9794");
    EXPECT_EQ(text_of("-99.0"), "-99");
}

TEST(TmctlValueText, ADoubleKeepsAllItsDigits) {
    EXPECT_EQ(text_of("0.1"), "0.1");
    EXPECT_EQ(text_of("3.14159265358979"), "3.14159265358979");
}

TEST(TmctlValueText, OtherValuesStandAsTheyAre) {
    EXPECT_EQ(text_of("true"), "true");
    EXPECT_EQ(text_of("null"), "null");
    EXPECT_EQ(text_of("18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(text_of("\"power\""), "power");
    EXPECT_EQ(text_of(R"({"a":[1,"b"]})"), R"({"a":[1,"b"]})");
}

TEST(TmctlValueText, ControlCharactersNeverComeThrough) {
    EXPECT_EQ(text_of(R"("a\u001b[2J\nb\u007f")"), "a\\u001b[2J\\u000ab\\u007f");
    EXPECT_EQ(text_of("\"\u009b31m\""), "\\u009b31m");
    EXPECT_EQ(tmctl::json_text(parsed("[\"\u009b\x7f\\u001b\"]")), R"(["\u009b\u007f\u001B"])");
}

TEST(TmctlValueText, JsonWithEscapedControlCharactersIsStillTheSameValue) {
    const json::document value = parsed("[\"\u0085\x7f\"]");
    EXPECT_EQ(parsed(tmctl::json_text(value)), value);
}

TEST(TmctlValueText, LettersBeyondAsciiStay) {
    EXPECT_EQ(text_of("\"\u00b5W \u00e9\""), "\u00b5W \u00e9");
}

TEST(TmctlValueText, TimesAreUtcWithMilliseconds) {
    EXPECT_EQ(time_of("1795253400123"), "2026-11-21T09:30:00.123Z");
    EXPECT_EQ(time_of("0"), "1970-01-01T00:00:00.000Z");
}

TEST(TmctlValueText, WhatIsNoTimeIsShownAsItIs) {
    EXPECT_EQ(time_of("-1"), "-1");
    EXPECT_EQ(time_of("9223372036854775807"), "9223372036854775807");
    EXPECT_EQ(time_of("\"soon\""), "soon");
    EXPECT_EQ(tmctl::time_text(nullptr), "-");
}

TEST(TmctlValueText, ColumnsAreCountedInCharactersAndNotInBytes) {
    EXPECT_EQ(tmctl::width("\u00b5W"), 2U);
    EXPECT_EQ(tmctl::padded("\u00b5W", 4), "\u00b5W  ");
    EXPECT_EQ(tmctl::cut("\u00b5\u00b5W", 2), "\u00b5\u00b5");
    EXPECT_EQ(tmctl::cell("express mode", 7), "express");
    EXPECT_EQ(tmctl::cell("on", 4), "on  ");
}

}  // namespace
