// Handlers of the simulated card that stop, hang, are slow or fail.

#include "card_fixture.hpp"
#include "eventually.hpp"
#include "raw_client.hpp"
#include "wire_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using test::eventually;
using test::next_event;
using test::raw_client;
using testing::Contains;

class HandlerFaults : public test::card_fixture, protected test::wire_lines {
  protected:
    template <class Value>
    void set(const std::string& path, const Value& value) {
        sim->set<void>("sim/" + path, value);
    }
    bool is_served(const std::string& handler) {
        return sim->get<bool>("sim/handler/" + handler + "/running");
    }
    // A subscriber of the path, which has had its first answers.
    static std::unique_ptr<raw_client> subscriber_of(const std::string& handler,
                                                     const std::string& path) {
        auto client = std::make_unique<raw_client>(socket_of(handler));
        client->send_line(request("subscribe", paths({path})));
        EXPECT_TRUE(client->read_line());
        EXPECT_TRUE(client->read_line());
        return client;
    }
    static std::string event_of(const std::string& path, const std::string& members) {
        return R"({"event":"value","path":")" + path + R"(",)" + members + "}";
    }

    const std::string enable = "data/enable";
    const std::string link_status = "data/linkStatus";
    const std::string up = result(R"([{"value":"up"}])");
    const std::string fault = entry_error(-5, "simulated fault");
    const std::string error = R"({"code":-5,"message":"simulated fault"})";

    std::shared_ptr<device_handler_client> sim = client_of("sim");
};

TEST_F(HandlerFaults, EveryHandlerButTheControlTreeItselfHasItsSwitches) {
    for (const std::string handler :
         {"wss_edge", "booster", "osc1", "osc2", "ppm/0", "ppm/1", "sfp/0", "sfp/1", "led_velt",
          "system_info", "system_start"}) {
        const std::string base = "sim/handler/" + handler;
        EXPECT_TRUE(sim->get<bool>(base + "/running"));
        EXPECT_FALSE(sim->get<bool>(base + "/frozen"));
        EXPECT_EQ(sim->get<float>(base + "/delay"), 0.0f);
        EXPECT_EQ(sim->get<std::string>(base + "/errorPath"), "");
        EXPECT_EQ(sim->get<std::string>(base + "/wrongTypePath"), "");
    }
    EXPECT_EQ(code_of_write(*sim, "sim/handler/sim/running", false), -2);
}

TEST_F(HandlerFaults, StoppedHandlerIsGoneWithoutAWord) {
    const auto subscriber = subscriber_of("booster", enable);
    set("handler/booster/running", false);
    EXPECT_FALSE(is_served("booster"));
    EXPECT_EQ(subscriber->read_line(), std::nullopt);
    EXPECT_TRUE(subscriber->is_closed_by_peer());
    EXPECT_FALSE(std::filesystem::exists(socket_of("booster")));
    EXPECT_THROW(raw_client(socket_of("booster")), std::system_error);
    set("handler/booster/running", false);
    EXPECT_FALSE(is_served("booster"));
}

TEST_F(HandlerFaults, HandlerThatEndsWithItsCardTellsItsSubscribers) {
    const auto subscriber = subscriber_of("booster", enable);
    card.reset();
    EXPECT_EQ(next_event(*subscriber), R"({"event":"ended","path":"data/enable","reason":2})");
    EXPECT_TRUE(subscriber->is_closed_by_peer());
}

TEST_F(HandlerFaults, StartedHandlerComesWithAFreshTree) {
    client_of("wss_edge")->set<void>("config/laneCompensationMode", true);
    EXPECT_TRUE(client_of("wss_edge")->get<bool>("data/laneCompensationMode"));
    set("handler/wss_edge/running", false);
    set("handler/wss_edge/running", true);
    EXPECT_TRUE(is_served("wss_edge"));
    EXPECT_FALSE(client_of("wss_edge")->get<bool>("data/laneCompensationMode"));
    EXPECT_TRUE(client_of("wss_edge")->get<bool>("data/configStatus"));
}

TEST_F(HandlerFaults, StartOfWhatIsRunningChangesNothing) {
    raw_client client(socket_of("osc2"));
    set("handler/osc2/running", true);
    EXPECT_EQ(client.ask(read_of(link_status)), up);
}

