#include "wire.hpp"
#include "node_access.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace {

using strings = std::vector<std::string>;

class LineSplitter : public testing::Test {
  protected:
    explicit LineSplitter(std::size_t max_line = 16) : splitter_(max_line) {}

    void feed(std::string_view bytes) {
        std::memcpy(splitter_.room(bytes.size()), bytes.data(), bytes.size());
        splitter_.filled(bytes.size());
    }

    strings lines() {
        strings found;
        while (const auto line = splitter_.next())
            found.emplace_back(*line);
        return found;
    }

    wire::line_splitter splitter_;
};

TEST_F(LineSplitter, GivesNothingBeforeTheEndOfALine) {
    EXPECT_EQ(lines(), strings{});
    feed("abc");
    EXPECT_EQ(lines(), strings{});
    feed("def\n");
    EXPECT_EQ(lines(), strings{"abcdef"});
    EXPECT_EQ(lines(), strings{});
}

TEST_F(LineSplitter, CutsJoinedLinesApart) {
    feed("a\nbc\nd");
    EXPECT_EQ(lines(), (strings{"a", "bc"}));
    feed("e\n");
    EXPECT_EQ(lines(), strings{"de"});
}

TEST_F(LineSplitter, JoinsALineThatComesByteByByte) {
    for (const char c : std::string("abc\r\nd\n"))
        feed(std::string(1, c));
    EXPECT_EQ(lines(), (strings{"abc", "d"}));
}

TEST_F(LineSplitter, DropsOneCarriageReturnBeforeTheLineFeed) {
    feed("a\r\nb\r\r\nc\rd\n");
    EXPECT_EQ(lines(), (strings{"a", "b\r", "c\rd"}));
}

TEST_F(LineSplitter, PassesOverLinesOfBlanks) {
    feed("\n\r\n  \t\na\n \r\n\n");
    EXPECT_EQ(lines(), strings{"a"});
}

TEST_F(LineSplitter, TakesALineOfExactlyTheLimit) {
    feed(fmt::format("{:a>15}\n", ""));
    EXPECT_EQ(lines(), strings{std::string(15, 'a')});
    EXPECT_FALSE(splitter_.too_long());
}

TEST_F(LineSplitter, RefusesALineOfOneByteMore) {
    feed(fmt::format("{:a>16}\n", ""));
    EXPECT_EQ(lines(), strings{});
    EXPECT_TRUE(splitter_.too_long());
}

TEST_F(LineSplitter, CountsTheCarriageReturn) {
    feed(fmt::format("{:a>15}\r\n", ""));
    EXPECT_EQ(lines(), strings{});
    EXPECT_TRUE(splitter_.too_long());
}

TEST_F(LineSplitter, NoticesALineThatIsTooLongBeforeItsEnd) {
    feed(std::string(15, 'a'));
    EXPECT_EQ(lines(), strings{});
    EXPECT_FALSE(splitter_.too_long());
    feed("a");
    EXPECT_EQ(lines(), strings{});
    EXPECT_TRUE(splitter_.too_long());
}

TEST_F(LineSplitter, ThereIsNoWayOnAfterALineThatIsTooLong) {
    feed(std::string(17, 'a') + "\nb\n");
    EXPECT_EQ(lines(), strings{});
    feed("c\n");
    EXPECT_EQ(lines(), strings{});
    EXPECT_TRUE(splitter_.too_long());
}

TEST_F(LineSplitter, GivesTheLinesBeforeOneThatIsTooLong) {
    feed("a\nb\n" + std::string(16, 'c'));
    EXPECT_EQ(lines(), (strings{"a", "b"}));
    EXPECT_TRUE(splitter_.too_long());
}

TEST_F(LineSplitter, LimitIsThatOfEachLineNotOfTheWaitingBytes) {
    strings expected;
    for (int i = 0; i < 100; ++i) {
        feed("0123456789abcde\n");
        expected.push_back("0123456789abcde");
    }
    EXPECT_EQ(lines(), expected);
    EXPECT_FALSE(splitter_.too_long());
}

