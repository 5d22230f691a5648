// The handlers of the slots for passive modules and of the ports for transceivers.
#pragma once

#include "handler.hpp"
#include "otdr_unit.hpp"
#include "pluggable_modules.hpp"

#include <memory>
#include <string>

namespace simulator {

// `name` is that of the handler and of its socket: "ppm/0", "sfp/1".
handler_plan ppm_handler(const std::string& name, std::shared_ptr<ppm_bay> bay);
handler_plan sfp_handler(const std::string& name, std::shared_ptr<sfp_bay> bay,
                         std::shared_ptr<otdr_unit> otdr);

}  // namespace simulator
