#include "osc_link.hpp"

#include "require_within.hpp"

namespace simulator {

std::string osc_link::link_status() const {
    return get(&osc_state::link_status);
}

void osc_link::set_link_status(const std::string& status) {
    change(&osc_state::link_status, status);
}

std::string osc_link::state() const {
    return get(&osc_state::state);
}

void osc_link::set_state(const std::string& state) {
    change(&osc_state::state, state);
}

float osc_link::length() const {
    return get(&osc_state::length);
}

void osc_link::set_length(float length) {
    require_within(fibre_length_range, length);
    change(&osc_state::length, length);
}

float osc_link::dispersion() const {
    return get(&osc_state::dispersion);
}

void osc_link::set_dispersion(float dispersion) {
    require_within(fibre_dispersion_range, dispersion);
    change(&osc_state::dispersion, dispersion);
}

std::string osc_link::neighbour() const {
    return get(&osc_state::neighbour);
}

void osc_link::set_neighbour(const std::string& neighbour) {
    change(&osc_state::neighbour, neighbour);
}

void osc_link::set_lit(bool lit) {
    if (get(&osc_state::lit) != lit)
        change(&osc_state::lit, lit);
}

}  // namespace simulator
