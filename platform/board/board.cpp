#include "board.hpp"

#include "host.hpp"

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

// The kernel's list is a row of texts, each ended by a NUL.
bool board_is_compatible_with(std::string_view name) {
    std::ifstream file(host::path("/proc/device-tree/compatible"), std::ios::binary);
    const std::string list{std::istreambuf_iterator<char>(file), {}};
    std::string_view rest = list;
    while (!rest.empty()) {
        const std::string_view entry = rest.substr(0, rest.find('\0'));
        if (entry == name)
            return true;
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
    }
    return false;
}

}  // namespace

const device_tree_lib& device_tree_lib::instance() {
    static const device_tree_lib board;
    return board;
}

bool device_tree_lib::is_velt_t47() const {
    return board_is_compatible_with("velt,t47");
}

bool device_tree_lib::is_velt_mx47() const {
    return board_is_compatible_with("velt,mx47");
}

bool device_tree_lib::is_velt_k47() const {
    return board_is_compatible_with("velt,k47");
}
