// Methods over lists of paths: entries, their errors, and forms that are refused whole.
#include "wire_fixture.hpp"

#include <gtest/gtest.h>

namespace {

using test::raw_client;

class WireEntries : public test::wire_fixture {
  protected:
    std::string ask(const std::string& line) { return client_.ask(line); }
    std::string read(const std::string& path) { return ask(read_of(path)); }

    static std::string items(const std::string& list) { return R"({"items":[)" + list + "]}"; }

    static std::string repeated_path(std::size_t count) {
        return paths(std::vector<std::string>(count, "data/slots"));
    }

    raw_client client_{path_};
};

TEST_F(WireEntries, ReadGivesOneEntryForEachPathInTheirOrder) {
    ask(write_of("control/power", "0.1"));
    EXPECT_EQ(ask(request("read", paths({"control/power", "data/slots", "control/name"}))),
              result(R"([{"value":0.10000000149011612},{"value":4},{"value":null}])"));
}

TEST_F(WireEntries, ReadErrorOfEachKind) {
    EXPECT_EQ(read("data/none"), result("[" + entry_error(-2, "No such path: data/none") + "]"));
    EXPECT_EQ(read("data"), result("[" + entry_error(-2, "No such path: data") + "]"));
    EXPECT_EQ(read(""), result("[" + entry_error(-2, "No such path: ") + "]"));
    EXPECT_EQ(read("command/measure"),
              result("[" + entry_error(-95, "Operation not supported: command/measure") + "]"));
    EXPECT_EQ(read("data/failing"), result("[" + entry_error(42, "no light") + "]"));
    EXPECT_EQ(read("data/away"), result("[" + entry_error(107, "not connected") + "]"));
    EXPECT_EQ(read("data/runtime"), result("[" + entry_error(-1, "text of the exception") + "]"));
    EXPECT_EQ(read("data/unknown"), result("[" + entry_error(-1, "Unknown error!") + "]"));
}

TEST_F(WireEntries, ReadOfANodeWhoseOwnerIsGoneFails) {
    owner_ = std::make_shared<test::wire_owner>();
    EXPECT_EQ(read("data/failing"), result("[" + entry_error(-2, "Object has been removed") + "]"));
}

TEST_F(WireEntries, OneEntryThatFailsDisturbsNoOther) {
    EXPECT_EQ(ask(request("read", paths({"data/slots", "data/failing", "x", "data/slots"}))),
              result(R"([{"value":4},)" + entry_error(42, "no light") + "," +
                     entry_error(-2, "No such path: x") + R"(,{"value":4}])"));
}

TEST_F(WireEntries, OneLeadingSlashIsDropped) {
    EXPECT_EQ(read("/data/slots"), result(R"([{"value":4}])"));
    EXPECT_EQ(read("/data/none"), result("[" + entry_error(-2, "No such path: data/none") + "]"));
    EXPECT_EQ(read("//data/slots"),
              result("[" + entry_error(-2, "No such path: /data/slots") + "]"));
    EXPECT_EQ(ask(write_of("/control/power", "1")), result("[{}]"));
    EXPECT_EQ(read("control/power"), result(R"([{"value":1.0}])"));
}

TEST_F(WireEntries, PathMayHoldAnyText) {
    const auto node = add_count("alarms/system info/\xc3\xa4\"x");
    EXPECT_EQ(read("alarms/system info/\xc3\xa4\\\"x"), result(R"([{"value":1}])"));
    EXPECT_EQ(read(R"(data/slots\u0000x)"),
              result("[" + entry_error(-2, R"(No such path: data/slots\u0000x)") + "]"));
}

TEST_F(WireEntries, WriteGivesAnEmptyObject) {
    EXPECT_EQ(ask(write_of("control/power", "-3.5")), result("[{}]"));
    EXPECT_EQ(read("control/power"), result(R"([{"value":-3.5}])"));
}

TEST_F(WireEntries, WriteOfACommandGivesItsResponse) {
    EXPECT_EQ(ask(write_of("command/measure", "true")), result(R"([{"value":false}])"));
}

TEST_F(WireEntries, WriteErrorOfEachKind) {
    const auto written = [&](const std::string& path, const std::string& value) {
        return ask(write_of(path, value));
    };
    EXPECT_EQ(written("none", "1"), result("[" + entry_error(-2, "No such path: none") + "]"));
    EXPECT_EQ(written("data/slots", "1"),
              result("[" + entry_error(-95, "Operation not supported: data/slots") + "]"));
    EXPECT_EQ(written("control/power", R"("1")"),
              result("[" + entry_error(-22, "expected float, found string") + "]"));
    EXPECT_EQ(written("command/measure", "1"),
              result("[" + entry_error(-22, "expected bool, found 32-bit unsigned integer") + "]"));
    EXPECT_EQ(written("control/power", "51"), result("[" + entry_error(77, "too much") + "]"));
    EXPECT_EQ(written("control/power", "1e39"),
              result("[" + entry_error(-61, "Argument value is infinite.") + "]"));
    EXPECT_EQ(owner_->power_writes, 0);
}

TEST_F(WireEntries, ItemsAreWrittenInOrderAndOneThatFailsDisturbsNoOther) {
    EXPECT_EQ(
        ask(request("write",
                    items(item("control/power", "1") + "," + item("control/power", "99") + "," +
                          item("command/measure", "false") + "," + item("control/power", "2")))),
        result("[{}," + entry_error(77, "too much") + R"(,{"value":true},{}])"));
    EXPECT_EQ(read("control/power"), result(R"([{"value":2.0}])"));
    EXPECT_EQ(owner_->power_writes, 2);
}

TEST_F(WireEntries, NullIsAValue) {
    EXPECT_EQ(ask(write_of("control/name", "null")), result("[{}]"));
    EXPECT_EQ(read("control/name"), result(R"([{"value":"null"}])"));
    EXPECT_EQ(ask(write_of("control/power", "null")),
              result("[" + entry_error(-22, "expected float, found null") + "]"));
}

TEST_F(WireEntries, InfoGivesObjectAndText) {
    EXPECT_EQ(ask(request("info", paths({"data/slots", "command/measure", "none", "data"}))),
              result(R"([{"info":{"type":"const value","valueType":"unsigned int",)"
                     R"x("capabilities":{"read":true}},"text":"const value (read)"},)x"
                     R"({"info":{"type":"command","valueType":"bool","returnType":"bool",)"
                     R"("capabilities":{"write":true}},)"
                     R"x("text":"command value returning response (write)"},)x" +
                     entry_error(-2, "No such path: none") + "," +
                     entry_error(-2, "No such path: data") + "]"));
}

TEST_F(WireEntries, UnsubscribeOfAnythingSucceeds) {
    EXPECT_EQ(ask(request("unsubscribe", paths({"control/power", "none", "data/slots"}))),
              result("[{},{},{}]"));
}

TEST_F(WireEntries, ListsOf1024EntriesAreTaken) {
    std::string entries = R"({"value":4})";
    std::string unsubscribed = "{}";
    for (int i = 1; i < 1024; ++i) {
        entries += R"(,{"value":4})";
        unsubscribed += ",{}";
    }
    EXPECT_EQ(ask(request("read", repeated_path(1024))), result("[" + entries + "]"));
    EXPECT_EQ(ask(request("unsubscribe", repeated_path(1024))), result("[" + unsubscribed + "]"));
    std::string many = item("control/power", "1");
    for (int i = 1; i < 1024; ++i)
        many += "," + item("control/power", "1");
    EXPECT_EQ(ask(request("write", items(many))), result("[" + unsubscribed + "]"));
}

TEST_F(WireEntries, ListsOf1025EntriesAreRefusedAndNothingIsExecuted) {
    for (const char* method : {"read", "subscribe", "unsubscribe", "info"})
        EXPECT_STARTS_WITH(ask(request(method, repeated_path(1025))), error(-32602)) << method;
    std::string many = item("control/power", "1");
    for (int i = 1; i < 1025; ++i)
        many += "," + item("control/power", "1");
    EXPECT_STARTS_WITH(ask(request("write", items(many))), error(-32602));
    EXPECT_EQ(owner_->power_writes, 0);
}

TEST_F(WireEntries, EmptyListsAreRefused) {
    for (const char* method : {"read", "subscribe", "unsubscribe", "info"})
        EXPECT_STARTS_WITH(ask(request(method, R"({"paths":[]})")), error(-32602)) << method;
    EXPECT_STARTS_WITH(ask(request("write", R"({"items":[]})")), error(-32602));
}

TEST_F(WireEntries, ParamsOfAnotherFormAreRefused) {
    for (const char* method : {"read", "subscribe", "unsubscribe", "info"}) {
        for (const char* params :
             {"5", "null", "[]", "{}", R"(["data/slots"])", R"({"paths":"data/slots"})",
              R"({"paths":{"0":"data/slots"}})", R"({"paths":["data/slots",5]})",
              R"({"paths":[null]})", R"({"items":["data/slots"]})"})
            EXPECT_STARTS_WITH(ask(request(method, params)), error(-32602)) << method << params;
        EXPECT_STARTS_WITH(
            ask(std::string(R"({"jsonrpc":"2.0","id":1,"method":")") + method + R"("})"),
            error(-32602))
            << method;
    }
}

TEST_F(WireEntries, OneItemOfTheWrongFormExecutesNothing) {
    const std::string good = item("control/power", "1");
    for (const char* bad : {"5", "[]", "null", R"({"path":"control/power"})", R"({"value":1})",
                            R"({"path":5,"value":1})", R"("control/power")"}) {
        EXPECT_STARTS_WITH(ask(request("write", items(good + "," + bad))), error(-32602)) << bad;
        EXPECT_STARTS_WITH(ask(request("write", items(std::string(bad) + "," + good))),
                           error(-32602))
            << bad;
    }
    EXPECT_EQ(owner_->power_writes, 0);
}

TEST_F(WireEntries, TextOfNearlyOneMebibyteIsAValue) {
    const std::string text((std::size_t{1} << 20) - 200, 'x');
    EXPECT_EQ(ask(write_of("control/name", "\"" + text + "\"")), result("[{}]"));
    EXPECT_EQ(read("control/name"), result(R"([{"value":")" + text + R"("}])"));
}

class WireTree : public WireEntries {
  protected:
    static std::string prefix(const std::string& text) { return R"({"prefix":")" + text + R"("})"; }
    static std::string slots_node(const std::string& path) {
        return R"({"path":")" + path +
               R"(","info":{"type":"const value","valueType":"unsigned int",)"
               R"("capabilities":{"read":true}}})";
    }
    static std::string nodes(const std::string& list) {
        return result(R"({"nodes":[)" + list + "]}");
    }
    void add_slots(const std::string& path) {
        keep(dh::api::const_value<unsigned int>::create(server_->db(), path, 1));
    }
};

TEST_F(WireTree, ListGivesTheNodesUnderAPrefixSortedByPath) {
    for (const char* path : {"wss2/a", "wss/b", "wss-x", "wss/a", "wss"})
        add_slots(path);
    const std::string expected =
        nodes(slots_node("wss") + "," + slots_node("wss/a") + "," + slots_node("wss/b"));
    EXPECT_EQ(ask(request("list", prefix("wss"))), expected);
    EXPECT_EQ(ask(request("list", prefix("/wss"))), expected);
    EXPECT_EQ(ask(request("watch", prefix("/wss"))), expected);
}

TEST_F(WireTree, EmptyPrefixIsTheWholeTree) {
    const std::string all = ask(request("list", prefix("")));
    for (const char* path : {"command/measure", "control/name", "control/power", "data/slots"})
        EXPECT_NE(all.find(std::string(R"({"path":")") + path), std::string::npos) << path;
    EXPECT_EQ(ask(request("watch", prefix("/"))), all);
}

TEST_F(WireTree, PrefixThatMatchesNothingGivesAnEmptyList) {
    EXPECT_EQ(ask(request("list", prefix("dat"))), nodes(""));
    EXPECT_EQ(ask(request("watch", prefix("none"))), nodes(""));
}

TEST_F(WireTree, ListHasNoLimitOf1024) {
    for (int i = 0; i < 1100; ++i)
        add_slots("many/" + std::to_string(i));
    json::document reply;
    ASSERT_TRUE(wire::parse(ask(request("list", prefix("many"))), reply));
    EXPECT_EQ(reply["result"]["nodes"].Size(), 1100U);
}

TEST_F(WireTree, PrefixIsRequiredAndAText) {
    for (const char* method : {"list", "watch", "unwatch"}) {
        for (const char* params :
             {"5", "{}", "[]", R"({"prefix":5})", R"({"prefix":null})", R"({"prefix":["a"]})"})
            EXPECT_STARTS_WITH(ask(request(method, params)), error(-32602)) << method << params;
    }
}

TEST_F(WireTree, UnwatchOfWhatIsNotWatchedSucceeds) {
    EXPECT_EQ(ask(request("unwatch", prefix("none"))), result("{}"));
}

TEST_F(WireTree, WatchAndUnwatchMayGoOnForEver) {
    for (int i = 0; i < 1100; ++i) {
        ASSERT_EQ(ask(request("watch", prefix("none"))), nodes(""));
        ASSERT_EQ(ask(request("unwatch", prefix("none"))), result("{}"));
    }
}

TEST_F(WireTree, WatchedPrefixesOfASessionAreBounded) {
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(ask(request("watch", prefix("none" + std::to_string(i)))), nodes(""));
    EXPECT_EQ(ask(request("watch", prefix("none5"))), nodes(""));
    EXPECT_STARTS_WITH(ask(request("watch", prefix("other"))), error(-32602));
}

class WireHistory : public WireEntries {
  protected:
    std::string history(const std::string& limit) {
        return ask(request("history", R"({"limit":)" + limit + "}"));
    }
};

TEST_F(WireHistory, IsEmptyAtFirst) {
    EXPECT_EQ(history("1024"), result(R"({"entries":[]})"));
}

TEST_F(WireHistory, GivesPathTimeAndValueNewestFirst) {
    ask(write_of("control/power", "1"));
    ask(write_of("control/name", R"("a\"b")"));
    json::document reply;
    ASSERT_TRUE(wire::parse(history("10"), reply));
    json::value& entries = reply["result"]["entries"];
    ASSERT_EQ(entries.Size(), 2U);
    for (json::value& entry : entries.GetArray()) {
        EXPECT_TRUE(entry["time"].IsInt64());
        EXPECT_TRUE(entry.EraseMember("time"));
    }
    EXPECT_EQ(json::to_text(entries), R"([{"path":"control/name","value":"a\"b"},)"
                                      R"({"path":"control/power","value":1.0}])");
}

TEST_F(WireHistory, LimitIsZeroTo1024) {
    ask(write_of("control/power", "1"));
    ask(write_of("control/power", "2"));
    EXPECT_EQ(history("0"), result(R"({"entries":[]})"));
    const std::string one = history("1");
    EXPECT_NE(one.find(R"("value":2.0)"), std::string::npos);
    EXPECT_EQ(one.find(R"("value":1.0)"), std::string::npos);
    for (const char* limit : {"1025", "-1", "1.0", "null", R"("1")", "4294967296"})
        EXPECT_STARTS_WITH(history(limit), error(-32602)) << limit;
    EXPECT_STARTS_WITH(ask(request("history", "{}")), error(-32602));
}

TEST_F(WireHistory, HoldsTheLast1024Changes) {
    const auto count = add_count("data/count");
    for (unsigned i = 2; i <= 1100; ++i)
        count->set(i);
    json::document reply;
    ASSERT_TRUE(wire::parse(history("1024"), reply));
    const json::value& entries = reply["result"]["entries"];
    ASSERT_EQ(entries.Size(), 1024U);
    EXPECT_EQ(entries[0]["value"].GetUint(), 1100U);
    EXPECT_EQ(entries[1023]["value"].GetUint(), 77U);
}

}  // namespace
