#ifndef QUANTILE_H
#define QUANTILE_H

#include <algorithm>
#include <cstddef>
#include <vector>

/// The value below which this share of `values` lies; orders them anew. There must be a value.
inline double Quantile(std::vector<double>* values, double share) {
    const auto place = static_cast<std::ptrdiff_t>(static_cast<double>(values->size() - 1) * share);
    std::nth_element(values->begin(), values->begin() + place, values->end());
    return (*values)[static_cast<size_t>(place)];
}

#endif  // QUANTILE_H
