// The booster as the regulation sees it: its power against the monitor's, and
// its gain.
#include "booster_gain_cache.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"
#include "Regulation_loop.hpp"

namespace {

constexpr float gain_when_unknown = 21.0F;
constexpr const char* adjustment_name = "get_boosterTx_adjustment";

}  // namespace

float regulation_handler::get_boosterTx_adjustment() {
    if (WSS_port_ == 1 && !k47_combo_flag_) {
        MSG_LOG(log_channel_, msg_log::progress)
            << adjustment_name << ", msg: EQ loop not in combined mode. Exiting.";
        return 0.0F;
    }
    try {
        const float deviation = read_booster_deviation();
        if (regulation_law::is_plausible_deviation(deviation))
            return regulation_law::damped_adjustment(deviation);
        MSG_LOG(log_channel_, msg_log::progress)
            << "msg: Adjustment > 10, (" << deviation << ") ignore and return 0";
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel_, msg_log::failure)
            << adjustment_name << ", msg: Exception: " << error.message;
    } catch (...) {
        MSG_LOG(log_channel_, msg_log::failure) << adjustment_name << ", msg: Generic exception.";
    }
    return 0.0F;
}

float regulation_handler::read_booster_deviation() {
    const float booster_tx = WSS_port_ == 1 ? static_cast<float>(k47_edfa_tx_power_)
                                            : booster_client_->get<float>("data/txPower", 0.0F);
    const auto ocm_total = wss_edge()->get<float>(OCM_datapath_ + "totalPower", 0.0F);
    const float calibration = boosterTx_;
    const float calibrated = ocm_total + calibration;
    const float deviation = booster_tx - calibrated;
    const auto tell = [this](const char* what, float value, const char* unit = "") {
        MSG_LOG(log_channel_, msg_log::progress) << adjustment_name << what << value << unit;
    };
    tell(", msg: booster txPower: ", booster_tx);
    tell(", msg: OCM totalPower: ", ocm_total, " dBm");
    tell(", msg: Cal mon to booster tx: ", calibration);
    tell(", msg: OCM totalPower (with calibration): ", calibrated);
    MSG_LOG(log_channel_, msg_log::progress)
        << adjustment_name << ", msg: Adjustment !!!: " << deviation
        << ", totaldiff: " << boosterTx_original_ - calibration;
    return deviation;
}

float regulation_handler::get_boosterActualGain() {
    booster_gain_cache& cache = booster_gain_cache::instance();
    const int accesses = cache.count_access();
    if (const std::optional<float> gain = cache.gain_at(get_nowSeconds()))
        return *gain;
    try {
        const auto gain = booster_client_->get<float>("data/actualGain");
        cache.store(gain, get_nowSeconds());
        MSG_LOG(log_channel_, msg_log::detail)
            << "get_boosterActualGain, msg: Time to get new, value: " << gain
            << ", accessed: " << accesses;
        return gain;
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel_, msg_log::failure)
            << "msg: Exception accessing actual gain cause: " << error.message;
        return gain_when_unknown;
    }
}

bool regulation_handler::check_wss_dh_status() {
    try {
        if (wss_edge()->get<std::string>("data/dhStatus") == "up")
            return true;
        MSG_LOG(log_channel_, msg_log::failure) << "msg: OCM not yet up.";
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel_, msg_log::failure) << "msg: OCM exception, cause: " << error.message;
    }
    return false;
}
