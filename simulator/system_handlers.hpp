// The handlers that tell of the card itself: its identity, and how it started.
#pragma once

#include "handler.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace simulator {

// What the card is, as the system information shows it.
struct card_identity {
    std::string product_name;
    std::string location_index;  // of the slot, "1" or "2"
};

// The version of the card's software, which may be another after an upgrade.
// Any thread may call.
class installed_software {
  public:
    explicit installed_software(std::string version) : version_(std::move(version)) {}

    std::string version() const {
        const std::lock_guard lock(mutex_);
        return version_;
    }
    void set_version(const std::string& version) {
        const std::lock_guard lock(mutex_);
        version_ = version;
    }

  private:
    mutable std::mutex mutex_;
    std::string version_;
};

handler_plan system_info_handler(card_identity identity,
                                 std::shared_ptr<installed_software> software);

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
