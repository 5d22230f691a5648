#include "value_line.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

// Some compilers take the states of an expression for uninitialised when the
// address sanitizer is in use.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wunknown-warning-option"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

namespace {

// The parts as text, "-" for no match.
std::string match(std::string_view line, std::string_view key) {
    const auto found = match_value_line(line, key);
    if (!found)
        return "-";
    return std::string(found->key_and_separator) + "|" + std::string(found->value);
}

TEST(ValueLine, AnyOneCharacterSeparatesKeyAndValue) {
    EXPECT_EQ(match("key\t 40", "key"), "key\t| 40");
    EXPECT_EQ(match("key=40", "key"), "key=|40");
    EXPECT_EQ(match("key40", "key"), "key4|0");
    EXPECT_EQ(match("key\xFF"
                    "40",
                    "key"),
              "key\xFF|40");
}

TEST(ValueLine, ValueHasAtLeastOneCharacter) {
    EXPECT_EQ(match("key=", "key"), "-");
    EXPECT_EQ(match("key", "key"), "-");
    EXPECT_EQ(match("ke", "key"), "-");
    EXPECT_EQ(match("", "key"), "-");
}

TEST(ValueLine, KeyStandsAtTheStart) {
    EXPECT_EQ(match(" key=40", "key"), "-");
    EXPECT_EQ(match("eq_key=40", "key"), "-");
}

TEST(ValueLine, EndsBeforeACarriageReturn) {
    EXPECT_EQ(match("key=40\r", "key"), "key=|40");
    EXPECT_EQ(match("key=\r", "key"), "-");
    EXPECT_EQ(match("key\r40", "key"), "-");
}

TEST(ValueLine, LineOfMegabytesIsMatched) {
    const std::string value(std::size_t{4} << 20, 'x');
    EXPECT_EQ(match("key=" + value, "key"), "key=|" + value);
}

// Short lines of the bytes that matter, many of them near to a match.
std::string random_line(std::mt19937& random, const std::string& key) {
    constexpr std::string_view bytes("key=\t \r\0\v\f\x1c\x7f\x80\x85\xa8\xc2\xe2\xff.(^$", 23);
    std::string line = random() % 4 != 0 ? key : "";
    for (std::size_t left = random() % 6; left > 0; --left)
        line += random() % 3 == 0 ? static_cast<char>(random() % 256) : bytes[random() % 23];
    std::erase(line, '\n');
    if (random() % 8 == 0)
        line.erase(0, 1);
    return line;
}

TEST(ValueLine, MatchesAsTheExpressionDoes) {
    std::mt19937 random(20261121);
    unsigned matches = 0;
    for (const std::string key : {"k", "key", "par_wanted_power_1_ch"}) {
        const std::regex expression("(^" + key + ".)(.+)");
        for (unsigned round = 0; round < 20000; ++round) {
            const std::string line = random_line(random, key);
            std::smatch wanted;
            const bool found = std::regex_search(line, wanted, expression);
            ASSERT_EQ(match(line, key), found ? wanted.str(1) + "|" + wanted.str(2) : "-")
                << testing::PrintToString(line);
            matches += found ? 1 : 0;
        }
    }
    EXPECT_GT(matches, 10000U);
    EXPECT_LT(matches, 50000U);
}

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty())
        lines.emplace_back(take_line(text));
    return lines;
}

TEST(ValueLine, LinesEndAtTheirLineEndAndTheLastMayLackOne) {
    using lines = std::vector<std::string>;
    EXPECT_EQ(lines_of(""), lines{});
    EXPECT_EQ(lines_of("\n"), lines{""});
    EXPECT_EQ(lines_of("a"), lines{"a"});
    EXPECT_EQ(lines_of("a\n"), lines{"a"});
    EXPECT_EQ(lines_of("\na\n\nb"), (lines{"", "a", "", "b"}));
}

}  // namespace
