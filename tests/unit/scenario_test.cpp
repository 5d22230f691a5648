#include "scenario.hpp"
#include "card_kind.hpp"
#include "pluggable_modules.hpp"

#include "log_capture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace simulator;

constexpr double close = 1e-9;

// The error's text, or nothing where the text is a scenario.
std::string refusal_of(const std::string& text) {
    try {
        parse_scenario(text);
    } catch (const scenario_error& error) {
        return error.what();
    }
    return {};
}

std::string refusal_of_action(const std::string& members) {
    return refusal_of(R"({"actions":[{"time":1,"action":"cut_fibre"},{)" + members + "}]}");
}

class Player : public testing::Test {
  protected:
    void play(const std::string& actions) {
        player_.emplace(parse_scenario("{\"actions\":[" + actions + "]}").on_plant);
    }
    bool advance(double now) { return player_->advance(controls, now); }

    plant_controls controls = default_controls(1);

  private:
    test::log_capture log_;
    std::optional<plant_player> player_;
};

TEST(ScenarioFile, EmptyListOfActionsIsAScenario) {
    const scenario parsed = parse_scenario(R"({"description":"quiet","actions":[]})");
    EXPECT_TRUE(parsed.on_plant.empty());
    EXPECT_TRUE(parsed.on_handlers.empty());
}

TEST(ScenarioFile, ActionsAreSortedByTimeAndKeepTheirOrderWithinOne) {
    const scenario parsed = parse_scenario(R"({"actions":[
        {"time":5,"action":"booster_on"},
        {"time":2.5,"action":"cut_fibre"},
        {"time":5,"action":"booster_off"}]})");
    ASSERT_EQ(parsed.on_plant.size(), 3U);
    EXPECT_EQ(parsed.on_plant[0].name, "cut_fibre");
    EXPECT_EQ(parsed.on_plant[0].time, 2.5);
    EXPECT_EQ(parsed.on_plant[1].name, "booster_on");
    EXPECT_EQ(parsed.on_plant[2].name, "booster_off");
}

TEST(ScenarioFile, ChannelsAreOneOrAListOrAll) {
    const auto channels = [](const std::string& text) {
        const scenario parsed = parse_scenario(
            R"({"actions":[{"time":0,"action":"light_channels","channels":)" + text + "}]}");
        return std::get<light_action>(parsed.on_plant.at(0).action).channels;
    };
    EXPECT_EQ(channels("48").to_ullong(), std::uint64_t{1} << 48);
    EXPECT_EQ(channels("[1,2,2]").to_ullong(), 0b110U);
    EXPECT_EQ(channels("\"all\"").count(), 48U);
    EXPECT_FALSE(channels("\"all\"").test(0));
}

// The actions on handlers of a card that has two.
std::vector<timed_handler_action> handler_actions(const std::string& actions) {
    return parse_scenario("{\"actions\":[" + actions + "]}", {"booster", "ppm/0"}).on_handlers;
}

std::string refusal_of_handler_action(const std::string& members) {
    try {
        handler_actions(R"({"time":1,)" + members + "}");
    } catch (const scenario_error& error) {
        return error.what();
    }
    return {};
}

TEST(ScenarioFile, ActionsOnHandlersAndOnTheLightAreKeptApart) {
    const scenario parsed = parse_scenario(R"({"actions":[
        {"time":5,"action":"stop_handler","handler":"ppm/0"},
        {"time":2,"action":"cut_fibre"},
        {"time":1,"action":"start_handler","handler":"ppm/0"}]})",
                                           {"ppm/0"});
    ASSERT_EQ(parsed.on_plant.size(), 1U);
    ASSERT_EQ(parsed.on_handlers.size(), 2U);
    EXPECT_EQ(parsed.on_handlers[0].name, "start_handler");
    EXPECT_EQ(parsed.on_handlers[0].time, 1.0);
    EXPECT_EQ(parsed.on_handlers[1].action.handler, "ppm/0");
}

TEST(ScenarioFile, EveryActionOnAHandlerIsKnownByItsName) {
    const auto of = [](const std::string& name, const std::string& more = {}) {
        return handler_actions(R"({"time":1,"handler":"booster","action":")" + name + '"' + more +
                               "}")
            .at(0)
            .action;
    };
    EXPECT_EQ(of("stop_handler").what, handler_change::stop);
    EXPECT_EQ(of("start_handler").what, handler_change::start);
    EXPECT_EQ(of("restart_handler").what, handler_change::restart);
    EXPECT_EQ(of("freeze_handler").what, handler_change::freeze);
    EXPECT_EQ(of("thaw_handler").what, handler_change::thaw);
    EXPECT_EQ(of("slow_handler", R"(,"delay":1.5)").what, handler_change::slow);
    EXPECT_EQ(of("slow_handler", R"(,"delay":1.5)").delay, 1.5);
    for (const auto& [name, what] : {std::pair{"fail_path", handler_change::fail_path},
                                     {"mistype_path", handler_change::mistype_path},
                                     {"heal_path", handler_change::heal_path}}) {
        EXPECT_EQ(of(name, R"(,"path":"a/b c/d")").what, what);
        EXPECT_EQ(of(name, R"(,"path":"a/b c/d")").path, "a/b c/d");
    }
}

