// A host of the test program's own: a fresh, short folder as the prefix of all
// absolute paths. Included anywhere in a test program, it is in force before main.
#pragma once

#include "host.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test {
namespace detail {

// Made once a program, and gone with it. The variable is looked at once in the
// life of a process, so it is taken out of the environment again: a child of a
// test sees what that test puts there, and is known by the mark.
class root_folder {
  public:
    root_folder() {
        if (getenv(mark) != nullptr)
            return;
        char name[] = "/tmp/vtXXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no folder for the test");
        path_ = name;
        setenv(mark, name, 1);
        setenv("VELT_ROOT", name, 1);
        if (host::path("") != path_)
            throw std::logic_error("the root was looked at before the test set it");
        unsetenv("VELT_ROOT");
    }
    ~root_folder() {
        std::error_code ignored;
        if (!path_.empty() && maker_ == getpid())
            std::filesystem::remove_all(path_, ignored);
    }
    root_folder(const root_folder&) = delete;
    root_folder& operator=(const root_folder&) = delete;

    const std::string& path() const {
        if (path_.empty())
            throw std::logic_error("a child process has no root of its own");
        return path_;
    }

  private:
    static constexpr const char* mark = "VELT_TEST_PROGRAM";

    const pid_t maker_ = getpid();  // a forked child leaves the folder alone
    std::string path_;
};

inline const root_folder the_root_folder;

}  // namespace detail

// The folder, without a slash at its end.
inline const std::string& root() {
    return detail::the_root_folder.path();
}

// Writes a file of the host, given by its absolute path, with its folders.
inline void put_file(std::string_view absolute, std::string_view content) {
    const std::filesystem::path file = root() + std::string(absolute);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

inline void remove_file(std::string_view absolute) {
    std::filesystem::remove_all(root() + std::string(absolute));
}

// Makes the host one of the given variant ("velt,t47", "velt,mx47", "velt,k47").
inline void put_board(std::string_view compatible) {
    put_file("/proc/device-tree/compatible", std::string(compatible) + '\0');
}

// Whether something is served below the folder of the host.
inline bool has_sockets(std::string_view absolute) {
    const std::filesystem::recursive_directory_iterator entries(root() + std::string(absolute));
    return std::any_of(begin(entries), end(entries),
                       [](const auto& entry) { return entry.is_socket(); });
}

// Leaves nothing of a test to the next one.
inline void empty_root() {
    for (const auto& entry : std::filesystem::directory_iterator(root()))
        std::filesystem::remove_all(entry.path());
}

}  // namespace test