TEST_F(LineSplitter, LongStreamCutAnywhereComesOutWhole) {
    std::string stream;
    strings expected;
    for (int i = 0; i < 500; ++i) {
        expected.push_back("line" + std::to_string(i));
        stream += expected.back() + (i % 3 == 0 ? "\r\n" : "\n");
    }
    strings found;
    for (std::size_t at = 0, piece = 1; at < stream.size(); at += piece, piece = piece % 23 + 1) {
        feed(std::string_view(stream).substr(at, piece));
        for (std::string& line : lines())
            found.push_back(std::move(line));
        piece = std::min(piece, stream.size() - at);
    }
    EXPECT_EQ(found, expected);
}

class RequestSplitter : public LineSplitter {
  protected:
    RequestSplitter() : LineSplitter(wire::max_request_line) {}
};

TEST_F(RequestSplitter, OneMebibyteWithTheLineFeedIsTaken) {
    const std::string line((std::size_t{1} << 20) - 1, 'a');
    feed(line);
    EXPECT_EQ(lines(), strings{});
    feed("\n");
    EXPECT_EQ(lines(), strings{line});
    EXPECT_FALSE(splitter_.too_long());
}

TEST_F(RequestSplitter, OneByteMoreIsTooLong) {
    feed(std::string(std::size_t{1} << 20, 'a') + "\n");
    EXPECT_EQ(lines(), strings{});
    EXPECT_TRUE(splitter_.too_long());
}

bool is_json(std::string_view line) {
    json::document into;
    return wire::parse(line, into);
}

std::string nested(int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']');
}

TEST(WireParse, TakesEveryKindOfValue) {
    for (const char* text : {"null", "true", "-1", "1.5e3", R"("text")", "[]", "{}",
                             R"( {"a" : [1, 2]} )", "18446744073709551615", "-9223372036854775808",
                             "1e308", R"("\u0000")", R"("\ud83d\ude00")", "\"\xf0\x9f\x98\x80\""})
        EXPECT_TRUE(is_json(text)) << text;
}

TEST(WireParse, RefusesBadSyntax) {
    for (const char* text : {"", "{", "[1,]", "{\"a\"}", "nul", "'a'", "01", "+1", "NaN",
                             "Infinity", "\"a", "// c\n1", "\"\t\"", "1.", ".5", "{\"a\":1,}"})
        EXPECT_FALSE(is_json(text)) << text;
}

TEST(WireParse, RefusesTextAfterTheValue) {
    EXPECT_FALSE(is_json("{} {}"));
    EXPECT_FALSE(is_json("1 x"));
    EXPECT_TRUE(is_json("{} \r"));
}

TEST(WireParse, RefusesANulByte) {
    EXPECT_FALSE(is_json(std::string_view("{}\0", 3)));
    EXPECT_FALSE(is_json(std::string_view("{}\0{}", 5)));
    EXPECT_FALSE(is_json(std::string_view("\"a\0b\"", 5)));
}

TEST(WireParse, RefusesWhatIsNotUtf8) {
    for (const char* text : {"\"\xff\"", "\"\xc3\"", "\"\xc0\xaf\"", "\"\xed\xa0\x80\"",
                             "\"\xf4\x90\x80\x80\"", "\"\xe2\x82\"", "\"\x80\""})
        EXPECT_FALSE(is_json(text)) << text;
}

TEST(WireParse, RefusesHalfASurrogatePair) {
    for (const char* text :
         {R"("\ud800")", R"("\udc00")", R"("\ud800\u0041")", R"("\ud83dx")", R"({"\udfff":1})"})
        EXPECT_FALSE(is_json(text)) << text;
}

