// The daemon as a process: how soon it serves, and what memory it holds with
// the tree of a T47 card and 16 sessions that subscribe to all of it.
#include "support/processes.hpp"

#include <sys/un.h>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int sessions = 16;
constexpr int starts = 9;
constexpr double ready_limit_ms = 100;
constexpr double memory_limit_mib = 24;

class program {
  public:
    program(const char* file, std::vector<const char*> arguments) : pid_(::fork()) {
        if (pid_ == 0) {
            arguments.insert(arguments.begin(), file);
            arguments.push_back(nullptr);
            if (std::freopen("/dev/null", "w", stderr) != nullptr)
                ::execv(file, const_cast<char* const*>(arguments.data()));
            ::_exit(127);
        }
    }
    ~program() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    program(const program&) = delete;
    program& operator=(const program&) = delete;
    pid_t pid() const { return pid_; }

  private:
    const pid_t pid_;
};

// A connected socket, or -1 where nobody listens.
int try_connect(const std::string& path) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return socket;
    ::close(socket);
    return -1;
}

std::string answer(int socket, const std::string& request) {
    bench::write_all(socket, request);
    std::string line;
    char data[65536];
    while (line.empty() || line.back() != '\n') {
        const ssize_t got = ::recv(socket, data, sizeof data, 0);
        if (got <= 0)
            std::exit(1);
        line.append(data, static_cast<std::size_t>(got));
    }
    return line;
}

std::string read_request(const std::string& path) {
    return R"({"jsonrpc":"2.0","id":1,"method":"read","params":{"paths":[")" + path + "\"]}}\n";
}

int await_socket(const std::string& path) {
    for (;;) {
        if (const int socket = try_connect(path); socket >= 0)
            return socket;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void await_path(int socket, const std::string& path) {
    while (answer(socket, read_request(path)).find("No such path") != std::string::npos)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

double milliseconds_since(clock_type::time_point begin) {
    return std::chrono::duration<double, std::milli>(clock_type::now() - begin).count();
}

void subscribe_to_all(int socket) {
    static const char* const leaves[] = {"wantedPower", "opticalControlMode", "rxPower", "txPower",
                                         "portMode"};
    for (int channel = 1; channel <= 48; ++channel) {
        std::string paths;
        for (const char* leaf : leaves) {
            paths += paths.empty() ? "\"" : ",\"";
            paths += "control/data/" + std::to_string(channel) + "/" + leaf + "\"";
        }
        bench::write_all(
            socket, R"({"jsonrpc":"2.0","id":1,"method":"subscribe","params":{"paths":[)" + paths +
                        "]}}\n");
    }
}

double resident_mib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmRSS:"))
            return std::strtod(line.c_str() + 6, nullptr) / 1024;
    }
    return -1;
}

// Reads and throws away what comes until the daemon ends.
void read_to_the_end(int socket) {
    std::array<char, 65536> data;
    while (::recv(socket, data.data(), data.size(), 0) > 0) {
    }
    ::close(socket);
}

void measure_memory(const program& daemon, const std::string& daemon_socket,
                    std::vector<std::thread>& readers) {
    for (int session = 0; session < sessions; ++session) {
        const int socket = await_socket(daemon_socket);
        await_path(socket, "control/config/dhReady");
        subscribe_to_all(socket);
        readers.emplace_back([socket] { read_to_the_end(socket); });
    }
    std::this_thread::sleep_for(std::chrono::seconds(5));
    std::printf("resident with %d sessions, MiB            %8.1f  at most %.0f\n", sessions,
                resident_mib(daemon.pid()), memory_limit_mib);
    std::fflush(stdout);
}

}  // namespace

int main() {
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    const std::string daemon_socket = folder.path() + "/tmp/device_managers/traffic_manager";
    const program card(VELT_BIN_DIR "/card_simulator", {"--card", "t47"});
    ::close(await_socket(folder.path() + "/tmp/device_handlers/wss_edge"));

    std::vector<double> first_answers;
    std::vector<double> whole_trees;
    for (int start = 0; start < starts; ++start) {
        const auto begin = clock_type::now();
        const program daemon(VELT_BIN_DIR "/traffic_manager", {});
        const int socket = await_socket(daemon_socket);
        answer(socket, read_request("data/configStatus"));
        first_answers.push_back(milliseconds_since(begin));
        await_path(socket, "control/config/dhReady");
        whole_trees.push_back(milliseconds_since(begin));
        ::close(socket);
    }
    std::sort(first_answers.begin(), first_answers.end());
    std::sort(whole_trees.begin(), whole_trees.end());
    std::printf("exec to the first answer, median ms       %8.1f\n", first_answers[starts / 2]);
    std::printf("exec to the whole tree, median ms         %8.1f  at most %.0f\n",
                whole_trees[starts / 2], ready_limit_ms);

    std::vector<std::thread> readers;
    {
        const program daemon(VELT_BIN_DIR "/traffic_manager", {});
        measure_memory(daemon, daemon_socket, readers);
    }
    for (std::thread& reader : readers)
        reader.join();
    return 0;
}
