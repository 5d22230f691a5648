// The client library against a real server.
#include "client_recorders.hpp"
#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "line_server.hpp"
#include "log_capture.hpp"
#include "wire_fixture.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <latch>
#include <optional>
#include <thread>

namespace {

using test::eventually;
using strings = std::vector<std::string>;

// The client exception that the call throws, as "CODE MESSAGE", or nothing.
template <class Call>
std::optional<std::string> failure_of(const Call& call) {
    try {
        call();
    } catch (const dh_client_exception& error) {
        return std::to_string(error.code) + " " + error.message;
    }
    return std::nullopt;
}

class Client : public test::wire_fixture {
  protected:
    std::shared_ptr<device_handler_client> make_client() {
        return device_handler_client::create(host_path_, "handler", connection_);
    }

    std::shared_ptr<test::recording_subscriber> subscribe(const std::string& path) {
        auto subscriber = std::make_shared<test::recording_subscriber>(path);
        client_->add_subscriber(subscriber);
        return subscriber;
    }

    // A server with this one count, in the place of the one before.
    std::shared_ptr<dh::api::status_value<unsigned int>> restart_server(unsigned value) {
        server_.reset();
        server_ = std::make_unique<dh_server>("returned", path_);
        return keep(
            dh::api::status_value<unsigned int>::create(server_->db(), "data/count", value, 0));
    }

    std::shared_ptr<dh::api::status_value<unsigned int>> count_ = add_count("data/count");
    std::shared_ptr<test::recording_connection> connection_ =
        std::make_shared<test::recording_connection>();
    std::shared_ptr<device_handler_client> client_ = make_client();
};

TEST_F(Client, WritesAndReadsEachType) {
    client_->set<void>("control/power", 0.1F);
    EXPECT_EQ(client_->get<float>("control/power"), 0.1F);
    EXPECT_EQ(client_->get<double>("control/power"), static_cast<double>(0.1F));
    client_->set<void>("control/power", 2.5);
    EXPECT_EQ(client_->get<float>("control/power"), 2.5F);
    client_->set<void>("control/name", std::string("a \"b\"\n\xc3\xa4"));
    EXPECT_EQ(client_->get<std::string>("control/name"), "a \"b\"\n\xc3\xa4");
    client_->set<void>("control/name", true);
    EXPECT_EQ(client_->get<std::string>("control/name"), "true");
    EXPECT_EQ(client_->get<unsigned int>("data/slots"), 4U);
    EXPECT_EQ(client_->get<int>("data/slots"), 4);
    EXPECT_EQ(client_->get<float>("data/slots"), 4.0F);
    EXPECT_EQ(client_->get<std::string>("data/slots"), "4");
}

TEST_F(Client, WriteOfACommandGivesItsResponse) {
    EXPECT_FALSE(client_->set<bool>("command/measure", true));
    EXPECT_TRUE(client_->set<bool>("command/measure", false));
}

TEST_F(Client, PathIsALiteralATextOrAView) {
    const std::string path = "data/slots";
    EXPECT_EQ(client_->get<int>(path), 4);
    EXPECT_EQ(client_->get<int>(std::string_view(path)), 4);
}

TEST_F(Client, ErrorsOfEntriesKeepCodeAndText) {
    EXPECT_EQ(failure_of([&] { client_->get<int>("none"); }), "-2 No such path: none");
    EXPECT_EQ(failure_of([&] { client_->get<float>("data/failing"); }), "42 no light");
    EXPECT_EQ(failure_of([&] { client_->get<float>("data/away"); }), "107 not connected");
    EXPECT_EQ(failure_of([&] { client_->set<void>("control/power", 99.0F); }), "77 too much");
    EXPECT_EQ(failure_of([&] { client_->set<bool>("command/measure", 1.0F); }),
              "-22 expected bool, found float");
    EXPECT_EQ(failure_of([&] { client_->set<void>("data/slots", true); }),
              "-95 Operation not supported: data/slots");
}

TEST_F(Client, ValueOfTheWrongTypeThrowsAndDisturbsNothing) {
    EXPECT_EQ(failure_of([&] { client_->get<bool>("data/slots"); }),
              "-22 expected bool, found 32-bit unsigned integer");
    EXPECT_EQ(client_->get<int>("data/slots"), 4);
}

TEST_F(Client, ParameterThatWasNeverSetIsOfNoType) {
    EXPECT_EQ(failure_of([&] { client_->get<float>("control/power"); }),
              "-22 expected float, found null");
    EXPECT_EQ(client_->get<std::string>("control/power"), "null");
}

TEST_F(Client, DefaultStandsInForAnErrorOfThePathAndForAWrongType) {
    EXPECT_EQ(client_->get<int>("none", 7), 7);
    EXPECT_EQ(client_->get<float>("data/failing", -1.0F), -1.0F);
    EXPECT_EQ(client_->get<bool>("data/slots", true), true);
    EXPECT_EQ(client_->get<int>("data/slots", 7), 4);
    EXPECT_EQ(client_->get<std::string>("none", std::string("x")), "x");
}

TEST_F(Client, BatchedReadGivesEachEntryItsOwnAnswer) {
    device_handler_read_request request;
    auto slots = request.add<unsigned int>(std::string_view("data/slots"));
    auto none = request.add<float>(std::string_view("none"));
    auto standing_in = request.add<float>(std::string("none"), 2.0F);
    auto wrong = request.add<bool>(std::string("data/slots"));
    client_->send_request(std::move(request));
    EXPECT_EQ(standing_in.get(), 2.0F);
    EXPECT_EQ(failure_of([&] { wrong.get(); }), "-22 expected bool, found 32-bit unsigned integer");
    EXPECT_EQ(failure_of([&] { none.get(); }), "-2 No such path: none");
    EXPECT_EQ(slots.get(), 4U);
}

TEST_F(Client, FuturesMayBeTakenLaterAndInAnyOrder) {
    std::vector<std::future<unsigned int>> futures;
    for (int i = 0; i < 50; ++i) {
        device_handler_read_request request;
        futures.push_back(request.add<unsigned int>(std::string_view("data/slots")));
        client_->send_request(std::move(request));
    }
    EXPECT_EQ(client_->get<int>("data/count"), 1);
    while (!futures.empty()) {
        EXPECT_EQ(futures.back().get(), 4U);
        futures.pop_back();
    }
}

TEST_F(Client, FuturesThatAreNeverTakenDoNoHarm) {
    for (int i = 0; i < 200; ++i) {
        device_handler_read_request request;
        (void)request.add<unsigned int>(std::string_view("data/slots"));
        client_->send_request(std::move(request));
    }
    EXPECT_EQ(client_->get<int>("data/slots"), 4);
}

TEST_F(Client, SeveralThreadsShareAClient) {
    const auto subscriber = subscribe("data/count");
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                if (t == 0)
                    client_->set<void>("control/power", static_cast<float>(i % 40));
                right += client_->get<int>("data/slots") == 4 ? 1 : 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, 600);
}