TEST(BadScenarioFile, HandlerThatTheCardDoesNotHaveIsRefused) {
    EXPECT_EQ(refusal_of_handler_action(R"("action":"stop_handler","handler":"sim")"),
              "actions[0]: there is no handler \"sim\"; there are: booster, ppm/0");
    EXPECT_NE(refusal_of_handler_action(R"("action":"stop_handler","handler":"booste")"), "");
    EXPECT_NE(refusal_of_handler_action(R"("action":"stop_handler","handler":"")"), "");
    EXPECT_NE(refusal_of_handler_action(R"("action":"stop_handler","handler":"booster\u0000")"),
              "");
}

TEST(BadScenarioFile, MembersThatDoNotFitTheActionOnAHandlerAreRefused) {
    EXPECT_EQ(refusal_of_handler_action(R"("action":"freeze_handler")"),
              "actions[0]: \"handler\" is missing");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"freeze_handler","handler":1)"),
              "actions[0]: \"handler\" is no text");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"stop_handler","handler":"booster","delay":1)"),
              "actions[0]: has no use for \"delay\"");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"slow_handler","handler":"booster")"),
              "actions[0]: \"delay\" is missing");
    EXPECT_EQ(
        refusal_of_handler_action(R"("action":"slow_handler","handler":"booster","delay":60.5)"),
        "actions[0]: \"delay\" is 60.5, outside 0 to 60");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"fail_path","handler":"booster")"),
              "actions[0]: \"path\" is missing");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"fail_path","handler":"booster","path":7)"),
              "actions[0]: \"path\" is no text");
    EXPECT_EQ(refusal_of_handler_action(R"("action":"heal_path","handler":"booster","path":" ")"),
              "actions[0]: \"path\" is empty");
}

TEST(BadScenarioFile, WhatIsNotJsonIsRefusedWithItsLine) {
    EXPECT_THAT(refusal_of("{\n\"actions\": [\n}"), testing::StartsWith("is not JSON: line 3: "));
    EXPECT_THAT(refusal_of(""), testing::StartsWith("is not JSON"));
    EXPECT_THAT(refusal_of("{\"actions\":[]} x"), testing::StartsWith("is not JSON"));
    EXPECT_THAT(refusal_of("{\"actions\":[],\"description\":\"\xff\"}"),
                testing::StartsWith("is not JSON"));
    EXPECT_NE(refusal_of(std::string("{\"actions\":[]}\0", 15)), "");
}

TEST(BadScenarioFile, DeepNestingIsRefused) {
    constexpr std::size_t depth = 200'000;
    EXPECT_THAT(refusal_of(std::string(depth, '[') + std::string(depth, ']')),
                testing::StartsWith("is nested deeper than 64"));
    EXPECT_THAT(refusal_of(std::string(depth, '[')), testing::StartsWith("is not JSON"));
}

TEST(BadScenarioFile, WrongShapeOfTheFileIsRefused) {
    EXPECT_EQ(refusal_of("[]"), "the file: is no object");
    EXPECT_EQ(refusal_of("{}"), "the file: \"actions\" is missing");
    EXPECT_EQ(refusal_of(R"({"actions":{}})"), "the file: \"actions\" is no list");
    EXPECT_EQ(refusal_of(R"({"actions":[],"acts":1})"), "the file: has no use for \"acts\"");
    EXPECT_EQ(refusal_of(R"({"actions":[],"description":1})"),
              "the file: \"description\" is no text");
    EXPECT_EQ(refusal_of(R"({"actions":[1]})"), "actions[0]: is no object");
}

TEST(BadScenarioFile, TooManyActionsAreRefused) {
    std::string text = R"({"actions":[{"time":1,"action":"cut_fibre"})";
    for (std::size_t i = 0; i < max_scenario_actions; ++i)
        text += R"(,{"time":1,"action":"cut_fibre"})";
    EXPECT_EQ(refusal_of(text + "]}"), "the file: \"actions\" has more than 10000 entries");
}

