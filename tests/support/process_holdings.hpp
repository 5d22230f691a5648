// What a process has open and runs.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace test {

// What a process holds, as the kernel counts it.
struct holdings {
    std::size_t descriptors;
    std::size_t threads;
    std::size_t resident_kb;
};

inline std::size_t entries_of(const std::filesystem::path& folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

inline holdings holdings_of(pid_t process) {
    const std::filesystem::path folder = "/proc/" + std::to_string(process);
    holdings found{entries_of(folder / "fd"), entries_of(folder / "task"), 0};
    std::ifstream status(folder / "status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:")
            status >> found.resident_kb;
    }
    return found;
}

}  // namespace test