TEST_F(Client, BlockedReadOfOneClientDelaysNoOther) {
    const auto other = make_client();
    std::thread blocked([&] { EXPECT_EQ(client_->get<float>("data/blocked"), 1.5F); });
    EXPECT_TRUE(owner_->gate.has_met(1));
    EXPECT_EQ(other->get<int>("data/slots"), 4);
    owner_->gate.open();
    blocked.join();
}

TEST_F(Client, RequestThatIsTooLongFailsAndDisturbsNothing) {
    const std::string text(std::size_t{1} << 20, 'x');
    EXPECT_TRUE(failure_of([&] { client_->set<void>("control/name", text); }));
    EXPECT_EQ(client_->get<int>("data/slots"), 4);
}

TEST_F(Client, AnyMethodMayBeCalled) {
    json::document params(rapidjson::kObjectType);
    json::add(params, "limit", 0, params.GetAllocator());
    EXPECT_EQ(json::to_text(client_->call("history", params)), R"({"entries":[]})");
    EXPECT_TRUE(
        failure_of([&] { client_->call("nonsense", params); }).value_or("").starts_with("-32601 "));
}

TEST_F(Client, CallsWaitForTheFirstConnection) {
    server_.reset();
    const auto early = make_client();
    std::thread starter([&] { restart_server(5); });
    EXPECT_EQ(early->get<int>("data/count"), 5);
    starter.join();
}

