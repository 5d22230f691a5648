// Subscriptions, watches and their events.
#include "host.hpp"
#include "wire_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using test::next_event;
using test::raw_client;
using testing::UnorderedElementsAre;

using polled = dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<float>>;

class WireEvents : public test::wire_fixture {
  protected:
    // What a subscribe brings: the reply, and the first event, which may come
    // before it. Events come without their time.
    std::vector<std::string> subscribe(raw_client& client, const std::string& path,
                                       std::size_t messages = 2) {
        client.send_line(request("subscribe", paths({path})));
        std::vector<std::string> came;
        for (; messages > 0; --messages)
            came.push_back(message(client));
        return came;
    }

    static std::string message(raw_client& client) {
        const std::string line = client.read_line().value_or("(nothing)");
        return line.find(R"("method":"event")") == std::string::npos
                   ? line
                   : test::event_without_time(line + "\n");
    }

    static std::string value_event(const std::string& path, const std::string& value) {
        return R"({"event":"value","path":")" + path + R"(","value":)" + value + "}";
    }
    static std::string first_event(const std::string& path, const std::string& value) {
        return R"({"event":"value","path":")" + path + R"(","value":)" + value +
               R"(,"initial":true})";
    }

    // Whatever was sent before has been read when the answer comes.
    testing::AssertionResult is_quiet(raw_client& client) {
        const std::string next = client.ask(read_of("data/slots", "99"));
        if (next == result(R"([{"value":4}])", "99"))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not quiet: " << next;
    }

    raw_client client_{path_};
    std::shared_ptr<dh::api::status_value<unsigned int>> count_ = add_count("data/count");
};

TEST_F(WireEvents, SubscribeGivesTheValueAndAFirstEvent) {
    EXPECT_THAT(subscribe(client_, "data/count"),
                UnorderedElementsAre(result(R"([{"value":1}])"), first_event("data/count", "1")));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, EachChangeIsAnEvent) {
    subscribe(client_, "data/count");
    count_->set(2);
    count_->set(3);
    EXPECT_EQ(next_event(client_), value_event("data/count", "2"));
    EXPECT_EQ(next_event(client_), value_event("data/count", "3"));
}

TEST_F(WireEvents, TimeIsInMillisecondsOfTheProgramsClock) {
    subscribe(client_, "data/count");
    const std::int64_t before = host::wall_milliseconds();
    count_->set(2);
    json::document event;
    ASSERT_TRUE(wire::parse(client_.read_line().value_or(""), event));
    const json::value& time = event["params"]["time"];
    ASSERT_TRUE(time.IsInt64());
    EXPECT_GE(time.GetInt64(), before);
    EXPECT_LE(time.GetInt64(), host::wall_milliseconds());
}

TEST_F(WireEvents, LeadingSlashIsDroppedInEventsToo) {
    EXPECT_THAT(subscribe(client_, "/data/count"),
                UnorderedElementsAre(result(R"([{"value":1}])"), first_event("data/count", "1")));
    EXPECT_EQ(client_.ask(request("unsubscribe", paths({"/data/count"}))), result("[{}]"));
    count_->set(2);
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, WriteOfOneSessionIsAnEventInAnother) {
    raw_client writer(path_);
    subscribe(client_, "control/power", 1);
    EXPECT_EQ(writer.ask(write_of("control/power", "2.5")), result("[{}]"));
    EXPECT_EQ(next_event(client_), value_event("control/power", "2.5"));
    EXPECT_TRUE(is_quiet(writer));
}

TEST_F(WireEvents, ParameterThatWasNeverSetGivesNullAndNoEvent) {
    EXPECT_THAT(subscribe(client_, "control/power", 1),
                UnorderedElementsAre(result(R"([{"value":null}])")));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, NodeInErrorGivesTheErrorAsItsValue) {
    const auto node = keep(polled::create(server_->db(), "data/power"));
    const std::string error = R"({"code":-61,"message":"Value has not been set"})";
    EXPECT_THAT(subscribe(client_, "data/power"),
                UnorderedElementsAre(result(R"([{"value":)" + error + "}]"),
                                     first_event("data/power", error)));
    node->push(2.5F);
    EXPECT_EQ(next_event(client_), value_event("data/power", "2.5"));
}

class failing_source {
  public:
    float get() {
        if (!message.empty())
            throw dh_error(42, message);
        return 1;
    }
    std::string message;
};

TEST_F(WireEvents, NodeThatGoesIntoErrorSendsAnErrorEvent) {
    using node_type = dh::api::hysteresis_filtered_value<
        dh::api::polled_volatile_value_impl<&failing_source::get>>;
    const auto source = std::make_shared<failing_source>();
    const auto node = keep(node_type::create(server_->db(), "data/power", source));
    node->periodic_task(false);
    subscribe(client_, "data/power");
    source->message = "no light";
    node->periodic_task(false);
    source->message = "no answer";
    node->periodic_task(false);
    EXPECT_EQ(next_event(client_),
              R"({"event":"error","path":"data/power","error":{"code":42,"message":"no light"}})");
    EXPECT_EQ(next_event(client_),
              R"({"event":"error","path":"data/power","error":{"code":42,"message":"no answer"}})");
}

