// Figures of a series of measurements.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <vector>

namespace bench {

// The value below which the given part of the samples lies; 0 for no sample.
double quantile(std::vector<double> samples, double part);

double median(std::vector<double> samples);

// p50, p99, p99.9 and the number of samples, rounded to three decimals.
nlohmann::json summary(const std::vector<double> &samples);

// The median of the quotients of two series measured in turn, element by element: what disturbs a
// machine for longer than one element falls on both sides alike.
double median_ratio(std::span<const double> samples, std::span<const double> limit);

// The median of the differences, likewise.
double median_difference(std::span<const double> samples, std::span<const double> limit);

double rounded(double value);

} // namespace bench
