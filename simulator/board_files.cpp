#include "board_files.hpp"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace simulator {
namespace {

void write_file(const std::string& path, const std::string& content) {
    std::error_code ignored;  // what matters shows when the file is written
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

std::string calibration_of(const plant_model& model) {
    return fmt::format(
        "cal_clientrx_to_mon {}\n"
        "cal_cloop_wss_il_edfaport {}\n"
        "cal_cloop_wss_il_expressport {}\n"
        "cal_mon_to_boostertx {}\n",
        model.receive_tap_loss, model.edfa_insertion_loss, model.express_insertion_loss,
        model.monitor_tap_loss);
}

std::string calibration_of(const plant_model& edfa_port, const plant_model& eq_port) {
    return fmt::format(
        "cal_clientrx_to_mon {}\n"
        "cal_cloop_wss_il_edfaport {}\n"
        "cal_cloop_wss_il_eqport {}\n"
        "cal_mon_to_boostertx {}\n",
        edfa_port.receive_tap_loss, edfa_port.port_insertion_loss, eq_port.port_insertion_loss,
        edfa_port.monitor_tap_loss);
}

}  // namespace

void lay_board_files(const std::string& root, const std::string& compatible,
                     const plant_model& model, const plant_model* eq_port) {
    // The kernel ends each entry with a NUL.
    write_file(root + "/proc/device-tree/compatible", compatible + '\0');
    write_file(root + "/mnt/board_info/calibration_data/cloop/cloop.conf",
               eq_port == nullptr ? calibration_of(model) : calibration_of(model, *eq_port));
    std::error_code ignored;  // without it nothing is saved, as on such a board
    std::filesystem::create_directories(root + "/var/persistent/etc", ignored);
}

}  // namespace simulator
