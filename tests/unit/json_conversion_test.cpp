#include "json.hpp"
#include "node_access.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using test::parsed;

template <class T>
T converted(const std::string& text) {
    return json::to<T>(parsed(text));
}

template <class T>
std::string refusal(const std::string& text) {
    return test::conversion_error_of([&] { json::to<T>(parsed(text)); });
}

template <class T>
std::string as_json(const T& value) {
    json::scratch memory;
    return json::to_text(json::from(value, memory));
}

TEST(JsonFoundName, EachKindOfValueHasItsName) {
    const std::pair<const char*, const char*> names[] = {
        {"null", "null"},
        {"true", "bool"},
        {"false", "bool"},
        {"{}", "object"},
        {"[]", "array"},
        {R"("")", "string"},
        {"0", "32-bit unsigned integer"},
        {"4294967295", "32-bit unsigned integer"},
        {"-1", "32-bit signed integer"},
        {"-2147483648", "32-bit signed integer"},
        {"4294967296", "64-bit unsigned integer"},
        {"18446744073709551615", "64-bit unsigned integer"},
        {"-2147483649", "64-bit signed integer"},
        {"-9223372036854775808", "64-bit signed integer"},
        {"1.5", "float"},
        {"3.4028234e38", "float"},
        {"-3.4028234e38", "float"},
        {"3.5e38", "double"},
        {"-3.5e38", "double"},
        {"18446744073709551616", "float"},
    };
    for (const auto& [text, name] : names)
        EXPECT_STREQ(json::found_name(parsed(text)), name) << text;
}

TEST(JsonToBool, TakesTrueAndFalseOnly) {
    EXPECT_TRUE(converted<bool>("true"));
    EXPECT_FALSE(converted<bool>("false"));
    EXPECT_EQ(refusal<bool>("1"), "expected bool, found 32-bit unsigned integer");
    EXPECT_EQ(refusal<bool>("null"), "expected bool, found null");
    EXPECT_EQ(refusal<bool>(R"("true")"), "expected bool, found string");
}