TEST_F(HandlerFaults, RestartEndsTheSessionsAndAnswersTrue) {
    raw_client client(socket_of("osc2"));
    EXPECT_TRUE(sim->set<bool>("sim/handler/osc2/restart", true));
    EXPECT_TRUE(client.is_closed_by_peer());
    EXPECT_EQ(raw_client(socket_of("osc2")).ask(read_of(link_status)), up);
    EXPECT_TRUE(sim->set<bool>("sim/handler/osc2/restart", false));
    EXPECT_TRUE(is_served("osc2"));
}

TEST_F(HandlerFaults, HandlerThatReturnsShowsWhatHasChangedMeanwhile) {
    set("handler/osc2/running", false);
    set("osc/2/linkStatus", std::string("down"));
    set("handler/osc2/running", true);
    EXPECT_EQ(client_of("osc2")->get<std::string>(link_status), "down");
    const auto subscriber = subscriber_of("osc2", link_status);
    set("osc/2/linkStatus", std::string("up"));
    EXPECT_EQ(next_event(*subscriber), event_of(link_status, R"("value":"up")"));
}

TEST_F(HandlerFaults, ClientOfAHandlerThatReturnsIsServedAgain) {
    const auto client = client_of("booster");
    EXPECT_TRUE(client->get<bool>(enable));
    sim->set<bool>("sim/handler/booster/restart", true);
    EXPECT_TRUE(eventually([&] {
        try {
            return client->get<bool>(enable);
        } catch (const dh_client_exception&) {
            return false;  // on its way back
        }
    }));
}

TEST_F(HandlerFaults, StartWhereSomebodyListensIsAnErrorAndLeavesItStopped) {
    set("handler/osc1/running", false);
    const dh_server other("other", socket_of("osc1"));
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc1/running", true), -1);
    EXPECT_FALSE(is_served("osc1"));
}

TEST_F(HandlerFaults, FrozenHandlerTakesConnectionsAndAnswersWhenItThaws) {
    raw_client before(socket_of("osc2"));
    EXPECT_EQ(before.ask(read_of(link_status)), up);
    set("handler/osc2/frozen", true);
    EXPECT_TRUE(sim->get<bool>("sim/handler/osc2/frozen"));
    raw_client later(socket_of("osc2"));
    before.send_line(read_of(link_status));
    later.send_line(read_of(link_status));
    EXPECT_EQ(raw_client(socket_of("osc1")).ask(read_of(link_status)), up);
    EXPECT_FALSE(before.has_arrived());
    EXPECT_FALSE(later.has_arrived());
    set("handler/osc2/frozen", false);
    EXPECT_EQ(before.read_line(), up);
    EXPECT_EQ(later.read_line(), up);
}

TEST_F(HandlerFaults, FrozenHandlerSendsNoEventsUntilItThaws) {
    const auto subscriber = subscriber_of("osc2", link_status);
    set("handler/osc2/frozen", true);
    set("osc/2/linkStatus", std::string("down"));
    set("osc/2/linkStatus", std::string("up"));
    EXPECT_FALSE(subscriber->has_arrived());
    set("handler/osc2/frozen", false);
    EXPECT_EQ(next_event(*subscriber), event_of(link_status, R"("value":"down")"));
    EXPECT_EQ(next_event(*subscriber), event_of(link_status, R"("value":"up")"));
    set("osc/2/linkStatus", std::string("down"));
    EXPECT_EQ(next_event(*subscriber), event_of(link_status, R"("value":"down")"));
}

TEST_F(HandlerFaults, FrozenHandlerDoesNotEvenRefuseClientsPastItsLimit) {
    set("handler/osc2/frozen", true);
    std::vector<std::unique_ptr<raw_client>> clients;
    for (std::size_t i = 0; i < server_limits().sessions + 30; ++i)
        clients.push_back(std::make_unique<raw_client>(socket_of("osc2")));
    clients.front()->send_line(read_of(link_status));
    EXPECT_EQ(raw_client(socket_of("osc1")).ask(read_of(link_status)), up);
    for (const auto& client : clients)
        EXPECT_FALSE(client->has_arrived());
    set("handler/osc2/frozen", false);
    EXPECT_EQ(clients.front()->read_line(), up);
    EXPECT_TRUE(clients.back()->is_closed_by_peer());
}

