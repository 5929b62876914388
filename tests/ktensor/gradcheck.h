// gradcheck.h: gradients against central differences, first and second ones.
//
// A row names an operation, a function of some tensors that ends in it, and where its operands lie. Every row is run
// over row-major and permuted operands, for real and, where it has them, complex numbers; with each operand alone
// asking; recorded and not.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/node.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"

namespace ornik::gradcheck {

using autograd::Op;
using Tensors = std::vector<KTensor>;
using Function = std::function<KTensor(const Tensors&)>;

/// What a row may say beside its operation.
struct Terms {
    std::string note = "";  // tells rows of one operation apart
    bool complex = true;    // checked with complex numbers, too
    double low = -1.5;
    double high = 1.5;
};
inline const Terms real_only{.complex = false};

struct Row {
    Op op;
    std::vector<Dims> shapes;
    Terms terms;
    Function function;
};

struct Rows : std::vector<Row> {
    void add(Op op, const std::vector<Dims>& shapes, const Terms& terms, const Function& function) {
        push_back({op, shapes, terms, function});
    }
    void add(Op op, const std::vector<Dims>& shapes, const Function& function) { add(op, shapes, {}, function); }
};

/// A function of one operand, and of two.
template <KTensor (*function)(const KTensor&)>
KTensor one(const Tensors& x) {
    return function(x[0]);
}
template <KTensor (*function)(const KTensor&, const KTensor&)>
KTensor two(const Tensors& x) {
    return function(x[0], x[1]);
}

inline double* values(const KTensor& t) { return static_cast<double*>(t.tensor()->getRawData()); }

/// Numbers of a row-major float64 or complex128 tensor, parts counted singly.
inline std::size_t number_count(const KTensor& t) {
    return static_cast<std::size_t>(t.size()) * (t.is_complex() ? 2 : 1);
}

class Check {
  public:
    Check(const Row& row, bool complex, bool permuted)
        : row_(row), dtype_(complex ? dtype::complex128 : dtype::float64), permuted_(permuted), random_(7) {}

    void run() {
        for (const Dims& shape : row_.shapes) {
            leaves_.push_back(
                random_tensor(permuted_ ? Dims(shape.rbegin(), shape.rend()) : shape, row_.terms.low, row_.terms.high)
                    .requires_grad());
        }
        const KTensor y = call(leaves_);
        ASSERT_TRUE(y.impl()->past.node());
        EXPECT_EQ(info_of(y.impl()->past.node()->op).name, std::string(info_of(row_.op).name));
        seed_ = contiguous(random_tensor(y.shape(), -1, 1, y.dtype()));
        const Tensors analytic = grad({y}, leaves_, {seed_});
        compare(
            analytic, [&] { return dot(seed_, contiguous(call(leaves_))); }, 1e-6, "gradient");
        each_alone(analytic);
        if (info_of(row_.op).twice) {
            second(analytic);
        } else {
            EXPECT_THROW((void)grad({call(leaves_)}, leaves_, {seed_}, {.create_graph = true}), Error);
        }
    }

  private:
    KTensor random_tensor(const Dims& shape, double low, double high, std::int64_t dtype = -1) {
        KTensor t = KTensor::empty(shape, dtype == -1 ? dtype_ : dtype);
        std::uniform_real_distribution<double> uniform(low, high);
        std::generate_n(values(t), number_count(t), [&] { return uniform(random_); });
        return t;
    }

    KTensor call(const Tensors& leaves) const {
        Tensors operands;
        for (const KTensor& leaf : leaves) {
            std::vector<int> reversed(leaf.shape().size());
            std::iota(reversed.rbegin(), reversed.rend(), 0);
            operands.push_back(permuted_ ? permute(leaf, reversed) : leaf);
        }
        return row_.function(operands);
    }

    // The real part of <a, b>, parts taken as numbers of their own.
    static double dot(const KTensor& a, const KTensor& b) {
        return std::inner_product(values(a), values(a) + number_count(a), values(b), 0.0);
    }

