// A network of a test's own. Making one takes the rights of root.
#pragma once

#include "eventually.hpp"
#include "process.hpp"
#include "test_root.hpp"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace test {

// Without interfaces but a loopback, for the life of the object; only processes
// know it.
class network_namespace {
  public:
    network_namespace() : holder_("/usr/bin/unshare", {"--net", "sleep", "600"}, {}, root()) {
        eventually([this] { return exists() || holder_.has_ended(); });
    }

    // False where it could not be made.
    bool exists() const {
        std::error_code error;
        const auto held = of_process(std::to_string(holder_.id()), error);
        return !error && held != of_process("self", error);
    }
    std::string why_not() const { return holder_.standard_error(); }

    // The process that holds it, as tools name a namespace by.
    std::string holder() const { return std::to_string(holder_.id()); }

    static constexpr const char* entering_program = "/usr/bin/nsenter";

    // The arguments with which the entering program runs a program here.
    std::vector<std::string> entering(const std::string& program,
                                      const std::vector<std::string>& arguments) const {
        std::vector<std::string> words{"--target", holder(), "--net", program};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }

    // Runs a command line of the shell here.
    void run(const std::string& command_line) const {
        process shell(entering_program, entering("/bin/sh", {"-ec", command_line}), {}, root());
        if (shell.end() != exited_with(0))
            throw std::runtime_error(command_line + ": " + shell.standard_error());
    }

    // A link-local address is there at once, and not only after a second.
    void bring_up(const std::string& interface) const {
        run("echo 0 >/proc/sys/net/ipv6/conf/" + interface + "/accept_dad; ip link set " +
            interface + " up");
    }

  private:
    static std::filesystem::path of_process(const std::string& id, std::error_code& error) {
        return std::filesystem::read_symlink("/proc/" + id + "/ns/net", error);
    }

    process holder_;
};

}  // namespace test