TEST_F(HandlerFaults, HandlerThatIsStoppedWhileFrozenLeavesPendingRequestsUndone) {
    raw_client client(socket_of("booster"));
    EXPECT_EQ(client.ask(read_of(enable)), result(R"([{"value":true}])"));
    set("handler/booster/frozen", true);
    client.send_line(write_of("config/enable", "false"));
    set("handler/booster/running", false);
    EXPECT_TRUE(client.is_closed_by_peer());
    EXPECT_FALSE(sim->get<bool>("sim/handler/booster/frozen"));
    set("handler/booster/running", true);
    EXPECT_EQ(raw_client(socket_of("booster")).ask(read_of(enable)), result(R"([{"value":true}])"));
}

TEST_F(HandlerFaults, RestartOfAFrozenHandlerThawsIt) {
    set("handler/osc2/frozen", true);
    EXPECT_TRUE(sim->set<bool>("sim/handler/osc2/restart", true));
    EXPECT_FALSE(sim->get<bool>("sim/handler/osc2/frozen"));
    EXPECT_EQ(raw_client(socket_of("osc2")).ask(read_of(link_status)), up);
}

TEST_F(HandlerFaults, HandlerThatIsStoppedCannotBeFrozen) {
    set("handler/osc2/running", false);
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/frozen", true), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/frozen", false), 0);
    set("handler/osc2/running", true);
    EXPECT_EQ(raw_client(socket_of("osc2")).ask(read_of(link_status)), up);
}

TEST_F(HandlerFaults, CardEndsWhileHandlersAreFrozenAndSlow) {
    const auto subscriber = subscriber_of("osc2", link_status);
    raw_client slow(socket_of("osc1"));
    set("handler/osc1/delay", 60.0f);
    slow.send_line(read_of(link_status));
    set("handler/osc2/frozen", true);
    subscriber->send_line(read_of(link_status));
    set("osc/2/linkStatus", std::string("down"));
    card.reset();
    EXPECT_TRUE(subscriber->is_closed_by_peer());
    EXPECT_TRUE(slow.is_closed_by_peer());
}

TEST_F(HandlerFaults, SlowHandlerAnswersEachRequestSoMuchLater) {
    raw_client client(socket_of("osc2"));
    set("handler/osc2/delay", 0.1f);
    EXPECT_EQ(sim->get<float>("sim/handler/osc2/delay"), 0.1f);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.ask(read_of(link_status)), up);
    EXPECT_EQ(client.ask(read_of(link_status)), up);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(199));
}

TEST_F(HandlerFaults, HandlerThatIsNoLongerSlowAnswersWhatWaits) {
    raw_client client(socket_of("osc2"));
    set("handler/osc2/delay", 60.0f);
    client.send_line(read_of(link_status));
    EXPECT_EQ(raw_client(socket_of("osc1")).ask(read_of(link_status)), up);
    EXPECT_FALSE(client.has_arrived());
    const auto start = std::chrono::steady_clock::now();
    set("handler/osc2/delay", 0.0f);
    EXPECT_EQ(client.read_line(), up);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50));
}

TEST_F(HandlerFaults, SlowHandlerSendsItsEventsAtOnce) {
    const auto subscriber = subscriber_of("osc2", link_status);
    set("handler/osc2/delay", 60.0f);
    set("osc/2/linkStatus", std::string("down"));
    EXPECT_EQ(next_event(*subscriber), event_of(link_status, R"("value":"down")"));
}

TEST_F(HandlerFaults, DelayOutOfItsRangeIsRefused) {
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/delay", 60.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/delay", -0.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/delay", 60.0), 0);
    EXPECT_EQ(code_of_write(*sim, "sim/handler/osc2/delay", std::string("long")), -22);
}

TEST_F(HandlerFaults, ReadsAndWritesOfAFailingPathAreErrors) {
    set("handler/booster/errorPath", std::string("data/enable config/enable"));
    raw_client client(socket_of("booster"));
    EXPECT_EQ(client.ask(request("read", paths({enable, "data/configStatus", "/" + enable}))),
              result("[" + fault + R"(,{"value":true},)" + fault + "]"));
    EXPECT_EQ(client.ask(write_of("config/enable", "false")), result("[" + fault + "]"));
    set("handler/booster/errorPath", std::string());
    EXPECT_EQ(client.ask(read_of(enable)), result(R"([{"value":true}])"));
}

