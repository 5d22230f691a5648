#include "host.hpp"
#include "manual_time.hpp"
#include "own_process.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// What a POSIX shell makes of the word.
std::string as_shell_reads(const std::string& word) {
    const std::string command = "printf %s " + host::shell_word(word);
    FILE* const pipe = popen(command.c_str(), "r");
    std::string text;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        text += static_cast<char>(c);
    pclose(pipe);
    return text;
}

TEST(HostShellWord, PlainWordsStayAsTheyAre) {
    for (const char* word : {"abc", "/usr/bin/x", "a-b_c.d", "k=v", "1:2@3%4+5,6"})
        EXPECT_EQ(host::shell_word(word), word);
}

TEST(HostShellWord, EverythingElseIsQuoted) {
    EXPECT_EQ(host::shell_word(""), "''");
    EXPECT_EQ(host::shell_word("a b"), "'a b'");
    EXPECT_EQ(host::shell_word("it's"), "'it'\\''s'");
}

TEST(HostShellWord, ShellReadsItBackUnchanged) {
    for (const char* word : {"", "a b", "it's", "$(reboot)", "`x`", "a;b", "\"q\"", "back\\slash",
                             "line\nfeed", "*", "~", "#c", "&", "'", "''", "\xc3\xa4"})
        EXPECT_EQ(as_shell_reads(word), word);
}

TEST(HostShell, GivesTheStatusOfTheCommand) {
    EXPECT_EQ(host::run_shell("exit 0"), 0);
    EXPECT_EQ(WEXITSTATUS(host::run_shell("exit 3")), 3);
}

TEST(HostEnvironment, GivesTheVariableOrTheFallback) {
    const test::environment_variable variable("VELT_TEST_VARIABLE", "value");
    EXPECT_EQ(host::environment("VELT_TEST_VARIABLE", "other"), "value");
    EXPECT_EQ(host::environment("VELT_TEST_NO_VARIABLE", "other"), "other");
}

TEST(HostTime, OverrideIsInForceForItsLife) {
    {
        test::manual_time time(milliseconds(1234));
        EXPECT_EQ(host::wall_milliseconds(), 1234);
        host::time().sleep(milliseconds(6));
        EXPECT_EQ(host::wall_milliseconds(), 1240);
    }
    EXPECT_GT(host::wall_milliseconds(), 1'600'000'000'000);
}

TEST(HostTime, MonotonicTimeGoesForward) {
    const nanoseconds before = host::time().monotonic();
    host::time().sleep(milliseconds(2));
    EXPECT_GE(host::time().monotonic() - before, milliseconds(2));
}

TEST(HostTime, SleepOfNothingOrLessReturns) {
    host::time().sleep(nanoseconds(0));
    host::time().sleep(nanoseconds(-5));
}

// Each of these looks at a variable that is read once in a process.
class HostInItsOwnProcess : public testing::Test {
  protected:
    HostInItsOwnProcess() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void exit_with(const std::string& text) {
    std::fputs(("<" + text + ">").c_str(), stderr);
    std::exit(0);
}

TEST_F(HostInItsOwnProcess, PathsStandUnderTheRoot) {
    const test::environment_variable root("VELT_ROOT", "/some/root");
    EXPECT_EXIT(exit_with(host::path("/tmp/socket")), testing::ExitedWithCode(0),
                "</some/root/tmp/socket>");
}

TEST_F(HostInItsOwnProcess, PathsStandAsTheyAreWithoutARoot) {
    EXPECT_EXIT(exit_with(host::path("/tmp/socket")), testing::ExitedWithCode(0), "</tmp/socket>");
}

TEST_F(HostInItsOwnProcess, ExistenceIsThatUnderTheRoot) {
    const test::temporary_folder folder;
    folder.write("/marker", "");
    const test::environment_variable root("VELT_ROOT", folder.path());
    EXPECT_EXIT(
        {
            const std::string seen = std::to_string(host::exists("/marker")) +
                                     std::to_string(host::exists("/other")) +
                                     std::to_string(host::exists("/marker/below"));
            std::filesystem::remove_all(folder.path());  // the child's own
            exit_with(seen);
        },
        testing::ExitedWithCode(0), "<100>");
}

TEST_F(HostInItsOwnProcess, TimeRunsAsManyTimesFasterAsTheScaleSays) {
    const test::environment_variable scale("VELT_TIME_SCALE", "1000");
    EXPECT_EXIT(
        {
            const nanoseconds before = host::time().monotonic();
            host::time().sleep(std::chrono::seconds(5));
            const bool passed = host::time().monotonic() - before >= std::chrono::seconds(5);
            exit_with(std::to_string(passed) + " " +
                      std::to_string(host::real_duration(milliseconds(5000)).count()));
        },
        testing::ExitedWithCode(0), "<1 5000000>");
}

TEST_F(HostInItsOwnProcess, ScaleThatIsNoPositiveNumberIsOne) {
    for (const char* text : {"", "0", "-2", "x", "3x", "inf", "nan"}) {
        const test::environment_variable scale("VELT_TIME_SCALE", text);
        EXPECT_EXIT(exit_with(std::to_string(host::real_duration(milliseconds(5)).count())),
                    testing::ExitedWithCode(0), "<5000000>")
            << text;
    }
}

TEST_F(HostInItsOwnProcess, EndOfTheProcessWritesWhatIsBufferedAndGivesTheStatus) {
    EXPECT_EXIT(
        {
            setvbuf(stderr, nullptr, _IOFBF, 4096);
            std::fputs("last words", stderr);
            host::end_process(5);
        },
        testing::ExitedWithCode(5), "last words");
}

}  // namespace