TEST(BadScenarioFile, TheEntryThatIsWrongIsNamed) {
    EXPECT_EQ(refusal_of_action(R"("time":1,"action":"explode")"),
              "actions[1]: there is no action \"explode\"");
    EXPECT_EQ(refusal_of_action(R"("time":1)"), "actions[1]: \"action\" is missing");
    EXPECT_EQ(refusal_of_action(R"("time":1,"action":7)"), "actions[1]: \"action\" is no text");
    EXPECT_EQ(refusal_of_action(R"("action":"cut_fibre")"), "actions[1]: \"time\" is missing");
    EXPECT_EQ(refusal_of_action(R"("time":"1","action":"cut_fibre")"),
              "actions[1]: \"time\" is no number");
    EXPECT_EQ(refusal_of_action(R"("time":1,"action":"cut_fibre","channels":1)"),
              "actions[1]: has no use for \"channels\"");
}

TEST(BadScenarioFile, ALongNameIsNotRepeatedInFull) {
    const std::string text =
        refusal_of_action(R"("time":1,"action":")" + std::string(100'000, 'x') + '"');
    EXPECT_LT(text.size(), 200U);
}

TEST(BadScenarioFile, NumbersOutsideTheirRangeAreRefused) {
    EXPECT_EQ(refusal_of_action(R"("time":-0.5,"action":"cut_fibre")"),
              "actions[1]: \"time\" is -0.5, outside 0 to 1000000000");
    EXPECT_NE(refusal_of_action(R"("time":1e300,"action":"cut_fibre")"), "");
    EXPECT_NE(refusal_of_action(R"("time":1e400,"action":"cut_fibre")"), "");
    EXPECT_NE(refusal_of_action(R"("time":1,"action":"set_span_loss","loss":-1)"), "");
    EXPECT_NE(refusal_of_action(R"("time":1,"action":"set_booster_gain","gain":36)"), "");
    EXPECT_NE(refusal_of_action(R"("time":1,"action":"change_span_loss","change":61)"), "");
    EXPECT_NE(refusal_of_action(R"("time":1,"action":"change_span_loss","change":1,"over":-1)"),
              "");
    EXPECT_NE(refusal_of_action(R"("time":1,"action":"set_launch_power","channels":1,"power":21)"),
              "");
}

TEST(BadScenarioFile, WhatIsNoChannelIsRefused) {
    for (const std::string channels :
         {"0", "49", "-1", "1.5", "\"some\"", "[]", "[1,49]", "[[1]]", "true", "null"})
        EXPECT_NE(refusal_of_action(R"("time":1,"action":"light_channels","channels":)" + channels),
                  "")
            << channels;
}

class ScenarioOnDisk : public testing::Test {
  protected:
    ScenarioOnDisk()
        : file_(std::filesystem::temp_directory_path() /
                ("scenario_test_" + std::to_string(getpid()) + ".json")) {}
    ~ScenarioOnDisk() override { std::filesystem::remove(file_); }

    std::string refusal_of_file(const std::string& content) {
        std::ofstream(file_, std::ios::binary) << content;
        try {
            load_scenario(file_.string(), {});
        } catch (const scenario_error& error) {
            return error.what();
        }
        return {};
    }

    const std::filesystem::path file_;
};

TEST_F(ScenarioOnDisk, IsLoaded) {
    EXPECT_EQ(refusal_of_file(R"({"actions":[]})"), "");
}

TEST_F(ScenarioOnDisk, RefusalNamesTheFile) {
    EXPECT_EQ(refusal_of_file("{}"),
              "scenario " + file_.string() + ": the file: \"actions\" is missing");
}

TEST_F(ScenarioOnDisk, AFileLongerThanTheLimitIsRefused) {
    EXPECT_THAT(refusal_of_file(std::string(max_scenario_bytes + 1, ' ')),
                testing::HasSubstr("is longer than 1048576 bytes"));
}

TEST_F(ScenarioOnDisk, AFileThatCannotBeReadIsRefused) {
    EXPECT_THROW(load_scenario("/no/such/file", {}), scenario_error);
    EXPECT_THROW(load_scenario("/", {}), scenario_error);
    EXPECT_THROW(load_scenario("/dev/zero", {}), scenario_error);
}

TEST_F(Player, ActionHappensAtItsTimeAndOnce) {
    play(R"({"time":10,"action":"cut_fibre"})");
    EXPECT_FALSE(advance(9.999));
    EXPECT_TRUE(controls.fibre_intact);
    EXPECT_TRUE(advance(10.0));
    EXPECT_FALSE(controls.fibre_intact);
    controls.fibre_intact = true;
    EXPECT_FALSE(advance(11.0));
    EXPECT_TRUE(controls.fibre_intact);
}

