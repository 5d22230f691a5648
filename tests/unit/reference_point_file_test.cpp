#include "reference_point_file.hpp"
#include "host.hpp"
#include "log_capture.hpp"
#include "test_root.hpp"

#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;

const std::string folder = "/var/persistent/etc";
const std::string path = folder + "/otdr_refpoint_save.json";

// A file of full size, one member of which a test may replace.
struct content {
    std::string valid = "true";
    std::string timestamp = "1764633600";
    std::string count = "3";
    std::string length = "21500";
    std::string link = "true";
    std::string distances = "[1000,2000,20500]";
    std::string ghosts = "[false,true,false]";

    std::string text() const {
        return fmt::format(
            R"({{"valid":{},"timestamp":{},"numOfReflections":{},"oscFiberlength":{},)"
            R"("oscLinkUp":{},"distances":{},"ghosts":{}}})",
            valid, timestamp, count, length, link, distances, ghosts);
    }
};

otdr_measurement point_of_content() {
    otdr_measurement point;
    point.valid = true;
    point.timestamp = 1'764'633'600;
    point.num_of_reflections = 3;
    point.osc_fiber_length = 21'500;
    point.osc_link_up = true;
    point.reflections[0] = {1000, false};
    point.reflections[1] = {2000, true};
    point.reflections[2] = {20'500, false};
    return point;
}

std::string array_of(std::size_t count, const std::string& element) {
    std::string text = "[";
    for (std::size_t i = 0; i < count; ++i)
        text += (i == 0 ? "" : ",") + element;
    return text + "]";
}

std::string shortened(const std::string& text) {
    return text.size() > 1000 ? text.substr(0, 1000) + "..." : text;
}

class ReferencePointFile : public testing::Test {
  protected:
    ReferencePointFile() { std::filesystem::create_directories(test::root() + folder); }
    ~ReferencePointFile() override { test::empty_root(); }

    static std::string stored() {
        std::ifstream file(test::root() + path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // What a file of this text gives.
    otdr_measurement taken(const std::string& text) {
        test::put_file(path, text);
        otdr_measurement point;
        EXPECT_TRUE(reference_point_file::read(point)) << text;
        return point;
    }

    void expect_refused(const std::string& text) {
        test::put_file(path, text);
        expect_refused_with(shortened(text));
    }
    void expect_refused_with(const std::string& logged) {
        log_.clear();
        otdr_measurement point = point_of_content();
        EXPECT_FALSE(reference_point_file::read(point)) << logged;
        EXPECT_EQ(point, otdr_measurement{}) << logged;
        EXPECT_THAT(log_.lines(),
                    ElementsAre(test::log_line{3, "tm_velt_otdr_manager",
                                               "msg: Invalid parameters: " + logged}));
    }

    void expect_write_fails() {
        EXPECT_FALSE(reference_point_file::write(point_of_content()));
        EXPECT_THAT(log_.lines(),
                    ElementsAre(test::log_line{3, "tm_velt_otdr_manager",
                                               "msg: Error writting refpoint save file."}));
    }

    test::log_capture log_;
};

// --- writing ---

TEST_F(ReferencePointFile, IsOneLineOfCompactJson) {
    EXPECT_TRUE(reference_point_file::write(point_of_content()));
    EXPECT_EQ(stored(), content().text() + "\n");
}

TEST_F(ReferencePointFile, EmptyRecordIsWrittenAsInvalid) {
    EXPECT_TRUE(reference_point_file::write({}));
    EXPECT_EQ(stored(), R"({"valid":false,"timestamp":0,"numOfReflections":0,"oscFiberlength":0,)"
                        R"("oscLinkUp":false,"distances":[],"ghosts":[]})"
                        "\n");
}

TEST_F(ReferencePointFile, WritingReplacesAllOfALongerFile) {
    test::put_file(path, std::string(5000, 'x'));
    EXPECT_TRUE(reference_point_file::write({}));
    otdr_measurement point = point_of_content();
    EXPECT_TRUE(reference_point_file::read(point));
    EXPECT_EQ(point, otdr_measurement{});
}

TEST_F(ReferencePointFile, WhatWasWrittenIsReadBack) {
    otdr_measurement full = point_of_content();
    full.num_of_reflections = otdr_measurement::max_reflections;
    for (std::uint32_t i = 0; i < full.reflections.size(); ++i)
        full.reflections[i] = {0xffff'ffffU - i, i % 2 == 0};
    full.timestamp = std::numeric_limits<std::int64_t>::max();
    full.osc_fiber_length = std::numeric_limits<std::uint32_t>::max();
    EXPECT_TRUE(reference_point_file::write(full));
    otdr_measurement point;
    EXPECT_TRUE(reference_point_file::read(point));
    EXPECT_EQ(point, full);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ReferencePointFile, WritingFailsWhereTheFolderIsMissing) {
    test::remove_file(folder);
    expect_write_fails();
}

TEST_F(ReferencePointFile, WritingFailsWhereAFolderIsInItsPlace) {
    std::filesystem::create_directories(test::root() + path);
    expect_write_fails();
}

TEST_F(ReferencePointFile, WritingDoesNotWaitForTheOtherEndOfAPipe) {
    ASSERT_EQ(::mkfifo((test::root() + path).c_str(), 0600), 0);
    expect_write_fails();
}

TEST_F(ReferencePointFile, WritingFailsWhereTheDeviceTakesNothing) {
    std::filesystem::create_symlink("/dev/full", test::root() + path);
    expect_write_fails();
}

TEST_F(ReferencePointFile, WritingFailsWhereTheDiskIsFull) {
    const std::string disk = test::root() + folder;
    if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=16k") != 0)
        GTEST_SKIP() << "no right to mount a small disk: " << std::strerror(errno);
    std::ofstream(disk + "/other", std::ios::binary) << std::string(64 << 10, 'x');
    expect_write_fails();
    EXPECT_EQ(::umount(disk.c_str()), 0);
}

// --- reading ---

TEST_F(ReferencePointFile, MissingFileIsNoErrorAndLeavesThePoint) {
    otdr_measurement point = point_of_content();
    EXPECT_TRUE(reference_point_file::read(point));
    EXPECT_EQ(point, point_of_content());
    test::remove_file("/var");
    EXPECT_TRUE(reference_point_file::read(point));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ReferencePointFile, EveryMemberIsTaken) {
    EXPECT_EQ(taken(content().text() + "\n"), point_of_content());
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ReferencePointFile, OrderBlanksAndFurtherMembersDoNotMatter) {
    EXPECT_EQ(taken("\n{ \"ghosts\" : [false,true,false], \"distances\":[1000, 2000, 20500],\n"
                    R"("oscLinkUp":true,"oscFiberlength":21500,"numOfReflections":3,)"
                    R"("timestamp":1764633600,"note":{"by":[null]},"valid":true})"),
              point_of_content());
}

TEST_F(ReferencePointFile, ArraysShorterThanTheCountLeaveTheRestZero) {
    content shorter;
    shorter.distances = "[1000]";
    shorter.ghosts = "[]";
    const auto point = taken(shorter.text());
    EXPECT_EQ(point.num_of_reflections, 3);
    EXPECT_EQ(point.reflections[0], (otdr_reflection{1000, false}));
    EXPECT_EQ(point.reflections[1], otdr_reflection{});
    EXPECT_EQ(point.reflections[2], otdr_reflection{});
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ReferencePointFile, ArraysLongerThanTheCountAreTakenByTheirOwn) {
    content longer;
    longer.count = "1";
    const auto point = taken(longer.text());
    EXPECT_EQ(point.num_of_reflections, 1);
    EXPECT_EQ(point.reflections, point_of_content().reflections);
}

TEST_F(ReferencePointFile, EntriesPastTheFifteenthAreDroppedWithAWarning) {
    content longer;
    longer.count = "16";
    longer.distances = array_of(5000, "7000");
    longer.ghosts = array_of(16, "true");
    const auto point = taken(longer.text());
    EXPECT_EQ(point.num_of_reflections, 15);
    for (const otdr_reflection& each : point.reflections)
        EXPECT_EQ(each, (otdr_reflection{7000, true}));
    EXPECT_THAT(log_.lines(),
                ElementsAre(test::log_line{
                    4, "tm_velt_otdr_manager",
                    "msg: The reference point has 5000 reflections, the first 15 are kept."}));
}

TEST_F(ReferencePointFile, EmptyFileIsRefused) {
    expect_refused("");
    expect_refused_with("");
}

TEST_F(ReferencePointFile, FileCutAnywhereIsRefused) {
    const std::string whole = content().text();
    for (std::size_t length = 0; length < whole.size(); ++length)
        expect_refused(whole.substr(0, length));
}

TEST_F(ReferencePointFile, TextThatIsNotOneObjectIsRefused) {
    for (const char* text : {"null", "true", "7", "\"text\"", "[]", "{}", "{]", "nonsense"})
        expect_refused(text);
    expect_refused(content().text() + content().text());
    expect_refused("[" + content().text() + "]");
}

TEST_F(ReferencePointFile, BytesThatAreNoTextAreRefused) {
    content bad;
    test::put_file(path, bad.text() + std::string(1, '\0'));
    otdr_measurement point;
    EXPECT_FALSE(reference_point_file::read(point));
    test::put_file(path, R"({"note":")"
                         "\xff"
                         R"(",)" +
                             bad.text().substr(1));
    EXPECT_FALSE(reference_point_file::read(point));
    EXPECT_EQ(log_.lines().size(), 2U);
    EXPECT_THAT(log_.lines().back().text, testing::HasSubstr("\xef\xbf\xbd"));
}

TEST_F(ReferencePointFile, EachMissingMemberIsRefused) {
    const std::string whole = content().text();
    for (const char* key : {"valid", "timestamp", "numOfReflections", "oscFiberlength", "oscLinkUp",
                            "distances", "ghosts"}) {
        std::string other = whole;
        expect_refused(other.replace(other.find(key), 1, "X"));
    }
}

TEST_F(ReferencePointFile, EachMemberOfAWrongTypeIsRefused) {
    const strings numbers{"-1",   "-0.0", "1.5",   "3.0", "1e2", "18446744073709551616",
                          "true", "null", "\"3\"", "[]",  "{}"};
    for (const std::string& value : numbers) {
        content bad;
        bad.timestamp = value;
        expect_refused(bad.text());
        bad = {};
        bad.count = value;
        expect_refused(bad.text());
        bad = {};
        bad.length = value;
        expect_refused(bad.text());
        bad = {};
        bad.distances = "[1000," + value + ",20500]";
        expect_refused(bad.text());
    }
    for (const char* value : {"0", "1", "null", "\"true\"", "[]", "{}"}) {
        content bad;
        bad.valid = value;
        expect_refused(bad.text());
        bad = {};
        bad.link = value;
        expect_refused(bad.text());
        bad = {};
        bad.ghosts = fmt::format("[false,{}]", value);
        expect_refused(bad.text());
    }
    for (const char* value : {"0", "true", "null", "\"[]\"", "{}"}) {
        content bad;
        bad.distances = value;
        expect_refused(bad.text());
        bad = {};
        bad.ghosts = value;
        expect_refused(bad.text());
    }
}

TEST_F(ReferencePointFile, NumbersThatTheRecordDoesNotHoldAreRefused) {
    content bad;
    bad.timestamp = "9223372036854775808";
    expect_refused(bad.text());
    bad = {};
    bad.count = "256";
    expect_refused(bad.text());
    bad = {};
    bad.length = "4294967296";
    expect_refused(bad.text());
    bad = {};
    bad.distances = "[4294967296]";
    expect_refused(bad.text());
}

TEST_F(ReferencePointFile, ElementOfAWrongTypePastTheFifteenthIsRefusedToo) {
    content bad;
    bad.distances = array_of(15, "7000").replace(0, 1, "[7000,");
    EXPECT_EQ(taken(bad.text()).reflections[14].distance, 7000U);
    bad.distances.replace(bad.distances.size() - 1, 1, ",null]");
    expect_refused(bad.text());
}

TEST_F(ReferencePointFile, TenMegabytesOfBracketsCostALogLine) {
    constexpr std::size_t much = std::size_t{10} << 20;
    expect_refused(std::string(much, '['));
    expect_refused(std::string(much / 2, '[') + std::string(much / 2, ']'));
}

TEST_F(ReferencePointFile, NestingAsDeepAsTheLongestFileIsRefused) {
    constexpr std::size_t depth = 30'000;
    const std::string nested = std::string(depth, '[') + std::string(depth, ']');
    expect_refused(nested);
    content bad;
    bad.distances = nested;
    expect_refused(bad.text());
    std::string objects;
    for (int i = 0; i < 12'000; ++i)
        objects += R"({"a":)";
    expect_refused(objects);
}

TEST_F(ReferencePointFile, FolderInItsPlaceIsRefused) {
    std::filesystem::create_directories(test::root() + path);
    expect_refused_with("(not a readable file)");
}

TEST_F(ReferencePointFile, PipeAndDeviceInItsPlaceAreRefused) {
    ASSERT_EQ(::mkfifo((test::root() + path).c_str(), 0600), 0);
    expect_refused_with("(not a readable file)");
    test::remove_file(path);
    std::filesystem::create_symlink("/dev/zero", test::root() + path);
    expect_refused_with("(not a readable file)");
}

// The files as a user sees them to whom nothing belongs, on this thread only.
class as_nobody {
  public:
    as_nobody() { ::setfsuid(65'534); }
    ~as_nobody() { ::setfsuid(::geteuid()); }
    as_nobody(const as_nobody&) = delete;
    as_nobody& operator=(const as_nobody&) = delete;
};

TEST_F(ReferencePointFile, UnreadableFileIsRefused) {
    test::put_file(path, content().text());
    ASSERT_EQ(::chmod(test::root().c_str(), 0711), 0);
    ASSERT_EQ(::chmod((test::root() + path).c_str(), 0), 0);
    const as_nobody nobody;
    expect_refused_with("(not a readable file)");
}

TEST_F(ReferencePointFile, FileInAFolderThatCannotBeEnteredIsRefused) {
    test::put_file(path, content().text());
    ASSERT_EQ(::chmod((test::root() + folder).c_str(), 0), 0);
    {
        const as_nobody nobody;
        expect_refused_with("(not a readable file)");
    }
    ASSERT_EQ(::chmod((test::root() + folder).c_str(), 0700), 0);
}

}  // namespace
