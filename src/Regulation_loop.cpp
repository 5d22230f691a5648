#include "Regulation_loop.hpp"

#include "board.hpp"
#include "host.hpp"
#include "msg_log.hpp"
#include "regulation_law.hpp"

#include <utility>

namespace {

constexpr const char* two_loop_marker = "/var/persistent/etc/enable_veltmx47";

std::shared_ptr<device_handler_client> create_client(const char* path) {
    return device_handler_client::create(path, "unnamed", {});
}

std::shared_ptr<device_handler_client> create_wss_edge_client() {
    return create_client("/tmp/device_handlers/wss_edge");
}

}  // namespace

std::shared_ptr<regulation_handler> regulation_handler::create(
    std::shared_ptr<dh::util::proxy> proxy, std::shared_ptr<device_handler_client> wss_edge,
    unsigned port) {
    return std::make_shared<regulation_handler>(std::move(proxy), std::move(wss_edge), port);
}

regulation_handler::regulation_handler(std::shared_ptr<dh::util::proxy> proxy,
                                       std::shared_ptr<device_handler_client> wss_edge,
                                       unsigned port)
    : proxy_(std::move(proxy)), wss_edge_client_(std::move(wss_edge)), WSS_port_(port) {
    name_calibration_values();
    MSG_LOG(log_channel_, msg_log::detail)
        << "msg: WSS_EDGE dh: " << wss_edge_client_.get() << ", WSS_port: " << WSS_port_;
    if (device_tree_lib::instance().is_velt_mx47() || host::exists(two_loop_marker))
        take_port_of_two_loops();
    booster_client_ = create_client("/tmp/device_handlers/booster");
    wss_edge_client_.set(create_wss_edge_client());
    MSG_LOG(log_channel_, msg_log::detail) << "msg: WSS dh is now: " << wss_edge_client_.get();
    MSG_LOG(log_channel_, msg_log::detail) << "msg: Booster dh is now: " << booster_client_;
    read_calibration();
    MSG_LOG(log_channel_, msg_log::progress) << "msg: Device handler created.";
}

void regulation_handler::take_port_of_two_loops() {
    MSG_LOG(log_channel_, msg_log::progress) << "msg: Is MX47. WSS_port: " << WSS_port_;
    is_mx47_ = true;
    if (WSS_port_ > 1)
        return;
    const std::string number = std::to_string(WSS_port_ + 1);
    log_channel_ += WSS_port_ == 0 ? "_EDFA" : "_EQ";
    WSS_datapath_ = "data/wss/" + number + "/channel/";
    WSS_configpath_ = "config/wss/" + number + "/channel/";
    OCM_datapath_ = "data/ocm/" + number + "/";
}

void regulation_handler::start() {
    dh::api::status_value<bool>::create(proxy_->db(), "data/needRegulation", false,
                                        alarm_delay_cycles);
    const long long now = get_nowSeconds();
    for (unsigned ix = 0; ix <= last_channel; ++ix) {
        channels_[ix].channelId = static_cast<int>(ix);
        channels_[ix].lossTurnOffTimestamp = now;
    }
    connect_localDhClients();
    for (unsigned ix = 0; ix <= last_channel; ++ix)
        client_alarms_[ix] = publish_client_alarms(ix);
    pam4_alarm_ = publish_alarm("alarms/pam4ChannelLimitExceeded/severity", 0);
    total_channels_node_ = dh::api::const_value<unsigned int>::create(
        proxy_->db(), "crx/data/system/totalChannels", numberOfChannels_);
}

regulation_handler::alarm_node regulation_handler::publish_alarm(const std::string& path,
                                                                 unsigned severity) {
    return dh::api::status_value<unsigned int>::create(proxy_->db(), path, severity,
                                                       alarm_delay_cycles);
}

regulation_handler::alarm_nodes regulation_handler::publish_client_alarms(unsigned ix) {
    const std::string base = "alarms/client/" + std::to_string(ix + 1);
    const unsigned loss = channels_[ix].rxLossOfSignal ? 1 : 0;
    alarm_nodes nodes;
    nodes.unSupportedChannel = publish_alarm(base + "/rx/unSupportedChannel/severity", 0);
    nodes.lossOfSignal = publish_alarm(base + "/rx/lossOfSignal/severity", loss);
    nodes.lowPower = publish_alarm(base + "/rx/lowPower/severity", 0);
    nodes.highPower = publish_alarm(base + "/rx/highPower/severity", 0);
    return nodes;
}

int regulation_handler::connect_localDhClients() {
    try {
        if (!wss_edge_client_.get())
            wss_edge_client_.set(create_wss_edge_client());
    } catch (const dh_client_exception&) {
        MSG_LOG(log_channel_, msg_log::failure)
            << "msg: Exception when creating local WSS remoteDh.";
    }
    return 1;
}

void regulation_handler::reset_all_devicehandler_clients() {
    wss_edge_client_.set(nullptr);
}

regulation_handler::client_pointer regulation_handler::wss_edge() const {
    client_pointer client = wss_edge_client_.get();
    if (!client)
        throw dh_client_exception{dh_client_code::not_connected, "not connected"};
    return client;
}

std::string regulation_handler::wss_data_path(unsigned ix, const char* leaf) const {
    return WSS_datapath_ + std::to_string(ix) + leaf;
}

std::string regulation_handler::wss_config_path(unsigned ix, const char* leaf) const {
    return WSS_configpath_ + std::to_string(ix) + leaf;
}

std::string regulation_handler::ocm_channel_path(unsigned ix, const char* leaf) const {
    return OCM_datapath_ + "channel/" + std::to_string(ix) + leaf;
}

void regulation_handler::set_ocm_power_offset_value(float value) {
    MSG_LOG(log_channel_, msg_log::progress)
        << "msg: Set OCM power offset value: " << get_ocm_power_offset_value();
    ocm_power_offset_value_ = value;
}

void regulation_handler::set_cal_mon_to_boostertx_k47(float value) {
    const float original = boosterTx_original_;
    if (original != 0.0F && regulation_law::agree_to_first_decimal(value, original))
        return;
    boosterTx_ = value;
    boosterTx_original_ = value;
}
