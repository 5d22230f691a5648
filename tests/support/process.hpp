// A program run by a test.
#pragma once

#include "eventually.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

// How a process ended: its exit status, or the signal that ended it.
struct process_end {
    bool exited;
    int number;

    friend bool operator==(const process_end&, const process_end&) = default;
};

inline constexpr process_end exited_with(int status) {
    return {true, status};
}

inline constexpr process_end ended_by_signal(int signal) {
    return {false, signal};
}

// Runs from the constructor on; killed, if need be, by the destructor. Its
// output goes to two files in the folder given.
class process {
  public:
    using environment = std::map<std::string, std::string>;

    process(const std::string& program, const std::vector<std::string>& arguments,
            const environment& changes, const std::string& output_folder)
        : output_file_(next_file(output_folder, "stdout")),
          error_file_(next_file(output_folder, "stderr")) {
        std::vector<std::string> words{program};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<std::string> settings = changed_environment(changes);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, output_file_.c_str(), flags, 0600);
        posix_spawn_file_actions_addopen(&files, STDERR_FILENO, error_file_.c_str(), flags, 0600);
        const int error = posix_spawn(&id_, program.c_str(), &files, nullptr,
                                      pointers(words).data(), pointers(settings).data());
        posix_spawn_file_actions_destroy(&files);
        if (error != 0)
            throw std::runtime_error("cannot run " + program);
    }

    ~process() {
        if (has_ended())
            return;
        ::kill(id_, SIGKILL);
        int status = 0;
        ::waitpid(id_, &status, 0);
    }
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t id() const { return id_; }
    void signal(int number) const { ::kill(id_, number); }

    bool has_ended() {
        if (!end_) {
            int status = 0;
            if (::waitpid(id_, &status, WNOHANG) == id_)
                end_ = WIFEXITED(status) ? exited_with(WEXITSTATUS(status))
                                         : ended_by_signal(WTERMSIG(status));
        }
        return end_.has_value();
    }

    // Empty where the process still runs after the bound.
    std::optional<process_end> end(std::chrono::seconds bound = std::chrono::seconds(30)) {
        eventually([this] { return has_ended(); }, bound);
        return end_;
    }

    std::string standard_output() const { return content(output_file_); }
    std::string standard_error() const { return content(error_file_); }
    bool has_logged(const std::string& text) const {
        return standard_error().find(text) != std::string::npos;
    }
    std::size_t times_logged(const std::string& text) const {
        const std::string log = standard_error();
        std::size_t times = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++times;
        return times;
    }

  private:
    static std::string next_file(const std::string& folder, const std::string& name) {
        static int count = 0;
        return folder + "/" + name + "." + std::to_string(++count);
    }

    static std::vector<std::string> changed_environment(const environment& changes) {
        std::vector<std::string> settings;
        for (char** setting = environ; *setting != nullptr; ++setting) {
            const std::string text = *setting;
            if (changes.count(text.substr(0, text.find('='))) == 0)
                settings.push_back(text);
        }
        for (const auto& [name, value] : changes)
            settings.push_back(name + "=" + value);
        return settings;
    }

    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> list;
        for (std::string& text : texts)
            list.push_back(text.data());
        list.push_back(nullptr);
        return list;
    }

    static std::string content(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    const std::string output_file_;
    const std::string error_file_;
    pid_t id_ = 0;
    std::optional<process_end> end_;
};

}  // namespace test