TEST_F(HandlerFaults, SubscriberOfAFailingPathHasErrorsUntilItIsHealed) {
    set("handler/osc2/errorPath", link_status);
    raw_client client(socket_of("osc2"));
    client.send_line(request("subscribe", paths({link_status})));
    EXPECT_EQ(next_event(client),
              event_of(link_status, R"("value":)" + error + R"(,"initial":true)"));
    EXPECT_EQ(client.read_line(), result(R"([{"value":)" + error + "}]"));
    set("osc/2/linkStatus", std::string("down"));
    EXPECT_EQ(next_event(client),
              R"({"event":"error","path":"data/linkStatus","error":)" + error + "}");
    set("handler/osc2/errorPath", std::string());
    set("osc/2/linkStatus", std::string("up"));
    EXPECT_EQ(next_event(client), event_of(link_status, R"("value":"up")"));
}

TEST_F(HandlerFaults, MistypedPathGivesATextForAllButATextAndANumberForThat) {
    set("handler/osc2/wrongTypePath",
        std::string("  /data/linkStatus  data/fiberLength data/configStatus "));
    EXPECT_EQ(sim->get<std::string>("sim/handler/osc2/wrongTypePath"),
              "data/linkStatus data/fiberLength data/configStatus");
    raw_client client(socket_of("osc2"));
    EXPECT_EQ(client.ask(request("read", paths({link_status, "data/fiberLength",
                                                "data/configStatus", "data/debug/state"}))),
              result(R"([{"value":0},{"value":"simulated fault"},{"value":"simulated fault"},)"
                     R"({"value":"ready"}])"));
}

TEST_F(HandlerFaults, SubscriberOfAMistypedPathHasWrongTypes) {
    set("handler/osc2/wrongTypePath", link_status);
    raw_client client(socket_of("osc2"));
    client.send_line(request("subscribe", paths({link_status})));
    EXPECT_EQ(next_event(client), event_of(link_status, R"("value":0,"initial":true)"));
    EXPECT_EQ(client.read_line(), result(R"([{"value":0}])"));
    set("osc/2/linkStatus", std::string("down"));
    EXPECT_EQ(next_event(client), event_of(link_status, R"("value":0)"));
}

TEST_F(HandlerFaults, WriteToAMistypedPathIsExecuted) {
    set("handler/booster/wrongTypePath", std::string("config/enable"));
    raw_client client(socket_of("booster"));
    EXPECT_EQ(client.ask(write_of("config/enable", "false")), result("[{}]"));
    EXPECT_EQ(client.ask(read_of(enable)), result(R"([{"value":false}])"));
}

TEST_F(HandlerFaults, PathsAndDelayOutliveARestart) {
    set("handler/osc2/errorPath", link_status);
    set("handler/osc2/delay", 0.05f);
    sim->set<bool>("sim/handler/osc2/restart", true);
    EXPECT_EQ(raw_client(socket_of("osc2")).ask(read_of(link_status)), result("[" + fault + "]"));
    EXPECT_EQ(sim->get<float>("sim/handler/osc2/delay"), 0.05f);
}

TEST_F(HandlerFaults, SwitchesMayBeTurnedByManyAtOnce) {
    std::vector<std::thread> hands;
    const auto turn = [&hands](const auto& turn_once) {
        hands.emplace_back([turn_once] {
            const auto hand = client_of("sim");
            for (int i = 0; i < 30; ++i)
                turn_once(*hand, i);
        });
    };
    turn(
        [](device_handler_client& hand, int) { hand.set<bool>("sim/handler/osc2/restart", true); });
    turn([](device_handler_client& hand, int i) {
        hand.set<void>("sim/handler/osc2/frozen", i % 2 == 0);
    });
    turn([](device_handler_client& hand, int i) {
        hand.set<void>("sim/osc/2/length", static_cast<float>(i));
    });
    turn([](device_handler_client& hand, int i) {
        hand.set<void>("sim/handler/osc2/errorPath",
                       std::string(i % 2 == 0 ? "data/fiberLength" : ""));
    });
    turn([](device_handler_client&, int) {
        try {
            raw_client client(socket_of("osc2"));
            client.send_line(request("subscribe", paths({"data/fiberLength"})));
        } catch (const std::system_error&) {
            // The handler is away just now.
        }
    });
    for (std::thread& hand : hands)
        hand.join();
    set("handler/osc2/frozen", false);
    EXPECT_EQ(raw_client(socket_of("osc2")).ask(read_of(link_status)), up);
}

