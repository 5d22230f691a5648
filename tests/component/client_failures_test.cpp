// The client library against servers that are old, silent or broken.
#include "client_recorders.hpp"
#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "line_server.hpp"
#include "log_capture.hpp"
#include "test_root.hpp"
#include "wire_fixture.hpp"

#include <gtest/gtest.h>

#include <future>
#include <memory>

namespace {

using test::eventually;
using test::line_server;
using strings = std::vector<std::string>;

class ClientFailures : public testing::Test {
  protected:
    // A server that knows reads only and answers them so.
    void serve(const std::string& name, line_server::answer answer_read) {
        servers_.push_back(std::make_unique<line_server>(
            test::root() + "/" + name,
            [answer = std::move(answer_read)](const line_server::request& asked) {
                return asked.method == "read" ? answer(asked) : line_server::unknown_method(asked);
            }));
    }

    std::shared_ptr<device_handler_client> client_of(
        const std::string& name,
        const std::shared_ptr<test::recording_connection>& connection = nullptr) {
        return device_handler_client::create("/" + name, name, connection);
    }

    static int code_of_read(device_handler_client& client) {
        try {
            client.get<int>("a");
        } catch (const dh_client_exception& error) {
            return error.code;
        }
        return 0;
    }

    // The default stands in for an error of the path only, so this throws all the same.
    static int code_of_default_read(device_handler_client& client) {
        try {
            client.get<int>("a", 7);
        } catch (const dh_client_exception& error) {
            return error.code;
        }
        return 0;
    }

    const test::log_capture log_;
    std::vector<std::unique_ptr<line_server>> servers_;
};

TEST_F(ClientFailures, ServerThatDoesNotKnowVersionCountsAsConnected) {
    serve("old", [](const auto& asked) { return line_server::reply(asked, R"([{"value":5}])"); });
    const auto client = client_of("old");
    EXPECT_EQ(client->get<int>("a"), 5);
    EXPECT_TRUE(client->is_connected());
}

TEST_F(ClientFailures, ErrorOfTheWholeRequestThrowsAlsoWithADefault) {
    serve("refusing", [](const auto& asked) { return line_server::unknown_method(asked); });
    const auto client = client_of("refusing");
    EXPECT_EQ(code_of_read(*client), -32601);
    EXPECT_EQ(code_of_default_read(*client), -32601);
}

TEST_F(ClientFailures, ConnectionThatBreaksDuringARequestIs104) {
    serve("hanging up", [](const auto&) { return line_server::hang_up; });
    const auto client = client_of("hanging up");
    EXPECT_EQ(code_of_read(*client), 104);
    EXPECT_TRUE(eventually([&] { return client->is_connected(); }));
    EXPECT_EQ(code_of_default_read(*client), 104);
}

TEST_F(ClientFailures, ReplyThatDoesNotFitTheRequestIs71) {
    for (const char* result : {"[]", R"([{"value":5},{"value":6}])", "5", "null", R"({"value":5})",
                               "[5]", "[null]", "[{}]"}) {
        servers_.clear();
        serve("misfit", [=](const auto& asked) { return line_server::reply(asked, result); });
        const auto client = client_of("misfit");
        EXPECT_EQ(code_of_read(*client), 71) << result;
        EXPECT_EQ(code_of_default_read(*client), 71) << result;
    }
}

TEST_F(ClientFailures, ReplyWithoutResultAndErrorIs71) {
    serve("empty",
          [](const auto& asked) { return R"({"jsonrpc":"2.0","id":)" + asked.id + "}\n"; });
    EXPECT_EQ(code_of_read(*client_of("empty")), 71);
}

TEST_F(ClientFailures, GarbageIs71AndTheClientConnectsAnew) {
    for (const std::string bytes : {"garbage\n", "[]\n", "5\n", "\xff\xfe\n", "{\"id\":\n"}) {
        servers_.clear();
        serve("garbage", [=](const auto&) { return bytes; });
        const auto client = client_of("garbage");
        EXPECT_EQ(code_of_read(*client), 71) << bytes;
        EXPECT_TRUE(eventually([&] { return servers_[0]->accepted_connections() > 1; }));
    }
}

TEST_F(ClientFailures, LineOfSeventeenMebibytesIs71) {
    serve("long", [](const auto&) { return std::string(std::size_t{17} << 20, 'x') + "\n"; });
    EXPECT_EQ(code_of_read(*client_of("long")), 71);
}

TEST_F(ClientFailures, ReplyOfNearlySixteenMebibytesIsTaken) {
    const std::string text(wire::max_reply_line - 100, 'x');
    serve("long", [&](const auto& asked) {
        return line_server::reply(asked, R"([{"value":")" + text + R"("}])");
    });
    EXPECT_EQ(client_of("long")->get<std::string>("a"), text);
}

TEST_F(ClientFailures, EntryErrorOfAnotherFormIsAnErrorAllTheSame) {
    for (const char* error : {"5", "null", "{}", R"({"code":"x","message":5})"}) {
        servers_.clear();
        serve("odd", [=](const auto& asked) {
            return line_server::reply(asked, std::string(R"([{"error":)") + error + "}]");
        });
        const auto client = client_of("odd");
        EXPECT_EQ(code_of_read(*client), -1) << error;
        EXPECT_EQ(client->get<int>("a", 7), 7);
    }
}

TEST_F(ClientFailures, OddEventsAreIgnored) {
    serve("odd", [](const auto& asked) {
        std::string lines;
        for (const char* params :
             {"5", "{}", R"({"event":5})", R"({"event":"value"})", R"({"event":"value","path":5})",
              R"({"event":"other","path":"a"})", R"({"event":"ended","reason":"x"})"})
            lines += std::string(R"({"jsonrpc":"2.0","method":"event","params":)") + params + "}\n";
        return lines + "{\"jsonrpc\":\"2.0\",\"method\":\"event\"}\n" +
               line_server::reply(asked, R"([{"value":5}])");
    });
    EXPECT_EQ(client_of("odd")->get<int>("a"), 5);
}

TEST_F(ClientFailures, FullServerIsTriedAgainUntilThereIsRoom) {
    std::atomic<int> refusals{0};
    const line_server server(test::root() + "/full", [&](const line_server::request& asked) {
        if (refusals++ < 3)
            return std::string(R"({"jsonrpc":"2.0","id":null,)"
                               R"("error":{"code":-32000,"message":"too many sessions"}})"
                               "\n");
        return line_server::reply(asked, asked.method == "read" ? R"([{"value":5}])" : "{}");
    });
    EXPECT_EQ(client_of("full")->get<int>("a"), 5);
    EXPECT_GE(server.accepted_connections(), 4U);
}

// A subscriber that takes its time, and a server that crashes again and again:
// neither the events that wait nor those of other clients grow old without bound.
TEST_F(ClientFailures, ConnectionThatComesAndGoesFasterThanItIsToldIsToldItsLastState) {
    const auto door = std::make_shared<test::door>();
    const auto connection = std::make_shared<test::recording_connection>();
    connection->on_established = [door] { door->pass(); };
    serve("flapping",
          [](const auto& asked) { return line_server::reply(asked, R"([{"value":5}])"); });
    const auto client = client_of("flapping", connection);
    ASSERT_TRUE(door->has_met(1));
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(code_of_read(*client), 0);
        servers_.back()->drop_connections();
        ASSERT_TRUE(eventually([&] { return code_of_read(*client) != 0; }));
        ASSERT_TRUE(eventually([&] { return client->is_connected(); }));
    }
    door->open();
    const auto other = std::make_shared<test::recording_connection>();
    const auto other_client = client_of("flapping", other);
    ASSERT_TRUE(eventually([&] { return other->has("established flapping"); }));
    const strings told = connection->all();
    EXPECT_LE(told.size(), 40U);
    EXPECT_EQ(told.back(), "established flapping");
}

