// A host of the test program's own: a fresh, short folder as the prefix of all
// absolute paths. Included anywhere in a test program, it is in force before main.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test {
namespace detail {

// Made once a program, and gone with it.
class root_folder {
  public:
    root_folder() {
        char name[] = "/tmp/vtXXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no folder for the test");
        path_ = name;
        setenv("VELT_ROOT", name, 1);
    }
    ~root_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    root_folder(const root_folder&) = delete;
    root_folder& operator=(const root_folder&) = delete;

    const std::string& path() const { return path_; }

  private:
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

// Leaves nothing of a test to the next one.
inline void empty_root() {
    for (const auto& entry : std::filesystem::directory_iterator(root()))
        std::filesystem::remove_all(entry.path());
}

}  // namespace test
