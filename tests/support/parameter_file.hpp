// The card's parameter file as a test lays it down and looks at it.
#pragma once

#include "test_root.hpp"

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace test {

inline constexpr std::string_view parameter_file = "/var/persistent/etc/traffic-manager.conf";

// Empty where there is no such file.
inline std::string parameter_file_content() {
    std::ifstream file(root() + std::string(parameter_file), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace test
