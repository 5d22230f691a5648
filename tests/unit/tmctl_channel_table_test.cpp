#include "channel_table.hpp"

#include "live_screen.hpp"
#include "value_text.hpp"
#include "wire.hpp"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using tmctl::channel_readings;
using tmctl::difference_bar;

channel_readings lit_channel() {
    channel_readings channel;
    channel.channel = 7;
    channel.wanted = 3.979400157928467;
    channel.rx = -1.5;
    channel.tx = 4.2294001579284668;
    channel.attenuation = 6.3;
    channel.mode = "power";
    channel.port = "edfa";
    channel.light = true;
    return channel;
}

TEST(TmctlDifferenceBar, IsEmptyAtTheWantedPower) {
    EXPECT_EQ(difference_bar(0.0), "    [   |   ]    ");
    EXPECT_EQ(difference_bar(0.1), "    [   |   ]    ");
}

TEST(TmctlDifferenceBar, GrowsToTheSideOfTheDifference) {
    EXPECT_EQ(difference_bar(0.3), "    [   |#  ]    ");
    EXPECT_EQ(difference_bar(-0.5), "    [ ##|   ]    ");
}

TEST(TmctlDifferenceBar, AtTheEdgeOfTheBandStaysWithinIt) {
    EXPECT_EQ(difference_bar(0.7), "    [   |###]    ");
    EXPECT_EQ(difference_bar(-0.7), "    [###|   ]    ");
}

TEST(TmctlDifferenceBar, JustOutsideOfTheBandCrossesItsEnd) {
    EXPECT_EQ(difference_bar(0.71), "    [   |#####   ");
    EXPECT_EQ(difference_bar(-1.0), "  ######|   ]    ");
}

TEST(TmctlDifferenceBar, FarAwayPointsOut) {
    EXPECT_EQ(difference_bar(1.5), "    [   |#######>");
    EXPECT_EQ(difference_bar(-1e300), "<#######|   ]    ");
}

TEST(TmctlDifferenceBar, OfNoDifferenceIsBlank) {
    EXPECT_EQ(difference_bar(std::nullopt), std::string(17, ' '));
}

TEST(TmctlChannelTable, ShowsAChannelOnALine) {
    EXPECT_THAT(
        tmctl::table({lit_channel()}),
        ElementsAre(
            "ch wanted     rx     tx   diff   att mode  port    state      -1.4 dB    +1.4 dB",
            " 7   3.98  -1.50   4.23  +0.25  6.30 power edfa    fine           [   |#  ]"));
}

TEST(TmctlChannelTable, AMissingValueIsADash) {
    channel_readings channel;
    channel.channel = 12;
    EXPECT_EQ(tmctl::table({channel}).at(1),
              "12      -      -      -      -     - -     -       unknown");
}

TEST(TmctlChannelTable, LongOrWildTextsBreakNoLine) {
    channel_readings channel = lit_channel();
    channel.mode = "\x1b[2J\n" + std::string(1000, 'x');
    const std::string line = tmctl::table({channel}).at(1);
    EXPECT_LE(line.size(), 80U);
    EXPECT_EQ(line.find_first_of("\x1b\n"), std::string::npos);
}

TEST(TmctlChannelTable, IsNoWiderThanATerminal) {
    for (const std::string& line : tmctl::table({lit_channel()}))
        EXPECT_LE(line.size(), 80U);
}

TEST(TmctlChannelTable, JsonHoldsTheValuesAndTheState) {
    json::document object;
    ASSERT_TRUE(wire::parse(tmctl::channel_json(lit_channel()), object));
    EXPECT_EQ(json::to<int>(object["channel"]), 7);
    EXPECT_DOUBLE_EQ(json::to<double>(object["attenuation"]), 6.3);
    EXPECT_NEAR(json::to<double>(object["difference"]), 0.25, 1e-6);
    EXPECT_EQ(json::to<std::string>(object["state"]), "fine");
    EXPECT_TRUE(json::to<bool>(object["light"]));
}

TEST(TmctlChannelTable, JsonOfWhatIsNotKnownIsNull) {
    json::document object;
    ASSERT_TRUE(wire::parse(tmctl::channel_json(channel_readings()), object));
    for (const char* key : {"wanted", "rx", "tx", "difference", "attenuation", "mode", "light"})
        EXPECT_TRUE(object[key].IsNull()) << key;
}

TEST(TmctlSummary, NamesTheLongestTheSlowestAndTheFurthest) {
    channel_readings quick = lit_channel();
    quick.progress = {.to_band = 5,
                      .fine = 7,
                      .first_correction = seconds(100),
                      .last_correction = seconds(140),
                      .band_entered = seconds(110)};
    channel_readings slow = lit_channel();
    slow.channel = 9;
    slow.tx = 3.7;
    slow.progress = {.to_band = 4,
                     .fine = 6,
                     .first_correction = seconds(100),
                     .last_correction = seconds(140),
                     .band_entered = seconds(125)};
    EXPECT_THAT(tmctl::summary({quick, slow}),
                ElementsAre("channels settled           2 (within 0.7 dB)",
                            "most cycles to its band    5, channel 7",
                            "longest way to its band    25.0 s, channel 9",
                            "fine-tuning steps since    6 to 7 a channel",
                            "largest difference left    -0.28 dB, channel 9"));
}

TEST(TmctlSummary, OfNoChannelIsEmpty) {
    EXPECT_THAT(tmctl::summary({}), testing::IsEmpty());
}

class TmctlLiveScreen : public testing::Test {
  protected:
    std::ostringstream out_;
    std::ostringstream err_;
    tmctl::surroundings around_{.out = out_, .err = err_};
};

TEST_F(TmctlLiveScreen, HidesTheCursorAndGivesItBack) {
    around_.terminal = [] { return tmctl::terminal_size{24, 80}; };
    { const tmctl::live_screen screen(around_); }
    EXPECT_EQ(out_.str(), "\x1b[?25l\x1b[?25h");
}

TEST_F(TmctlLiveScreen, DrawsThePictureOverTheOneBefore) {
    around_.terminal = [] { return tmctl::terminal_size{24, 80}; };
    tmctl::live_screen screen(around_);
    screen.show({"a", "b"});
    out_.str("");
    screen.show({"c", "d"});
    EXPECT_EQ(out_.str(), "\r\x1b[2Ac\x1b[K\nd\x1b[K\n\x1b[J");
}

TEST_F(TmctlLiveScreen, ShowsNoMoreThanTheTerminalHasRoomFor) {
    around_.terminal = [] { return tmctl::terminal_size{3, 8}; };
    tmctl::live_screen screen(around_);
    out_.str("");
    screen.show({"abcdefghi", "b", "c", "d"});
    EXPECT_EQ(out_.str(), "abcdefgh\x1b[K\n(3 more)\x1b[K\n\x1b[J");
}

TEST_F(TmctlLiveScreen, WithoutATerminalThePicturesFollowEachOther) {
    {
        tmctl::live_screen screen(around_);
        screen.show({"a"});
        screen.show({"b"});
    }
    EXPECT_EQ(out_.str(), "a\n\nb\n\n");
}

}  // namespace