TEST(JsonToInt, TakesTheSigned32BitRange) {
    EXPECT_EQ(converted<int>("2147483647"), 2147483647);
    EXPECT_EQ(converted<int>("-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(refusal<int>("2147483648"), "expected int, found 32-bit unsigned integer");
    EXPECT_EQ(refusal<int>("-2147483649"), "expected int, found 64-bit signed integer");
    EXPECT_EQ(refusal<int>("1.0"), "expected int, found float");
    EXPECT_EQ(refusal<int>("[]"), "expected int, found array");
}

TEST(JsonToUnsigned, TakesTheUnsigned32BitRange) {
    EXPECT_EQ(converted<unsigned int>("4294967295"), 4294967295U);
    EXPECT_EQ(refusal<unsigned int>("4294967296"), "expected uint, found 64-bit unsigned integer");
    EXPECT_EQ(refusal<unsigned int>("-1"), "expected uint, found 32-bit signed integer");
    EXPECT_EQ(refusal<unsigned int>("{}"), "expected uint, found object");
}

TEST(JsonToLongLong, TakesTheSigned64BitRange) {
    EXPECT_EQ(converted<long long>("9223372036854775807"), std::numeric_limits<long long>::max());
    EXPECT_EQ(converted<long long>("-9223372036854775808"), std::numeric_limits<long long>::min());
    EXPECT_EQ(refusal<long long>("9223372036854775808"),
              "expected int64, found 64-bit unsigned integer");
    EXPECT_EQ(refusal<long long>("1e3"), "expected int64, found float");
}

TEST(JsonToFloat, TakesEveryNumberThatADoubleHolds) {
    EXPECT_EQ(converted<float>("1.5"), 1.5F);
    EXPECT_EQ(converted<float>("-7"), -7.0F);
    EXPECT_EQ(converted<float>("9007199254740992"), 9007199254740992.0F);
    EXPECT_EQ(converted<float>("16777217"), 16777216.0F);
    EXPECT_EQ(converted<float>("0.1"), 0.1F);
}

TEST(JsonToFloat, RefusesAnIntegerThatADoubleCannotHold) {
    EXPECT_EQ(refusal<float>("9007199254740993"), "expected float, found 64-bit unsigned integer");
    EXPECT_EQ(refusal<float>("-9007199254740993"), "expected float, found 64-bit signed integer");
    EXPECT_EQ(refusal<float>("18446744073709551615"),
              "expected float, found 64-bit unsigned integer");
    EXPECT_EQ(refusal<float>("9223372036854775807"),
              "expected float, found 64-bit unsigned integer");
}

TEST(JsonToFloat, RefusesWhatIsNoNumber) {
    EXPECT_EQ(refusal<float>(R"("1.5")"), "expected float, found string");
    EXPECT_EQ(refusal<float>("true"), "expected float, found bool");
}

TEST(JsonToDouble, TakesNumbersAndNamesItself) {
    EXPECT_EQ(converted<double>("1e300"), 1e300);
    EXPECT_EQ(converted<double>("-2"), -2.0);
    EXPECT_EQ(refusal<double>("null"), "expected double, found null");
}

TEST(JsonToText, GivesTheTextOfAString) {
    EXPECT_EQ(converted<std::string>(R"("a\u0000b")"), std::string("a\0b", 3));
    EXPECT_EQ(converted<std::string>(R"("")"), "");
}

TEST(JsonToText, GivesTheCompactTextOfEveryOtherValue) {
    EXPECT_EQ(converted<std::string>("null"), "null");
    EXPECT_EQ(converted<std::string>("true"), "true");
    EXPECT_EQ(converted<std::string>("-12"), "-12");
    EXPECT_EQ(converted<std::string>(R"({ "a" : [ 1 , "b" ] })"), R"({"a":[1,"b"]})");
}

TEST(JsonToText, LongValuesAreWhole) {
    const std::string list = "[" + std::string(3000, '[') + std::string(3000, ']') + "]";
    json::document deep;
    deep.Parse(list.c_str());
    EXPECT_EQ(json::to<std::string>(deep), list);
}

TEST(JsonFrom, IntegersAndBoolsAreThemselves) {
    EXPECT_EQ(as_json(true), "true");
    EXPECT_EQ(as_json(-1), "-1");
    EXPECT_EQ(as_json(4294967295U), "4294967295");
    EXPECT_EQ(as_json(std::numeric_limits<long long>::min()), "-9223372036854775808");
}

TEST(JsonFrom, FloatIsWidenedNotRounded) {
    EXPECT_EQ(as_json(0.1F), "0.10000000149011612");
    EXPECT_EQ(as_json(0.1), "0.1");
    EXPECT_EQ(as_json(-0.0F), "-0.0");
}

TEST(JsonFrom, FloatComesBackUnchanged) {
    for (const float value : {0.1F, -17.3F, 1e-40F, 3.4028235e38F, 16777216.0F})
        EXPECT_EQ(converted<float>(as_json(value)), value);
}

TEST(JsonFrom, NanAndInfinityBecomeNull) {
    EXPECT_EQ(as_json(std::nanf("")), "null");
    EXPECT_EQ(as_json(std::numeric_limits<double>::infinity()), "null");
}

TEST(JsonFrom, TextIsCopied) {
    json::scratch memory;
    std::string text = "before";
    const json::value value = json::from(text, memory);
    text = "after!";
    EXPECT_EQ(json::to_text(value), R"("before")");
}

TEST(JsonAdd, KeyIsCopiedAndMayBeEmpty) {
    json::document object(rapidjson::kObjectType);
    std::string key = "key";
    json::add(object, key, 1, object.GetAllocator());
    key = "xxx";
    json::add(object, "", 2, object.GetAllocator());
    EXPECT_EQ(json::to_text(object), R"({"key":1,"":2})");
}

TEST(JsonFind, GivesTheMemberOrNull) {
    const json::document object = parsed(R"({"a":1})");
    ASSERT_NE(json::find(object, "a"), nullptr);
    EXPECT_EQ(json::find(object, "a")->GetInt(), 1);
    EXPECT_EQ(json::find(object, "b"), nullptr);
    EXPECT_EQ(json::find(parsed("[1]"), "a"), nullptr);
}

TEST(Utf8, TakesEveryLengthOfCharacterAndTheLastOne) {
    EXPECT_TRUE(json::is_utf8(""));
    EXPECT_TRUE(json::is_utf8("a\xc3\xa5\xe2\x82\xac\xf0\x9f\x98\x80"));
    EXPECT_TRUE(json::is_utf8("\xf4\x8f\xbf\xbf"));
}

TEST(Utf8, RefusesWhatIsNoCharacter) {
    for (const char* text : {"\x80", "\xc3", "\xc0\x80", "\xe0\x9f\xbf", "\xed\xa0\x80",
                             "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xff", "a\xc3(b"})
        EXPECT_FALSE(json::is_utf8(text)) << text;
}

TEST(Utf8, BadBytesOfATextBecomeTheReplacementCharacter) {
    EXPECT_EQ(json::as_utf8("a\xff\xc3\xa5\x80z"), "a\xef\xbf\xbd\xc3\xa5\xef\xbf\xbdz");
    json::scratch memory;
    EXPECT_EQ(json::to_text(json::from(std::string("\xff"), memory)), "\"\xef\xbf\xbd\"");
}

}  // namespace
