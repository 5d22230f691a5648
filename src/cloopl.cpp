#include "cloopl.hpp"

#include "module_mirror.hpp"

#include <fmt/format.h>

#include <utility>

namespace {

constexpr char log_channel[] = "tm_velt_cloopl";

// Paths of the line, here and, of the same program, at the far end.
const std::string line = "interface/line/1/data/";
const std::string dispersion_path = line + "dispersion";
const std::string local_loss_path = line + "osc/loss";
const std::string local_attenuation_path = line + "osc/attenuation";
const std::string length_path = line + "length";
const std::string local_rx_power_path = line + "osc/rx/power";
const std::string local_tx_power_path = line + "osc/tx/power";
const std::string local_hostname_path = line + "hostname";
const std::string local_rx_name_path = line + "osc/rx/interfaceName";
const std::string local_tx_name_path = line + "osc/tx/interfaceName";
const std::string link_status_path = line + "osc/linkStatus";
const std::string state_path = line + "osc/state";

// Ticks by which the first poll of a node is put off.
constexpr unsigned first_poll_delay = 3;

// Changes of a figure that are worth an event, in the figure's unit.
constexpr double immediate_limit = 0.09;
constexpr double delayed_limit = 0.05;

// A shorter span, in km, has no attenuation worth a name.
constexpr float shortest_attenuating_span = 1.0F;

// Of an error: a figure of this end that nobody has measured yet.
constexpr int no_local_figure = -14;

constexpr const char* hostname_key = "/v1/rows/system/settings/config/hostname";
constexpr unsigned hostname_timeout = 1;  // s

constexpr unsigned far_end_port = 5100;
constexpr const char* far_end_name = "remote line control loop";

using figure_node = dh::util::mirror_node<float>::type;
using text_status = dh::api::status_value<std::string>;

struct neighbour_address {
    std::string address;
    std::string scope;
};

// "ADDRESS%SCOPE". Without a scope the whole text stands for both.
neighbour_address split_neighbour(const std::string& text) {
    const auto percent = text.find('%');
    if (percent == std::string::npos)
        return {text, text};
    return {text.substr(0, percent), text.substr(percent + 1)};
}

}  // namespace

std::shared_ptr<cloopl> cloopl::create(
    unsigned port, const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber,
    std::shared_ptr<device_handler_client> osc, std::shared_ptr<device_handler_client> sfp) {
    auto system_info = create_supervised_client(*proxy, "/tmp/device_handlers/system_info",
                                                "system info", subscriber);
    auto made = std::make_shared<cloopl>(port, proxy, std::move(osc), std::move(sfp),
                                         std::move(system_info));
    made->create_paths();
    return made;
}

cloopl::cloopl(unsigned port, std::shared_ptr<dh::util::proxy> proxy,
               std::shared_ptr<device_handler_client> osc,
               std::shared_ptr<device_handler_client> sfp,
               std::shared_ptr<device_handler_client> system_info)
    : port_id_(port),
      proxy_(std::move(proxy)),
      osc_client_(std::move(osc)),
      sfp_client_(std::move(sfp)),
      system_info_client_(std::move(system_info)),
      present_path_(fmt::format("cloopl/interface/{}/present", port)) {}

cloopl::~cloopl() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Device handler destroyed.";
}

// --- The published tree -----------------------------------------------------------

template <auto Getter>
void cloopl::add_figure(const std::string& path) {
    using node = dh::api::hysteresis_filtered_value<dh::api::polled_volatile_value_impl<Getter>>;
    proxy_->value_group().add_value(
        node::create(proxy_->db(), path, immediate_limit, delayed_limit, shared_from_this()),
        first_poll_delay);
}

template <auto Getter>
void cloopl::add_text(const std::string& path) {
    using node = dh::api::hysteresis_filtered_value<dh::api::polled_volatile_value_impl<Getter>>;
    proxy_->value_group().add_value(node::create(proxy_->db(), path, shared_from_this()),
                                    first_poll_delay);
}

