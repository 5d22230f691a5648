// What is wrong with a handler: it hangs, is slow, or fails at single paths.
#pragma once

#include "dh_interposer.hpp"
#include "optical_plant.hpp"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace simulator {

inline constexpr range handler_delay_range{0.0, 60.0};  // seconds of real time

inline constexpr int simulated_fault_code = -5;
inline constexpr const char* simulated_fault_text = "simulated fault";

// Paths in the order in which they came, none of them twice. As text they are
// separated by blanks.
class path_list {
  public:
    void assign(std::string_view text);
    void add(std::string_view text);
    void remove(std::string_view text);
    bool contains(std::string_view path) const;
    std::string text() const;

  private:
    std::vector<std::string> paths_;
};

// Stands between a handler's server and its clients. Delay and paths outlive
// the server; it does not begin frozen. Any thread may call any member.
class handler_faults final : public dh_interposer {
  public:
    // A server begins, with a tree that is still empty: requests wait until
    // `open`.
    void begin();
    void open();

    // Frozen, the handler's process hangs: the kernel takes connections, nothing
    // is executed, answered or sent. Afterwards all of that goes on.
    bool frozen() const { return frozen_; }
    void set_frozen(bool);

    // Each request is executed so many seconds of real time later, the requests
    // of one session one after the other. A value out of its range is dh_error -22.
    float delay() const;
    void set_delay(float);

    // Lists of paths (path_list) at which the handler answers dh_error -5, or a
    // value of a wrong type: a number for a text, a text for all else.
    std::string error_path() const;
    void set_error_path(const std::string&);
    std::string wrong_type_path() const;
    void set_wrong_type_path(const std::string&);
    void fail_path(const std::string&);
    void mistype_path(const std::string&);
    void heal_path(const std::string&);

    bool holds_output() const override { return frozen_; }
    void before_service() override;
    void before_request() override;
    void release() override;
    void before_write(std::string_view path) override;
    bool replace_value(std::string_view path, json::value&, json::allocator&) override;

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<bool> frozen_{false};
    bool opened_ = false;
    bool released_ = false;
    float delay_ = 0.0F;
    path_list failing_;
    path_list mistyped_;
};

}  // namespace simulator
