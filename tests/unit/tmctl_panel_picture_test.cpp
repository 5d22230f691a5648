#include "panel_picture.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using testing::Each;
using testing::ElementsAre;
using tmctl::coloured;
using tmctl::front_panel;
using tmctl::led_colour;

void take(front_panel& panel, const std::string& led, const std::string& json_text) {
    json::document value;
    value.Parse(json_text.data(), json_text.size());
    panel.take("config/" + led + "/status", value);
}

TEST(FrontPanel, NothingIsKnownOfItsLedsAtFirst) {
    EXPECT_THAT(front_panel().colours(), Each(led_colour::unknown));
}

TEST(FrontPanel, EachLedHasItsPlace) {
    front_panel panel;
    take(panel, "powerLed", R"("green")");
    take(panel, "statusLed", R"("red")");
    take(panel, "ocmLed/txLed", R"("off")");
    take(panel, "ocmLed/rxLed", R"("green")");
    take(panel, "edfaLed/txLed", R"("yellow")");
    take(panel, "edfaLed/rxLed", R"("off")");
    take(panel, "expressLed/rxLed", R"("green")");
    EXPECT_THAT(picture(panel), ElementsAre("+-----------------------------------------+",
                                            "|  POWER (G)   STATUS (R)                 |",
                                            "|                                         |",
                                            "|             OCM      EDFA    EXPRESS    |",
                                            "|     TX      ( )      (Y)       (?)      |",
                                            "|     RX      (G)      ( )       (G)      |",
                                            "+-----------------------------------------+"));
}

TEST(FrontPanel, WhatIsNoColourIsNotKnown) {
    front_panel panel;
    for (const std::string value :
         {R"("blue")", R"("")", R"("GREEN")", "1", "true", "null", "{}"}) {
        take(panel, "powerLed", R"("green")");
        take(panel, "powerLed", value);
        EXPECT_EQ(panel.colours()[0], led_colour::unknown) << value;
    }
}

TEST(FrontPanel, OtherPathsArePassedOver) {
    front_panel panel;
    take(panel, "fanLed", R"("green")");
    panel.take("", json::value("green"));
    EXPECT_THAT(panel.colours(), Each(led_colour::unknown));
}

TEST(FrontPanel, ColoursStandAroundTheLettersWhichStay) {
    EXPECT_EQ(coloured("| (G) (R)(Y) |"),
              "| \x1b[1;32m(G)\x1b[0m \x1b[1;31m(R)\x1b[0m\x1b[1;33m(Y)\x1b[0m |");
    EXPECT_EQ(coloured("( ) (?) G (G"), "( ) (?) G (G");
    EXPECT_EQ(coloured(""), "");
}

TEST(FrontPanel, LedIsAnObjectOfJson) {
    front_panel panel;
    take(panel, "edfaLed/rxLed", R"("yellow")");
    EXPECT_EQ(led_json(panel, 5), R"({"led":"edfaLed/rxLed","colour":"yellow"})");
    EXPECT_EQ(led_json(panel, 0), R"({"led":"powerLed","colour":"unknown"})");
}

}  // namespace
