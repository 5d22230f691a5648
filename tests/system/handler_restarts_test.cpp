// Device handlers that die and come back under a daemon that is in use: nothing
// of it is left behind. With VELT_HANDLER_RESTARTS the number of restarts of
// each handler, for a longer run.
#include "client_recorders.hpp"
#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "free_port.hpp"
#include "process.hpp"
#include "process_holdings.hpp"
#include "test_root.hpp"
#include "tree_access.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using test::eventually;
using test::holdings;
using test::holdings_of;
using test::paths_under;
using test::values_under;

namespace {

struct supervised_handler {
    std::string name;    // on the simulated card, and of its socket
    std::string client;  // in the daemon
    bool is_mirrored;
};

const std::vector<supervised_handler> all_handlers{
    {"booster", "booster", true},
    {"wss_edge", "wss_edge", true},
    {"osc1", "osc/1", true},
    {"osc2", "osc/2", true},
    {"ppm/0", "ppm/1", true},
    {"ppm/1", "ppm/2", true},
    {"sfp/0", "interface/1", true},
    {"sfp/1", "interface/2", true},
    {"system_info", "system info", false},
};

unsigned restarts_of_each() {
    return static_cast<unsigned>(std::stoul(host::environment("VELT_HANDLER_RESTARTS", "5")));
}

std::shared_ptr<device_handler_client> client_of(const std::string& path) {
    return device_handler_client::create(path, "test", {});
}

// Writes and reads through the daemon for as long as it lives. A handler that
// is away is answered for with an error.
class management_user {
  public:
    management_user() : thread_([this] { run(); }) {}
    ~management_user() {
        stopping_ = true;
        thread_.join();
    }
    management_user(const management_user&) = delete;
    management_user& operator=(const management_user&) = delete;

    unsigned rounds() const { return rounds_; }

  private:
    void run() {
        const auto client = client_of("/tmp/device_managers/traffic_manager");
        float gain = 20.0F;
        while (!stopping_) {
            gain = gain >= 24.0F ? 20.0F : gain + 0.5F;
            answer([&] { client->set<void>("booster/config/gain", gain); });
            answer([&] { client->get<double>("booster/data/powerLimit"); });
            answer([&] { client->set<void>("control/config/5/wantedPower", gain - 20.0F); });
            answer([&] { client->get<bool>("osc/2/data/configStatus"); });
            answer([&] { client->get<std::string>("wss_edge/data/wss/channel/7/port"); });
            ++rounds_;
        }
    }

    template <class Call>
    static void answer(const Call& call) {
        try {
            call();
        } catch (const dh_client_exception& error) {
            EXPECT_THAT(error.code, testing::AnyOf(11, -2)) << error.message;
        }
    }

    std::atomic<bool> stopping_{false};
    std::atomic<unsigned> rounds_{0};
    std::thread thread_;
};

}  // namespace

class HandlerRestarts : public testing::Test {
  protected:
    HandlerRestarts() {
        test::empty_root();
        const test::process::environment surroundings{{"VELT_ROOT", test::root()},
                                                      {"VELT_TIME_SCALE", "50"}};
        card_.emplace(VELT_BIN_DIR "/card_simulator", std::vector<std::string>{"--card", "t47"},
                      surroundings, test::root());
        EXPECT_TRUE(eventually([&] { return card_->has_logged("msg: Card t47 is served"); }));
        hands_ = client_of("/tmp/device_handlers/sim");
        hands_->set<void>("sim/monitor/noise", 0.0F);
        // On a port of its own: one that others have is asked for again and again,
        // and makes one descriptor more once it is had.
        daemon_.emplace(VELT_BIN_DIR "/traffic_manager",
                        std::vector<std::string>{"--port", std::to_string(test::free_port())},
                        surroundings, test::root());
        management_ = client_of("/tmp/device_managers/traffic_manager");
    }

    ~HandlerRestarts() override {
        if (HasFailure())
            std::cout << daemon_->standard_error();
    }

    void await_start() {
        ASSERT_TRUE(
            eventually([&] { return daemon_->has_logged("msg: Traffic manager initialized"); }));
    }

    unsigned alarm_of(const supervised_handler& handler) {
        return management_->get<unsigned>(
            "alarms/" + handler.client + "/communicationFailure/severity", 99U);
    }

