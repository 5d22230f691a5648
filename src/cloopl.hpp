// The line monitor: what the card knows about the fibre span on its line side,
// from its own measurements and from those of the card at the far end.
#pragma once

#include "dh_proxy.hpp"
#include "msg_log.hpp"
#include "redis_client.hpp"
#include "shared_field.hpp"

#include <memory>
#include <string>

// Publishes the span under "interface/line/1/data/". The far end runs the same
// program, and is read over the supervisory channel as long as that link is up.
//
// Must be owned by a shared_ptr. Getters are called by the value group's thread,
// connection events come on threads of the connection listener, and what the
// supervisory channel and the transceiver report on the client library's event
// thread.
class cloopl : public std::enable_shared_from_this<cloopl> {
  public:
    // `port` is the line's, counted from 1. Makes the client of the card's
    // system information, whose connection events go to the subscriber.
    static std::shared_ptr<cloopl> create(
        unsigned port, const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber,
        std::shared_ptr<device_handler_client> osc, std::shared_ptr<device_handler_client> sfp);

    cloopl(unsigned port, std::shared_ptr<dh::util::proxy> proxy,
           std::shared_ptr<device_handler_client> osc, std::shared_ptr<device_handler_client> sfp,
           std::shared_ptr<device_handler_client> system_info);
    ~cloopl();
    cloopl(const cloopl&) = delete;
    cloopl& operator=(const cloopl&) = delete;

    // Once, before the first event.
    void create_paths();

    // The span. What cannot be told is a dh_error, or what a client throws.
    float get_local_attenuation();  // dB per km; 0 for a span of at most 1 km
    float get_local_loss();         // dB, from this card to the far end
    std::string get_local_hostname();
    std::string get_local_rx_name();
    std::string get_local_tx_name();

    // What the far end says of itself. A dh_error: 11 where it is not connected,
    // and the client's own code where it does not answer.
    float get_linetx_remote_dispersion();   // ps/nm
    float get_linetx_remote_loss();         // dB
    float get_linetx_remote_attenuation();  // dB per km
    float get_linetx_remote_length();       // km
    float get_linetx_remote_rx_power();     // dBm
    float get_linetx_remote_tx_power();     // dBm
    std::string get_remote_hostname();
    std::string get_linetx_remote_rx_name();
    std::string get_linetx_remote_tx_name();

    // The supervisory channel's device handler has come, or has gone.
    void on_connect_osc();
    void on_disconnect_osc();
    // The same of its transceiver's. On a return waits 3 s, until that handler has settled.
    void on_connect_sfp();
    void on_disconnect_sfp();

    // The link or the state of the supervisory channel has changed.
    void velt_monitor_osc_link_status();
    // The transceiver was put in or pulled.
    void on_sfp_present_state_change();

  private:
    template <auto Getter>
    void add_figure(const std::string& path);
    template <auto Getter>
    void add_text(const std::string& path);

    void subscribe_osc_paths();
    void subscribe_sfp_paths();
    void on_sfp_insert();
    void on_sfp_remove();
    void connect_far_end();
    std::string text_of(const std::string& status_path);

    float local_figure(const std::string& path, const char* error);
    std::string name_kept_in(shared_value<std::string>& kept, const char* side) const;

    template <class T>
    T get_remote(const std::string& path);

    redis_client& key_value_store_ = redis_client::instance();
    const unsigned port_id_;
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> osc_client_;
    const std::shared_ptr<device_handler_client> sfp_client_;
    const std::shared_ptr<device_handler_client> system_info_client_;
    // The traffic manager of the far end; null while it cannot be reached.
    shared_value<std::shared_ptr<device_handler_ipv6_client>> remote_client_;
    shared_number<bool> sfp_was_present_{true};
    shared_number<bool> sfp_is_to_be_subscribed_{true};
    shared_number<bool> osc_is_to_be_subscribed_{true};
    // Once they were read, for the life of the process: a card does not change its slot.
    shared_value<std::string> rx_name_;
    shared_value<std::string> tx_name_;
    const std::string present_path_;
};

// Reads a path of the far end's tree. `channel` is that of the log.
template <class T>
T read_far_end(const std::shared_ptr<device_handler_ipv6_client>& far_end, const std::string& path,
               const char* channel) {
    if (!far_end)
        throw dh_error(dh_error_code::handler_not_available,
                       "subordinate device handler not available:" + path);
    try {
        T value = far_end->get<T>(path);
        MSG_LOG(channel, msg_log::trace) << "msg: Fetching " << path << " from " << far_end->name()
                                         << ", device handler returns: " << value;
        return value;
    } catch (const dh_client_exception& error) {
        MSG_LOG(channel, msg_log::failure)
            << "msg: Unable to determine: " << path << " - " << error.message << " [" << error.code
            << "], devicehandler: " << far_end->name();
        throw dh_error(error.code, error.message);
    } catch (const std::exception& error) {
        MSG_LOG(channel, msg_log::failure)
            << "msg: Unable to determine: " << path << " - " << error.what();
        throw;
    } catch (...) {
        MSG_LOG(channel, msg_log::failure) << "msg: Unable to determine: " << path;
        throw;
    }
}
