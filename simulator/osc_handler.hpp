// The handler of an optical supervisory channel.
#pragma once

#include "handler.hpp"
#include "osc_link.hpp"

#include <memory>
#include <string>

namespace simulator {

// `name` is that of the handler and of its socket: "osc1".
handler_plan osc_handler(const std::string& name, std::shared_ptr<osc_link> link);

}  // namespace simulator
