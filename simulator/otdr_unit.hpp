// What measures the reflections of the span, inside a transceiver.
#pragma once

#include "optical_plant.hpp"
#include "pluggable_modules.hpp"
#include "supervisory_line.hpp"

#include <memory>
#include <mutex>
#include <vector>

namespace simulator {

inline constexpr unsigned max_reported_reflections = 64;
inline constexpr range measuring_time_range{0.0, 300.0};  // s

// Any thread may call any member.
class otdr_unit {
  public:
    // `line` is null for a port that no fibre leads to: nothing reflects there.
    otdr_unit(std::shared_ptr<sfp_bay> transceiver, std::shared_ptr<supervisory_line> line)
        : transceiver_(std::move(transceiver)), line_(std::move(line)) {}

    // Takes the measuring time, of the program's time. dh_error -5 where there is
    // no transceiver that measures, where it is pulled meanwhile, or where the
    // measurement is to fail; the results of before stay then.
    bool measure(bool);

    int detected() const;  // at most max_reported_reflections
    // Of reflection `number`, counted from 1, in m. dh_error -61 where there is none.
    int distance(unsigned number) const;

    // Turned by hand.
    float measuring_time() const;
    void set_measuring_time(float seconds);
    bool failing() const;
    void set_failing(bool);

  private:
    void require_transceiver() const;

    const std::shared_ptr<sfp_bay> transceiver_;
    const std::shared_ptr<supervisory_line> line_;

    std::mutex measuring_;  // one measurement at a time
    mutable std::mutex mutex_;
    // Guarded by it:
    std::vector<int> distances_;
    float measuring_time_ = 2.0F;
    bool failing_ = false;
};

}  // namespace simulator
