// Storing one value in the card's parameter file, filled with some 300 lines,
// beside reading the same file and writing it back.
#include "common_traffic_manager_velt.hpp"
#include "host.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using file = traffic_manager;

constexpr unsigned channels_of_a_port = 48;
constexpr std::size_t rounds = 200;

void fill() {
    for (unsigned port = 0; port < 2; ++port) {
        for (unsigned channel = 1; channel <= channels_of_a_port; ++channel) {
            const unsigned number = port * file::names_of_a_port + channel;
            file::write_fvalue_to_wanted_power_parameters_file(
                static_cast<file::traffic_manager_wanted_power_values>(number), -12.5F);
            file::write_fvalue_to_channel_default_attenuation_file(
                static_cast<file::traffic_manager_default_attenuation_values>(number), 15.1F);
        }
    }
    for (unsigned mode = 0; mode < file::names_of_a_port; ++mode)
        file::write_string_value_to_port_mode_parameters_file(
            static_cast<file::traffic_manager_port_mode_values>(mode), "edfa");
}

void write_one() {
    file::write_fvalue_to_wanted_power_parameters_file(
        static_cast<file::traffic_manager_wanted_power_values>(channels_of_a_port / 2), -12.5F);
}

std::string content_of(const std::string& path) {
    std::string content(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary)
        .read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

void rewrite_bare(const std::string& path) {
    const std::string content = content_of(path);
    std::ofstream(path, std::ios::binary)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    const std::string path = host::path("/var/persistent/etc/traffic-manager.conf");
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    fill();
    const std::string content = content_of(path);
    std::printf("file: %zu lines, %zu bytes\n",
                static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n')),
                content.size());

    bench::print_heading();
    bench::print_p50("a persisted write beside a bare rewrite",
                     bench::side_by_side(rounds, 10, write_one, [&] { rewrite_bare(path); }),
                     "at most 1.2");
    return 0;
}
