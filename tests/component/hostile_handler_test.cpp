// Device handlers that tell nonsense, or too much of it.
#include "line_server.hpp"
#include "mirror_fixture.hpp"
#include "wire_fixture.hpp"

#include <gmock/gmock.h>

#include <map>

namespace {

using test::eventually;
using test::line_server;
using testing::ElementsAre;
using testing::StartsWith;
using strings = std::vector<std::string>;

// How many nodes of one handler are mirrored.
constexpr std::size_t max_nodes = 8192;

std::string event(const std::string& kind, const std::string& path, const std::string& members) {
    return R"({"jsonrpc":"2.0","method":"event","params":{"event":")" + kind + R"(","path":")" +
           path + R"(","time":1)" + (members.empty() ? "" : "," + members) + "}}\n";
}
std::string value_event(const std::string& path, const std::string& value) {
    return event("value", path, R"("value":)" + value);
}

std::string info_of(const std::string& type, const std::string& capabilities) {
    return R"({"valueType":")" + type + R"(","capabilities":{)" + capabilities + "}}";
}
const std::string readable = R"("read":true)";
const std::string subscribable = R"("read":true,"subscribe":true)";

std::string listed(const std::string& path, const std::string& info) {
    return R"({"path":")" + path + R"(","info":)" + info + "}";
}
std::string status_node(const std::string& path, const std::string& type) {
    return listed(path, info_of(type, subscribable));
}

// A handler that tells of the nodes and publishes the values that a test makes up.
class scripted_tree {
  public:
    // Lines that follow the next reply to a read.
    void say(std::string lines) {
        const std::lock_guard lock(mutex_);
        said_ = std::move(lines);
    }
    void set_nodes(std::string nodes) {
        const std::lock_guard lock(mutex_);
        nodes_ = std::move(nodes);
    }
    void set_value(const std::string& path, std::string value) {
        const std::lock_guard lock(mutex_);
        values_.insert_or_assign(path, std::move(value));
    }

    std::string answer(const line_server::request& asked) {
        const std::lock_guard lock(mutex_);
        if (asked.method == "watch")
            return line_server::reply(asked, R"({"nodes":[)" + nodes_ + "]}");
        if (asked.method == "subscribe")
            return subscribed(asked);
        if (asked.method == "unsubscribe")
            return line_server::reply(asked, entries(asked));
        if (asked.method == "read")
            return std::exchange(said_, {}) + line_server::reply(asked, R"([{"value":1}])");
        return line_server::unknown_method(asked);
    }

  private:
    static strings paths_of(const line_server::request& asked) {
        strings paths;
        const json::document params = test::parsed(asked.params);
        for (const json::value& path : params["paths"].GetArray())
            paths.push_back(path.GetString());
        return paths;
    }
    static std::string entries(const line_server::request& asked) {
        std::string list;
        for (std::size_t i = 0; i < paths_of(asked).size(); ++i)
            list += i == 0 ? "{}" : ",{}";
        return "[" + list + "]";
    }
    std::string subscribed(const line_server::request& asked) const {
        std::string lines = line_server::reply(asked, entries(asked));
        for (const std::string& path : paths_of(asked)) {
            const auto value = values_.find(path);
            if (value != values_.end())
                lines += event("value", path, R"("initial":true,"value":)" + value->second);
        }
        return lines;
    }

    mutable std::mutex mutex_;
    std::string nodes_;
    std::string said_;
    std::map<std::string, std::string> values_;
};

class HostileHandler : public test::mirror_fixture {
  protected:
    HostileHandler() { tree_.set_value("alive", "1"); }

    // Serves the nodes, and one more that shows that the connection is of use.
    void serve(const std::string& nodes) {
        tree_.set_nodes(status_node("alive", "unsigned int") + (nodes.empty() ? "" : "," + nodes));
        serve_answers([this](const line_server::request& asked) { return tree_.answer(asked); });
    }
    void serve_answers(line_server::answer answer) {
        server_ = std::make_unique<line_server>(test::root() + host_path_, std::move(answer));
        mirror();
    }

    // The handler sends the lines, and then the number as the value of its node.
    void send(const std::string& lines) {
        ++number_;
        tree_.say(lines + value_event("alive", std::to_string(number_)));
        EXPECT_EQ(connection_->client()->get<int>("go"), 1);
    }
    // All that was sent has been taken, over the first connection.
    void expect_alive() {
        EXPECT_TRUE(becomes("handler/alive", std::to_string(number_)));
        EXPECT_EQ(server_->accepted_connections(), 1U);
    }

