// Combined mode: the amplifier card in the neighbour slot.
#include "control_loop.hpp"
#include "host.hpp"
#include "msg_log.hpp"
#include "redis_client.hpp"

#include <string_view>

namespace {

constexpr char log_channel[] = "tm_velt_cloop";

constexpr const char* neighbour_interface = "eth_module";
constexpr unsigned booster_port = 4500;
constexpr unsigned system_info_port = 2200;
// Of both clients.
constexpr const char* neighbour_client_name = "neighbour booster";

constexpr std::string_view amplifier_card = "VLT-Q-K47";
constexpr unsigned store_timeout = 10;  // s

// Fills the neighbour table; what it prints says nothing.
constexpr const char* ping_all_nodes = "ping -n -c12 -I eth_module ff02::1 &>/dev/null";
constexpr const char* reachable_neighbours =
    "/sbin/ip -6 n s d eth_module ndu reachable | awk '{print $1}'";
// The same for tools that take no such abbreviations.
constexpr const char* reachable_neighbours_in_full =
    "/sbin/ip -6 neigh show dev eth_module nud reachable | awk '{print $1}'";

}  // namespace

// Does what is due at the end of a poll, on every way out of it.
class control_loop_main::poll_end {
  public:
    explicit poll_end(control_loop_main& loop) : loop_(loop) {}
    ~poll_end() {
        if (!succeeded_)
            loop_.judge_missing_neighbour();
        loop_.module_poll_.end();
    }
    poll_end(const poll_end&) = delete;
    poll_end& operator=(const poll_end&) = delete;

    void succeed() { succeeded_ = true; }

  private:
    control_loop_main& loop_;
    bool succeeded_ = false;
};

// The address of the reachable neighbour, or nothing. Several of them make a
// text that is no address.
std::string control_loop_main::poll_slot_neighour() {
    host::shell_reader ping(ping_all_nodes);
    ping.read_all();
    std::string addresses = host::shell_reader(reachable_neighbours).read_all();
    if (addresses.empty())
        addresses = host::shell_reader(reachable_neighbours_in_full).read_all();
    if (addresses.ends_with('\n'))
        addresses.pop_back();
    return addresses;
}

msg_log::severity_level control_loop_main::poll_severity() const {
    return verbose_ ? msg_log::progress : msg_log::detail;
}

// Clients that stay after a difference of versions are used all the same from
// the next poll on: the flag is the warning.
bool control_loop_main::neighbour_slot_connected() {
    if (!neighbour_booster_ || !neighbour_system_info_) {
        slot_communication_status_.set("connecting");
        const std::string address = poll_slot_neighour();
        if (address.empty()) {
            MSG_LOG(log_channel, msg_log::progress) << "msg: No slot neighbour.";
            return false;
        }
        try {
            if (!connect_neighbour(address))
                return false;
        } catch (const dh_client_exception& error) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Exception in module poll: " << error.message;
            drop_neighbour();
            correct_neighbour_version_ = false;
            return false;
        }
    }
    if (verbose_)
        MSG_LOG(log_channel, msg_log::progress) << "msg: Neighbour slot connected.";
    return true;
}

// False where the neighbour has other software.
bool control_loop_main::connect_neighbour(const std::string& address) {
    if (verbose_)
        MSG_LOG(log_channel, msg_log::progress) << "msg: Slot neighbour IP: ->" << address << "<-";
    MSG_LOG(log_channel, poll_severity()) << "msg: No neighbour modules. Attempting reconnect.";
    neighbour_booster_ = device_handler_ipv6_client::create(
        nullptr, neighbour_interface, address, booster_port, neighbour_client_name, {});
    MSG_LOG(log_channel, poll_severity())
        << "msg: Connected to neighbour Booster. IP: " << address << ", iface: eth_module";
    neighbour_system_info_ = device_handler_ipv6_client::create(
        nullptr, neighbour_interface, address, system_info_port, neighbour_client_name, {});
    MSG_LOG(log_channel, poll_severity())
        << (verbose_ ? "msg: " : "") << "Connected to neighbour system_info. IP: " << address
        << ", iface: eth_module";
    const auto version = neighbour_system_info_->get<std::string>("inventory/swVersion");
    const auto own_version = system_info_client_->get<std::string>("inventory/swVersion");
    MSG_LOG(log_channel, poll_severity()) << "msg: Neighbour software version: " << version;
    MSG_LOG(log_channel, poll_severity()) << "msg: Local software version: " << own_version;
    correct_neighbour_version_ = version == own_version;
    if (!correct_neighbour_version_)
        return false;
    MSG_LOG(log_channel, poll_severity()) << "msg: Getting K47 boosterTx parameter for MX47.";
    set_mx47_k47_cal_mon_to_boostertx(neighbour_booster_->get<float>("data/boosterTx"));
    return true;
}

void control_loop_main::drop_neighbour() {
    neighbour_system_info_.reset();
    neighbour_booster_.reset();
}

// Called with the poll begun.
void control_loop_main::module_poll() {
    if (!neighbour_location_)
        neighbour_location_ =
            system_info_client_->get<std::string>("data/locationIndex") == "1" ? "2" : "1";
    poll_end end(*this);
    if (!neighbour_slot_connected()) {
        if (verbose_)
            MSG_LOG(log_channel, msg_log::progress)
                << "msg: Traffic module not connected. Returning.";
        return;
    }
    try {
        read_neighbour_booster();
        set_combined_mode_alarm(0);
        end.succeed();
        if (verbose_)
            MSG_LOG(log_channel, msg_log::progress)
                << "msg: Successfully got Traffic module attributes.";
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Exception in getting traffic manager module attributes. " << error.message;
        drop_neighbour();
    }
}

// The values are taken over together, or not at all.
void control_loop_main::read_neighbour_booster() {
    const auto gain = neighbour_booster_->get<float>("data/actualGain");
    const auto power = neighbour_booster_->get<float>("data/txPower");
    const auto limit = neighbour_booster_->get<float>("data/powerLimit");
    set_mx47_k47_actual_gain(gain);
    set_mx47_k47_edfa_tx_power(power);
    set_mx47_k47_booster_power_limit(limit);
    slot_communication_alive_ = true;
    slot_communication_status_.set("ok");
    neighbour_booster_enabled_ = neighbour_booster_->get<bool>("data/enable");
}

// By the inventory of the chassis: an amplifier card that stands in the slot
// and does not answer is no alarm, anything else in the slot is one.
void control_loop_main::judge_missing_neighbour() {
    slot_communication_alive_ = false;
    const bool is_present = key_value_store_.get<bool>(
        "/v1/rows/slot/" + *neighbour_location_ + "/present", false, store_timeout);
    if (!is_present) {
        raise_combined_mode_alarm();
        return;
    }
    try {
        const auto product = key_value_store_.get<std::string>(
            "/v1/rows/module/" + *neighbour_location_ + "/system/info/inventory/productName",
            store_timeout);
        if (product == amplifier_card)
            set_combined_mode_alarm(0);
        else
            raise_combined_mode_alarm();
    } catch (...) {
        // What stands in the slot is not known: everything stays as it is.
    }
}

void control_loop_main::raise_combined_mode_alarm() {
    set_combined_mode_alarm(1);
    slot_communication_status_.set("alarm");
}

// A loop without its tree has no alarm.
void control_loop_main::set_combined_mode_alarm(unsigned severity) {
    if (const auto alarm = combined_mode_alarm_.get())
        alarm->set(severity);
}