TEST_F(Client, LostConnectionFailsWhatIsOutstandingAndThenAtOnce) {
    ASSERT_TRUE(eventually([&] { return client_->is_connected(); }));
    std::thread reader([&] {
        EXPECT_EQ(failure_of([&] { client_->get<float>("data/blocked"); }), "104 connection lost");
    });
    ASSERT_TRUE(owner_->gate.has_met(1));
    std::thread opener([&] {
        reader.join();
        owner_->gate.open();
    });
    server_.reset();
    opener.join();
    EXPECT_EQ(failure_of([&] { client_->get<int>("data/slots"); }), "107 not connected");
    EXPECT_EQ(failure_of([&] { client_->get<int>("data/slots", 7); }), "107 not connected");
    EXPECT_EQ(failure_of([&] { client_->set<void>("control/power", 1.0F); }), "107 not connected");
}

TEST_F(Client, ConnectionEventsTellOfLossAndReturn) {
    ASSERT_TRUE(eventually([&] { return connection_->has("established handler"); }));
    server_.reset();
    ASSERT_TRUE(eventually([&] { return connection_->has("lost handler"); }));
    EXPECT_FALSE(client_->is_connected());
    restart_server(5);
    const strings expected{"established handler", "lost handler", "established handler"};
    EXPECT_TRUE(eventually([&] { return connection_->all() == expected; }));
    EXPECT_EQ(client_->get<int>("data/count"), 5);
}

TEST_F(Client, ConnectionCallbackMayDoABlockingRead) {
    client_.reset();
    const auto connection = std::make_shared<test::recording_connection>();
    std::weak_ptr<device_handler_client> weak;
    test::door made;
    connection->on_established = [&] {
        made.pass();
        if (const auto client = weak.lock())
            connection->add("read " + std::to_string(client->get<int>("data/slots")));
    };
    const auto client = device_handler_client::create(host_path_, "handler", connection);
    weak = client;
    made.open();
    const strings expected{"read 4", "established handler"};
    EXPECT_TRUE(eventually([&] { return connection->all() == expected; }));
}

TEST_F(Client, SubscriberGetsTheValueAndItsChanges) {
    const auto subscriber = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 1"); }));
    count_->set(2);
    count_->set(3);
    const strings expected{"value data/count 1", "value data/count 2", "value data/count 3"};
    EXPECT_TRUE(eventually([&] { return subscriber->all() == expected; }));
}

TEST_F(Client, SeveralSubscribersOfAPathEachGetItsEvents) {
    const auto first = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return first->has("value data/count 1"); }));
    const auto second = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return second->has("value data/count 1"); }));
    count_->set(2);
    const strings expected{"value data/count 1", "value data/count 2"};
    EXPECT_TRUE(eventually([&] { return first->all() == expected; }));
    EXPECT_TRUE(eventually([&] { return second->all() == expected; }));
}

TEST_F(Client, PathThatCannotBeSubscribedIsAnExceptionEvent) {
    const auto none = subscribe("none");
    const auto slots = subscribe("data/slots");
    EXPECT_TRUE(
        eventually([&] { return none->all() == strings{"error none -2 No such path: none"}; }));
    EXPECT_TRUE(eventually([&] {
        return slots->all() == strings{"error data/slots -95 Operation not supported: data/slots"};
    }));
}

TEST_F(Client, NodeInErrorIsAnExceptionEvent) {
    using pushed = dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<float>>;
    const auto node = keep(pushed::create(server_->db(), "data/power"));
    const auto subscriber = subscribe("data/power");
    ASSERT_TRUE(
        eventually([&] { return subscriber->has("error data/power -61 Value has not been set"); }));
    node->push(1.5F);
    EXPECT_TRUE(eventually([&] { return subscriber->has("value data/power 1.5"); }));
}

TEST_F(Client, RemovedNodeIsAnEndedEvent) {
    const auto subscriber = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 1"); }));
    server_->db().remove_node("data/count");
    EXPECT_TRUE(eventually([&] { return subscriber->has("ended data/count 1"); }));
}

