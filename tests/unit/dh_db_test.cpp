#include "dh_db.hpp"
#include "const_value.hpp"
#include "log_capture.hpp"
#include "manual_time.hpp"
#include "node_access.hpp"
#include "status_value.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace {

using strings = std::vector<std::string>;
using number = dh::api::const_value<unsigned int>;
using state = dh::api::status_value<unsigned int>;
using text = dh::api::status_value<std::string>;
using split = std::pair<std::string, std::string>;

strings paths_under(const dh_db& db, const std::string& prefix) {
    strings found;
    for (const auto& entry : db.nodes_under(prefix))
        found.push_back(entry.path);
    return found;
}

std::string no_such_path(const std::string& path) {
    return "No such path: " + path;
}

TEST(DhDbSplitPath, GivesLeafNameAndParent) {
    EXPECT_EQ(dh_db::split_path("data/wss/1/power"), split("power", "data/wss/1"));
    EXPECT_EQ(dh_db::split_path("present"), split("present", ""));
    EXPECT_EQ(dh_db::split_path("alarms/system info/severity"),
              split("severity", "alarms/system info"));
    EXPECT_EQ(dh_db::split_path(""), split("", ""));
}

TEST(DhDbSplitPath, DropsOneLeadingSlash) {
    EXPECT_EQ(dh_db::split_path("/data/power"), split("power", "data"));
    EXPECT_EQ(dh_db::split_path("/present"), split("present", ""));
    EXPECT_EQ(dh_db::split_path("//present"), split("present", ""));
}

class DhDb : public testing::Test {
  protected:
    void add(const std::string& path) { nodes_.push_back(number::create(db_, path, 1)); }

    dh_db db_;
    std::vector<std::shared_ptr<number>> nodes_;
    std::shared_ptr<test::recording_session> session_ = std::make_shared<test::recording_session>();
};

TEST_F(DhDb, NodeIsFoundByItsWholePathOnly) {
    add("data/wss/power");
    EXPECT_EQ(db_.find_leaf_node("data/wss/power"), nodes_[0]);
    for (const char* path : {"data/wss", "data/wss/power/", "data/wss/powe", "", "wss/power"}) {
        EXPECT_EQ(test::error_of([&] { db_.find_leaf_node(path); }),
                  (test::error{-2, no_such_path(path)}));
    }
}

TEST_F(DhDb, FindDropsOneLeadingSlashAlsoFromTheErrorText) {
    add("data/power");
    EXPECT_EQ(db_.find_leaf_node("/data/power"), nodes_[0]);
    EXPECT_EQ(test::error_of([&] { db_.find_leaf_node("//data/power"); }),
              (test::error{-2, no_such_path("/data/power")}));
}

TEST_F(DhDb, LeadingSlashOfANewNodeIsDropped) {
    add("/data/power");
    EXPECT_EQ(nodes_[0]->get_path(0), "data/power");
    EXPECT_EQ(paths_under(db_, ""), strings{"data/power"});
}

TEST_F(DhDb, NodeGivesItsPathWithoutItsFirstParts) {
    add("data/wss/1/power");
    EXPECT_EQ(nodes_[0]->get_path(0), "data/wss/1/power");
    EXPECT_EQ(nodes_[0]->get_path(1), "wss/1/power");
    EXPECT_EQ(nodes_[0]->get_path(3), "power");
    EXPECT_EQ(nodes_[0]->get_path(4), "");
    EXPECT_EQ(nodes_[0]->get_path(9), "");
    EXPECT_EQ(nodes_[0]->name(), "power");
}

TEST_F(DhDb, NodeOutsideATreeHasItsNameAsItsPath) {
    const number node("power", 1);
    EXPECT_EQ(node.get_path(0), "power");
    EXPECT_FALSE(node.is_attached());
    EXPECT_FALSE(node.was_removed());
}

