// Bounds of the server, and sessions that do not wait for each other.
#include "eventually.hpp"
#include "wire_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace {

using test::raw_client;

class WireSessions : public test::wire_fixture {
  protected:
    const std::string slots_ = result(R"([{"value":4}])");
    const std::string blocked_ = result(R"([{"value":1.5}])", "5");
};

TEST_F(WireSessions, SessionBlockedInAGetterDelaysNoOther) {
    raw_client blocked(path_);
    blocked.send_line(read_of("data/blocked", "5"));
    ASSERT_TRUE(owner_->gate.has_met(1));
    EXPECT_TRUE(is_alive());
    EXPECT_FALSE(blocked.has_arrived());
    owner_->gate.open();
    EXPECT_EQ(blocked.read_line(), blocked_);
}

TEST_F(WireSessions, RequestsOfOneSessionAreAnsweredInOrder) {
    raw_client client(path_);
    client.send(read_of("data/blocked", "5") + "\n" + read_of("data/slots") + "\n");
    ASSERT_TRUE(owner_->gate.has_met(1));
    EXPECT_FALSE(client.has_arrived());
    owner_->gate.open();
    EXPECT_EQ(client.read_line(), blocked_);
    EXPECT_EQ(client.read_line(), slots_);
}

TEST_F(WireSessions, EarlierRepliesAreOutWhileALaterRequestBlocks) {
    raw_client client(path_);
    client.send(read_of("data/slots") + "\nno json\n" + read_of("data/blocked", "5") + "\n");
    EXPECT_EQ(client.read_line(), slots_);
    EXPECT_STARTS_WITH(client.read_line().value_or(""), error(-32700, "null"));
    EXPECT_FALSE(client.has_arrived());
    owner_->gate.open();
    EXPECT_EQ(client.read_line(), blocked_);
}

TEST_F(WireSessions, PipelinedRequestsAreExecutedInOrder) {
    raw_client client(path_);
    std::string lines;
    for (int i = 0; i < 50; ++i) {
        const std::string id = std::to_string(2 * i);
        lines += write_of("control/power", std::to_string(i), id) + "\n";
        lines += read_of("control/power", std::to_string(2 * i + 1)) + "\n";
    }
    client.send(lines);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(client.read_line(), result("[{}]", std::to_string(2 * i)));
        EXPECT_EQ(client.read_line(),
                  result(R"([{"value":)" + std::to_string(i) + ".0}]", std::to_string(2 * i + 1)));
    }
}

TEST_F(WireSessions, ClientsThatVanishDuringABlockedRequestDoNoHarm) {
    for (int i = 0; i < 10; ++i) {
        raw_client client(path_);
        client.send_line(read_of("data/blocked"));
        ASSERT_TRUE(owner_->gate.has_met(i + 1));
    }
    EXPECT_TRUE(is_alive());
    owner_->gate.open();
    EXPECT_TRUE(is_alive());
}

TEST_F(WireSessions, SixtyFourAreHeldAndTheNextIsSentAway) {
    std::vector<std::unique_ptr<raw_client>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<raw_client>(path_));
        ASSERT_EQ(clients.back()->ask(read_of("data/slots")), slots_);
    }
    raw_client further(path_);
    EXPECT_EQ(further.read_line(), R"({"jsonrpc":"2.0","id":null,)"
                                   R"("error":{"code":-32000,"message":"too many sessions"}})");
    EXPECT_TRUE(further.is_closed_by_peer());
    EXPECT_EQ(clients.front()->ask(read_of("data/slots")), slots_);
}

TEST_F(WireSessions, PlaceOfASessionThatEndsIsFreeAgain) {
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<raw_client>> clients;
        for (int i = 0; i < 64; ++i) {
            EXPECT_TRUE(test::eventually([&] {
                clients.push_back(std::make_unique<raw_client>(path_));
                if (clients.back()->ask(read_of("data/slots")) == slots_)
                    return true;
                clients.pop_back();
                return false;
            }));
        }
    }
}

TEST_F(WireSessions, StaleSocketFileIsReplaced) {
    // A socket file stays behind when its process is killed.
    const std::string path = folder_.path("/stale");
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(socket);
    const dh_server server("second", path);
    raw_client client(path);
    EXPECT_THAT(client.ask(request("version", "{}")), testing::HasSubstr("second"));
}

TEST_F(WireSessions, SocketOnWhichSomebodyListensIsRefused) {
    EXPECT_THROW(dh_server("second", path_), std::system_error);
    EXPECT_TRUE(is_alive());
}

TEST_F(WireSessions, FileThatIsNoSocketIsNotReplaced) {
    folder_.write("/file", "content");
    EXPECT_THROW(dh_server("second", folder_.path("/file")), std::system_error);
    std::ifstream file(folder_.path("/file"));
    std::string content;
    file >> content;
    EXPECT_EQ(content, "content");
}

TEST_F(WireSessions, FoldersOfTheSocketAreMade) {
    const std::string path = folder_.path("/a/b/socket");
    const dh_server server("second", path);
    EXPECT_NO_THROW(raw_client client(path));
}

TEST_F(WireSessions, PathThatIsTooLongForASocketIsRefused) {
    EXPECT_THROW(dh_server("second", folder_.path("/" + std::string(120, 'x'))), std::system_error);
}

