#pragma once

#include <span>

namespace verdel {

/// Sums of products in double precision, in eight lanes that are added up at the end: whole vectors
/// at a time, in one order on every processor.
double sum_of_squares(std::span<const float> values);
double sum_of_squares(std::span<const double> values);
double sum_of_products(std::span<const float> p, std::span<const float> q);

}  // namespace verdel
