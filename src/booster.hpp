// The booster amplifier's device handler, as a part of the card.
#pragma once

#include "dh_proxy.hpp"

#include <memory>

// Owns the client whose tree is mirrored under "booster".
class booster {
  public:
    // The subscriber gets the client's connection events.
    static std::shared_ptr<booster> create(
        const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

    booster(std::shared_ptr<dh::util::proxy> proxy, std::shared_ptr<device_handler_client> client)
        : proxy_(std::move(proxy)), client_(std::move(client)) {}

    const std::shared_ptr<device_handler_client>& client() const { return client_; }

    // Whether the amplifier has finished its own configuration, by its mirror.
    bool is_ready() const;

    void on_connect() {}
    void on_disconnect() {}
    void unsubscribe();

  private:
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> client_;
};