TEST_F(WireSessions, EndOfTheServerClosesItsSessionsAndFreesThePath) {
    raw_client client(path_);
    EXPECT_EQ(client.ask(read_of("data/slots")), slots_);
    server_.reset();
    EXPECT_TRUE(client.is_closed_by_peer());
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_NO_THROW(dh_server("second", path_));
}

class WireReplySize : public test::wire_fixture {
  protected:
    std::shared_ptr<dh::api::status_value<std::string>> text_ = add_text("data/text");
    raw_client client_{path_};
};

TEST_F(WireReplySize, ReplyOver16MebibytesIsAnErrorAndTheSessionGoesOn) {
    text_->set(std::string(std::size_t{1} << 20, 'x'));
    EXPECT_EQ(client_.ask(request("read", paths(std::vector<std::string>(17, "data/text")))),
              error(-32001) + R"(reply too large"}})");
    EXPECT_EQ(client_.ask(read_of("data/slots")), result(R"([{"value":4}])"));
}

TEST_F(WireReplySize, ReplyOfExactly16MebibytesIsTaken) {
    constexpr std::size_t whole = std::size_t{16} << 20;
    const std::size_t frame = result(R"([{"value":""}])").size() + 1;
    text_->set(std::string(whole - frame, 'x'));
    EXPECT_EQ(client_.ask(read_of("data/text")).size() + 1, whole);
    text_->set(std::string(whole - frame + 1, 'x'));
    EXPECT_EQ(client_.ask(read_of("data/text")), error(-32001) + R"(reply too large"}})");
}

// Small bounds, so that a socket's own buffers are soon full.
class WireSlowReader : public test::wire_fixture {
  protected:
    static constexpr std::size_t bound = std::size_t{256} << 10;

    WireSlowReader() : wire_fixture({64, bound}) {}

    void subscribe(const std::vector<std::string>& list) {
        client_.send_line(request("subscribe", paths(list)));
        for (std::size_t messages = list.size() + 1; messages > 0; --messages)
            ASSERT_TRUE(client_.read_line());
    }

    raw_client client_{path_};
};

TEST_F(WireSlowReader, NewestValueArrivesAndTheOwnerIsNotDelayed) {
    const auto text = add_text("data/text");
    const auto count = add_count("data/count");
    subscribe({"data/text", "data/count"});
    for (int i = 0; i < 2000; ++i) {
        text->set(std::to_string(i) + std::string(2000, 'x'));
        count->set(static_cast<unsigned>(i + 2));
    }
    text->set("last");
    std::string line;
    int events = 0;
    bool count_was_last = false;
    do {
        line = client_.read_line().value_or("");
        ASSERT_FALSE(line.empty());
        ++events;
        count_was_last = count_was_last || line.find(R"("value":2001)") != std::string::npos;
    } while (line.find(R"("value":"last")") == std::string::npos);
    EXPECT_LT(events, 4000);
    EXPECT_TRUE(count_was_last);
    EXPECT_EQ(client_.ask(read_of("data/slots")), result(R"([{"value":4}])"));
}

TEST_F(WireSlowReader, SessionThatIsStillOverTheBoundIsClosed) {
    std::vector<std::string> list;
    std::vector<std::shared_ptr<dh::api::status_value<std::string>>> texts;
    for (int i = 0; i < 200; ++i) {
        list.push_back("data/text" + std::to_string(i));
        texts.push_back(add_text(list.back()));
    }
    subscribe(list);
    for (const auto& text : texts)
        text->set(std::string(20'000, 'x'));
    EXPECT_TRUE(client_.is_closed_by_peer());
    EXPECT_TRUE(is_alive());
}

TEST_F(WireSlowReader, OtherSubscribersGetEveryEvent) {
    const auto text = add_text("data/text");
    subscribe({"data/text"});
    raw_client reader(path_);
    reader.send_line(request("subscribe", paths({"data/text"})));
    for (int message = 0; message < 2; ++message)
        reader.read_line();
    const std::string padding(2000, 'x');
    for (int i = 0; i < 1000; ++i) {
        const std::string value = std::to_string(i) + padding;
        text->set(value);
        EXPECT_EQ(test::next_event(reader),
                  R"({"event":"value","path":"data/text","value":")" + value + R"("})");
    }
}

TEST_F(WireSlowReader, ClientThatPipelinesAndReadsLateGetsEveryReply) {
    const auto text = add_text("data/text");
    text->set(std::string(10'000, 'x'));
    constexpr int requests = 500;
    std::string lines;
    for (int i = 0; i < requests; ++i)
        lines += read_of("data/text", std::to_string(i)) + "\n";
    ASSERT_TRUE(client_.send(lines));
    const std::string value = R"([{"value":")" + std::string(10'000, 'x') + R"("}])";
    for (int i = 0; i < requests; ++i)
        EXPECT_EQ(client_.read_line(), result(value, std::to_string(i)));
}

TEST_F(WireSlowReader, ClientThatPipelinesAndNeverReadsIsClosed) {
    const auto text = add_text("data/text");
    text->set(std::string(10'000, 'x'));
    const std::string line = read_of("data/text") + "\n";
    while (client_.send(line)) {
    }
    EXPECT_TRUE(is_alive());
}

TEST_F(WireSlowReader, ClientThatSendsGarbageAndNeverReadsIsClosed) {
    const std::string lines = [] {
        std::string text;
        for (int i = 0; i < 10'000; ++i)
            text += "x\n";
        return text;
    }();
    while (client_.send(lines)) {
    }
    EXPECT_TRUE(is_alive());
}

}  // namespace