TEST_F(WireEvents, SubscribeErrorsStandInTheirEntries) {
    const std::string slots = entry_error(-95, "Operation not supported: data/slots");
    const std::string command = entry_error(-95, "Operation not supported: command/measure");
    const std::string none = entry_error(-2, "No such path: none");
    client_.send_line(
        request("subscribe", paths({"data/slots", "none", "data/count", "command/measure"})));
    EXPECT_THAT(
        (std::vector<std::string>{message(client_), message(client_)}),
        UnorderedElementsAre(result("[" + slots + "," + none + R"(,{"value":1},)" + command + "]"),
                             first_event("data/count", "1")));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, SecondSubscribeSendsTheFirstEventAgainAndDoublesNothing) {
    subscribe(client_, "data/count");
    EXPECT_THAT(subscribe(client_, "data/count"),
                UnorderedElementsAre(result(R"([{"value":1}])"), first_event("data/count", "1")));
    count_->set(2);
    EXPECT_EQ(next_event(client_), value_event("data/count", "2"));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, UnsubscribeEndsTheEvents) {
    subscribe(client_, "data/count");
    EXPECT_EQ(client_.ask(request("unsubscribe", paths({"data/count"}))), result("[{}]"));
    count_->set(2);
    EXPECT_TRUE(is_quiet(client_));
    EXPECT_THAT(subscribe(client_, "data/count"),
                UnorderedElementsAre(result(R"([{"value":2}])"), first_event("data/count", "2")));
}

TEST_F(WireEvents, SubscriptionsEndWithTheirSession) {
    auto gone = std::make_unique<raw_client>(path_);
    subscribe(*gone, "data/count");
    gone.reset();
    for (unsigned i = 2; i < 50; ++i)
        count_->set(i);
    EXPECT_TRUE(is_alive());
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, RemovedNodeEndsItsSubscriptionWithReasonOne) {
    subscribe(client_, "data/count");
    server_->db().remove_node("data/count");
    EXPECT_EQ(next_event(client_), R"({"event":"ended","path":"data/count","reason":1})");
    count_->set(2);
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, NodeThatReturnsMayBeSubscribedAgain) {
    subscribe(client_, "data/count");
    server_->db().remove_node("data/count");
    next_event(client_);
    const auto returned = add_count("data/count");
    subscribe(client_, "data/count");
    returned->set(7);
    EXPECT_EQ(next_event(client_), value_event("data/count", "7"));
    client_.ask(request("unsubscribe", paths({"data/count"})));
    returned->set(8);
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireEvents, EndOfTheServerEndsSubscriptionsWithReasonTwo) {
    subscribe(client_, "data/count");
    const auto removed = add_count("data/removed");
    subscribe(client_, "data/removed");
    server_->db().remove_node("data/removed");
    next_event(client_);
    server_.reset();
    EXPECT_EQ(next_event(client_), R"({"event":"ended","path":"data/count","reason":2})");
    EXPECT_EQ(client_.read_line(), std::nullopt);
}

TEST_F(WireEvents, ServerMayEndWhileClientsSubscribe) {
    raw_client busy(path_);
    for (int i = 0; i < 200; ++i)
        busy.send_line(request("subscribe", paths({"data/count"})));
    server_.reset();
    EXPECT_TRUE(busy.is_closed_by_peer());
}

class WireWatch : public WireEvents {
  protected:
    std::string watch(const std::string& prefix) {
        return client_.ask(request("watch", R"({"prefix":")" + prefix + R"("})"));
    }
    std::string unwatch(const std::string& prefix) {
        return client_.ask(request("unwatch", R"({"prefix":")" + prefix + R"("})"));
    }
    void add(const std::string& path) {
        keep(dh::api::const_value<unsigned int>::create(server_->db(), path, 1));
    }
    static std::string added(const std::string& path) {
        return R"({"event":"added","path":")" + path +
               R"(","info":{"type":"const value","valueType":"unsigned int",)"
               R"("capabilities":{"read":true}}})";
    }
    static std::string removed(const std::string& path) {
        return R"({"event":"removed","path":")" + path + R"("})";
    }
};

TEST_F(WireWatch, NodesThatComeAndGoUnderThePrefixAreEvents) {
    EXPECT_EQ(watch("wss"), result(R"({"nodes":[]})"));
    add("wss2/a");
    add("wss/a");
    add("wss");
    server_->db().remove_node("wss2/a");
    server_->db().remove_node("wss/a");
    EXPECT_EQ(next_event(client_), added("wss/a"));
    EXPECT_EQ(next_event(client_), added("wss"));
    EXPECT_EQ(next_event(client_), removed("wss/a"));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireWatch, OneLeadingSlashOfThePrefixIsDropped) {
    watch("/wss");
    add("wss/a");
    EXPECT_EQ(next_event(client_), added("wss/a"));
    EXPECT_EQ(unwatch("/wss"), result("{}"));
    add("wss/b");
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireWatch, UnwatchEndsThatPrefixOnly) {
    watch("wss");
    watch("osc");
    EXPECT_EQ(unwatch("wss"), result("{}"));
    EXPECT_EQ(unwatch("os"), result("{}"));
    add("wss/a");
    add("osc/a");
    EXPECT_EQ(next_event(client_), added("osc/a"));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireWatch, OverlappingPrefixesAreOneEvent) {
    watch("");
    watch("wss");
    watch("wss");
    add("wss/a");
    EXPECT_EQ(next_event(client_), added("wss/a"));
    EXPECT_TRUE(is_quiet(client_));
}

TEST_F(WireWatch, WatchEndsWithItsSession) {
    auto gone = std::make_unique<raw_client>(path_);
    gone->ask(request("watch", R"({"prefix":""})"));
    gone.reset();
    for (int i = 0; i < 50; ++i)
        add("wss/" + std::to_string(i));
    EXPECT_TRUE(is_alive());
}

}  // namespace