    // d value() / d (each number of each leaf), by differences, against `analytic`.
    void compare(const Tensors& analytic, const std::function<double()>& value, double tolerance, const char* what) {
        const double step = 1e-6;
        for (std::size_t i = 0; i < leaves_.size(); ++i) {
            ASSERT_EQ(analytic[i].shape(), leaves_[i].shape());
            ASSERT_EQ(analytic[i].dtype(), leaves_[i].dtype());
            const KTensor gradient = contiguous(analytic[i]);
            for (std::size_t k = 0; k < number_count(leaves_[i]); ++k) {
                double& x = values(leaves_[i])[k];
                const double old = x;
                x = old + step;
                const double above = value();
                x = old - step;
                const double below = value();
                x = old;
                const double expected = (above - below) / (2 * step);
                EXPECT_NEAR(values(gradient)[k], expected, tolerance * (1 + std::abs(expected)))
                    << what << " of operand " << i << ", number " << k;
            }
        }
    }

    // The gradient that one operand gets does not depend on who else asks (but for the last bit, where a factor is
    // taken earlier or later for the others' sake).
    void each_alone(const Tensors& analytic) {
        for (std::size_t i = 0; leaves_.size() > 1 && i < leaves_.size(); ++i) {
            Tensors leaves;
            for (std::size_t j = 0; j < leaves_.size(); ++j) {
                leaves.push_back(j == i ? leaves_[j] : leaves_[j].detach());
            }
            expect_equal(grad({call(leaves)}, {leaves[i]}, {seed_})[0], analytic[i], 1e-15);
        }
    }

    static void expect_equal(const KTensor& a, const KTensor& b, double tolerance) {
        const KTensor left = contiguous(a);
        const KTensor right = contiguous(b);
        ASSERT_EQ(left.shape(), right.shape());
        for (std::size_t k = 0; k < number_count(left); ++k) {
            EXPECT_NEAR(values(left)[k], values(right)[k], tolerance * (1 + std::abs(values(right)[k])));
        }
    }

    // The recorded pass gives the same gradients, and these have derivatives of their own: by the leaves and by the
    // seed.
    void second(const Tensors& first) {
        leaves_.push_back(seed_.detach().requires_grad());
        Tensors directions;
        for (const KTensor& gradient : first) {
            directions.push_back(random_tensor(gradient.shape(), -1, 1));
        }
        const auto recorded = [&](bool create_graph) {
            const Tensors leaves(leaves_.begin(), leaves_.end() - 1);
            return grad({call(leaves)}, leaves, {leaves_.back()}, {.create_graph = create_graph});
        };
        const Tensors gradients = recorded(true);
        KTensor total;
        Tensors outputs;
        Tensors seeds;
        for (std::size_t i = 0; i < first.size(); ++i) {
            expect_equal(gradients[i], first[i], 1e-12);
            if (gradients[i].wants_grad()) {
                outputs.push_back(gradients[i]);
                seeds.push_back(directions[i]);
            }
        }
        ASSERT_FALSE(outputs.empty());
        Tensors analytic = grad(outputs, leaves_, seeds, {.allow_unused = true});
        for (std::size_t i = 0; i < leaves_.size(); ++i) {
            if (!analytic[i].defined()) {
                analytic[i] = KTensor::zeros(leaves_[i].shape(), leaves_[i].dtype());
            }
        }
        const auto value = [&] {
            double sum = 0;
            const Tensors now = recorded(true);
            for (std::size_t i = 0; i < now.size(); ++i) {
                sum += dot(directions[i], contiguous(now[i]));
            }
            return sum;
        };
        compare(analytic, value, 1e-5, "second derivative");
    }

    const Row& row_;
    std::int64_t dtype_;
    bool permuted_;
    std::mt19937_64 random_;
    Tensors leaves_;
    KTensor seed_;
};

inline void check(const Row& row) {
    for (const bool complex : {false, true}) {
        for (const bool permuted : {false, true}) {
            if (!complex || row.terms.complex) {
                SCOPED_TRACE(std::string(info_of(row.op).name) + " " + row.terms.note + (complex ? " complex" : "") +
                             (permuted ? " permuted" : ""));
                Check(row, complex, permuted).run();
            }
        }
    }
}

}  // namespace ornik::gradcheck