    bool eventually_alarm_is(const supervised_handler& handler, unsigned severity) {
        return eventually([&] { return alarm_of(handler) == severity; });
    }

    // The handler dies and comes back: seen by the daemon, or at any moment.
    void restart(const supervised_handler& handler, bool awaits_alarm) {
        const std::string control = "sim/handler/" + handler.name;
        if (!awaits_alarm) {
            EXPECT_TRUE(hands_->set<bool>(control + "/restart", true));
            return;
        }
        EXPECT_TRUE(eventually_alarm_is(handler, 0)) << handler.name;
        hands_->set<void>(control + "/running", false);
        EXPECT_TRUE(eventually_alarm_is(handler, 3)) << handler.name;
        hands_->set<void>(control + "/running", true);
    }

    // Each handler so many times, in an order that the seed gives.
    void restart_all(const std::vector<supervised_handler>& handlers, unsigned times,
                     unsigned seed) {
        std::vector<std::size_t> order;
        for (std::size_t index = 0; index < handlers.size(); ++index)
            order.insert(order.end(), times, index);
        std::mt19937 random(seed);
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t index : order) {
            restart(handlers[index], random() % 2 == 0);
            ASSERT_FALSE(daemon_->has_ended());
        }
        for (const supervised_handler& handler : handlers)
            EXPECT_TRUE(eventually_alarm_is(handler, 0)) << handler.name;
    }

    // Every mirrored path that there is, with the handler's own value.
    void expect_mirrors_equal_handlers() {
        for (const supervised_handler& handler : all_handlers) {
            if (!handler.is_mirrored)
                continue;
            const auto remote = client_of("/tmp/device_handlers/" + handler.name);
            auto paths = paths_under(*remote, "");
            std::erase_if(paths, [](const std::string& path) {
                // The card keeps the one for itself, and does not show the other.
                return path == "config/ocm/2/monitorPortOffset" ||
                       path.find("/debug/") != std::string::npos;
            });
            ASSERT_FALSE(paths.empty());
            std::vector<std::string> local_paths;
            for (const std::string& path : paths)
                local_paths.push_back(handler.client + "/" + path);
            std::string different;
            EXPECT_TRUE(eventually([&] {
                const auto there = values_under(*remote, paths);
                const auto here = values_under(*management_, local_paths);
                different.clear();
                for (const std::string& path : paths) {
                    const std::string& mirrored = here.at(handler.client + "/" + path);
                    if (there.at(path) != mirrored)
                        different += path + ": " + there.at(path) + ", mirrored " + mirrored + "\n";
                }
                return different.empty();
            })) << handler.name
                << "\n"
                << different;
        }
    }

    // What owners are told of by callbacks of their own.
    void expect_owners_follow_their_modules() {
        for (const std::string path :
             {"interface/1/present", "interface/2/present", "cloopl/interface/2/present",
              "otdr/interface/2/present", "otdr/present", "otdr/data/configStatus"})
            EXPECT_TRUE(eventually([&] { return management_->get<bool>(path, false); })) << path;
        for (const std::string path : {"ppm/1/pm/wdm/addLoss", "ppm/2/pm/wdm/addLoss"})
            EXPECT_TRUE(eventually([&] { return management_->get<unsigned>(path, 0U) == 45U; }))
                << path;
    }

    void expect_nothing_for_debugging() {
        for (const char* client : {"osc/1", "osc/2"}) {
            for (const std::string& path : paths_under(*management_, client))
                EXPECT_EQ(path.find("/debug/"), std::string::npos) << path;
        }
    }

    // What the subscribers of the whole mirrored tree heard last is what a read gives.
    void expect_last_events_equal_values() {
        std::vector<std::string> paths;
        for (const auto& subscriber : subscribers_)
            paths.push_back(subscriber->path());
        EXPECT_TRUE(eventually([&] {
            const auto values = values_under(*management_, paths);
            return std::all_of(
                subscribers_.begin(), subscribers_.end(), [&](const auto& subscriber) {
                    const auto heard = subscriber->all();
                    const std::string value = values.at(subscriber->path());
                    const std::string never_set = R"({"value":null})";
                    return heard.empty() ? value == never_set
                                         : R"({"value":)" + last_value(heard) + "}" == value;
                });
        }));
    }

    static std::string last_value(const std::vector<std::string>& heard) {
        const std::string& last = heard.back();  // "value PATH JSON"
        return last.substr(last.find(' ', last.find("/")) + 1);
    }

    void subscribe_to_all_mirrors() {
        observer_ = client_of("/tmp/device_managers/traffic_manager");
        std::vector<std::shared_ptr<device_handler_subscriber>> added;
        for (const supervised_handler& handler : all_handlers) {
            if (!handler.is_mirrored)
                continue;
            for (const std::string& path : paths_under(*management_, handler.client)) {
                if (!is_subscribable(path))
                    continue;
                subscribers_.push_back(std::make_shared<test::recording_subscriber>(path));
                added.push_back(subscribers_.back());
            }
        }
        ASSERT_GT(added.size(), 100U);
        observer_->add_subscribers(added);
    }

    bool is_subscribable(const std::string& path) {
        json::document params(rapidjson::kObjectType);
        json::value list(rapidjson::kArrayType);
        list.PushBack(json::from(path, params.GetAllocator()), params.GetAllocator());
        json::add(params, "paths", std::move(list), params.GetAllocator());
        const json::document entries = management_->call("info", params);
        const json::value* capabilities = json::find(entries[0]["info"], "capabilities");
        return capabilities != nullptr && json::find(*capabilities, "subscribe") != nullptr;
    }

    void restart_while_in_use(const std::vector<supervised_handler>& handlers, unsigned times) {
        const management_user user;
        restart_all(handlers, times, times);
        EXPECT_GT(user.rounds(), 0U);
    }

    std::optional<test::process> card_;
    std::optional<test::process> daemon_;
    std::shared_ptr<device_handler_client> hands_;
    std::shared_ptr<device_handler_client> management_;
    std::shared_ptr<device_handler_client> observer_;
    std::vector<std::shared_ptr<test::recording_subscriber>> subscribers_;
};

