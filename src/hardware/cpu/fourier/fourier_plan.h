// fourier_plan.h: the discrete Fourier transform of one row of n numbers, for any n.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace ornik::device::cpu {

/// A complex number in double precision.
struct Phase {
    double real;
    double imag;
};

/// e^(2 pi i j / n), 0 <= j < n, to the last place or two.
Phase root_of_unity(std::int64_t j, std::int64_t n);

/// For float and double. Real and imaginary parts stand in rows of their own, so that they fill vector registers; the
/// inverse transform is the forward one with the two exchanged. Plans may be shared by threads.
template <typename Real>
class FourierPlan {
  public:
    explicit FourierPlan(std::int64_t n);
    ~FourierPlan();

    /// Numbers of work space.
    std::int64_t work_size() const;
    /// Replaces (real, imag) by the sums over j of their element j times e^(-2 pi i j k / n). No scale.
    void run(Real* real, Real* imag, Real* work) const;

  private:
    struct Stage {
        int radix;
        std::int64_t length;  // of the transforms that it parts
        std::int64_t step;    // how many of them lie between each other
    };
    void run_stages(Real* real, Real* imag, Real* work) const;
    void run_chirp(Real* real, Real* imag, Real* work) const;

    std::int64_t n_;
    std::vector<Stage> stages_;
    std::vector<Real> root_real_;  // e^(-2 pi i j / n)
    std::vector<Real> root_imag_;
    // Of lengths with large prime factors.
    std::unique_ptr<FourierPlan> longer_;
    std::vector<Real> chirp_real_;  // e^(-pi i j^2 / n)
    std::vector<Real> chirp_imag_;
    std::vector<Real> filter_real_;  // the transform of its conjugates
    std::vector<Real> filter_imag_;
};

}  // namespace ornik::device::cpu
