#include "handler_faults.hpp"

#include "dh_error.hpp"
#include "require_within.hpp"
#include "wire.hpp"

#include <algorithm>
#include <chrono>
#include <sstream>

namespace simulator {
namespace {

std::vector<std::string> paths_in(std::string_view text) {
    std::vector<std::string> found;
    std::istringstream words{std::string(text)};
    for (std::string word; words >> word;)
        found.emplace_back(wire::without_leading_slash(word));
    return found;
}

}  // namespace

void path_list::assign(std::string_view text) {
    paths_.clear();
    add(text);
}

void path_list::add(std::string_view text) {
    for (std::string& path : paths_in(text)) {
        if (!contains(path))
            paths_.push_back(std::move(path));
    }
}

void path_list::remove(std::string_view text) {
    for (const std::string& path : paths_in(text))
        std::erase(paths_, path);
}

bool path_list::contains(std::string_view path) const {
    return std::find(paths_.begin(), paths_.end(), path) != paths_.end();
}

std::string path_list::text() const {
    std::string joined;
    for (const std::string& path : paths_)
        joined += (joined.empty() ? "" : " ") + path;
    return joined;
}

void handler_faults::begin() {
    const std::lock_guard lock(mutex_);
    frozen_ = false;
    opened_ = false;
    released_ = false;
}

void handler_faults::open() {
    const std::lock_guard lock(mutex_);
    opened_ = true;
    changed_.notify_all();
}

void handler_faults::set_frozen(bool frozen) {
    const std::lock_guard lock(mutex_);
    frozen_ = frozen;
    changed_.notify_all();
}

float handler_faults::delay() const {
    const std::lock_guard lock(mutex_);
    return delay_;
}

void handler_faults::set_delay(float delay) {
    require_within(handler_delay_range, delay);
    const std::lock_guard lock(mutex_);
    delay_ = delay;
    changed_.notify_all();
}

std::string handler_faults::error_path() const {
    const std::lock_guard lock(mutex_);
    return failing_.text();
}

void handler_faults::set_error_path(const std::string& paths) {
    const std::lock_guard lock(mutex_);
    failing_.assign(paths);
}

std::string handler_faults::wrong_type_path() const {
    const std::lock_guard lock(mutex_);
    return mistyped_.text();
}

void handler_faults::set_wrong_type_path(const std::string& paths) {
    const std::lock_guard lock(mutex_);
    mistyped_.assign(paths);
}

void handler_faults::fail_path(const std::string& paths) {
    const std::lock_guard lock(mutex_);
    failing_.add(paths);
}

void handler_faults::mistype_path(const std::string& paths) {
    const std::lock_guard lock(mutex_);
    mistyped_.add(paths);
}

void handler_faults::heal_path(const std::string& paths) {
    const std::lock_guard lock(mutex_);
    failing_.remove(paths);
    mistyped_.remove(paths);
}

void handler_faults::before_service() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return released_ || !frozen_; });
}

void handler_faults::before_request() {
    const auto arrival = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (!released_) {
        const auto due = arrival + std::chrono::duration<float>(delay_);
        if (frozen_ || !opened_)
            changed_.wait(lock);
        else if (std::chrono::steady_clock::now() < due)
            changed_.wait_until(
                lock, std::chrono::time_point_cast<std::chrono::steady_clock::duration>(due));
        else
            return;
    }
}

void handler_faults::release() {
    const std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
}

void handler_faults::before_write(std::string_view path) {
    const std::lock_guard lock(mutex_);
    if (failing_.contains(path))
        throw dh_error(simulated_fault_code, simulated_fault_text);
}

bool handler_faults::replace_value(std::string_view path, json::value& value,
                                   json::allocator& memory) {
    const std::lock_guard lock(mutex_);
    if (failing_.contains(path))
        throw dh_error(simulated_fault_code, simulated_fault_text);
    if (!mistyped_.contains(path))
        return false;
    value = value.IsString() ? json::from(0, memory) : json::from(simulated_fault_text, memory);
    return true;
}

}  // namespace simulator
