#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace testing_support {

/// The middle one of values.
inline double medianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// By how much samples grow from one to the next: the median of the slopes between every two of them. A third of the
/// samples may be anything without bending it.
inline double slopeOf(const std::vector<double>& samples) {
    // Of a long row, so many points, evenly spread, say as much.
    constexpr std::size_t MOST_POINTS = 300;
    const std::size_t stride = samples.size() / MOST_POINTS + 1;
    std::vector<double> slopes;
    for (std::size_t i = 0; i < samples.size(); i += stride) {
        for (std::size_t j = i + stride; j < samples.size(); j += stride) {
            slopes.push_back((samples[j] - samples[i]) / static_cast<double>(j - i));
        }
    }
    return medianOf(slopes);
}

}  // namespace testing_support
