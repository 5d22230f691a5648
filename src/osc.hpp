// An optical supervisory channel's device handler, as a part of the card.
#pragma once

#include "dh_proxy.hpp"

#include <memory>
#include <string>

// Owns the client whose tree is mirrored under "osc/1" or "osc/2". The card
// counts its supervisory channels from 1; the port id and the name that
// `unsubscribe` gives count from 0.
class osc {
  public:
    // `index` is 0 or 1. The subscriber gets the client's connection events.
    static std::shared_ptr<osc> create(
        unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

    osc(unsigned index, std::shared_ptr<dh::util::proxy> proxy,
        std::shared_ptr<device_handler_client> client)
        : port_id_(index), proxy_(std::move(proxy)), client_(std::move(client)) {}

    const std::shared_ptr<device_handler_client>& client() const { return client_; }
    unsigned get_port_id() const { return port_id_; }

    // Whether the channel has finished its own configuration, by its mirror.
    bool is_ready() const;

    void on_connect() {}
    void on_disconnect() {}
    void unsubscribe();

  private:
    const unsigned port_id_;
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> client_;
};
