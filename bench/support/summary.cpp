#include "support/summary.h"

#include <algorithm>
#include <cmath>

namespace bench {

namespace {

template <typename Combine>
double median_of_pairs(std::span<const double> left, std::span<const double> right, Combine combine)
{
    std::vector<double> combined;
    for (std::size_t i = 0; i < std::min(left.size(), right.size()); ++i)
        combined.push_back(combine(left[i], right[i]));
    return median(std::move(combined));
}

} // namespace

double quantile(std::vector<double> samples, double part)
{
    if (samples.empty())
        return 0;
    const auto rank = static_cast<std::size_t>(part * static_cast<double>(samples.size()));
    const auto place =
        samples.begin() + static_cast<std::ptrdiff_t>(std::min(rank, samples.size() - 1));
    std::nth_element(samples.begin(), place, samples.end());
    return *place;
}

double median(std::vector<double> samples)
{
    return quantile(std::move(samples), 0.5);
}

nlohmann::json summary(const std::vector<double> &samples)
{
    return {{"p50", rounded(quantile(samples, 0.5))},
            {"p99", rounded(quantile(samples, 0.99))},
            {"p99.9", rounded(quantile(samples, 0.999))},
            {"samples", samples.size()}};
}

double median_ratio(std::span<const double> samples, std::span<const double> limit)
{
    return rounded(median_of_pairs(samples, limit, [](double a, double b) { return a / b; }));
}

double median_difference(std::span<const double> samples, std::span<const double> limit)
{
    return rounded(median_of_pairs(samples, limit, [](double a, double b) { return a - b; }));
}

double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

} // namespace bench