TEST_F(Player, LateLookCarriesOutAllThatWasDueInOrder) {
    play(R"({"time":1,"action":"booster_off"},{"time":2,"action":"booster_on"},
            {"time":3,"action":"set_span_loss","loss":7},{"time":90,"action":"cut_fibre"})");
    EXPECT_TRUE(advance(50.0));
    EXPECT_FALSE(controls.booster_fault);
    EXPECT_EQ(controls.span_loss, 7.0);
    EXPECT_TRUE(controls.fibre_intact);
}

TEST_F(Player, ChannelsGoAndCome) {
    play(R"({"time":1,"action":"darken_channels","channels":[1,2]},
            {"time":2,"action":"light_channels","channels":2})");
    advance(1.0);
    EXPECT_FALSE(controls.channels[1].lit);
    EXPECT_FALSE(controls.channels[2].lit);
    EXPECT_TRUE(controls.channels[3].lit);
    advance(2.0);
    EXPECT_FALSE(controls.channels[1].lit);
    EXPECT_TRUE(controls.channels[2].lit);
}

TEST_F(Player, LaunchPowerIsSetOnTheNamedChannelsOnly) {
    const double third = controls.channels[3].launch_power;
    play(R"({"time":1,"action":"set_launch_power","channels":[1,2],"power":-7.5})");
    advance(1.0);
    EXPECT_EQ(controls.channels[1].launch_power, -7.5);
    EXPECT_EQ(controls.channels[2].launch_power, -7.5);
    EXPECT_EQ(controls.channels[3].launch_power, third);
}

TEST_F(Player, ChangeWithoutDurationIsAStep) {
    play(R"({"time":1,"action":"change_span_loss","change":2})");
    EXPECT_TRUE(advance(1.0));
    EXPECT_NEAR(controls.span_loss, 7.0, close);
    EXPECT_FALSE(advance(2.0));
    EXPECT_NEAR(controls.span_loss, 7.0, close);
}

TEST_F(Player, ChangeOverTimeIsEvenAndEndsAtItsWhole) {
    play(R"({"time":100,"action":"change_booster_gain","change":-2,"over":50})");
    advance(100.0);
    EXPECT_NEAR(controls.booster_gain, 22.0, close);
    EXPECT_TRUE(advance(125.0));
    EXPECT_NEAR(controls.booster_gain, 21.0, close);
    advance(137.5);
    EXPECT_NEAR(controls.booster_gain, 20.5, close);
    advance(1000.0);
    EXPECT_NEAR(controls.booster_gain, 20.0, close);
    EXPECT_FALSE(advance(1001.0));
}

TEST_F(Player, ChangesThatOverlapAddUp) {
    play(R"({"time":0,"action":"change_span_loss","change":4,"over":40},
            {"time":20,"action":"change_span_loss","change":-1,"over":10})");
    advance(25.0);
    EXPECT_NEAR(controls.span_loss, 5.0 + 2.5 - 0.5, close);
    advance(40.0);
    EXPECT_NEAR(controls.span_loss, 5.0 + 4.0 - 1.0, close);
}

TEST_F(Player, ValueSetDuringAChangeGoesOnChangingFromThere) {
    play(R"({"time":0,"action":"change_span_loss","change":4,"over":40},
            {"time":10,"action":"set_span_loss","loss":20})");
    advance(30.0);
    EXPECT_NEAR(controls.span_loss, 20.0 + 2.0, close);
}

TEST_F(Player, ChangesStayWithinWhatExists) {
    play(R"({"time":1,"action":"change_booster_gain","change":60},
            {"time":1,"action":"change_span_loss","change":-60},
            {"time":1,"action":"change_launch_power","channels":"all","change":60})");
    advance(1.0);
    EXPECT_EQ(controls.booster_gain, booster_gain_range.high);
    EXPECT_EQ(controls.span_loss, span_loss_range.low);
    EXPECT_EQ(controls.channels[48].launch_power, launch_power_range.high);
}

TEST(ModuleActions, NameTheModuleAndWhatHappensToIt) {
    const scenario parsed = parse_scenario(R"({"actions":[
        {"time":9,"action":"insert_module","module":"interface/2"},
        {"time":1,"action":"pull_module","module":"ppm/1"},
        {"time":2,"action":"pull_module","module":"ppm/2"},
        {"time":3,"action":"insert_module","module":"interface/1"}]})");
    ASSERT_EQ(parsed.on_modules.size(), 4U);
    std::vector<std::string> modules;
    std::vector<bool> inserted;
    for (const auto& [time, name, action] : parsed.on_modules) {
        modules.push_back(name + ' ' + module_names.at(action.module));
        inserted.push_back(action.inserted);
    }
    EXPECT_EQ(modules,
              (std::vector<std::string>{"pull_module ppm/1", "pull_module ppm/2",
                                        "insert_module interface/1", "insert_module interface/2"}));
    EXPECT_EQ(inserted, (std::vector<bool>{false, false, true, true}));
}

