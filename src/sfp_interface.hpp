// A port for a pluggable transceiver (SFP), as a part of the card.
#pragma once

#include "dh_proxy.hpp"

#include <memory>
#include <string>

// Owns the client whose tree is mirrored under "interface/1" or "interface/2".
// Ports count from 1, the sockets of their handlers from 0.
class sfp_interface : public std::enable_shared_from_this<sfp_interface> {
  public:
    // `index` is 0 or 1. The subscriber gets the client's connection events.
    static std::shared_ptr<sfp_interface> create(
        unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

    sfp_interface(unsigned index, std::shared_ptr<dh::util::proxy> proxy,
                  std::shared_ptr<device_handler_client> client);

    void create_paths();

    const std::shared_ptr<device_handler_client>& client() const { return client_; }
    unsigned get_port_id() const { return port_id_; }
    // "lower" or "upper": the ports are numbered from below.
    std::string get_port_type() const;

    // After a loss this takes 3 s, which the handler needs to settle.
    void on_connect();
    // No transceiver is known to be there while the handler is away.
    void on_disconnect();
    void unsubscribe();

    // Called on the client library's event thread with each value of "present"
    // that comes from the handler.
    void on_insert();

  private:
    const unsigned port_id_;
    const std::string root_;
    const std::string present_path_;
    const std::string log_channel_;
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> client_;
    // At the end of the last `on_insert`. A transceiver that is there when the
    // daemon starts was not put in.
    bool was_present_ = true;
    bool resubscribe_ = false;  // by connection events, which come one after the other
};