TEST_F(Client, SubscriberThatThrowsDoesNotStopTheEvents) {
    const test::log_capture log;
    const auto text = add_text("data/text");
    const auto subscriber = std::make_shared<test::recording_subscriber>("data/text");
    subscriber->on_value = [](const json::value& v) { json::to<bool>(v); };
    client_->add_subscriber(subscriber);
    const auto other = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has(R"(value data/text "")"); }));
    text->set("a");
    count_->set(2);
    EXPECT_TRUE(eventually([&] { return subscriber->has(R"(value data/text "a")"); }));
    EXPECT_TRUE(eventually([&] { return other->has("value data/count 2"); }));
    EXPECT_EQ(log.texts(msg_log::warning).size(), 1U);  // what goes on is said once
}

TEST_F(Client, ValueCallbackMayDoABlockingRead) {
    const auto subscriber = std::make_shared<test::recording_subscriber>("data/count");
    subscriber->on_value = [&, raw = subscriber.get()](const json::value&) {
        raw->add("read " + std::to_string(client_->get<int>("data/slots")));
    };
    client_->add_subscriber(subscriber);
    ASSERT_TRUE(eventually([&] { return subscriber->has("read 4"); }));
    count_->set(2);
    const strings expected{"value data/count 1", "read 4", "value data/count 2", "read 4"};
    EXPECT_TRUE(eventually([&] { return subscriber->all() == expected; }));
}

// The callback of one client's event reads from another client, and with the
// reply comes an event of that other one: it is delivered although nothing more
// comes on its connection.
TEST_F(Client, EventThatACallbackComesAcrossOnAnotherClientIsDelivered) {
    const test::line_server other(
        test::root() + "/other", [](const test::line_server::request& asked) {
            const std::string event =
                R"({"jsonrpc":"2.0","method":"event","params":{"event":"value","path":"far",)"
                R"("time":1,"value":7}})"
                "\n";
            return (asked.method == "read" ? event : "") +
                   test::line_server::reply(asked, R"([{"value":3}])");
        });
    const auto other_client = device_handler_client::create("/other", "other", {});
    const auto far = std::make_shared<test::recording_subscriber>("far");
    other_client->add_subscriber(far);
    EXPECT_EQ(other_client->get<int>("warm up"), 3);
    ASSERT_TRUE(eventually([&] { return far->all().size() == 1; }));

    const auto near = std::make_shared<test::recording_subscriber>("data/count");
    near->on_value = [&](const json::value&) { other_client->get<int>("something"); };
    client_->add_subscriber(near);
    EXPECT_TRUE(eventually([&] { return far->all().size() == 2; }, std::chrono::seconds(10)));
    client_->remove_subscriber(near);
}

TEST_F(Client, RemovedSubscriberGetsNoMoreEvents) {
    const auto subscriber = subscribe("data/count");
    const auto other = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 1"); }));
    client_->remove_subscriber(subscriber);
    const std::size_t before = subscriber->all().size();
    count_->set(2);
    ASSERT_TRUE(eventually([&] { return other->has("value data/count 2"); }));
    EXPECT_EQ(subscriber->all().size(), before);
    client_->remove_subscriber(subscriber);
}

// The request that ends the events of a path and the one that begins them again
// come from two threads: the handler gets them in the order of what they ask.
TEST_F(Client, SubscriberThatComesWhileTheLastOneGoesGetsEvents) {
    for (unsigned round = 1; round <= 300; ++round) {
        const auto going = subscribe("data/count");
        std::latch start(2);
        std::thread other([&] {
            start.arrive_and_wait();
            client_->remove_subscriber(going);
        });
        start.arrive_and_wait();
        const auto coming = subscribe("data/count");
        other.join();
        count_->set(1000 + round);
        ASSERT_TRUE(eventually([&] {
            return coming->has("value data/count " + std::to_string(1000 + round));
        })) << "round "
            << round;
        client_->remove_subscriber(coming);
    }
}

