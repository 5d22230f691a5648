#include "ghost_detection.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <stdexcept>

namespace {

constexpr std::int64_t tolerance = 70;     // m, exclusive
constexpr std::uint32_t beyond_end = 400;  // m
constexpr std::size_t max_spacings = otdr_measurement::max_reflections - 1;

constexpr std::size_t power_of_three(std::size_t exponent) {
    return exponent == 0 ? 1 : 3 * power_of_three(exponent - 1);
}

// Distances that a sum may have, both included.
struct window {
    std::uint64_t lowest;
    std::uint64_t highest;
};

// All sums of some spacings, each taken 0, 1 or 2 times: in order, each once.
class spacing_sums {
  public:
    void add(std::uint32_t spacing) {
        const spacing_sums once = moved_by(spacing);
        const spacing_sums twice = once.moved_by(spacing);
        storage with_once;
        const auto end =
            std::set_union(begin(), this->end(), once.begin(), once.end(), with_once.begin());
        count_ = static_cast<std::size_t>(
            std::set_union(with_once.begin(), end, twice.begin(), twice.end(), sums_.begin()) -
            sums_.begin());
    }

    const std::uint32_t* begin() const { return sums_.data(); }
    const std::uint32_t* end() const { return sums_.data() + count_; }

  private:
    using storage = std::array<std::uint32_t, power_of_three((max_spacings + 1) / 2)>;

    spacing_sums moved_by(std::uint32_t spacing) const {
        spacing_sums moved;
        moved.count_ = count_;
        const auto last = std::transform(begin(), end(), moved.sums_.begin(),
                                         [&](std::uint32_t sum) { return sum + spacing; });
        // What has wrapped around stands behind the others, and is smaller.
        std::rotate(moved.sums_.begin(), std::is_sorted_until(moved.sums_.begin(), last), last);
        return moved;
    }

    storage sums_{};
    std::size_t count_ = 1;  // the empty sum
};

// Whether a sum of one of each lies in the window.
bool have_pair_within(const spacing_sums& some, const spacing_sums& others, window wanted) {
    const std::uint32_t* end = others.end();
    for (const std::uint64_t sum : some) {
        while (end != others.begin() && sum + *(end - 1) > wanted.highest)
            --end;
        if (end != others.begin() && sum + *(end - 1) >= wanted.lowest)
            return true;
    }
    return false;
}

// The sums of all spacings so far. Kept as the sums of two halves of them, of
// which each pair is a sum of all: thousands in place of millions.
class echo_distances {
  public:
    void add(std::uint32_t spacing) {
        if (count_ == max_spacings)
            throw std::length_error("more spacings than a measurement has");
        halves_[count_ % 2].add(spacing);
        ++count_;
    }

    bool include(std::uint32_t distance) const {
        constexpr std::int64_t highest_sum = std::numeric_limits<std::uint32_t>::max();
        constexpr std::uint64_t wrap = std::uint64_t{1} << 32;
        // Nearer to either end of the numbers a sum less the tolerance, or with
        // it, wraps around and matches nothing.
        const std::int64_t lowest = std::max(tolerance, distance - tolerance + 1);
        const std::int64_t highest = std::min(highest_sum - tolerance, distance + tolerance - 1);
        if (lowest > highest)
            return false;
        const window wanted{static_cast<std::uint64_t>(lowest),
                            static_cast<std::uint64_t>(highest)};
        return have_pair_within(halves_[0], halves_[1], wanted) ||
               have_pair_within(halves_[0], halves_[1],
                                {wanted.lowest + wrap, wanted.highest + wrap});
    }

  private:
    std::array<spacing_sums, 2> halves_;
    std::size_t count_ = 0;
};

// How many were marked.
std::size_t mark_beyond_end(std::span<otdr_reflection> reflections, std::uint32_t fiber_length) {
    if (fiber_length <= beyond_end)
        return 0;
    std::size_t marked = 0;
    for (otdr_reflection& each : reflections) {
        if (each.distance > fiber_length + beyond_end) {
            each.is_ghost = true;
            ++marked;
        }
    }
    return marked;
}

}  // namespace

bool is_ghost(std::uint32_t distance, std::span<const std::uint32_t> spacings) {
    echo_distances echoes;
    for (const std::uint32_t spacing : spacings)
        echoes.add(spacing);
    return echoes.include(distance);
}

void mark_ghosts(std::span<otdr_reflection> reflections, std::uint32_t fiber_length) {
    if (reflections.empty())
        return;
    reflections.front().is_ghost = false;
    // Handlers report from near to far; echoes are looked for in so many from the
    // first as are not beyond the end.
    const std::size_t judged =
        reflections.size() - mark_beyond_end(reflections.subspan(1), fiber_length);
    echo_distances echoes;
    std::uint32_t place_before = 0;
    for (std::size_t i = 1; i < judged; ++i) {
        echoes.add(reflections[i - 1].distance - place_before);
        place_before = reflections[i - 1].distance;
        reflections[i].is_ghost = echoes.include(reflections[i].distance);
    }
}
