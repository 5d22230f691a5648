// The handlers that tell of the card itself: its identity, and how it started.
#pragma once

#include "handler.hpp"

#include <atomic>
#include <memory>
#include <string>

namespace simulator {

// What the card is, as the system information shows it.
struct card_identity {
    std::string product_name;
    std::string software_version;
    std::string location_index;  // of the slot, "1" or "2"
};

handler_plan system_info_handler(card_identity identity);

// Whether the card came up from power-off. Any thread may call.
class start_state {
  public:
    bool cold() const { return cold_; }
    void set_cold(bool cold) { cold_ = cold; }

  private:
    std::atomic<bool> cold_{true};
};

handler_plan system_start_handler(std::shared_ptr<start_state> state);

}  // namespace simulator
