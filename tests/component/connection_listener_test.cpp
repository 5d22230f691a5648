// What the card does when device handlers come and go.
#include "connection_listener.hpp"

#include "mirror_fixture.hpp"
#include "wire_fixture.hpp"

#include <thread>

namespace {

using test::eventually;
using strings = std::vector<std::string>;

class ConnectionListener : public testing::Test {
  protected:
    using listener = traffic_manager_velt::connection_listener;

    ~ConnectionListener() override {
        if (client_)
            manager_->proxy()->unsubscribe_path(client_, "");
        {
            const std::lock_guard lock(manager_->proxy()->main_mutex());
            manager_->proxy()->clients.clear();
        }
        client_.reset();
        test::let_deliveries_end();
    }

    // A client that the card knows, of a handler that is not there.
    void add_client(const std::string& name) {
        manager_->proxy()->clients.push_back(device_handler_client::create("/absent", name, {}));
    }

    std::string severity_of(const std::string& name) {
        const std::string path = "alarms/" + name + "/communicationFailure/severity";
        return db_.contains(path) ? test::read(*db_.find_leaf_node(path)) : "(none)";
    }
    static std::string severity(unsigned value) {
        return R"({"value":)" + std::to_string(value) + "}";
    }

    const test::log_capture log_;
    dh_db db_;
    const std::shared_ptr<traffic_manager_velt> manager_ =
        std::make_shared<traffic_manager_velt>(db_);
    const std::shared_ptr<listener> listener_ = std::make_shared<listener>(manager_);
    std::shared_ptr<device_handler_client> client_;
};

TEST_F(ConnectionListener, FirstConnectionMakesTheSeverityZero) {
    add_client("ppm/1");
    EXPECT_EQ(severity_of("ppm/1"), "(none)");
    listener_->connection_established_event("ppm/1");
    EXPECT_EQ(severity_of("ppm/1"), severity(0));
}

TEST_F(ConnectionListener, FirstLossWithoutAConnectionMakesTheSeverityThree) {
    add_client("system info");
    listener_->connection_lost_event("system info");
    EXPECT_EQ(severity_of("system info"), severity(3));
}

TEST_F(ConnectionListener, SeverityFollowsEachEventAtOnceInTheSameNode) {
    add_client("booster");
    listener_->connection_established_event("booster");
    const auto node = db_.find_leaf_node("alarms/booster/communicationFailure/severity");
    const auto session = std::make_shared<test::recording_session>();
    test::subscribe(*node, session);
    session->clear();
    listener_->connection_lost_event("booster");
    listener_->connection_established_event("booster");
    listener_->connection_established_event("booster");
    const auto event = [](unsigned value) {
        return R"({"event":"value","path":"alarms/booster/communicationFailure/severity","value":)" +
               std::to_string(value) + "}";
    };
    EXPECT_EQ(session->events(), (strings{event(3), event(0)}));
    EXPECT_EQ(node->poll_interval(), 0U);
}

TEST_F(ConnectionListener, EachClientHasItsOwnSeverity) {
    add_client("osc/1");
    add_client("osc/2");
    listener_->connection_established_event("osc/1");
    listener_->connection_lost_event("osc/2");
    EXPECT_EQ(severity_of("osc/1"), severity(0));
    EXPECT_EQ(severity_of("osc/2"), severity(3));
}

TEST_F(ConnectionListener, EventsAreLogged) {
    add_client("booster");
    listener_->connection_established_event("booster");
    listener_->connection_lost_event("booster");
    const std::vector<test::log_line> expected{{7, "connection", "Client 'booster' connected"},
                                               {7, "connection", "Client 'booster' disconnected"}};
    EXPECT_EQ(log_.lines(), expected);
}

TEST_F(ConnectionListener, UnknownClientChangesNoAlarmAndRunsNoCallback) {
    add_client("booster");
    int calls = 0;
    listener_->on_established("stranger", [&] { ++calls; });
    listener_->on_lost("stranger", [&] { ++calls; });
    listener_->connection_established_event("stranger");
    listener_->connection_lost_event("stranger");
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(severity_of("stranger"), "(none)");
    EXPECT_TRUE(db_.nodes_under("alarms").empty());
    EXPECT_EQ(log_.texts(msg_log::failure),
              (strings{"Client 'stranger' not found", "Client 'stranger' not found"}));
}

TEST_F(ConnectionListener, EachEventRunsItsOwnCallbacks) {
    add_client("booster");
    add_client("wss_edge");
    test::recorded_texts ran;
    listener_->on_established("booster", [&] { ran.add("booster came"); });
    listener_->on_lost("booster", [&] { ran.add("booster went"); });
    listener_->on_established("wss_edge", [&] { ran.add("wss_edge came"); });
    listener_->connection_established_event("booster");
    listener_->connection_lost_event("booster");
    listener_->connection_lost_event("wss_edge");
    EXPECT_EQ(ran.all(), (strings{"booster came", "booster went"}));
}

TEST_F(ConnectionListener, SeverityIsSetBeforeTheCallbacksRun) {
    add_client("booster");
    std::string seen;
    listener_->on_lost("booster", [&] { seen = severity_of("booster"); });
    listener_->connection_lost_event("booster");
    EXPECT_EQ(seen, severity(3));
}

TEST_F(ConnectionListener, CallbacksOfOneEventRunAtTheSameTimeOnThreadsOfTheirOwn) {
    add_client("interface/2");
    test::door all_are_there;
    std::mutex mutex;
    std::set<std::thread::id> threads;
    for (int i = 0; i < 3; ++i)
        listener_->on_established("interface/2", [&] {
            {
                const std::lock_guard lock(mutex);
                threads.insert(std::this_thread::get_id());
            }
            all_are_there.pass();
        });
    std::thread event([&] { listener_->connection_established_event("interface/2"); });
    EXPECT_TRUE(all_are_there.has_met(3));
    all_are_there.open();
    event.join();
    EXPECT_EQ(threads.size(), 3U);
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
}

TEST_F(ConnectionListener, EventHoldsTheMainMutexUntilItsCallbacksHaveEnded) {
    add_client("booster");
    test::door door;
    std::atomic<bool> ended{false};
    listener_->on_lost("booster", [&] {
        door.pass();
        ended = true;
    });
    std::thread event([&] { listener_->connection_lost_event("booster"); });
    ASSERT_TRUE(door.has_met(1));
    EXPECT_FALSE(manager_->proxy()->main_mutex().try_lock());
    door.open();
    EXPECT_EQ(manager_->mutex_status(), 0U);  // waits for the main mutex
    EXPECT_TRUE(ended);
    event.join();
}

TEST_F(ConnectionListener, EventOfAnotherClientWaitsForTheOneBefore) {
    add_client("booster");
    add_client("wss_edge");
    test::door door;
    std::atomic<bool> first_ended{false};
    std::atomic<bool> second_came_after{false};
    listener_->on_lost("booster", [&] {
        door.pass();
        first_ended = true;
    });
    listener_->on_established("wss_edge", [&] { second_came_after = first_ended.load(); });
    std::thread first([&] { listener_->connection_lost_event("booster"); });
    ASSERT_TRUE(door.has_met(1));
    std::thread second([&] { listener_->connection_established_event("wss_edge"); });
    ASSERT_TRUE(eventually([&] { return log_.count("Client 'wss_edge' connected") == 1; }));
    door.open();
    first.join();
    second.join();
    EXPECT_TRUE(second_came_after);
}

TEST_F(ConnectionListener, CallbackThatThrowsIsDroppedSilentlyAndTheOthersRun) {
    add_client("booster");
    std::atomic<int> ran{0};
    listener_->on_established("booster", [&] { ++ran; });
    listener_->on_established("booster", [] { throw std::runtime_error("refused"); });
    listener_->on_established("booster", [] { throw 5; });
    listener_->on_established("booster", [] { throw dh_client_exception{107, "not connected"}; });
    listener_->on_established("booster", [&] { ++ran; });
    EXPECT_NO_THROW(listener_->connection_established_event("booster"));
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(log_.texts(), strings{"Client 'booster' connected"});
    EXPECT_EQ(severity_of("booster"), severity(0));
}

// The start-up holds the main mutex while it makes the clients and registers.
TEST_F(ConnectionListener, EventThatComesBeforeTheRegistrationWaitsForIt) {
    const dh_server handler("booster", test::root() + "/early");
    const auto calls = std::make_shared<std::atomic<int>>(0);
    {
        const std::lock_guard start_up(manager_->proxy()->main_mutex());
        client_ = device_handler_client::create("/early", "booster", listener_);
        ASSERT_TRUE(eventually([&] { return log_.count("Client 'booster' connected") == 1; }));
        manager_->proxy()->clients.push_back(client_);
        listener_->on_established("booster", [calls] { ++*calls; });
    }
    EXPECT_TRUE(eventually([&] { return *calls == 1; }));
    EXPECT_EQ(severity_of("booster"), severity(0));
    EXPECT_EQ(log_.count("Client 'booster' not found"), 0U);
}

TEST_F(ConnectionListener, DisconnectReturnsOnlyAfterItsCallbacksAndTheEndOfTheMirror) {
    dh_server handler("booster", test::root() + "/mirrored");
    const auto ready = dh::api::status_value<bool>::create(handler.db(), "ready", true, 0);
    const auto proxy = manager_->proxy();
    {
        const std::lock_guard start_up(proxy->main_mutex());
        client_ = device_handler_client::create("/mirrored", "booster", listener_);
        proxy->clients.push_back(client_);
        const std::weak_ptr<device_handler_client> weak = client_;
        listener_->on_established("booster", [proxy, weak] {
            if (const auto client = weak.lock())
                proxy->subscribe_path(client, "");
        });
        listener_->on_lost("booster", [proxy, weak] {
            host::time().sleep(std::chrono::milliseconds(10));
            if (const auto client = weak.lock())
                proxy->unsubscribe_path(client, "");
        });
    }
    ASSERT_TRUE(eventually([&] { return db_.contains("booster/ready"); }));
    listener_->connection_lost_event("booster");
    EXPECT_EQ(severity_of("booster"), severity(3));
    const auto observer = std::make_shared<test::recording_subscriber>("ready");
    client_->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value ready true"); }));
    ready->set(false);
    ASSERT_TRUE(eventually([&] { return observer->has("value ready false"); }));
    EXPECT_EQ(test::read(*db_.find_leaf_node("booster/ready")), R"({"value":true})");
    client_->remove_subscriber(observer);
}

}  // namespace
