// A second process to measure against, and the bare sockets beside it.
#pragma once

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

// A folder of its own for sockets, gone at the end.
class scratch_folder {
  public:
    scratch_folder() {
        std::string name = (std::filesystem::temp_directory_path() / "bench.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        path_ = name;
    }
    ~scratch_folder() { std::filesystem::remove_all(path_); }
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Where the scheduler puts the two ends of a socket decides more than any code
// does: on one core a wake-up is a switch, on two it is a message between them.
// As on the board, each end has a core of its own.
inline void stay_on_core(unsigned core) {
    if (::sysconf(_SC_NPROCESSORS_ONLN) < 2)
        return;
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    ::sched_setaffinity(0, sizeof cores, &cores);
}

// Runs a function in a child process, on the second core, until this object
// goes. Make it before the process has threads.
class child_process {
  public:
    explicit child_process(const std::function<void()>& body) : pid_(::fork()) {
        if (pid_ == 0) {
            stay_on_core(1);
            body();
            ::_exit(0);
        }
    }
    ~child_process() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

  private:
    const pid_t pid_;
};

inline void write_all(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            ::_exit(1);
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

// Reads until the last byte is a line feed; the number of lines that came.
inline std::size_t read_lines(int socket) {
    thread_local std::array<char, 65536> data;
    std::size_t lines = 0;
    for (;;) {
        const ssize_t got = ::recv(socket, data.data(), data.size(), 0);
        if (got <= 0)
            ::_exit(0);
        const std::string_view text(data.data(), static_cast<std::size_t>(got));
        for (const char c : text)
            lines += c == '\n' ? 1 : 0;
        if (text.back() == '\n')
            return lines;
    }
}

// Answers each line with the same bytes, blocking: what two processes can do at best.
class bare_echo {
  public:
    explicit bare_echo(std::string reply)
        : sockets_(make_pair()), child_([this, reply] {
              ::close(sockets_[0]);
              for (;;) {
                  for (std::size_t lines = read_lines(sockets_[1]); lines > 0; --lines)
                      write_all(sockets_[1], reply);
              }
          }) {
        ::close(sockets_[1]);
    }

    void round_trip(std::string_view request) const {
        write_all(sockets_[0], request);
        read_lines(sockets_[0]);
    }

    // Sends all, then reads all the answers.
    void round_trips(std::string_view request, std::size_t count) const {
        for (std::size_t i = 0; i < count; ++i)
            write_all(sockets_[0], request);
        for (std::size_t got = 0; got < count;)
            got += read_lines(sockets_[0]);
    }

  private:
    static std::array<int, 2> make_pair() {
        std::array<int, 2> made{};
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, made.data()) != 0)
            throw std::runtime_error("no sockets");
        return made;
    }

    const std::array<int, 2> sockets_;
    const child_process child_;
};

}  // namespace bench
