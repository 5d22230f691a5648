// One optical supervisory channel (OSC): the link to the far end of a span, as
// its handler measures and reports it.
#pragma once

#include "displayed_state.hpp"
#include "optical_plant.hpp"

#include <string>

namespace simulator {

inline constexpr range fibre_length_range{0.0, 1000.0};          // km
inline constexpr range fibre_dispersion_range{-50'000, 50'000};  // ps/nm

struct osc_state {
    std::string link_status = "up";
    std::string state = "ready";
    float length = 20.0F;       // of the span's fibre, km
    float dispersion = 340.0F;  // of the span's fibre, ps/nm
    // The far end's IPv6 address, "%", and the interface that leads there; empty
    // as long as none is known.
    std::string neighbour;
    // Whether light comes in; without it the link is down, whatever its status.
    bool lit = true;
};

// Any thread may call any member. A value out of its range is dh_error -22.
class osc_link : public displayed_state<osc_state> {
  public:
    std::string link_status() const;
    void set_link_status(const std::string&);
    std::string state() const;
    void set_state(const std::string&);
    float length() const;
    void set_length(float);
    float dispersion() const;
    void set_dispersion(float);
    std::string neighbour() const;
    void set_neighbour(const std::string&);
    void set_lit(bool);
};

}  // namespace simulator