TEST_F(DhDb, TakenPathKeepsTheFirstNodeAndLogsAWarning) {
    const test::log_capture log;
    add("data/power");
    add("data/power");
    EXPECT_EQ(db_.find_leaf_node("data/power"), nodes_[0]);
    EXPECT_TRUE(nodes_[0]->is_attached());
    EXPECT_FALSE(nodes_[1]->is_attached());
    EXPECT_EQ(log.lines(),
              (std::vector<test::log_line>{
                  {msg_log::warning, "dh_db",
                   "msg: Path is taken, the new node stays outside the tree: data/power"}}));
}

TEST_F(DhDb, NodeThatIsInATreeIsNotAddedAgain) {
    const test::log_capture log;
    add("data/power");
    dh_db other;
    other.add_node("else", nodes_[0]);
    db_.add_node("else", nodes_[0]);
    EXPECT_EQ(nodes_[0]->get_path(0), "data/power");
    EXPECT_EQ(paths_under(db_, ""), strings{"data/power"});
    EXPECT_TRUE(paths_under(other, "").empty());
    EXPECT_EQ(log.texts(msg_log::warning),
              strings(2, "msg: Node had its place already, it gets no other: else/power"));
}

TEST_F(DhDb, NodeThatWasRemovedIsNotAddedAgain) {
    const test::log_capture log;
    add("data/power");
    db_.remove_node("data/power");
    db_.add_node("data", nodes_[0]);
    EXPECT_FALSE(nodes_[0]->is_attached());
    EXPECT_TRUE(paths_under(db_, "").empty());
    EXPECT_EQ(log.texts(msg_log::warning),
              strings{"msg: Node had its place already, it gets no other: data/power"});
}

TEST_F(DhDb, NodesUnderAPrefixAreSortedByPathAndMatchWholeParts) {
    for (const char* path : {"data/wss2/a", "data/wss/b", "data/wss-x", "data/wss/a", "data/wss"})
        add(path);
    EXPECT_EQ(paths_under(db_, "data/wss"), (strings{"data/wss", "data/wss/a", "data/wss/b"}));
    EXPECT_EQ(paths_under(db_, "/data/wss"), paths_under(db_, "data/wss"));
    EXPECT_EQ(paths_under(db_, ""),
              (strings{"data/wss", "data/wss-x", "data/wss/a", "data/wss/b", "data/wss2/a"}));
    EXPECT_TRUE(paths_under(db_, "data/ws").empty());
    EXPECT_TRUE(paths_under(db_, "dat").empty());
}

TEST_F(DhDb, RemovedNodeIsNotFoundAndNotAttached) {
    add("data/power");
    EXPECT_TRUE(db_.remove_node("/data/power"));
    EXPECT_FALSE(nodes_[0]->is_attached());
    EXPECT_TRUE(nodes_[0]->was_removed());
    EXPECT_THROW(db_.find_leaf_node("data/power"), dh_error);
    EXPECT_TRUE(paths_under(db_, "").empty());
}

TEST_F(DhDb, RemovingWhatIsNotThereIsFalse) {
    add("data/power");
    EXPECT_FALSE(db_.remove_node("data"));
    EXPECT_FALSE(db_.remove_node("data/other"));
    EXPECT_TRUE(db_.remove_node("data/power"));
    EXPECT_FALSE(db_.remove_node("data/power"));
}

TEST_F(DhDb, PathIsFreeAgainAfterARemoval) {
    add("data/power");
    db_.remove_node("data/power");
    add("data/power");
    EXPECT_EQ(db_.find_leaf_node("data/power"), nodes_[1]);
}