TEST(WireParse, NestingOf64IsTakenAndOf65IsNot) {
    EXPECT_TRUE(is_json(nested(64)));
    EXPECT_FALSE(is_json(nested(65)));
    EXPECT_FALSE(is_json(R"({"a":)" + nested(64) + "}"));
    EXPECT_FALSE(is_json(std::string(500'000, '[')));
}

TEST(WireParse, NestingIsDepthNotNumber) {
    std::string list = "[";
    for (int i = 0; i < 200; ++i)
        list += "[],{},";
    EXPECT_TRUE(is_json(list + "0]"));
}

TEST(WireParse, RefusesANumberThatNoDoubleHolds) {
    EXPECT_FALSE(is_json("1e999"));
    EXPECT_FALSE(is_json("[-1e400]"));
    EXPECT_FALSE(is_json("1" + std::string(400, '0')));
    EXPECT_TRUE(is_json("1e-999"));
}

TEST(WireParse, NumbersAreExact) {
    EXPECT_EQ(test::parsed("0.10000000149011612").GetDouble(), 0.10000000149011612);
    EXPECT_EQ(test::parsed("2.2250738585072011e-308").GetDouble(), 2.2250738585072011e-308);
}

TEST(WireParse, DocumentMayBeUsedAgainAfterARefusal) {
    json::document into;
    EXPECT_FALSE(wire::parse("[1,[2,", into));
    EXPECT_TRUE(wire::parse("[3]", into));
    EXPECT_EQ(json::to_text(into), "[3]");
}

// What as_request makes of a line, as one text.
std::string request_of(const std::string& line) {
    struct id_text {
        std::string operator()(std::monostate) const { return "none"; }
        std::string operator()(std::int64_t id) const { return std::to_string(id); }
        std::string operator()(std::uint64_t id) const { return std::to_string(id); }
        std::string operator()(const std::string& id) const { return "'" + id + "'"; }
    };
    const json::document parsed = test::parsed(line);
    const auto result = wire::as_request(parsed);
    if (const auto* refused = std::get_if<wire::refusal>(&result)) {
        return std::string("refused ") + (refused->answer ? "aloud " : "silently ") +
               std::visit(id_text{}, refused->id);
    }
    const auto& found = std::get<wire::request>(result);
    return std::string(found.method) + " " + std::visit(id_text{}, found.id) + " " +
           (found.params != nullptr ? json::to_text(*found.params) : "-");
}

TEST(WireRequest, GivesMethodIdAndParams) {
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","id":7,"method":"read","params":{"a":1}})"),
              R"(read 7 {"a":1})");
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","id":7,"method":"version"})"), "version 7 -");
    EXPECT_EQ(request_of(R"({"more":[],"method":"m","params":[1],"id":0,"jsonrpc":"2.0"})"),
              "m 0 [1]");
}

TEST(WireRequest, IdIsAnIntegerOrAText) {
    const auto with_id = [](const std::string& id) {
        return request_of(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"m"})");
    };
    EXPECT_EQ(with_id("-5"), "m -5 -");
    EXPECT_EQ(with_id("-9223372036854775808"), "m -9223372036854775808 -");
    EXPECT_EQ(with_id("18446744073709551615"), "m 18446744073709551615 -");
    EXPECT_EQ(with_id(R"("x\"y")"), "m 'x\"y' -");
    EXPECT_EQ(with_id(R"("")"), "m '' -");
    for (const char* id : {"null", "1.0", "1e3", "true", "{}", "[1]", "18446744073709551616"})
        EXPECT_EQ(with_id(id), "refused aloud none") << id;
}

TEST(WireRequest, WithoutIdWantsNoAnswer) {
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","method":"m"})"), "m none -");
    EXPECT_EQ(request_of(R"({"method":"m"})"), "refused silently none");
}

TEST(WireRequest, VersionIsRequired) {
    for (const char* version : {R"("1.0")", "2.0", "2", "null", R"("2.0 ")", R"("2.0\u0000")"}) {
        EXPECT_EQ(request_of(std::string(R"({"id":3,"method":"m","jsonrpc":)") + version + "}"),
                  "refused aloud 3")
            << version;
    }
    EXPECT_EQ(request_of(R"({"id":"a","method":"m"})"), "refused aloud 'a'");
}