class FaultScenario : public HandlerFaults {
  protected:
    void play(const std::string& actions) {
        sim.reset();
        card.reset();
        serve({.root = test::root(),
               .actions = simulator::parse_scenario("{\"actions\":[" + actions + "]}",
                                                    {"booster", "osc1", "osc2"})});
        sim = client_of("sim");
    }
};

TEST_F(FaultScenario, IsCarriedOutWhenNobodyAsks) {
    play(R"({"time":0.02,"action":"stop_handler","handler":"booster"})");
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(socket_of("booster")); }));
    EXPECT_THAT(log.texts(), Contains("msg: Scenario: stop_handler booster"));
}

TEST_F(FaultScenario, TurnsEverySwitch) {
    play(R"({"time":0,"action":"stop_handler","handler":"osc1"},
            {"time":0,"action":"start_handler","handler":"osc1"},
            {"time":0,"action":"restart_handler","handler":"osc1"},
            {"time":0,"action":"freeze_handler","handler":"osc1"},
            {"time":0,"action":"thaw_handler","handler":"osc1"},
            {"time":0,"action":"fail_path","handler":"osc1","path":"a b"},
            {"time":0,"action":"mistype_path","handler":"osc1","path":"b c"},
            {"time":0,"action":"heal_path","handler":"osc1","path":"b"},
            {"time":0,"action":"freeze_handler","handler":"osc2"},
            {"time":0,"action":"slow_handler","handler":"osc1","delay":0.5})");
    const std::string base = "sim/handler/osc1/";
    ASSERT_TRUE(eventually([&] { return sim->get<float>(base + "delay") == 0.5f; }));
    EXPECT_TRUE(sim->get<bool>(base + "running"));
    EXPECT_FALSE(sim->get<bool>(base + "frozen"));
    EXPECT_EQ(sim->get<std::string>(base + "errorPath"), "a");
    EXPECT_EQ(sim->get<std::string>(base + "wrongTypePath"), "c");
    EXPECT_TRUE(sim->get<bool>("sim/handler/osc2/frozen"));
}

TEST_F(FaultScenario, PullsAndInsertsModules) {
    play(R"({"time":0,"action":"pull_module","module":"interface/2"},
            {"time":0,"action":"pull_module","module":"ppm/1"},
            {"time":0,"action":"pull_module","module":"ppm/2"},
            {"time":0,"action":"insert_module","module":"ppm/1"},
            {"time":0.02,"action":"pull_module","module":"interface/1"},
            {"time":0.02,"action":"insert_module","module":"interface/2"})");
    ASSERT_TRUE(eventually([&] {
        return sim->get<bool>("sim/interface/2/present") &&
               !sim->get<bool>("sim/interface/1/present");
    }));
    EXPECT_TRUE(sim->get<bool>("sim/ppm/1/present"));
    EXPECT_FALSE(sim->get<bool>("sim/ppm/2/present"));
    EXPECT_FALSE(client_of("ppm/1")->get<bool>("present"));
    EXPECT_FALSE(client_of("sfp/0")->get<bool>("present"));
    EXPECT_THAT(log.texts(), Contains("msg: Scenario: pull_module ppm/2"));
    EXPECT_THAT(log.texts(), Contains("msg: Scenario: insert_module interface/2"));
}

TEST_F(FaultScenario, ActionThatFailsIsLoggedAndTheNextOneDone) {
    play(R"({"time":0,"action":"stop_handler","handler":"osc1"},
            {"time":0,"action":"freeze_handler","handler":"osc1"},
            {"time":0,"action":"stop_handler","handler":"osc2"})");
    ASSERT_TRUE(eventually([&] { return !is_served("osc2"); }));
    EXPECT_THAT(log.texts(msg_log::failure),
                Contains("msg: Scenario: freeze_handler osc1 failed: handler osc1 is stopped"));
}

TEST_F(FaultScenario, CardEndsBeforeItsTime) {
    play(R"({"time":1e9,"action":"stop_handler","handler":"osc1"})");
    EXPECT_TRUE(is_served("osc1"));
    card.reset();
    EXPECT_THAT(log.texts(), testing::Not(Contains("msg: Scenario: stop_handler osc1")));
}

}  // namespace