TEST_F(HandlerRestarts, LeaveNothingBehind) {
    await_start();
    for (const supervised_handler& handler : all_handlers)
        ASSERT_TRUE(eventually_alarm_is(handler, 0)) << handler.name;
    expect_mirrors_equal_handlers();
    subscribe_to_all_mirrors();
    holdings before = holdings_of(daemon_->id());
    restart_while_in_use(all_handlers, 2);  // until everything has its size
    before.resident_kb = holdings_of(daemon_->id()).resident_kb;

    restart_while_in_use(all_handlers, restarts_of_each());

    expect_mirrors_equal_handlers();
    expect_owners_follow_their_modules();
    expect_nothing_for_debugging();
    expect_last_events_equal_values();
    holdings after{};
    EXPECT_TRUE(eventually([&] {
        after = holdings_of(daemon_->id());
        return after.descriptors == before.descriptors && after.threads == before.threads;
    }));
    std::cout << "restarts of each handler: " << restarts_of_each()
              << "\ndescriptors: " << before.descriptors << " -> " << after.descriptors
              << "\nthreads: " << before.threads << " -> " << after.threads
              << "\nresident memory: " << before.resident_kb << " kB -> " << after.resident_kb
              << " kB\n";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    constexpr std::size_t slack_kb = 2048;
    EXPECT_LT(after.resident_kb, before.resident_kb + slack_kb);
#endif
}

// The booster is left alone: a cycle that cannot ask it ends the daemon.
TEST_F(HandlerRestarts, DoNotStopTheRegulation) {
    await_start();
    management_->set<void>("control/config/dhReady", true);
    ASSERT_TRUE(eventually([&] { return daemon_->has_logged("Entering periodic control loop"); }));
    auto handlers = all_handlers;
    std::erase_if(handlers, [](const supervised_handler& h) { return h.name == "booster"; });
    restart_while_in_use(handlers, restarts_of_each());
    // A wanted power still reaches the light.
    management_->set<void>("control/config/1/wantedPower", 2.0F);
    EXPECT_TRUE(eventually(
        [&] {
            const float power = hands_->get<float>("sim/channel/1/outputPower");
            return power > 1.3F && power < 2.7F;
        },
        std::chrono::seconds(60)));
}
