// The files that a board carries from the factory.
#pragma once

#include "optical_plant.hpp"

#include <string>

namespace simulator {

// Lays the kernel's list of compatible boards and the calibration file under
// the root, over what is there, and makes the folder where settings are kept. The calibration is
// that of the models; `eq_port` is null on a card of one port. Throws std::runtime_error, which
// names the file, where one cannot be written.
void lay_board_files(const std::string& root, const std::string& compatible,
                     const plant_model& model, const plant_model* eq_port);

}  // namespace simulator