TEST_F(DhDb, RemovalEndsSubscriptionsWithReasonOne) {
    const auto node = state::create(db_, "data/state", 1, 0);
    test::subscribe(*node, session_);
    session_->clear();
    db_.remove_node("data/state");
    EXPECT_EQ(session_->events(), strings{R"({"event":"ended","path":"data/state","reason":1})"});
    EXPECT_TRUE(session_->replaceable_paths().empty());
    node->set(2);
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(DhDb, SubscribingARemovedNodeIsNoSuchPath) {
    const auto node = state::create(db_, "data/state", 1, 0);
    db_.remove_node("data/state");
    EXPECT_EQ(test::error_of([&] { test::subscribe(*node, session_); }),
              (test::error{-2, no_such_path("data/state")}));
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DhDb, NodesOutliveTheTree) {
    std::shared_ptr<state> node;
    {
        dh_db db;
        node = state::create(db, "data/state", 1, 0);
    }
    EXPECT_FALSE(node->is_attached());
    node->set(2);
    EXPECT_EQ(node->get_path(0), "data/state");
}

TEST_F(DhDb, EventCarriesTheProgramsTimeInMilliseconds) {
    const test::manual_time time(std::chrono::microseconds(1'700'000'000'123'987));
    const auto node = state::create(db_, "data/state", 1, 0);
    test::subscribe(*node, session_);
    session_->clear();
    node->set(2);
    EXPECT_EQ(session_->lines(),
              strings{R"({"jsonrpc":"2.0","method":"event","params":{"event":"value",)"
                      R"("path":"data/state","time":1700000000123,"value":2}})"
                      "\n"});
}

class DhDbWatch : public DhDb {
  protected:
    strings watch(const std::string& prefix) {
        strings there;
        db_.watch(prefix, session_, [&](const std::vector<dh_db::entry>& entries) {
            for (const auto& entry : entries)
                there.push_back(entry.path);
        });
        return there;
    }
};

const std::string number_info =
    R"({"type":"const value","valueType":"unsigned int","capabilities":{"read":true}})";

TEST_F(DhDbWatch, GivesTheNodesThatAreThere) {
    add("data/wss/b");
    add("data/wss/a");
    add("data/wss2");
    EXPECT_EQ(watch("data/wss"), (strings{"data/wss/a", "data/wss/b"}));
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DhDbWatch, TellsOfNodesThatComeAndGoUnderThePrefix) {
    watch("data/wss");
    add("data/wss/a");
    add("data/wss2");
    db_.remove_node("data/wss2");
    db_.remove_node("data/wss/a");
    EXPECT_EQ(session_->events(),
              (strings{R"({"event":"added","path":"data/wss/a","info":)" + number_info + "}",
                       R"({"event":"removed","path":"data/wss/a"})"}));
    EXPECT_TRUE(session_->replaceable_paths().empty());
}

TEST_F(DhDbWatch, TheEmptyPrefixIsTheWholeTree) {
    watch("");
    add("data/a");
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(DhDbWatch, NodeWhosePathIsTakenIsNotAnnounced) {
    const test::log_capture log;
    add("data/a");
    watch("");
    add("data/a");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DhDbWatch, OverlappingPrefixesTellASessionOnce) {
    watch("");
    watch("data");
    watch("/data");
    add("data/a");
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(DhDbWatch, UnwatchEndsThatPrefixOnly) {
    watch("data");
    watch("alarms");
    db_.unwatch("/data", session_);
    add("data/a");
    add("alarms/a");
    EXPECT_EQ(session_->events(),
              strings{R"({"event":"added","path":"alarms/a","info":)" + number_info + "}"});
}

TEST_F(DhDbWatch, UnwatchOfWhatIsNotWatchedChangesNothing) {
    watch("data");
    db_.unwatch("dat", session_);
    db_.unwatch("data", std::make_shared<test::recording_session>());
    add("data/a");
    EXPECT_EQ(session_->events().size(), 1U);
}

TEST_F(DhDbWatch, UnwatchAllEndsAllOfASession) {
    watch("data");
    watch("alarms");
    db_.unwatch_all(session_);
    add("data/a");
    add("alarms/a");
    EXPECT_TRUE(session_->events().empty());
}

TEST_F(DhDbWatch, SubscriberOfARemovedNodeThatWatchesIsToldBoth) {
    const auto node = state::create(db_, "data/state", 1, 0);
    watch("data");
    test::subscribe(*node, session_);
    session_->clear();
    db_.remove_node("data/state");
    EXPECT_EQ(session_->events(), (strings{R"({"event":"removed","path":"data/state"})",
                                           R"({"event":"ended","path":"data/state","reason":1})"}));
}

class DhDbHistory : public testing::Test {
  protected:
    dh_db db_;
};

TEST_F(DhDbHistory, IsEmptyAtFirst) {
    EXPECT_TRUE(test::history(db_).empty());
}

TEST_F(DhDbHistory, HoldsPathTimeAndValueNewestFirst) {
    test::manual_time time(std::chrono::milliseconds(5000));
    const auto first = state::create(db_, "data/first", 1, 0);
    const auto second = text::create(db_, "data/second", "", 0);
    first->set(2);
    time.advance(std::chrono::milliseconds(7));
    second->set("\"\n");
    EXPECT_EQ(test::history(db_), (strings{R"({"path":"data/second","time":5007,"value":"\"\n"})",
                                           R"({"path":"data/first","time":5000,"value":2})"}));
}

TEST_F(DhDbHistory, GivesAtMostTheLimit) {
    const auto node = state::create(db_, "data/state", 0, 0);
    for (unsigned i = 1; i <= 3; ++i)
        node->set(i);
    EXPECT_EQ(db_.history(2).size(), 2U);
    EXPECT_TRUE(db_.history(2)[0]->ends_with(R"("value":3})"));
    EXPECT_TRUE(db_.history(0).empty());
    EXPECT_EQ(db_.history(4).size(), 3U);
}

TEST_F(DhDbHistory, KeepsTheLast1024Changes) {
    const auto node = state::create(db_, "data/state", 0, 0);
    for (unsigned i = 1; i <= 1030; ++i)
        node->set(i);
    const strings entries = test::history(db_);
    ASSERT_EQ(entries.size(), 1024U);
    EXPECT_TRUE(entries.front().ends_with(R"("value":1030})")) << entries.front();
    EXPECT_TRUE(entries.back().ends_with(R"("value":7})")) << entries.back();
}

TEST_F(DhDbHistory, LongValuesAreBoundedByTheirBytes) {
    const auto node = text::create(db_, "data/text", "", 0);
    for (char c = 'a'; c <= 'f'; ++c)
        node->set(std::string(std::size_t{1} << 20, c));
    const strings entries = test::history(db_);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_NE(entries.front().find("fff"), std::string::npos);
    EXPECT_NE(entries.back().find("ddd"), std::string::npos);
}

TEST_F(DhDbHistory, SurvivesTheRemovalOfTheNode) {
    const auto node = state::create(db_, "data/state", 0, 0);
    node->set(1);
    db_.remove_node("data/state");
    EXPECT_EQ(test::history(db_).size(), 1U);
}

TEST_F(DhDbHistory, ChangesOfSeveralThreadsAreAllRecorded) {
    const auto first = state::create(db_, "data/first", 0, 0);
    const auto second = state::create(db_, "data/second", 0, 0);
    std::thread other([&] {
        for (unsigned i = 1; i <= 200; ++i)
            first->set(i);
    });
    for (unsigned i = 1; i <= 200; ++i) {
        second->set(i);
        db_.history(10);
    }
    other.join();
    EXPECT_EQ(test::history(db_).size(), 400U);
}

TEST(DhDbThreads, TreeMayChangeWhileItIsSearchedAndWatched) {
    dh_db db;
    const auto session = std::make_shared<test::recording_session>();
    std::thread changer([&] {
        for (int i = 0; i < 300; ++i) {
            state::create(db, "data/" + std::to_string(i), 1, 0);
            db.remove_node("data/" + std::to_string(i));
        }
    });
    for (int i = 0; i < 300; ++i) {
        db.watch("data", session, [](const auto&) {});
        for (const auto& [path, node] : db.nodes_under(""))
            test::read(*node);
        db.unwatch_all(session);
    }
    changer.join();
    EXPECT_TRUE(db.nodes_under("").empty());
}

}  // namespace
