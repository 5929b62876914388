// cpu_tridiagonal_vector.cpp: T = diag(T1, T2) + rho v v^T, where v has two elements: the eigenvectors of T1 and T2
// make the rest an equation in one unknown (J. Cuppen, A divide and conquer method for the symmetric tridiagonal
// eigenproblem, 1981). What is small already is left alone (J. Dongarra, D. Sorensen, A fully parallel algorithm for
// the symmetric eigenvalue problem, 1987). Small matrices, and values alone, by rotations.
#include <algorithm>
#include <numeric>

#include "merged_vectors.h"
#include "rotations.h"
#include "secular_equation.h"
#include "tridiagonal.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t undivided = 32;
// Of the largest number, what may be left out: less than a rounding of R.
template <typename R>
constexpr double epsilon = sizeof(R) == sizeof(double) ? 0x1p-52 : 0x1p-27;

double largest_of(const double* x, std::int64_t n) { return largest_part(x, n); }

// The eigenvalues by rotations, in no order. Rows of `vectors`, where not null, are rotated along.
template <typename R>
bool solve_by_rotations(std::int64_t n, double* d, double* e, R* vectors, std::int64_t step, std::int64_t length) {
    const double nothing = 0x1p-6 * epsilon<R> * std::max(largest_of(d, n), largest_of(e, n - 1));
    std::int64_t end = n - 1;
    std::int64_t first = 0;
    for (std::int64_t round = 0; end > 0; ++round) {
        if (round == 40 * n) {
            return false;
        }
        for (std::int64_t i = first; i < end; ++i) {
            if (std::fabs(e[i]) <= epsilon<R> * (std::fabs(d[i]) + std::fabs(d[i + 1])) + nothing) {
                e[i] = 0;
            }
        }
        while (end > 0 && e[end - 1] == 0) {
            --end;
        }
        if (end == 0) {
            break;
        }
        for (first = end - 1; first > 0 && e[first - 1] != 0;) {
            --first;
        }
        // The eigenvalue of the last square that is nearer to the last element.
        const double half = (d[end - 1] - d[end]) * 0.5;
        const double beside = e[end - 1];
        const double root = std::sqrt(half * half + beside * beside);
        const double shift = d[end] - beside * (beside / (half < 0 ? half - root : half + root));
        double f = d[first] - shift;
        double g = e[first];
        for (std::int64_t k = first; k < end; ++k) {
            const Rotation turn(f, g);
            const double c = turn.c;
            const double s = turn.s;
            if (k > first) {
                e[k - 1] = turn.length;
            }
            const double upper = d[k];
            const double lower = d[k + 1];
            const double mixed = c * e[k] + s * lower;
            const double other = c * upper + s * e[k];
            d[k] = c * other + s * mixed;
            f = c * mixed - s * other;
            d[k + 1] = c * (c * lower - s * e[k]) - s * (c * e[k] - s * upper);
            e[k] = f;
            if (k + 1 < end) {
                g = s * e[k + 1];
                e[k + 1] = c * e[k + 1];
            }
            if (vectors != nullptr) {
                rotate_rows(c, s, length, vectors + k * step, vectors + (k + 1) * step);
            }
        }
        first = 0;
    }
    return true;
}

}  // namespace

template <typename R>
struct TridiagonalSolver<R>::Work {
    using Order = std::vector<std::int64_t>;

    std::int64_t n;
    // Of the whole matrix: row i of the vectors belongs to values[i]; `order` says how values rise.
    R* rows = nullptr;
    double* values = nullptr;
    double* beside = nullptr;
    std::vector<R> vectors;
    Order order;
    // Of a part that is put together.
    SecularEquation equation;
    std::vector<double> poles;
    std::vector<double> z;
    std::vector<double> roots;
    std::vector<double> vector;
    MergedVectors<R> merged;
    Order sorted;
    Order kept;
    std::vector<Side> side;

    Work(std::int64_t size, bool with_vectors) : Work(size, with_vectors && size > undivided ? size : 0, 0) {}

    bool divide(std::int64_t begin, std::int64_t size) {
        R* block = row(begin) + begin;
        double* d = values + begin;
        double* e = beside + begin;
        if (size <= undivided) {
            for (std::int64_t i = 0; i < size; ++i) {
                std::fill_n(block + i * n, size, R(0));
                block[i * n + i] = R(1);
            }
            if (!solve_by_rotations(size, d, e, block, n, size)) {
                return false;
            }
            put_in_order(begin, size);
            return true;
        }
        const std::int64_t upper = size / 2;
        const double coupling = e[upper - 1];
        d[upper - 1] -= std::fabs(coupling);
        d[upper] -= std::fabs(coupling);
        if (!divide(begin, upper) || !divide(begin + upper, size - upper)) {
            return false;
        }
        put_together(begin, size, upper, coupling);
        put_in_order(begin, size);
        return true;
    }

    R* row(std::int64_t i) { return rows + i * n; }

    void put_in_order(std::int64_t begin, std::int64_t size) {
        const auto first = order.begin() + begin;
        std::iota(first, first + size, 0);
        std::sort(first, first + size, [d = values + begin](std::int64_t i, std::int64_t j) {
            return d[i] < d[j] || (d[i] == d[j] && i < j);
        });
    }