void cloopl::create_paths() {
    for (const auto& path : {dispersion_path, local_loss_path, length_path, link_status_path})
        proxy_->exclude(path);
    const auto on_link_change = [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->velt_monitor_osc_link_status();
    };
    proxy_->on_update(link_status_path, on_link_change);
    proxy_->exclude(state_path);
    proxy_->on_update(state_path, on_link_change);
    proxy_->exclude(present_path_);
    proxy_->on_update(present_path_, [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->on_sfp_present_state_change();
    });
    proxy_->exclude(local_rx_power_path);
    proxy_->exclude(local_tx_power_path);

    add_figure<&cloopl::get_local_attenuation>(local_attenuation_path);
    add_figure<&cloopl::get_local_loss>(local_loss_path);
    add_text<&cloopl::get_local_hostname>(local_hostname_path);
    add_text<&cloopl::get_local_rx_name>(local_rx_name_path);
    add_text<&cloopl::get_local_tx_name>(local_tx_name_path);
    add_figure<&cloopl::get_linetx_remote_dispersion>(line + "remoteDispersion");
    add_figure<&cloopl::get_linetx_remote_loss>(line + "osc/remoteLoss");
    add_figure<&cloopl::get_linetx_remote_attenuation>(line + "osc/remoteAttenuation");
    add_figure<&cloopl::get_linetx_remote_length>(line + "remoteLength");
    add_figure<&cloopl::get_linetx_remote_rx_power>(line + "osc/rx/remotePower");
    add_figure<&cloopl::get_linetx_remote_tx_power>(line + "osc/tx/remotePower");
    add_text<&cloopl::get_remote_hostname>(line + "remoteHostname");
    add_text<&cloopl::get_linetx_remote_rx_name>(line + "osc/rx/remoteInterfaceName");
    add_text<&cloopl::get_linetx_remote_tx_name>(line + "osc/tx/remoteInterfaceName");
}

// --- This end ---------------------------------------------------------------------

float cloopl::local_figure(const std::string& path, const char* error) {
    const auto node = proxy_->get_path_node<figure_node>(path);
    if (!node)
        throw dh_error(no_local_figure, error);
    return (*node)->value();
}

// What this card sends, less what the far end receives.
float cloopl::get_local_loss() {
    const float received = get_linetx_remote_rx_power();
    return local_figure(local_tx_power_path, "Failed to get local_tx_power") - received;
}

float cloopl::get_local_attenuation() {
    const float length = local_figure(length_path, "Failed to get local_fiber_length");
    return length > shortest_attenuating_span ? get_local_loss() / length : 0.0F;
}

std::string cloopl::get_local_hostname() {
    return key_value_store_.get<std::string>(hostname_key, "", hostname_timeout);
}

std::string cloopl::name_kept_in(shared_value<std::string>& kept, const char* side) const {
    std::string name = kept.get();
    if (name.empty()) {
        name = "if-1/" + system_info_client_->get<std::string>("data/locationIndex") + side;
        kept.set(name);
    }
    return name;
}

std::string cloopl::get_local_rx_name() {
    return name_kept_in(rx_name_, "/2-rx");
}

std::string cloopl::get_local_tx_name() {
    return name_kept_in(tx_name_, "/2-tx");
}

// --- The far end ------------------------------------------------------------------

template <class T>
T cloopl::get_remote(const std::string& path) {
    return read_far_end<T>(remote_client_.get(), path, log_channel);
}

float cloopl::get_linetx_remote_dispersion() {
    return get_remote<float>(dispersion_path);
}

float cloopl::get_linetx_remote_loss() {
    return get_remote<float>(local_loss_path);
}

float cloopl::get_linetx_remote_attenuation() {
    return get_remote<float>(local_attenuation_path);
}

float cloopl::get_linetx_remote_length() {
    return get_remote<float>(length_path);
}

float cloopl::get_linetx_remote_rx_power() {
    try {
        return get_remote<float>(local_rx_power_path);
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Failed to fetch remote line rx total power, cause: " << error.message;
        throw;
    }
}

