// secular_equation.h: 1 + rho sum z(j)^2 / (p(j) - x) = 0, whose roots are the eigenvalues of diag(p) + rho z z^T.
#pragma once

#include <cstdint>
#include <vector>

namespace ornik::device::cpu {

/// Work space for equations of up to `most` poles.
class SecularEquation {
  public:
    /// What the numbers d stand for: the poles themselves, or their roots (d >= 0; x is then given as its root, too).
    enum class Poles { plain, squared };

    explicit SecularEquation(std::int64_t most);

    /// d rises; rho > 0 and no z is 0. Finds the roots, between each pole and the next and behind the last, and
    /// replaces z by the numbers for which these roots are exact, so that vectors made of them are orthogonal
    /// (M. Gu, S. Eisenstat, A stable and efficient algorithm for the rank-one modification of the symmetric
    /// eigenproblem, 1994).
    void solve(Poles poles, std::int64_t count, const double* d, double rho, double* z, double* roots);

    /// p(j) - x(i), j < count
    const double* gaps(std::int64_t i) const { return gaps_.data() + i * count_; }

  private:
    struct Sums;
    double find(std::int64_t i, double rho, const double* z);
    void look_from(std::int64_t origin);
    Sums sums_at(double x, std::int64_t split, double rho, const double* z);

    Poles poles_ = Poles::plain;
    std::int64_t count_ = 0;
    std::int64_t origin_ = 0;
    const double* d_ = nullptr;
    std::vector<double> from_origin_;  // p(j) - p(origin)
    std::vector<double> terms_;
    std::vector<double> gaps_;
};

}  // namespace ornik::device::cpu
