// A simulated card: the files that its board carries, and its handlers.
#pragma once

#include "handler.hpp"
#include "light_path.hpp"
#include "scenario.hpp"
#include "system_handlers.hpp"

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace simulator {

struct card_options {
    std::string root;  // before every path; empty for the host's own root
    std::uint64_t seed = 1;
    scenario actions;
};

// The card with EDFA and express ports and one control loop. All handlers are
// served from the constructor on, until the destructor, which removes their
// sockets; the files stay. The constructor throws std::exception where a file
// cannot be written or a socket is served already.
class t47_card {
  public:
    explicit t47_card(card_options options);

  private:
    const std::shared_ptr<light_path> light_;
    const std::shared_ptr<start_state> start_;
    std::list<handler> handlers_;
};

}  // namespace simulator
