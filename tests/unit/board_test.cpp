#include "board.hpp"
#include "host.hpp"
#include "own_process.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

// The root is looked at once in a process, so each board is seen by a child.
class Board : public testing::Test {
  protected:
    Board() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        setenv("VELT_ROOT", folder_.path().c_str(), 1);
    }
    ~Board() override { unsetenv("VELT_ROOT"); }

    void lay_list(const std::string& list) { folder_.write("/proc/device-tree/compatible", list); }

    [[noreturn]] static void exit_with_variants() {
        const device_tree_lib& board = device_tree_lib::instance();
        std::fprintf(stderr, "<t47 %d mx47 %d k47 %d>", board.is_velt_t47(), board.is_velt_mx47(),
                     board.is_velt_k47());
        std::filesystem::remove_all(host::path(""));  // the child's own folder
        std::exit(0);
    }

    test::temporary_folder folder_;
};

std::string list_of(const std::vector<std::string>& entries) {
    std::string list;
    for (const std::string& entry : entries)
        list += entry + '\0';
    return list;
}

#define EXPECT_VARIANTS(variants) \
    EXPECT_EXIT(exit_with_variants(), testing::ExitedWithCode(0), "<" variants ">")

TEST_F(Board, WithoutTheKernelsListIsNoneOfTheVariants) {
    EXPECT_VARIANTS("t47 0 mx47 0 k47 0");
}

TEST_F(Board, EachEntryMakesItsVariant) {
    lay_list(list_of({"velt,t47", "arm,board"}));
    EXPECT_VARIANTS("t47 1 mx47 0 k47 0");
}

TEST_F(Board, EntryMayStandAnywhereInTheList) {
    lay_list(list_of({"arm,board", "velt,mx47"}));
    EXPECT_VARIANTS("t47 0 mx47 1 k47 0");
}

TEST_F(Board, LastEntryNeedsNoNul) {
    lay_list("arm,board" + std::string(1, '\0') + "velt,k47");
    EXPECT_VARIANTS("t47 0 mx47 0 k47 1");
}

TEST_F(Board, EntriesMatchWhole) {
    lay_list(list_of({"velt,t470", "xvelt,mx47", "velt,k4", "Velt,k47", "velt,t47\n"}));
    EXPECT_VARIANTS("t47 0 mx47 0 k47 0");
}

TEST_F(Board, EmptyEntriesDoNotEndTheList) {
    lay_list(list_of({"", "", "velt,k47"}));
    EXPECT_VARIANTS("t47 0 mx47 0 k47 1");
}

TEST_F(Board, EmptyListIsNoneOfTheVariants) {
    lay_list("");
    EXPECT_VARIANTS("t47 0 mx47 0 k47 0");
}

}  // namespace