TEST(ModuleActions, OnWhatIsNoModuleAreRefused) {
    const auto refusal = [](const std::string& members) -> std::string {
        try {
            parse_scenario(R"({"actions":[{"time":1,)" + members + "}]}");
        } catch (const scenario_error& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(refusal(R"("action":"pull_module","module":"ppm/0")"),
              "actions[0]: there is no module \"ppm/0\"; there are: ppm/1, ppm/2, interface/1, "
              "interface/2");
    EXPECT_EQ(refusal(R"("action":"pull_module")"), "actions[0]: \"module\" is missing");
    EXPECT_EQ(refusal(R"("action":"insert_module","module":1)"),
              "actions[0]: \"module\" is no text");
    EXPECT_EQ(refusal(R"("action":"insert_module","module":"ppm/1","handler":"ppm/0")"),
              "actions[0]: has no use for \"handler\"");
}

TEST(SoftwareActions, TellTheVersion) {
    const scenario parsed =
        parse_scenario(R"({"actions":[{"time":5,"action":"install_software","version":"2.0.0"}]})");
    ASSERT_EQ(parsed.on_software.size(), 1U);
    EXPECT_EQ(parsed.on_software[0].time, 5.0);
    EXPECT_EQ(parsed.on_software[0].action.version, "2.0.0");
}

TEST(SoftwareActions, WithoutAVersionAreRefused) {
    for (const auto& [members, why] :
         {std::pair(R"("time":1)", "actions[0]: \"version\" is missing"),
          std::pair(R"("time":1,"version":2)", "actions[0]: \"version\" is no text"),
          std::pair(R"("time":1,"version":"")", "actions[0]: \"version\" is empty")}) {
        try {
            parse_scenario(R"({"actions":[{"action":"install_software",)" + std::string(members) +
                           "}]}");
            ADD_FAILURE() << members;
        } catch (const scenario_error& error) {
            EXPECT_STREQ(error.what(), why);
        }
    }
}

TEST(ExampleScenarios, AllParse) {
    const auto t47_handlers = handler_names(*find_card_kind("t47"));
    unsigned found = 0;
    for (const auto& file : std::filesystem::directory_iterator(VELT_SCENARIO_DIR)) {
        EXPECT_NO_THROW(load_scenario(file.path().string(), t47_handlers)) << file.path();
        ++found;
    }
    EXPECT_GE(found, 5U);
}

TEST(ScenarioFile, ActionsOnTheLineAreRead) {
    const auto actions = simulator::parse_scenario(R"({"actions": [
            {"time": 3, "action": "repair_line"},
            {"time": 1, "action": "cut_line", "distance": 1500},
            {"time": 2, "action": "set_line_loss", "loss": 4.5},
            {"time": 4, "action": "set_reflectors", "reflectors": "5:-30 1:-20"}]})",
                                                   {});
    ASSERT_EQ(actions.on_line.size(), 4U);
    EXPECT_EQ(std::get<simulator::line_cut>(actions.on_line[0].action).distance, 1500.0);
    EXPECT_EQ(std::get<simulator::line_loss>(actions.on_line[1].action).loss, 4.5);
    EXPECT_TRUE(std::holds_alternative<simulator::line_repair>(actions.on_line[2].action));
    EXPECT_EQ(std::get<simulator::line_reflectors>(actions.on_line[3].action).reflectors,
              (std::vector<simulator::reflector>{{1.0, -20.0}, {5.0, -30.0}}));
}

TEST(ScenarioFile, ActionsOnNoSuchLineAreRefused) {
    for (const char* action : {R"({"time": 1, "action": "cut_line"})",
                               R"({"time": 1, "action": "cut_line", "distance": -1})",
                               R"({"time": 1, "action": "repair_line", "distance": 1})",
                               R"({"time": 1, "action": "set_line_loss", "loss": 61})",
                               R"({"time": 1, "action": "set_reflectors", "reflectors": 5})",
                               R"({"time": 1, "action": "set_reflectors", "reflectors": "5"})"})
        EXPECT_THROW(simulator::parse_scenario(std::string(R"({"actions": [)") + action + "]}", {}),
                     simulator::scenario_error)
            << action;
}

}  // namespace
