// Running a part of a test in a process of its own, with an environment of its
// own: some variables are looked at once in the life of a process.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace test {

// Puts a variable into the environment, for child processes, until its end.
class environment_variable {
  public:
    environment_variable(const char* name, const std::string& value) : name_(name) {
        setenv(name, value.c_str(), 1);
    }
    ~environment_variable() { unsetenv(name_); }
    environment_variable(const environment_variable&) = delete;
    environment_variable& operator=(const environment_variable&) = delete;

  private:
    const char* const name_;
};

// An empty folder that lasts as long as the object.
class temporary_folder {
  public:
    temporary_folder() {
        std::string name = (std::filesystem::temp_directory_path() / "velt-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), name);
        path_ = name;
    }
    ~temporary_folder() { std::filesystem::remove_all(path_); }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    std::string path(const std::string& below = "") const { return path_ + below; }

    void write(const std::string& below, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(path_ + below).parent_path());
        std::ofstream(path_ + below, std::ios::binary) << content;
    }

  private:
    std::string path_;
};

}  // namespace test
