#include "log_capture.hpp"
#include "manual_time.hpp"
#include "msg_log.hpp"
#include "own_process.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <thread>

namespace {

using std::chrono::microseconds;
using strings = std::vector<std::string>;

class Log : public testing::Test {
  protected:
    Log() : previous_level_(msg_log::instance().level()) {
        msg_log::instance().set_level(msg_log::progress);
    }
    ~Log() override { msg_log::instance().set_level(previous_level_); }

    // What is written to standard error meanwhile.
    template <class Action>
    static std::string written(const Action& action) {
        const test::manual_time time(microseconds(1'700'000'000'000'042));
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

  private:
    const msg_log::severity_level previous_level_;
};

const std::string stamp = "2023-11-14T22:13:20.000042Z ";

TEST_F(Log, RecordIsOneLineWithTimeSeverityChannelTextAndTrace) {
    int line = 0;
    const std::string text = written([&] {
        line = __LINE__ + 1;
        MSG_LOG("tm_velt", msg_log::warning) << "msg: value " << 5;
    });
    EXPECT_EQ(text, stamp + "4 tm_velt msg: value 5 [log_test:" + std::to_string(line) + "]\n");
}

TEST_F(Log, ControlCharactersAreEscaped) {
    const std::string text = written([] {
        MSG_LOG("c", msg_log::progress) << "a\nb\rc\t\x1b[1m" << '\x7f' << '\0' << "\xc3\xa4";
    });
    EXPECT_THAT(text, testing::StartsWith(stamp + R"(6 c a\x0ab\x0dc\x09\x1b[1m\x7f\x00)" +
                                          "\xc3\xa4 [log_test:"));
}

TEST_F(Log, ChannelIsOneWord) {
    EXPECT_THAT(written([] { MSG_LOG("system info\n", msg_log::progress) << "x"; }),
                testing::StartsWith(stamp + R"(6 system_info\x0a x [)"));
    EXPECT_THAT(written([] { MSG_LOG("", msg_log::progress) << "x"; }),
                testing::StartsWith(stamp + "6 - x ["));
}

TEST_F(Log, BoolsAreWords) {
    EXPECT_THAT(written([] { MSG_LOG("c", msg_log::progress) << true << " " << false; }),
                testing::HasSubstr(" true false ["));
}

TEST_F(Log, FormattingOfOneRecordDoesNotReachTheNext) {
    const std::string text = written([] {
        MSG_LOG("c", msg_log::progress) << std::hex << 255;
        MSG_LOG("c", msg_log::progress) << 255;
    });
    EXPECT_THAT(text, testing::HasSubstr(" ff ["));
    EXPECT_THAT(text, testing::HasSubstr(" 255 ["));
}

TEST_F(Log, LevelIsTheHighestSeverityThatIsWritten) {
    const std::string text = written([] {
        MSG_LOG("c", msg_log::detail) << "hidden";
        msg_log::instance().set_level(msg_log::detail);
        MSG_LOG("c", msg_log::detail) << "shown";
        MSG_LOG("c", msg_log::trace) << "hidden";
        msg_log::instance().set_level(msg_log::failure);
        MSG_LOG("c", msg_log::warning) << "hidden";
        MSG_LOG("c", msg_log::failure) << "shown";
    });
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
    EXPECT_EQ(text.find("hidden"), std::string::npos);
}

TEST_F(Log, TextsOfARecordThatIsNotWrittenAreNotEvaluated) {
    int evaluated = 0;
    const auto count = [&] { return ++evaluated; };
    MSG_LOG("c", msg_log::trace) << count();
    EXPECT_EQ(evaluated, 0);
}

TEST_F(Log, StatementStandsInAnIfWithoutBraces) {
    const test::log_capture log;
    if (log.lines().empty())
        MSG_LOG("c", msg_log::progress) << "then";
    else
        MSG_LOG("c", msg_log::progress) << "else";
    EXPECT_EQ(log.texts(), strings{"then"});
}

TEST_F(Log, RecordsOfSeveralThreadsAreWholeLines) {
    const std::string text = written([] {
        const auto write = [] {
            for (int i = 0; i < 200; ++i)
                MSG_LOG("c", msg_log::progress) << "msg: " << std::string(100, 'x') << "end";
        };
        std::thread other(write);
        write();
        other.join();
    });
    std::istringstream lines(text);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_TRUE(line.starts_with(stamp) && line.ends_with("]") && line.size() < 250) << line;
    EXPECT_EQ(count, 400U);
}

TEST_F(Log, LongRecordIsWhole) {
    const std::string text =
        written([] { MSG_LOG("c", msg_log::progress) << std::string(200'000, 'x'); });
    EXPECT_GT(text.size(), 200'000U);
    EXPECT_TRUE(text.ends_with("]\n"));
}

TEST(LogCodeTrace, IsTheSourcesNameWithoutFolderAndEnding) {
    EXPECT_EQ(msg_log::getCodeTrace("/src/dir.d/loop.step.cpp", 12), " [loop.step:12]");
    EXPECT_EQ(msg_log::getCodeTrace("loop", 1), " [loop:1]");
    EXPECT_EQ(msg_log::getCodeTrace("a/.hidden", 1), " [.hidden:1]");
}

// These look at the environment, which the log does once in a process.
class LogInItsOwnProcess : public testing::Test {
  protected:
    LogInItsOwnProcess() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    [[noreturn]] static void write_and_exit() {
        MSG_LOG("c", msg_log::warning) << "warning";
        MSG_LOG("c", msg_log::progress) << "progress";
        MSG_LOG("c", msg_log::detail) << "detail";
        std::fprintf(stderr, "<level %d>", msg_log::instance().level());
        std::exit(0);
    }
};

TEST_F(LogInItsOwnProcess, LevelComesFromTheEnvironment) {
    const test::environment_variable level("VELT_LOG_LEVEL", "4");
    EXPECT_EXIT(write_and_exit(), testing::ExitedWithCode(0), "warning.*\n<level 4>");
}

TEST_F(LogInItsOwnProcess, LevelIsSixWithoutAUsableVariable) {
    for (const char* text : {"", "x", "7x", " 7", "99999999999999999999"}) {
        const test::environment_variable level("VELT_LOG_LEVEL", text);
        EXPECT_EXIT(write_and_exit(), testing::ExitedWithCode(0), "progress.*\n<level 6>") << text;
    }
}

TEST_F(LogInItsOwnProcess, JournalGetsItsPrefixAndNoTime) {
    const test::environment_variable stream("JOURNAL_STREAM", "8:1234");
    EXPECT_EXIT(write_and_exit(), testing::ExitedWithCode(0),
                "^<4>4 c warning \\[log_test:[0-9]+\\]\n<6>6 c progress ");
}

}  // namespace
