// The handler of the wavelength selective switch and its channel monitors.
#pragma once

#include "handler.hpp"
#include "light_path.hpp"

#include <memory>
#include <string>
#include <vector>

namespace simulator {

// One port of the switch: the light that it moves, and the parts of the paths
// under which switch ("wss", "wss/1") and monitor ("ocm/1") are published.
struct wss_port {
    std::shared_ptr<light_path> light;
    std::string wss;
    std::string ocm;
};

// `receive_monitor` is the part of the path
// ("ocm/2") of a monitor that sees nothing but the total power at the input of the first port;
// empty for none.
handler_plan wss_edge_handler(std::vector<wss_port> ports, std::string receive_monitor);

}  // namespace simulator
