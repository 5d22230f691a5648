// A slot for a passive pluggable module (PPM), as a part of the card.
#pragma once

#include "dh_proxy.hpp"

#include <array>
#include <cstddef>
#include <memory>
#include <string>

// Owns the client whose tree is mirrored under "ppm/1" or "ppm/2", and
// publishes the losses of the module that is in the slot: as its inventory has
// them when it is put in, 0 when it is pulled. Slots count from 1, the sockets
// of their handlers from 0.
class ppm_slot : public std::enable_shared_from_this<ppm_slot> {
  public:
    // `index` is 0 or 1. The subscriber gets the client's connection events.
    static std::shared_ptr<ppm_slot> create(
        unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

    // Without paths until `create_paths`.
    ppm_slot(unsigned index, std::shared_ptr<dh::util::proxy> proxy,
             std::shared_ptr<device_handler_client> client);

    void create_paths();

    const std::shared_ptr<device_handler_client>& client() const { return client_; }
    unsigned get_ppm_id() const { return ppm_id_; }
    // "upper" or "lower": the slots are numbered from above.
    std::string get_ppm_position() const;

    void on_connect() {}
    // Nothing is known to be in the slot while its handler is away. The losses
    // keep their figures: the module may still be there.
    void on_disconnect();
    void unsubscribe();

    // Called on the client library's event thread with each value of "present"
    // that comes from the handler. Asks the handler for the inventory of a module
    // that is there; throws dh_client_exception where that fails.
    void on_insert();

  private:
    using loss_node =
        dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<unsigned int>>;
    static constexpr std::size_t loss_count = 4;

    void on_ppm_loss_change();
    void clear_pm_loss_values();

    const unsigned ppm_id_;
    const std::string root_;
    const std::string present_path_;
    const std::string log_channel_;
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> client_;
    // Wavelengths added and dropped, supervisory channel added and dropped.
    std::array<std::shared_ptr<loss_node>, loss_count> losses_;
    // At the end of the last `on_insert`. A module that is there when the daemon
    // starts was not put in.
    bool was_present_ = true;
};