  private:
    Work(std::int64_t size, std::int64_t divided, int /*delegated*/)
        : n(size),
          order(static_cast<std::size_t>(size)),
          equation(divided),
          poles(static_cast<std::size_t>(divided)),
          z(poles.size()),
          roots(poles.size()),
          vector(poles.size()),
          merged(divided, divided),
          sorted(poles.size()),
          kept(poles.size()),
          side(poles.size()) {}

    // The part's first `upper` rows, and the others, are two solved matrices that the element `coupling` joins.
    void put_together(std::int64_t begin, std::int64_t size, std::int64_t upper, double coupling) {
        R* block = row(begin) + begin;
        double* d = values + begin;
        const std::int64_t lower = size - upper;
        const double rho = 2 * std::fabs(coupling);
        for (std::int64_t i = 0; i < size; ++i) {
            R* v = block + i * n;
            const bool first = i < upper;
            const double end = first ? v[upper - 1] : v[upper];
            z[static_cast<std::size_t>(i)] = (!first && coupling < 0 ? -end : end) * 0.70710678118654752440;
            std::fill_n(first ? v + upper : v, first ? lower : upper, R(0));
            side[static_cast<std::size_t>(i)] = first ? Side::first : Side::last;
        }
        const auto middle = order.begin() + begin + upper;
        std::transform(middle, middle + lower, middle, [upper](std::int64_t i) { return i + upper; });
        std::merge(middle - upper, middle, middle, middle + lower, sorted.begin(),
                   [d](std::int64_t i, std::int64_t j) { return d[i] < d[j]; });
        const std::int64_t count = keep(block, d, rho, size);
        if (count == 0) {
            return;
        }
        for (std::int64_t k = 0; k < count; ++k) {
            const auto i = static_cast<std::size_t>(kept[static_cast<std::size_t>(k)]);
            poles[static_cast<std::size_t>(k)] = d[i];
            vector[static_cast<std::size_t>(k)] = z[i];
        }
        z.swap(vector);
        equation.solve(SecularEquation::Poles::plain, count, poles.data(), rho, z.data(), roots.data());
        merged.choose(kept.data(), count, side.data());
        for (std::int64_t i = 0; i < count; ++i) {
            const double* gaps = equation.gaps(i);
            for (std::int64_t k = 0; k < count; ++k) {
                vector[static_cast<std::size_t>(k)] = z[static_cast<std::size_t>(k)] / gaps[k];
            }
            merged.weigh(i, vector.data());
            d[kept[static_cast<std::size_t>(i)]] = roots[static_cast<std::size_t>(i)];
        }
        merged.replace(block, n, upper, size);
    }

    // Finds the rows that the equation is about: without those that have no part in it, after rotations that free
    // one of two rows of nearly the same value.
    std::int64_t keep(R* block, double* d, double rho, std::int64_t size) {
        const double nothing = 8 * double{std::numeric_limits<R>::epsilon()} * std::max(largest_of(d, size), rho);
        std::int64_t count = 0;
        std::int64_t last = -1;
        for (std::int64_t position = 0; position < size; ++position) {
            const std::int64_t i = sorted[static_cast<std::size_t>(position)];
            double& z_i = z[static_cast<std::size_t>(i)];
            if (rho * std::fabs(z_i) <= nothing) {
                continue;
            }
            if (last >= 0) {
                double& z_last = z[static_cast<std::size_t>(last)];
                const double both = std::sqrt(z_i * z_i + z_last * z_last);
                const double c = z_i / both;
                const double s = -z_last / both;
                if (std::fabs((d[i] - d[last]) * c * s) <= nothing) {
                    rotate_rows(c, s, size, block + last * n, block + i * n);
                    z_i = both;
                    const double lower = d[last];
                    d[last] = lower * c * c + d[i] * s * s;
                    d[i] = lower * s * s + d[i] * c * c;
                    side[static_cast<std::size_t>(i)] =
                        both_sides(side[static_cast<std::size_t>(i)], side[static_cast<std::size_t>(last)]);
                } else {
                    kept[static_cast<std::size_t>(count++)] = last;
                }
            }
            last = i;
        }
        if (last >= 0) {
            kept[static_cast<std::size_t>(count++)] = last;
        }
        return count;
    }
};

template <typename R>
TridiagonalSolver<R>::TridiagonalSolver(std::int64_t n, bool vectors) : work_(std::make_unique<Work>(n, vectors)) {}

template <typename R>
TridiagonalSolver<R>::~TridiagonalSolver() = default;

template <typename R>
bool TridiagonalSolver<R>::solve(double* diagonal, double* beside, R* vectors) {
    Work& work = *work_;
    const std::int64_t n = work.n;
    if (vectors == nullptr) {
        const bool converged = solve_by_rotations<R>(n, diagonal, beside, nullptr, 0, 0);
        std::sort(diagonal, diagonal + n);
        return converged;
    }
    work.vectors.resize(static_cast<std::size_t>(n * n));
    work.rows = work.vectors.data();
    work.values = diagonal;
    work.beside = beside;
    if (!work.divide(0, n)) {
        return false;
    }
    std::vector<double> values(static_cast<std::size_t>(n));
    for (std::int64_t i = 0; i < n; ++i) {
        const std::int64_t from = work.order[static_cast<std::size_t>(i)];
        values[static_cast<std::size_t>(i)] = diagonal[from];
        std::copy_n(work.row(from), n, vectors + i * n);
    }
    std::copy(values.begin(), values.end(), diagonal);
    return true;
}

template class TridiagonalSolver<float>;
template class TridiagonalSolver<double>;

}  // namespace ornik::device::cpu