// A change of which no event came: it fell between two subscriptions, or its
// event was dropped in favour of a newer one.
TEST_F(Client, FirstEventThatTellsAnotherValueGoesToEverySubscriber) {
    std::deque<int> values{1, 1, 2, 3};
    const test::line_server other(
        test::root() + "/other", [&](const test::line_server::request& asked) {
            if (asked.method != "subscribe")
                return test::line_server::reply(asked, "[{}]");
            const std::string value = std::to_string(values.front());
            values.pop_front();
            return R"({"jsonrpc":"2.0","method":"event","params":{"event":"value","path":"far",)"
                   R"("time":1,"initial":true,"value":)" +
                   value + "}}\n" + test::line_server::reply(asked, R"([{"value":)" + value + "}]");
        });
    const auto other_client = device_handler_client::create("/other", "other", {});
    std::vector<std::shared_ptr<test::recording_subscriber>> subscribers;
    for (const std::string text : {"value far 1", "value far 1", "value far 2", "value far 3"}) {
        subscribers.push_back(std::make_shared<test::recording_subscriber>("far"));
        other_client->add_subscriber(subscribers.back());
        ASSERT_TRUE(eventually([&] { return subscribers.back()->has(text); }));
    }
    // Those that were there before are called first.
    EXPECT_EQ(subscribers[0]->all(), (strings{"value far 1", "value far 2", "value far 3"}));
    EXPECT_EQ(subscribers[1]->all(), (strings{"value far 1", "value far 2", "value far 3"}));
    EXPECT_EQ(subscribers[2]->all(), (strings{"value far 2", "value far 3"}));
}

TEST_F(Client, LeadingSlashOfASubscribedPathIsDropped) {
    const auto subscriber = subscribe("/data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 1"); }));
    count_->set(2);
    EXPECT_TRUE(eventually([&] { return subscriber->has("value data/count 2"); }));
    client_->remove_subscriber(subscriber);
}

// Their first events are more than the server keeps for a client that reads nothing.
TEST_F(Client, SubscribersOfVeryManyLongPathsAllGetTheirValues) {
    constexpr unsigned paths = 1500;
    const std::string end(4000, 'x');
    std::vector<std::shared_ptr<device_handler_subscriber>> subscribers;
    std::vector<std::shared_ptr<test::recording_subscriber>> recorded;
    for (unsigned i = 0; i < paths; ++i) {
        const std::string path = "many/" + std::to_string(i) + end;
        keep(dh::api::status_value<unsigned>::create(server_->db(), path, i, 0));
        recorded.push_back(std::make_shared<test::recording_subscriber>(path));
        subscribers.push_back(recorded.back());
    }
    const auto all_have = [&](std::size_t events) {
        return eventually([&] {
            return std::ranges::all_of(
                recorded, [&](const auto& each) { return each->all().size() == events; });
        });
    };
    const auto connection = std::make_shared<test::recording_connection>();
    const auto client = device_handler_client::create(host_path_, "handler", connection);
    client->add_subscribers(subscribers);
    EXPECT_TRUE(all_have(1));
    EXPECT_EQ(connection->all(), strings{"established handler"});
    client->remove_subscribers(subscribers);
}

TEST_F(Client, SubscriptionsAreRenewedWhenTheServerReturns) {
    const auto subscriber = subscribe("data/count");
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 1"); }));
    const auto returned = restart_server(7);
    ASSERT_TRUE(eventually([&] { return subscriber->has("value data/count 7"); }));
    returned->set(8);
    EXPECT_TRUE(eventually([&] { return subscriber->has("value data/count 8"); }));
}

TEST_F(Client, SubscriptionMadeBeforeTheServerIsThereIsMadeGoodLater) {
    server_.reset();
    client_ = make_client();
    const auto subscriber = subscribe("data/count");
    restart_server(7);
    EXPECT_TRUE(eventually([&] { return subscriber->has("value data/count 7"); }));
}

TEST_F(Client, MayBeDestroyedWhileEventsCome) {
    for (unsigned i = 0; i < 30; ++i) {
        const auto client = make_client();
        client->add_subscriber(std::make_shared<test::recording_subscriber>("data/count"));
        count_->set(i + 100);
    }
    EXPECT_EQ(client_->get<int>("data/slots"), 4);
}

TEST(ClientObjects, LiteralPathIsViewedAndTextIsCopied) {
    static const char literal[] = "data/slots";
    const device_handler_read_object<int> viewed{std::string_view(literal)};
    EXPECT_EQ(viewed.path().data(), literal);
    std::string text = "data/slots";
    const device_handler_read_object<int> copied{text};
    text[0] = 'X';
    EXPECT_EQ(copied.path(), "data/slots");
}

}  // namespace
