// A simulated card: the files that its board carries, and its handlers.
#pragma once

#include "action_player.hpp"
#include "card_kind.hpp"
#include "card_models.hpp"
#include "fallible_handler.hpp"
#include "scenario.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace simulator {

struct card_options {
    std::string root;  // before every path; empty for the host's own root
    std::uint64_t seed = 1;
    scenario actions;            // on handlers that the card has
    std::string interface = {};  // to the neighbour slot; empty for none
    // The root, below VELT_ROOT, of the simulated card whose EQ port feeds an
    // amplifier card; that has no light of its own then.
    std::optional<std::string> fed_by = {};
    // The root, below VELT_ROOT, of the simulated card at the far end of the line.
    std::optional<std::string> line_to = {};
};

// All handlers are served from the constructor on, until the destructor, which
// removes their sockets; the files stay. The constructor throws std::exception
// where a file cannot be written or a socket is served already.
class card {
  public:
    card(const card_kind& kind, card_options options);

  private:
    // Ended in reverse order: what acts on the handlers goes before them.
    const card_models models_;
    const std::vector<std::shared_ptr<fallible_handler>> handlers_;
    const handler control_;
    const action_player player_;
};

}  // namespace simulator