    // The client's and the mirror's complaints.
    strings complaints() const {
        strings found;
        for (const test::log_line& line : log_.lines()) {
            if (line.severity <= msg_log::warning &&
                (line.channel == "dh_client" || line.channel == "dh_proxy/mirror" ||
                 line.channel == "dh_db" || line.channel == "dh_proxy/node"))
                found.push_back(line.text);
        }
        return found;
    }

    scripted_tree tree_;
    std::unique_ptr<line_server> server_;
    int number_ = 1;
};

TEST_F(HostileHandler, EventsThatNobodyAskedForAreOneLine) {
    serve("");
    expect_alive();
    std::string lines;
    for (int i = 0; i < 1000; ++i) {
        const std::string path = "ghost/" + std::to_string(i);
        lines += value_event(path, "1") + event("ended", path, R"("reason":1)") +
                 event("error", path, R"("error":{"code":1,"message":"m"})");
    }
    send(lines);
    expect_alive();
    EXPECT_THAT(complaints(), ElementsAre("msg: handler sends events that nobody has asked for, "
                                          "the first of ghost/0"));
    EXPECT_THAT(local_paths(), ElementsAre("handler/alive"));
}

TEST_F(HostileHandler, EventsOfUnknownKindsOrWithoutTheirMembersArePassedOver) {
    serve("");
    expect_alive();
    send(event("surprise", "alive", "") + event("value", "alive", "") +
         event("error", "alive", "") + event("added", "new", "") +
         R"({"jsonrpc":"2.0","method":"event"})"
         "\n"
         R"({"jsonrpc":"2.0","method":"event","params":[]})"
         "\n"
         R"({"jsonrpc":"2.0","method":7,"params":{"event":{},"path":[]}})"
         "\n");
    expect_alive();
    EXPECT_THAT(local_paths(), ElementsAre("handler/alive"));
}

