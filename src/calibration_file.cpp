// The regulator's values of the board's calibration file. Each has a fallback,
// so no fault of the file stops the program.
#include "host.hpp"
#include "msg_log.hpp"
#include "Regulation_loop.hpp"

#include <cmath>
#include <fstream>
#include <ios>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

constexpr const char* calibration_path = "/mnt/board_info/calibration_data/cloop/cloop.conf";

// A real file has a few kilobytes; whatever stands beyond is not looked at.
constexpr std::size_t longest_file = std::size_t{1} << 20;

constexpr std::array keys_before_lanes{
    "cal_mon_to_linetx",
    "cal_osctx_to_linetx",
    "cal_linerx_to_oscrx",
    "cal_clientrx_to_mon",
    "cal_cloop_wss_il_edfaport",
    "cal_cloop_wss_il_expressport",
    "cal_cloop_wss_il_eqport",
    "wssIL_Edfa",
    "wssIL_EQ",
    "cal_mon_to_clienttx",
    "cal_mon_to_boostertx",
    "cal_mon_to_preamptx",
    "cal_timestamp_offset_ns",
    "cal_fiber_length_offset_km",
    "cal_fiberdisp_offset_ps_nm",
    "cal_wss_margin_dB",
    "cal_lane_compensation",
};
static_assert(keys_before_lanes.size() ==
              static_cast<std::size_t>(calibration_values::cal_clientrx_loss_offset_0));

std::string content_of_file() {
    std::string content(longest_file, '\0');
    std::ifstream file(host::path(calibration_path), std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

// What the expression "(^KEY.)(.+)" finds in the line as its second group: the
// key at the start, any one character as the separator, and the rest, all of it
// before a carriage return. Keys are not delimited, so a key that is the start
// of another finds that one too.
std::optional<std::string> value_in_line(std::string_view line, std::string_view key) {
    line = line.substr(0, line.find('\r'));
    if (!line.starts_with(key) || line.size() < key.size() + 2)
        return std::nullopt;
    return std::string(line.substr(key.size() + 1));
}

// The value of the first line that has the key.
std::optional<std::string> find_value(std::string_view key) {
    const std::string content = content_of_file();
    std::string_view rest = content;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (std::optional<std::string> value = value_in_line(line, key))
            return value;
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return std::nullopt;
}

// The number that the text starts with, after blanks.
std::optional<float> as_number(const std::string& text) {
    try {
        const float number = std::stof(text);
        if (std::isfinite(number))
            return number;
    } catch (const std::logic_error&) {  // no number, or none that a float holds
    }
    return std::nullopt;
}

// What is neither "true" nor "false" counts as false.
bool as_flag(const std::string& text) {
    bool flag = false;
    std::istringstream(text) >> std::boolalpha >> flag;
    return flag;
}

}  // namespace

void regulation_handler::name_calibration_values() {
    std::size_t index = 0;
    for (const char* key : keys_before_lanes)
        calibration_value_names_[index++] = key;
    for (unsigned lane = 0; index < calibration_value_names_.size(); ++lane)
        calibration_value_names_[index++] = "cal_clientrx_loss_offset_" + std::to_string(lane);
}

int regulation_handler::read_fvalue_from_calibration_file(calibration_values key, float* value) {
    const std::string name = calibration_value_names_.at(static_cast<std::size_t>(key));
    const std::lock_guard lock(calibration_mutex_);
    const std::optional<std::string> text = find_value(name);
    if (!text)
        return -1;
    const std::optional<float> number = as_number(*text);
    if (!number) {
        MSG_LOG(log_channel_, msg_log::failure) << "msg: Unable to read float value: " << name
                                                << " from calibration file: " << calibration_path;
        return -1;
    }
    *value = *number;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Calibration value read from " << calibration_path << ", att: " << name
        << ", value: " << *value;
    return 0;
}

int regulation_handler::read_bool_value_from_calibration_file(calibration_values key, bool* value) {
    const std::string name = calibration_value_names_.at(static_cast<std::size_t>(key));
    const std::lock_guard lock(calibration_mutex_);
    const std::optional<std::string> text = find_value(name);
    if (!text)
        return -1;
    *value = as_flag(*text);
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Calibration value read from " << calibration_path << ", att: " << name
        << ", value: " << *value;
    return 0;
}

std::optional<float> regulation_handler::calibration(calibration_values key, const char* name) {
    float value = 0.0F;
    if (read_fvalue_from_calibration_file(key, &value) != 0)
        return std::nullopt;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: " << name << " read from calibration file: " << value;
    return value;
}

float regulation_handler::calibration_or(float fallback, calibration_values key, const char* name) {
    if (const std::optional<float> value = calibration(key, name))
        return *value;
    MSG_LOG(log_channel_, msg_log::failure)
        << "msg: Failed to read from calibration file, " << name << ". using value: " << fallback;
    return fallback;
}

void regulation_handler::read_calibration() {
    if (WSS_port_ == 1) {
        cal_cloop_wss_il_eqport_ = read_eq_insertion_loss();
        return;
    }
    boosterTx_ = read_booster_calibration();
    boosterTx_original_ = boosterTx_;
    cal_cloop_wss_il_edfaport_ = read_edfa_insertion_loss();
    if (!is_mx47_)
        cal_cloop_wss_il_expressport_ = calibration_or(
            11.0F, calibration_values::cal_cloop_wss_il_expressport, "cloop_wss_il_expressport");
}

float regulation_handler::read_booster_calibration() {
    constexpr float fallback = 20.2F;
    if (const auto value =
            calibration(calibration_values::cal_mon_to_boostertx, "Cal_mon_to_boostertx"))
        return *value;
    MSG_LOG(log_channel_, msg_log::failure)
        << "msg: Failed to read from calibration file, cal_mon_to_boostertx. using value: "
        << fallback;
    return fallback;
}

float regulation_handler::read_edfa_insertion_loss() {
    if (const auto value =
            calibration(calibration_values::cal_cloop_wss_il_edfaport, "cloop_wss_il_edfaport"))
        return *value;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Failed to read from calibration file, cloop_wss_il_edfaport. Try wssIL_Edfa.";
    return calibration_or(is_mx47_ ? 3.5F : 5.0F, calibration_values::wssIL_Edfa, "wssIL_Edfa");
}

float regulation_handler::read_eq_insertion_loss() {
    if (const auto value =
            calibration(calibration_values::cal_cloop_wss_il_eqport, "cal_cloop_wss_il_eqport"))
        return *value;
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Failed to read from calibration file, cal_cloop_wss_il_eqport. Try wssIL_EQ";
    return calibration_or(3.5F, calibration_values::wssIL_EQ, "wssIL_EQ");
}
