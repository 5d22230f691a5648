#include "osc_link.hpp"

#include "require_within.hpp"

namespace simulator {

template <class Member, class Value>
void osc_link::change(Member osc_state::*member, const Value& value) {
    const std::lock_guard lock(mutex_);
    now_.*member = value;
    if (display_ != nullptr)
        display_->show(now_);
}

std::string osc_link::link_status() const {
    const std::lock_guard lock(mutex_);
    return now_.link_status;
}

void osc_link::set_link_status(const std::string& status) {
    change(&osc_state::link_status, status);
}

std::string osc_link::state() const {
    const std::lock_guard lock(mutex_);
    return now_.state;
}

void osc_link::set_state(const std::string& state) {
    change(&osc_state::state, state);
}

float osc_link::length() const {
    const std::lock_guard lock(mutex_);
    return now_.length;
}

void osc_link::set_length(float length) {
    require_within(fibre_length_range, length);
    change(&osc_state::length, length);
}

float osc_link::dispersion() const {
    const std::lock_guard lock(mutex_);
    return now_.dispersion;
}

void osc_link::set_dispersion(float dispersion) {
    require_within(fibre_dispersion_range, dispersion);
    change(&osc_state::dispersion, dispersion);
}

std::string osc_link::neighbour() const {
    const std::lock_guard lock(mutex_);
    return now_.neighbour;
}

void osc_link::set_neighbour(const std::string& neighbour) {
    change(&osc_state::neighbour, neighbour);
}

void osc_link::show_on(osc_display& display) {
    const std::lock_guard lock(mutex_);
    display_ = &display;
    display.show(now_);
}

void osc_link::hide() {
    const std::lock_guard lock(mutex_);
    display_ = nullptr;
}

}  // namespace simulator