TEST(WireRequest, MethodIsAText) {
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","id":3})"), "refused aloud 3");
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","id":3,"method":5})"), "refused aloud 3");
    EXPECT_EQ(request_of(R"({"jsonrpc":"2.0","id":3,"method":null})"), "refused aloud 3");
}

TEST(WireRequest, OnlyAnObjectIsOne) {
    for (const char* line : {"[]", "5", R"("read")", "null", "true",
                             R"([{"jsonrpc":"2.0","id":1,"method":"version"}])"})
        EXPECT_EQ(request_of(line), "refused aloud none") << line;
}

std::string written(const std::function<void(json::buffer&)>& write) {
    json::buffer line;
    write(line);
    return {line.GetString(), line.GetSize()};
}

TEST(WireReply, IsOneLineAroundTheResult) {
    EXPECT_EQ(written([](json::buffer& line) {
                  wire::begin_reply(line, std::int64_t{-3});
                  json::writer(line).StartArray();
                  line.Put(']');
                  wire::end_reply(line);
              }),
              "{\"jsonrpc\":\"2.0\",\"id\":-3,\"result\":[]}\n");
}

TEST(WireReply, ErrorHasIdCodeAndText) {
    const auto error = [](const wire::request_id& id) {
        return written(
            [&](json::buffer& line) { wire::write_error_reply(line, id, -32600, "a \"b\"\n"); });
    };
    const std::string rest = R"(,"error":{"code":-32600,"message":"a \"b\"\n"}})"
                             "\n";
    EXPECT_EQ(error({}), R"({"jsonrpc":"2.0","id":null)" + rest);
    EXPECT_EQ(error(std::uint64_t{18446744073709551615U}),
              R"({"jsonrpc":"2.0","id":18446744073709551615)" + rest);
    EXPECT_EQ(error(std::string("x\n")), R"({"jsonrpc":"2.0","id":"x\n")" + rest);
}

TEST(WireReply, EntryErrorIsAnObjectOfItsOwn) {
    EXPECT_EQ(written([](json::buffer& line) {
                  json::writer out(line);
                  wire::write_entry_error(out, -2, "No such path: a");
              }),
              R"({"error":{"code":-2,"message":"No such path: a"}})");
}

TEST(WireRequestLine, HoldsItsParams) {
    EXPECT_EQ(written([](json::buffer& line) {
                  wire::write_request(line, 9, "read", [](json::writer& out) {
                      out.StartObject();
                      out.EndObject();
                  });
              }),
              "{\"jsonrpc\":\"2.0\",\"id\":9,\"method\":\"read\",\"params\":{}}\n");
}

TEST(WireEvent, IsOneLineWithoutId) {
    EXPECT_EQ(wire::event_line(test::parsed(R"({"event":"value"})")),
              "{\"jsonrpc\":\"2.0\",\"method\":\"event\",\"params\":{\"event\":\"value\"}}\n");
}

TEST(WirePath, OneLeadingSlashIsDropped) {
    EXPECT_EQ(wire::without_leading_slash("/a/b"), "a/b");
    EXPECT_EQ(wire::without_leading_slash("a/b"), "a/b");
    EXPECT_EQ(wire::without_leading_slash("//a"), "/a");
    EXPECT_EQ(wire::without_leading_slash("/"), "");
    EXPECT_EQ(wire::without_leading_slash(""), "");
}

TEST(WirePath, PrefixMatchesWholeParts) {
    EXPECT_TRUE(wire::is_under("data/wss", "data/wss"));
    EXPECT_TRUE(wire::is_under("data/wss/1", "data/wss"));
    EXPECT_FALSE(wire::is_under("data/wss2", "data/wss"));
    EXPECT_FALSE(wire::is_under("data", "data/wss"));
    EXPECT_TRUE(wire::is_under("data/wss", ""));
    EXPECT_FALSE(wire::is_under("x/data", "data"));
}

}  // namespace
