// The frame of the protocol: lines, requests, ids, errors of whole requests.
#include "wire_fixture.hpp"

#include <gtest/gtest.h>

#include <random>

namespace {

using test::raw_client;

class WireFraming : public test::wire_fixture {
  protected:
    raw_client client_{path_};
    const std::string read_ = read_of("data/slots");
    const std::string slots_ = result(R"([{"value":4}])");
    const std::string no_request_ = error(-32600, "null");
};

TEST_F(WireFraming, RequestIsAnsweredByOneLine) {
    EXPECT_EQ(client_.ask(read_), slots_);
}

TEST_F(WireFraming, RequestMayComeInPieces) {
    for (const char c : read_)
        client_.send(std::string(1, c));
    EXPECT_EQ(client_.ask(""), slots_);
}

TEST_F(WireFraming, RequestsMayComeTogether) {
    client_.send(read_of("data/slots", "1") + "\n" + read_of("data/slots", "2") + "\n" +
                 read_of("data/slots", "3").substr(0, 20));
    EXPECT_EQ(client_.read_line(), slots_);
    EXPECT_EQ(client_.read_line(), result(R"([{"value":4}])", "2"));
    EXPECT_EQ(client_.ask(read_of("data/slots", "3").substr(20)), result(R"([{"value":4}])", "3"));
}

TEST_F(WireFraming, CarriageReturnBeforeTheLineFeedIsIgnored) {
    EXPECT_EQ(client_.ask(read_ + "\r"), slots_);
}

TEST_F(WireFraming, EmptyAndBlankLinesAreIgnored) {
    EXPECT_EQ(client_.ask("\n\r\n   \n\t \r\n" + read_), slots_);
}

TEST_F(WireFraming, RequestOfExactlyOneMebibyteIsTaken) {
    const std::size_t line_size = (std::size_t{1} << 20) - 1;
    EXPECT_EQ(client_.ask(read_ + std::string(line_size - read_.size(), ' ')), slots_);
    EXPECT_EQ(client_.ask(read_), slots_);
}

TEST_F(WireFraming, OneByteMoreIsRefusedAndEndsTheSession) {
    const std::size_t line_size = std::size_t{1} << 20;
    EXPECT_STARTS_WITH(client_.ask(read_ + std::string(line_size - read_.size(), ' ')),
                       no_request_);
    EXPECT_TRUE(client_.is_closed_by_peer());
    EXPECT_TRUE(is_alive());
}

TEST_F(WireFraming, LineWithoutEndIsRefusedWhenItIsTooLong) {
    client_.send(std::string((std::size_t{1} << 20) + 5, 'x'));
    EXPECT_STARTS_WITH(client_.read_line().value_or(""), no_request_);
    EXPECT_TRUE(client_.is_closed_by_peer());
}

TEST_F(WireFraming, RequestsBeforeALineThatIsTooLongAreAnswered) {
    client_.send(read_ + "\n" + std::string((std::size_t{1} << 20) + 5, 'x') + "\n");
    EXPECT_EQ(client_.read_line(), slots_);
    EXPECT_STARTS_WITH(client_.read_line().value_or(""), no_request_);
}

TEST_F(WireFraming, LineThatIsNoJsonIsRefusedWithIdNull) {
    const std::string refusal = error(-32700, "null");
    for (const std::string line :
         {"x", "{", "{\"jsonrpc\":\"2.0\",\"id\":5,}", "{} {}", "1e999", "\"\xff\"", "\"\\udc00\""})
        EXPECT_STARTS_WITH(client_.ask(line), refusal) << line;
    EXPECT_STARTS_WITH(client_.ask(std::string("{\"a\":\0}", 7)), refusal);
    EXPECT_STARTS_WITH(client_.ask(std::string(65, '[') + std::string(65, ']')), refusal);
    EXPECT_EQ(client_.ask(read_), slots_);
}

TEST_F(WireFraming, BatchIsRefused) {
    EXPECT_STARTS_WITH(client_.ask("[" + read_ + "]"), no_request_);
    EXPECT_STARTS_WITH(client_.ask("[]"), no_request_);
    EXPECT_EQ(client_.ask(read_), slots_);
}

TEST_F(WireFraming, WhatIsNoObjectIsRefused) {
    for (const char* line : {"5", "null", "true", R"("read")", "-0.5"})
        EXPECT_STARTS_WITH(client_.ask(line), no_request_) << line;
}

TEST_F(WireFraming, IdComesBackAsItWas) {
    for (const char* id :
         {"0", "-7", "2147483648", "9223372036854775807", "-9223372036854775808",
          "18446744073709551615", R"("text")", R"("")", R"("with \"quotes\" \u0000 \\")"})
        EXPECT_EQ(client_.ask(read_of("data/slots", id)), result(R"([{"value":4}])", id));
}

TEST_F(WireFraming, IdOfAnotherKindIsRefusedWithIdNull) {
    for (const char* id :
         {"null", "1.5", "1.0", "1e2", "true", "{}", "[1]", "18446744073709551616"})
        EXPECT_STARTS_WITH(client_.ask(read_of("data/slots", id)), no_request_) << id;
}

TEST_F(WireFraming, RequestWithoutIdIsExecutedAndNotAnswered) {
    client_.send_line(R"({"jsonrpc":"2.0","method":"write","params":{"items":[)" +
                      item("control/power", "-3") + "]}}");
    EXPECT_EQ(client_.ask(read_of("control/power")), result(R"([{"value":-3.0}])"));
}

TEST_F(WireFraming, RequestWithoutIdIsNotEvenAnsweredWithAnError) {
    for (const char* line :
         {R"({"jsonrpc":"2.0","method":"nonsense"})", R"({"jsonrpc":"2.0","method":""})",
          R"({"jsonrpc":"2.0","method":"read","params":5})",
          R"({"jsonrpc":"2.0","method":"read","params":{"paths":["x"]}})",
          R"({"jsonrpc":"2.0","method":"version","params":{}})",
          R"({"jsonrpc":"2.0","method":"watch","params":{"prefix":""}})"})
        client_.send_line(line);
    EXPECT_EQ(client_.ask(read_), slots_);
}

TEST_F(WireFraming, VersionOfJsonRpcIsRequired) {
    const std::string rest = R"("id":1,"method":"version","params":{}})";
    EXPECT_STARTS_WITH(client_.ask("{" + rest), error(-32600));
    EXPECT_STARTS_WITH(client_.ask(R"({"jsonrpc":"1.0",)" + rest), error(-32600));
    EXPECT_STARTS_WITH(client_.ask(R"({"jsonrpc":2.0,)" + rest), error(-32600));
}

TEST_F(WireFraming, MethodIsRequired) {
    EXPECT_STARTS_WITH(client_.ask(R"({"jsonrpc":"2.0","id":1,"params":{}})"), error(-32600));
    EXPECT_STARTS_WITH(client_.ask(R"({"jsonrpc":"2.0","id":1,"method":5})"), error(-32600));
}

TEST_F(WireFraming, UnknownMethodIsRefused) {
    for (const char* method : {"nonsense", "", "Read", "read ", "event"})
        EXPECT_STARTS_WITH(client_.ask(request(method, "{}")), error(-32601)) << method;
}

TEST_F(WireFraming, MembersThatTheServerDoesNotKnowAreIgnored) {
    EXPECT_EQ(client_.ask(R"({"more":[1],"jsonrpc":"2.0","id":1,"method":"read",)"
                          R"("params":{"other":5,"paths":["data/slots"]}})"),
              slots_);
}

TEST_F(WireFraming, VersionTellsProtocolNameAndVersion) {
    EXPECT_EQ(client_.ask(request("version", "{}")),
              result(R"({"protocol":1,"server":"tested","version":")" VELT_TEST_VERSION R"("})"));
}

TEST_F(WireFraming, ParamsOfVersionAreRequired) {
    EXPECT_STARTS_WITH(client_.ask(R"({"jsonrpc":"2.0","id":1,"method":"version"})"),
                       error(-32602));
    EXPECT_STARTS_WITH(client_.ask(request("version", "[]")), error(-32602));
}

TEST_F(WireFraming, RequestsBeforeAHalfCloseAreAnswered) {
    client_.send(read_of("data/slots", "1") + "\n" + read_of("data/slots", "2") + "\n");
    client_.half_close();
    EXPECT_EQ(client_.read_line(), slots_);
    EXPECT_EQ(client_.read_line(), result(R"([{"value":4}])", "2"));
    EXPECT_EQ(client_.read_line(), std::nullopt);
}

TEST_F(WireFraming, LineWithoutItsEndIsNotExecuted) {
    client_.send(write_of("control/power", "5"));
    client_.half_close();
    EXPECT_TRUE(client_.is_closed_by_peer());
    EXPECT_EQ(owner_->power_writes, 0);
}

TEST_F(WireFraming, PipelinedRefusalsAreAnsweredInOrder) {
    std::string lines;
    for (int i = 0; i < 2000; ++i)
        lines += i % 2 == 0 ? "x\n" : read_of("data/slots", std::to_string(i)) + "\n";
    client_.send(lines);
    for (int i = 0; i < 2000; i += 2) {
        EXPECT_STARTS_WITH(client_.read_line().value_or(""), error(-32700, "null"));
        EXPECT_EQ(client_.read_line(), result(R"([{"value":4}])", std::to_string(i + 1)));
    }
}

// Lines of random bytes, and requests with random damage.
class hostile_lines {
  public:
    explicit hostile_lines(unsigned seed) : random_(seed) {}

    std::string next() {
        return pick(3) == 0 ? random_bytes(pick(200))
                            : damaged(templates_[pick(templates_.size())]);
    }

  private:
    std::size_t pick(std::size_t bound) { return random_() % bound; }

    std::string random_bytes(std::size_t count) {
        std::string bytes;
        for (; count > 0; --count)
            bytes += static_cast<char>(random_());
        return bytes;
    }

    std::string damaged(std::string line) {
        for (std::size_t damages = pick(4); damages > 0; --damages) {
            const std::size_t at = pick(line.size());
            if (pick(2) == 0)
                line[at] = static_cast<char>(random_());
            else
                line.insert(at, std::string(1 + pick(70), "[{\"\\,:0e-\x80"[pick(10)]));
        }
        return line;
    }

    std::mt19937 random_;
    const std::vector<std::string> templates_{
        R"({"jsonrpc":"2.0","id":1,"method":"read","params":{"paths":["data/slots","x"]}})",
        R"({"jsonrpc":"2.0","id":2,"method":"write","params":{"items":[{"path":"control/name","value":"a"}]}})",
        R"({"jsonrpc":"2.0","id":3,"method":"subscribe","params":{"paths":["control/name"]}})",
        R"({"jsonrpc":"2.0","id":4,"method":"unsubscribe","params":{"paths":["control/name"]}})",
        R"({"jsonrpc":"2.0","id":5,"method":"info","params":{"paths":["control/power"]}})",
        R"({"jsonrpc":"2.0","id":6,"method":"list","params":{"prefix":"data"}})",
        R"({"jsonrpc":"2.0","id":7,"method":"watch","params":{"prefix":"data"}})",
        R"({"jsonrpc":"2.0","id":8,"method":"unwatch","params":{"prefix":"data"}})",
        R"({"jsonrpc":"2.0","id":9,"method":"history","params":{"limit":10}})",
        R"({"jsonrpc":"2.0","method":"version","params":{}})",
    };
};

TEST_F(WireFraming, HostileBytesDoNotStopTheServer) {
    hostile_lines lines(20260401);
    const std::string version = request("version", "{}", R"("end")");
    const std::string answer = R"({"jsonrpc":"2.0","id":"end","result":)";
    for (int round = 0; round < 100; ++round) {
        raw_client client(path_);
        for (int i = 0; i < 40; ++i)
            client.send_line(lines.next());
        client.send_line(version);
        std::optional<std::string> line;
        do {
            line = client.read_line();
            ASSERT_TRUE(line) << "round " << round;
            json::document parsed;
            ASSERT_TRUE(wire::parse(*line, parsed)) << *line;
        } while (!line->starts_with(answer));
    }
    EXPECT_TRUE(is_alive());
}

}  // namespace
