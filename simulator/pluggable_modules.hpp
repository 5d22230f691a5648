// What is plugged into the card: passive modules in two slots, transceivers in
// two ports.
#pragma once

#include "displayed_state.hpp"
#include "optical_plant.hpp"

#include <array>
#include <cstddef>

namespace simulator {

inline constexpr range transceiver_power_range{-60.0, 20.0};  // dBm

// Where modules are plugged in, as the card's tree and the scenarios call it.
inline constexpr std::array<const char*, 4> module_names{"ppm/1", "ppm/2", "interface/1",
                                                         "interface/2"};

// Somewhere that a module can be put in and pulled. Any thread may call any member.
class module_bay {
  public:
    virtual ~module_bay() = default;
    virtual bool present() const = 0;
    virtual void set_present(bool) = 0;
};

inline constexpr std::size_t ppm_loss_count = 4;

// As the inventory of a passive module names them.
inline constexpr std::array<const char*, ppm_loss_count> ppm_loss_names{
    "wdmAddLoss", "wdmDropLoss", "oscAddLoss", "oscDropLoss"};

// A passive module (PPM) and its losses, in tenths of a dB.
struct passive_module {
    bool present = true;
    std::array<unsigned, ppm_loss_count> losses{45, 47, 12, 14};
};

// The losses are those of the module that is in the slot, or will be.
class ppm_bay : public module_bay, public displayed_state<passive_module> {
  public:
    bool present() const override;
    void set_present(bool) override;
    unsigned loss(std::size_t which) const;
    void set_loss(std::size_t which, unsigned);
};

// A transceiver (SFP); powers in dBm.
struct transceiver {
    bool present = true;
    float rx_power = -8.5F;
    float tx_power = 1.5F;
    bool otdr_support = true;
};

// The rest is that of the transceiver that is in the port, or will be. A power
// out of its range is dh_error -22.
class sfp_bay : public module_bay, public displayed_state<transceiver> {
  public:
    bool present() const override;
    void set_present(bool) override;
    float rx_power() const;
    void set_rx_power(float);
    float tx_power() const;
    void set_tx_power(float);
    bool otdr_support() const;
    void set_otdr_support(bool);
};

}  // namespace simulator