TEST_F(ClientFailures, RefusedSubscriptionsAreOneLineAndTheConnectionLasts) {
    const test::log_capture log;
    const line_server server(test::root() + "/refusing", [](const line_server::request& asked) {
        if (asked.method.ends_with("subscribe"))
            return R"({"jsonrpc":"2.0","id":)" + asked.id +
                   R"(,"error":{"code":-32602,"message":"no"}})"
                   "\n";
        return line_server::reply(asked, R"([{"value":5}])");
    });
    const auto client = client_of("refusing");
    for (int i = 0; i < 5; ++i) {
        const auto subscriber = std::make_shared<test::recording_subscriber>("a");
        client->add_subscriber(subscriber);
        client->remove_subscriber(subscriber);
        EXPECT_EQ(client->get<int>("b"), 5);
    }
    EXPECT_EQ(log.texts(),
              strings{"msg: " + test::root() + "/refusing refuses to begin or end subscriptions"});
    EXPECT_EQ(server.accepted_connections(), 1U);
}

// The waits of ten seconds of real time run beside each other.
TEST_F(ClientFailures, WhatNeverComesFailsAfterTenSeconds) {
    serve("silent", [](const auto&) { return std::string(); });
    serve("wrong id", [](const line_server::request&) {
        return line_server::reply({"123456789", "", ""}, R"([{"value":5}])");
    });
    const line_server hanging(test::root() + "/hanging",
                              [](const line_server::request&) { return std::string(); });
    const auto silent = client_of("silent");
    const auto wrong_id = client_of("wrong id");
    const auto hung_events = std::make_shared<test::recording_connection>();
    const auto hung = client_of("hanging", hung_events);
    const auto absent_events = std::make_shared<test::recording_connection>();
    const auto absent = client_of("absent", absent_events);

    const auto start = std::chrono::steady_clock::now();
    const auto read = [](const std::shared_ptr<device_handler_client>& client) {
        return std::async(std::launch::async, [client] { return code_of_read(*client); });
    };
    auto of_silent = read(silent);
    auto of_wrong_id = read(wrong_id);
    auto of_hung = read(hung);
    auto of_absent = read(absent);
    EXPECT_EQ(of_silent.get(), 110);
    EXPECT_EQ(of_wrong_id.get(), 110);
    EXPECT_EQ(of_hung.get(), 107);
    EXPECT_EQ(of_absent.get(), 107);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(9900));

    EXPECT_TRUE(eventually([&] { return hung_events->has("lost hanging"); }));
    EXPECT_TRUE(eventually([&] { return absent_events->has("lost absent"); }));
    EXPECT_FALSE(hung->is_connected());
    EXPECT_EQ(code_of_read(*absent), 107);
    EXPECT_TRUE(eventually([&] { return servers_[0]->accepted_connections() > 1; }));

    // The absent one may come late.
    serve("absent",
          [](const auto& asked) { return line_server::reply(asked, R"([{"value":5}])"); });
    const strings expected{"lost absent", "established absent"};
    EXPECT_TRUE(eventually([&] { return absent_events->all() == expected; }));
    EXPECT_EQ(absent->get<int>("a"), 5);
}

}  // namespace
