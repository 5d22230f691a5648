// The wavelength selective switch's device handler, as a part of the card.
#pragma once

#include "dh_proxy.hpp"
#include "shared_field.hpp"

#include <memory>

// Owns the client whose tree is mirrored under "wss_edge".
class wss_edge : public std::enable_shared_from_this<wss_edge> {
  public:
    // The subscriber gets the client's connection events.
    static std::shared_ptr<wss_edge> create(
        const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

    wss_edge(std::shared_ptr<dh::util::proxy> proxy, std::shared_ptr<device_handler_client> client)
        : proxy_(std::move(proxy)), client_(std::move(client)) {}

    const std::shared_ptr<device_handler_client>& client() const { return client_; }

    // Whether the switch has finished its own configuration, by its mirror.
    bool is_ready() const;

    // The setting, in dB, that the card keeps for the second monitor. It does
    // not reach the switch.
    void set_ocm_monitorPortOffset(const float& offset) { ocm_monitor_port_offset_ = offset; }
    float ocm_monitor_port_offset() const { return ocm_monitor_port_offset_; }

    void on_connect() {}
    void on_disconnect() {}
    void unsubscribe();

  private:
    void create_paths();

    shared_number<float> ocm_monitor_port_offset_{20.0F};
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> client_;
};
