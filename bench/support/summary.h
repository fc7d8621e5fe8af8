// Figures of a series of measurements.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <vector>

namespace bench {

// Gives the value below which the given part of the samples lies; 0 for no sample.
double quantile(std::vector<double> samples, double part);

double median(std::vector<double> samples);

// Gives p50, p99, p99.9 and the number of samples, rounded to three decimals.
nlohmann::json summary(const std::vector<double> &samples);

// Gives the median of the quotients of two series measured in turn, element by element: what
// disturbs a machine for longer than one element falls on both sides alike.
double median_ratio(std::span<const double> samples, std::span<const double> limit);

// Gives the median of the differences of two such series.
double median_difference(std::span<const double> samples, std::span<const double> limit);

double rounded(double value);

} // namespace bench
