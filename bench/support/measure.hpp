// Measuring beside a limit: both in one run, in turns, so that what disturbs
// the machine disturbs both.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

using microseconds = std::chrono::duration<double, std::micro>;

inline double percentile(std::vector<double> samples, double share) {
    const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + rank, samples.end());
    return samples[static_cast<std::size_t>(rank)];
}

template <class Operation>
double microseconds_of(const Operation& operation) {
    const auto begin = std::chrono::steady_clock::now();
    operation();
    return microseconds(std::chrono::steady_clock::now() - begin).count();
}

struct comparison {
    std::vector<double> ours;   // microseconds
    std::vector<double> limit;  // microseconds
};

// Times both operations in alternating blocks.
template <class Ours, class Limit>
comparison side_by_side(std::size_t rounds, std::size_t block, const Ours& ours,
                        const Limit& limit) {
    comparison result;
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < block; ++i)
            result.limit.push_back(microseconds_of(limit));
        for (std::size_t i = 0; i < block; ++i)
            result.ours.push_back(microseconds_of(ours));
    }
    return result;
}

inline void print_heading() {
    std::printf("%-44s %10s %10s %8s  %s\n", "", "ours", "beside it", "ratio", "wanted");
}

inline void print_ratio(const std::string& what, double ours, double limit,
                        const std::string& wanted) {
    std::printf("%-44s %10.2f %10.2f %8.2f  %s\n", what.c_str(), ours, limit, ours / limit,
                wanted.c_str());
    std::fflush(stdout);
}

inline void print_p50(const std::string& what, const comparison& measured,
                      const std::string& wanted) {
    print_ratio(what + ", p50 us", percentile(measured.ours, 0.5), percentile(measured.limit, 0.5),
                wanted);
    std::printf("%-44s %10.2f %10.2f\n", "    p99 us", percentile(measured.ours, 0.99),
                percentile(measured.limit, 0.99));
}

}  // namespace bench
