// cpu_secular_vector.cpp: roots by interpolation with two poles (R.-C. Li, Solving secular equations stably and
// efficiently, 1993: the middle way), from the nearest pole, so that all differences from poles are accurate.
#include "row_operations.h"
#include "secular_equation.h"

namespace ornik::device::cpu {

// Of the terms up to the pole `split` and of those behind it: they have one sign each.
struct SecularEquation::Sums {
    double left, right;
    double left_slope, right_slope;

    double value() const { return 1 + left + right; }
    double size() const { return 1 + std::fabs(left) + std::fabs(right); }
};

SecularEquation::SecularEquation(std::int64_t most)
    : from_origin_(static_cast<std::size_t>(most)),
      terms_(static_cast<std::size_t>(most)),
      gaps_(static_cast<std::size_t>(most * most)) {}

void SecularEquation::look_from(std::int64_t origin) {
    origin_ = origin;
    const double at = d_[origin];
    double* out = from_origin_.data();
    for (std::int64_t j = 0; j < count_; ++j) {
        out[j] = poles_ == Poles::plain ? d_[j] - at : (d_[j] - at) * (d_[j] + at);
    }
}

SecularEquation::Sums SecularEquation::sums_at(double x, std::int64_t split, double rho, const double* z) {
    const double* from = from_origin_.data();
    double* t = terms_.data();
    for (std::int64_t j = 0; j < count_; ++j) {
        t[j] = z[j] / (from[j] - x);
    }
    const std::int64_t n = split + 1;
    const std::int64_t rest = count_ - n;
    return {rho * dot(Conjugated::no, z, t, n), rho * dot(Conjugated::no, z + n, t + n, rest),
            rho * dot(Conjugated::no, t, t, n), rho * dot(Conjugated::no, t + n, t + n, rest)};
}

// Root i, seen from the pole next to it.
double SecularEquation::find(std::int64_t i, double rho, const double* z) {
    const bool is_last = i == count_ - 1;
    look_from(i);
    if (count_ == 1) {
        return rho * z[0] * z[0];
    }
    const std::int64_t split = is_last ? i - 1 : i;
    // The value rises from low to high.
    double low = 0;
    double high = is_last ? rho * square_sum(z, count_) * (1 + 0x1p-50) : from_origin_[static_cast<std::size_t>(i + 1)];
    double x = high / 2;
    Sums sums = sums_at(x, split, rho, z);
    // First what the two poles next to it say when all other terms are as they are here.
    const double a_left = rho * z[split] * z[split];
    const double a_right = rho * z[split + 1] * z[split + 1];
    double left = from_origin_[static_cast<std::size_t>(split)];
    double right = from_origin_[static_cast<std::size_t>(split + 1)];
    const double constant = sums.value() - a_left / (left - x) - a_right / (right - x);
    if (!is_last && sums.value() < 0) {
        look_from(i + 1);
        left = from_origin_[static_cast<std::size_t>(split)];
        right = 0;
        low = left / 2;
        high = 0;
    } else if (sums.value() < 0) {
        low = x;
    } else {
        high = x;
    }
    // The root of c y^2 - a y + b that stays between the poles, or goes behind them.
    const auto root = [is_last](double a, double b, double c) {
        const double square = std::sqrt(std::fabs(a * a - 4 * b * c));
        if (is_last) {
            return a >= 0 ? (a + square) / (2 * c) : 2 * b / (a - square);
        }
        return a <= 0 ? (a - square) / (2 * c) : 2 * b / (a + square);
    };
    const double model = root(constant * (left + right) + a_left + a_right,
                              constant * left * right + a_left * right + a_right * left, constant);
    x = model > low && model < high ? model : (low + high) / 2;
    for (int round = 0; round < 100; ++round) {
        sums = sums_at(x, split, rho, z);
        const double value = sums.value();
        if (std::fabs(value) <= 4 * std::numeric_limits<double>::epsilon() * sums.size()) {
            break;
        }
        (value < 0 ? low : high) = x;
        const double to_left = left - x;
        const double to_right = right - x;
        const double slope = sums.left_slope + sums.right_slope;
        double step = root((to_left + to_right) * value - to_left * to_right * slope, to_left * to_right * value,
                           value - to_left * sums.left_slope - to_right * sums.right_slope);
        if (!(step * value < 0)) {
            step = -value / slope;
        }
        double next = x + step;
        if (!(next > low && next < high)) {
            next = (low + high) / 2;
        }
        const double moved = std::fabs(next - x);
        x = next;
        if (moved <= std::numeric_limits<double>::epsilon() / 2 * std::fabs(x)) {
            break;
        }
    }
    return x;
}

void SecularEquation::solve(Poles poles, std::int64_t count, const double* d, double rho, double* z, double* roots) {
    poles_ = poles;
    count_ = count;
    d_ = d;
    for (std::int64_t i = 0; i < count; ++i) {
        const double x = find(i, rho, z);
        double* gaps = gaps_.data() + i * count;
        for (std::int64_t j = 0; j < count; ++j) {
            gaps[j] = from_origin_[static_cast<std::size_t>(j)] - x;
        }
        const double at = d[origin_];
        roots[i] = poles == Poles::plain ? at + x : at == 0 ? std::sqrt(x) : at + x / (at + std::sqrt(at * at + x));
    }
    // z(j)^2 rho = (x(j) - p(j)) times (p(j) - x(i)) / (p(j) - p(i)) for all other i
    double* product = terms_.data();
    for (std::int64_t j = 0; j < count; ++j) {
        product[j] = gaps(j)[j];
    }
    for (std::int64_t i = 0; i < count; ++i) {
        look_from(i);
        const double* gap = gaps(i);
        const double* between = from_origin_.data();
        for (std::int64_t j = 0; j < i; ++j) {
            product[j] *= gap[j] / between[j];
        }
        for (std::int64_t j = i + 1; j < count; ++j) {
            product[j] *= gap[j] / between[j];
        }
    }
    for (std::int64_t j = 0; j < count; ++j) {
        z[j] = std::copysign(std::sqrt(std::fabs(product[j]) / rho), z[j]);
    }
}

}  // namespace ornik::device::cpu