float cloopl::get_linetx_remote_tx_power() {
    try {
        return get_remote<float>(local_tx_power_path);
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Failed to fetch remote line tx total power, cause: " << error.message;
        throw;
    }
}

std::string cloopl::get_remote_hostname() {
    return get_remote<std::string>(local_hostname_path);
}

std::string cloopl::get_linetx_remote_rx_name() {
    return get_remote<std::string>(local_rx_name_path);
}

std::string cloopl::get_linetx_remote_tx_name() {
    return get_remote<std::string>(local_tx_name_path);
}

// --- The supervisory channel and its transceiver ----------------------------------

void cloopl::subscribe_osc_paths() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Event subscribe_osc_paths on osc/" << port_id_;
    proxy_->subscribe<figure_node, float>(osc_client_, "data/fiberDispersion", dispersion_path);
    proxy_->subscribe<figure_node, float>(osc_client_, "data/fiberLength", length_path);
    proxy_->subscribe<text_status, std::string>(osc_client_, "data/linkStatus", link_status_path);
    proxy_->subscribe<text_status, std::string>(osc_client_, "data/debug/state", state_path);
}

void cloopl::subscribe_sfp_paths() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Event subscribe_sfp_paths on sfp/" << port_id_;
    proxy_->subscribe<figure_node, float>(sfp_client_, "data/rxPower", local_rx_power_path);
    proxy_->subscribe<figure_node, float>(sfp_client_, "data/txPower", local_tx_power_path);
}

void cloopl::on_connect_osc() {
    if (osc_is_to_be_subscribed_)
        subscribe_osc_paths();
    osc_is_to_be_subscribed_ = false;
}

void cloopl::on_disconnect_osc() {
    osc_is_to_be_subscribed_ = true;
}

void cloopl::on_connect_sfp() {
    if (sfp_is_to_be_subscribed_) {
        await_settled_handler();
        mirror_presence(*proxy_, sfp_client_, present_path_);
        subscribe_sfp_paths();
    }
    sfp_is_to_be_subscribed_ = false;
}

// The memory of the transceiver stays: it is not pulled because its handler is away.
void cloopl::on_disconnect_sfp() {
    clear_flag(*proxy_, present_path_);
    sfp_is_to_be_subscribed_ = true;
}

void cloopl::on_sfp_present_state_change() {
    const auto present = find_flag(*proxy_, present_path_);
    if (!present)
        return;
    const bool is_present = present->latest();
    if (is_present && !sfp_was_present_)
        on_sfp_insert();
    else if (!is_present && sfp_was_present_)
        on_sfp_remove();
    sfp_was_present_ = is_present;
}

void cloopl::on_sfp_insert() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: sfp/" << port_id_ << " was inserted.";
    subscribe_sfp_paths();
}

void cloopl::on_sfp_remove() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: sfp/" << port_id_ << " was removed.";
}

std::string cloopl::text_of(const std::string& status_path) {
    const auto node = proxy_->get_path_node<text_status>(status_path);
    return node ? (*node)->latest() : std::string();
}

// Nothing tries again by itself where the far end could not be reached: the
// next change of link or state does.
void cloopl::velt_monitor_osc_link_status() {
    const std::string link = text_of(link_status_path);
    const std::string state = text_of(state_path);
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: OSC event link: " << link << ", state: " << state;
    if (link != "up" || state != "ready") {
        remote_client_.set(nullptr);
        return;
    }
    if (remote_client_.get())
        return;
    try {
        connect_far_end();
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Caught exception: " << error.message;
    } catch (const std::exception& error) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Caught exception: " << error.what();
    } catch (...) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Caught unknown exception.";
    }
}

void cloopl::connect_far_end() {
    const auto neighbour = osc_client_->get<std::string>("data/neighbour");
    if (neighbour.empty()) {
        MSG_LOG(log_channel, msg_log::trace) << "msg: Neighbour address not ready.";
        return;
    }
    const auto [address, scope] = split_neighbour(neighbour);
    remote_client_.set(device_handler_ipv6_client::create(nullptr, scope, address, far_end_port,
                                                          far_end_name, {}));
}