TEST_F(HostileHandler, HugeTreeIsCutAtItsBoundWithOneLine) {
    std::string nodes;
    for (int i = 0; i < 100'000; ++i)
        nodes +=
            (i == 0 ? "" : ",") + listed("data/" + std::to_string(i), info_of("double", readable));
    serve(nodes);
    ASSERT_TRUE(eventually([&] { return db_.nodes_under("handler").size() == max_nodes; }));
    send(event("added", "one/more", R"("info":)" + info_of("double", readable)));
    expect_alive();
    EXPECT_EQ(db_.nodes_under("handler").size(), max_nodes);
    EXPECT_THAT(complaints(), ElementsAre("msg: handler has more than 8192 nodes, the others are "
                                          "not mirrored"));
}

TEST_F(HostileHandler, HugeTreeThatIsToldInEventsIsCutAtItsBoundWithOneLine) {
    constexpr int told = 100'000;
    constexpr int at_once = 10'000;
    serve("");
    expect_alive();
    for (int i = 0; i < told; i += at_once) {
        std::string lines;
        for (int j = i; j < i + at_once; ++j)
            lines += event("added", "data/" + std::to_string(j),
                           R"("info":)" + info_of("double", readable));
        send(lines);
        expect_alive();
    }
    EXPECT_EQ(db_.nodes_under("handler").size(), max_nodes);
    EXPECT_THAT(complaints(), ElementsAre("msg: handler has more than 8192 nodes, the others are "
                                          "not mirrored"));
}

TEST_F(HostileHandler, RoomOfRemovedNodesIsGivenToOthers) {
    std::string nodes;
    for (std::size_t i = 1; i < max_nodes; ++i)
        nodes +=
            (i == 1 ? "" : ",") + listed("data/" + std::to_string(i), info_of("double", readable));
    serve(nodes);
    ASSERT_TRUE(eventually([&] { return db_.nodes_under("handler").size() == max_nodes; }));
    const std::string added = event("added", "more", R"("info":)" + info_of("double", readable));
    send(added);
    expect_alive();
    EXPECT_FALSE(db_.contains("handler/more"));
    send(event("removed", "data/1", "") + added);
    expect_alive();
    EXPECT_TRUE(db_.contains("handler/more"));
}

TEST_F(HostileHandler, NodesThatComeAndGoWithoutEndLeaveNothing) {
    serve("");
    expect_alive();
    for (int round = 0; round < 20; ++round) {
        std::string lines;
        for (int i = 0; i < 50; ++i) {
            const std::string path = fmt::format("data/{}/{}", round, i);
            lines += event("added", path, R"("info":)" + info_of("bool", subscribable)) +
                     event("removed", path, "");
        }
        send(lines);
        expect_alive();
    }
    EXPECT_THAT(local_paths(), ElementsAre("handler/alive"));
    EXPECT_EQ(complaints(), strings{});
}

TEST_F(HostileHandler, PathTooLongIsNotMirrored) {
    const std::string path = fmt::format("{:a>10000}", "");
    serve(status_node(path, "bool"));
    expect_alive();
    send(event("added", path, R"("info":)" + info_of("bool", subscribable)));
    expect_alive();
    EXPECT_THAT(local_paths(), ElementsAre("handler/alive"));
    EXPECT_THAT(complaints(),
                ElementsAre(fmt::format("msg: handler has a path of 10000 characters that is not "
                                        "mirrored: {:a>200}",
                                        "")));
}

TEST_F(HostileHandler, EntriesOfTheWrongFormArePassedOver) {
    serve(R"(5,"text",null,[],{},{"path":5,"info":{}},{"path":"no/info"},)"
          R"({"path":"","info":{}},{"path":"/","info":{}},{"path":"a//b","info":{}},)"
          R"({"path":"a/","info":{}},{"path":"//a","info":{}})");
    expect_alive();
    EXPECT_THAT(local_paths(), ElementsAre("handler/alive"));
    EXPECT_THAT(complaints(), ElementsAre(StartsWith("msg: handler has a path of 0 characters")));
}

TEST_F(HostileHandler, DescriptionThatIsNoneMakesANodeThatPassesThrough) {
    serve(R"({"path":"odd/1","info":7},{"path":"odd/2","info":{"valueType":[],"capabilities":3}},)"
          R"({"path":"odd/3","info":{"capabilities":{"read":"yes","subscribe":1}}},)"
          R"({"path":"odd/4","info":{"valueType":"bool","capabilities":[]}})");
    expect_alive();
    for (const char* path : {"odd/1", "odd/2", "odd/3", "odd/4"})
        EXPECT_EQ(local(std::string("handler/") + path), "1") << path;
}

TEST_F(HostileHandler, ListingThatIsNoneIsOneLine) {
    tree_.set_nodes("");
    serve_answers([this](const line_server::request& asked) {
        return asked.method == "watch" ? line_server::reply(asked, R"({"nodes":5})")
                                       : tree_.answer(asked);
    });
    ASSERT_TRUE(eventually([&] { return !complaints().empty(); }));
    EXPECT_THAT(complaints(), ElementsAre("msg: handler does not tell its tree: bad reply [71]"));
    EXPECT_EQ(connection_->client()->get<int>("go"), 1);
}

TEST_F(HostileHandler, HandlerThatCannotBeWatchedIsOneLineAndOfUseOtherwise) {
    serve_answers([this](const line_server::request& asked) {
        return asked.method == "watch" ? line_server::unknown_method(asked) : tree_.answer(asked);
    });
    ASSERT_TRUE(eventually([&] { return !complaints().empty(); }));
    EXPECT_THAT(complaints(),
                ElementsAre("msg: handler does not tell its tree: unknown method [-32601]"));
    EXPECT_EQ(connection_->client()->get<int>("go"), 1);
}

TEST_F(HostileHandler, NodeThatIsListedTwiceHasOneSubscriber) {
    const auto updates = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("handler/twice", [updates] { ++*updates; });
    tree_.set_value("twice", "true");
    const std::string node = status_node("twice", "bool");
    serve(node + "," + node + "," + node);
    ASSERT_TRUE(becomes("handler/twice", "true"));
    send(value_event("twice", "false"));
    expect_alive();
    EXPECT_EQ(local("handler/twice"), "false");
    EXPECT_EQ(*updates, 2);
    EXPECT_EQ(complaints(), strings{});
}

TEST_F(HostileHandler, NodeThatIsListedTwiceWithTwoTypesIsOfTheLast) {
    tree_.set_value("twice", "1.5");
    serve(status_node("twice", "bool") + "," + status_node("twice", "float"));
    EXPECT_TRUE(becomes("handler/twice", "1.5"));
    EXPECT_EQ(complaints(), strings{});
}

TEST_F(HostileHandler, NodeMayBeAPartOfOtherPathsToo) {
    for (const char* path : {"a", "a/b", "a/b/c"})
        tree_.set_value(path, "true");
    serve(status_node("a", "bool") + "," + status_node("a/b", "bool") + "," +
          status_node("a/b/c", "bool"));
    EXPECT_TRUE(becomes("handler/a", "true"));
    EXPECT_TRUE(becomes("handler/a/b", "true"));
    EXPECT_TRUE(becomes("handler/a/b/c", "true"));
    send(event("removed", "a/b", ""));
    expect_alive();
    EXPECT_THAT(local_paths(), ElementsAre("handler/a", "handler/a/b/c", "handler/alive"));
}

TEST_F(HostileHandler, PathMayHoldAnyCharacters) {
    tree_.set_value("a b/\xc3\xa4", "true");
    serve(status_node("a b/\xc3\xa4", "bool") + "," + listed(R"(\"\\\n)", "{}"));
    EXPECT_TRUE(becomes("handler/a b/\xc3\xa4", "true"));
    EXPECT_EQ(local("handler/\"\\\n"), "1");
}

TEST_F(HostileHandler, NaNAsATextIsDroppedWithOneLine) {
    tree_.set_value("level", "1.5");
    serve(status_node("level", "float"));
    ASSERT_TRUE(becomes("handler/level", "1.5"));
    std::string lines;
    for (int i = 0; i < 100; ++i)
        lines += value_event("level", R"("NaN")");
    send(lines);
    expect_alive();
    EXPECT_EQ(local("handler/level"), "1.5");
    EXPECT_THAT(complaints(), ElementsAre("msg: handler, event of level dropped: expected float, "
                                          "found string"));
}

TEST_F(HostileHandler, NaNInTheJSONIsDroppedWithOneLineAndTheConnectionStands) {
    tree_.set_value("level", "1.5");
    serve(status_node("level", "float"));
    ASSERT_TRUE(becomes("handler/level", "1.5"));
    std::string lines;
    for (int i = 0; i < 100; ++i)
        lines += value_event("level", i % 2 == 0 ? "NaN" : "-Infinity");
    send(lines);
    expect_alive();
    EXPECT_EQ(local("handler/level"), "1.5");
    EXPECT_THAT(complaints(), ElementsAre("msg: " + test::root() + host_path_ +
                                          " sent a line that is no message"));
}

TEST_F(HostileHandler, NumberBeyondAFloatIsDroppedWithOneLine) {
    tree_.set_value("level", "1.5");
    serve(status_node("level", "float"));
    ASSERT_TRUE(becomes("handler/level", "1.5"));
    send(value_event("level", "1e300") + value_event("level", "-1e300"));
    expect_alive();
    EXPECT_EQ(local("handler/level"), "1.5");
    EXPECT_EQ(complaints().size(), 1U);
}

TEST_F(HostileHandler, TextOfMegabytesIsMirrored) {
    tree_.set_value("text", R"("")");
    serve(status_node("text", "string"));
    ASSERT_TRUE(becomes("handler/text", R"("")"));
    const std::string text = fmt::format(R"("{:x>3000000}")", "");
    send(value_event("text", text));
    expect_alive();
    EXPECT_TRUE(local("handler/text") == text);
    EXPECT_EQ(complaints(), strings{});
}

TEST_F(HostileHandler, FloodOfOneValueWhileACallbackIsSlowKeepsTheNewest) {
    const auto door = std::make_shared<test::door>();
    const auto updates = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("handler/alive", [door, updates] {
        if (++*updates == 2)
            door->pass();
    });
    serve("");
    expect_alive();
    send("");
    ASSERT_TRUE(door->has_met(1));
    std::string lines;
    for (int i = 0; i < 50'000; ++i)
        lines += value_event("alive", std::to_string(i + 10));
    send(lines);
    door->open();
    expect_alive();
    EXPECT_LT(*updates, 2'000);
    EXPECT_EQ(complaints(), strings{});
}

TEST_F(HostileHandler, FloodThatCannotBeThinnedBreaksTheConnectionWithOneLine) {
    const auto door = std::make_shared<test::door>();
    const auto is_slow = std::make_shared<std::atomic<bool>>(true);
    serve("");
    expect_alive();
    proxy_->subscribe<unsigned>(connection_->client(), "alive", "elsewhere",
                                [door, is_slow](unsigned) {
                                    if (*is_slow)
                                        door->pass();
                                });
    ASSERT_TRUE(door->has_met(1));
    std::string lines;
    for (int i = 0; i < 40'000; ++i)
        lines += event("removed", "data/" + std::to_string(i), "");
    tree_.say(lines);
    EXPECT_THROW(connection_->client()->get<int>("go"), dh_client_exception);
    *is_slow = false;
    door->open();
    ASSERT_TRUE(eventually([&] { return server_->accepted_connections() == 2; }));
    ASSERT_TRUE(eventually([&] { return connection_->all().size() == 3; }));
    // Said again where the first event of the renewed subscription came later.
    EXPECT_TRUE(eventually([&] {
        tree_.say(value_event("alive", "77"));
        return connection_->client()->get<int>("go") == 1 && local("handler/alive") == "77";
    }));
    EXPECT_THAT(complaints(), ElementsAre("msg: " + test::root() + host_path_ +
                                          " sends more events than can be taken"));
    EXPECT_EQ(server_->accepted_connections(), 2U);
}

TEST_F(HostileHandler, ListingThatNeverEndsBreaksTheConnectionAndTheNextOneIsMirrored) {
    tree_.set_nodes(status_node("alive", "unsigned int"));
    const auto watches = std::make_shared<std::atomic<int>>(0);
    serve_answers([this, watches](const line_server::request& asked) {
        if (asked.method != "watch" || ++*watches > 2)
            return tree_.answer(asked);
        return R"({"jsonrpc":"2.0","id":)" + asked.id + R"(,"result":{"nodes":[)" +
               std::string(std::size_t{17} << 20, ' ');
    });
    EXPECT_TRUE(becomes("handler/alive", "1"));
    EXPECT_EQ(server_->accepted_connections(), 3U);
    EXPECT_EQ(lines_of("dh_client",
                       "msg: " + test::root() + host_path_ + " sent a line that is too long"),
              1U);
    EXPECT_LE(lines_of("dh_proxy/mirror"), 1U);  // none where the loss is told first
}

// The other handlers are served while this one makes the client wait.
TEST_F(HostileHandler, ListingThatDoesNotComeBreaksTheConnectionAfterItsTime) {
    tree_.set_nodes(status_node("alive", "unsigned int"));
    const auto door = std::make_shared<test::door>();
    const auto watches = std::make_shared<std::atomic<int>>(0);
    dh_server other("other", test::root() + "/other");
    const auto ready = dh::api::status_value<bool>::create(other.db(), "ready", false, 0);
    const auto other_connection = test::mirroring_connection::create(proxy_);
    serve_answers([this, door, watches](const line_server::request& asked) {
        if (asked.method == "watch" && ++*watches == 1)
            door->pass();
        return tree_.answer(asked);
    });
    ASSERT_TRUE(door->has_met(1));
    other_connection->mirror("/other", "other");
    EXPECT_TRUE(becomes("other/ready", "false"));
    ready->set(true);
    EXPECT_TRUE(becomes("other/ready", "true"));
    EXPECT_TRUE(becomes("handler/alive", "1"));
    EXPECT_EQ(server_->accepted_connections(), 2U);
    EXPECT_THAT(complaints(),
                ElementsAre("msg: " + test::root() + host_path_ + " does not answer in time"));
    other_connection->end();
    door->open();
}

TEST_F(HostileHandler, HandlerThatHangsUpAtEachWatchLeavesTheNodesAlone) {
    tree_.set_nodes(status_node("alive", "unsigned int"));
    const auto hangs_up = std::make_shared<std::atomic<bool>>(false);
    serve_answers([this, hangs_up](const line_server::request& asked) {
        return *hangs_up && asked.method == "watch" ? line_server::hang_up : tree_.answer(asked);
    });
    ASSERT_TRUE(becomes("handler/alive", "1"));
    const auto node = db_.find_leaf_node("handler/alive");
    *hangs_up = true;
    server_->drop_connections();
    ASSERT_TRUE(eventually([&] { return server_->accepted_connections() >= 4; }));
    EXPECT_EQ(local("handler/alive"), "1");
    tree_.set_value("alive", "2");
    *hangs_up = false;
    EXPECT_TRUE(becomes("handler/alive", "2"));
    EXPECT_EQ(db_.find_leaf_node("handler/alive"), node);
    EXPECT_EQ(complaints(), strings{});
}

}  // namespace
