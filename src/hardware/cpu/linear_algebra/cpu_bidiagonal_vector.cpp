// cpu_bidiagonal_vector.cpp: without one of its rows, B falls apart into two matrices of one more column than rows;
// their vectors make the rest an equation in one unknown (M. Gu, S. Eisenstat, A divide-and-conquer algorithm for the
// bidiagonal SVD, 1995). Small matrices, and values alone, by rotations (J. Demmel, W. Kahan, Accurate singular values
// of bidiagonal matrices, 1990).
#include <algorithm>
#include <numeric>

#include "bidiagonal.h"
#include "merged_vectors.h"
#include "rotations.h"
#include "secular_equation.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t undivided = 32;
constexpr double epsilon = std::numeric_limits<double>::epsilon();

// Rows that are rotated along, or none.
struct Rows {
    double* data;
    std::int64_t step;
    std::int64_t length;

    void rotate(const Rotation& by, std::int64_t i) const {
        if (data != nullptr) {
            rotate_rows(by.c, by.s, length, data + i * step, data + (i + 1) * step);
        }
    }
};

// The smaller singular value of the triangle f, g above h.
double smaller_value(double f, double g, double h) {
    const double low = std::min(std::fabs(f), std::fabs(h));
    const double high = std::max(std::fabs(f), std::fabs(h));
    const double beside = std::fabs(g);
    if (low == 0) {
        return 0;
    }
    const double sum = 1 + low / high;
    const double difference = (high - low) / high;
    if (beside < high) {
        const double part = beside / high;
        const double square = part * part;
        return low * (2 / (std::sqrt(sum * sum + square) + std::sqrt(difference * difference + square)));
    }
    const double part = high / beside;
    const double p = sum * part;
    const double q = difference * part;
    return 2 * (low * (1 / (std::sqrt(1 + p * p) + std::sqrt(1 + q * q)))) * part;
}

// One sweep from the first row to the last.
void sweep(double shift, std::int64_t first, std::int64_t last, double* d, double* e, const Rows& left,
           const Rows& right) {
    double f = (std::fabs(d[first]) - shift) * (std::copysign(1.0, d[first]) + shift / d[first]);
    double g = e[first];
    for (std::int64_t i = first; i < last; ++i) {
        const Rotation columns(f, g);
        if (i > first) {
            e[i - 1] = columns.length;
        }
        const double c = columns.c;
        const double s = columns.s;
        const double on_diagonal = c * d[i] + s * e[i];
        e[i] = c * e[i] - s * d[i];
        const Rotation rows(on_diagonal, s * d[i + 1]);
        d[i + 1] = c * d[i + 1];
        d[i] = rows.length;
        f = rows.c * e[i] + rows.s * d[i + 1];
        d[i + 1] = rows.c * d[i + 1] - rows.s * e[i];
        if (i + 1 < last) {
            g = rows.s * e[i + 1];
            e[i + 1] = rows.c * e[i + 1];
        }
        right.rotate(columns, i);
        left.rotate(rows, i);
    }
    e[last - 1] = f;
}

// The same without a shift, which keeps small values accurate.
void sweep_without_shift(std::int64_t first, std::int64_t last, double* d, double* e, const Rows& left,
                         const Rows& right) {
    double c = 1;
    Rotation rows(1, 0);
    for (std::int64_t i = first; i < last; ++i) {
        const Rotation columns(d[i] * c, e[i]);
        c = columns.c;
        if (i > first) {
            e[i - 1] = rows.s * columns.length;
        }
        rows = Rotation(rows.c * columns.length, d[i + 1] * columns.s);
        d[i] = rows.length;
        right.rotate(columns, i);
        left.rotate(rows, i);
    }
    const double end = d[last] * c;
    d[last] = end * rows.c;
    e[last - 1] = end * rows.s;
}

// The singular values by rotations, in no order.
bool solve_by_rotations(std::int64_t n, double* d, double* e, const Rows& left, const Rows& right) {
    const double nothing = 0x1p-6 * epsilon * std::max(largest_part(d, n), largest_part(e, n - 1));
    std::int64_t end = n - 1;
    for (std::int64_t round = 0; end > 0; ++round) {
        if (round == 40 * n) {
            return false;
        }
        while (end > 0 && std::fabs(e[end - 1]) <= epsilon * (std::fabs(d[end - 1]) + std::fabs(d[end])) + nothing) {
            e[--end] = 0;
        }
        if (end == 0) {
            break;
        }
        std::int64_t first = end - 1;
        bool has_zero = std::fabs(d[end]) <= nothing;
        for (;; --first) {
            has_zero = has_zero || std::fabs(d[first]) <= nothing;
            if (first == 0 ||
                std::fabs(e[first - 1]) <= epsilon * (std::fabs(d[first - 1]) + std::fabs(d[first])) + nothing) {
                break;
            }
        }
        if (first > 0) {
            e[first - 1] = 0;
        }
        double shift = 0;
        if (has_zero) {
            for (std::int64_t i = first; i <= end; ++i) {
                d[i] = std::fabs(d[i]) <= nothing ? 0 : d[i];
            }
        } else {
            shift = smaller_value(d[end - 1], e[end - 1], d[end]);
            const double share = shift / std::fabs(d[first]);
            shift = share * share < epsilon ? 0 : shift;
        }
        if (shift == 0) {
            sweep_without_shift(first, end, d, e, left, right);
        } else {
            sweep(shift, first, end, d, e, left, right);
        }
    }
    for (std::int64_t i = 0; i < n; ++i) {
        if (d[i] < 0) {
            d[i] = -d[i];
            if (right.data != nullptr) {
                scale_row(-1.0, right.length, right.data + i * right.step);
            }
        }
    }
    return true;
}

}  // namespace

struct BidiagonalSolver::Work {
    using Order = std::vector<std::int64_t>;

    std::int64_t n;
    // Of the whole matrix: row i of the vectors belongs to values[i]; `order` says how values rise.
    std::vector<double> left;
    std::vector<double> right;
    double* values = nullptr;
    double* beside = nullptr;
    Order order;
    // Of a part that is put together.
    SecularEquation equation;
    MergedVectors<double> merged_left;
    MergedVectors<double> merged_right;
    std::vector<double> poles;
    std::vector<double> z;
    std::vector<double> roots;
    std::vector<double> vector;
    Order sorted;
    Order kept;
    std::vector<Side> side;

    Work(std::int64_t size, bool with_vectors) : Work(size, with_vectors && size > undivided ? size : 0, 0) {}

    // Rows from `begin` on; `extra`: there is one more column, and the last row of `right` is orthogonal to all others.
    bool divide(std::int64_t begin, std::int64_t size, std::int64_t extra) {
        double* u = left.data() + begin * n + begin;
        double* v = right.data() + begin * n + begin;
        double* d = values + begin;
        double* e = beside + begin;
        if (size <= undivided) {
            fill_unit(u, size);
            fill_unit(v, size + extra);
            const Rows us{u, n, size};
            const Rows vs{v, n, size + extra};
            if (extra == 1) {
                drop_last_column(size, d, e, us, vs);
            }
            if (!solve_by_rotations(size, d, e, us, vs)) {
                return false;
            }
        } else {
            const std::int64_t upper = size / 2;
            const double on_diagonal = d[upper];
            const double above = e[upper];
            if (!divide(begin, upper, 1) || !divide(begin + upper + 1, size - upper - 1, extra)) {
                return false;
            }
            put_together(begin, size, upper, extra, on_diagonal, above);
        }
        const auto first = order.begin() + begin;
        std::iota(first, first + size, 0);
        std::sort(first, first + size,
                  [d](std::int64_t i, std::int64_t j) { return d[i] < d[j] || (d[i] == d[j] && i < j); });
        return true;
    }

  private:
    Work(std::int64_t size, std::int64_t divided, int /*delegated*/)
        : n(size),
          order(static_cast<std::size_t>(size)),
          equation(divided),
          merged_left(divided, divided),
          merged_right(divided, divided),
          poles(static_cast<std::size_t>(divided)),
          z(poles.size() + 1),
          roots(poles.size()),
          vector(poles.size() + 1),
          sorted(poles.size()),
          kept(poles.size()),
          side(poles.size()) {}

    void fill_unit(double* block, std::int64_t size) const {
        for (std::int64_t i = 0; i < size; ++i) {
            std::fill_n(block + i * n, size, 0.0);
            block[i * n + i] = 1;
        }
    }

    // By rotations of columns, after which the matrix is lower bidiagonal, and then of rows.
    static void drop_last_column(std::int64_t size, double* d, double* e, const Rows& us, const Rows& vs) {
        const auto pass = [&](const Rows& rows, std::int64_t count) {
            for (std::int64_t i = 0; i < count; ++i) {
                const Rotation turn(d[i], e[i]);
                d[i] = turn.length;
                if (i + 1 < size) {
                    e[i] = turn.s * d[i + 1];
                    d[i + 1] = turn.c * d[i + 1];
                }
                rows.rotate(turn, i);
            }
        };
        pass(vs, size);
        pass(us, size - 1);
    }

    // The part without row `upper` is solved. That row holds `on_diagonal` and `above`.
    void put_together(std::int64_t begin, std::int64_t size, std::int64_t upper, std::int64_t extra, double on_diagonal,
                      double above) {
        double* u = left.data() + begin * n + begin;
        double* v = right.data() + begin * n + begin;
        double* d = values + begin;
        const std::int64_t first = upper + 1;  // columns of the first part
        for (std::int64_t i = 0; i < size + extra; ++i) {
            double* row = v + i * n;
            const bool in_first = i < first;
            z[static_cast<std::size_t>(i)] = in_first ? on_diagonal * row[upper] : above * row[first];
            std::fill(in_first ? row + first : row, in_first ? row + size + extra : row + first, 0.0);
        }
        for (std::int64_t i = 0; i < size; ++i) {
            double* row = u + i * n;
            std::fill(i < upper ? row + upper : row, i < upper ? row + size : row + first, 0.0);
            side[static_cast<std::size_t>(i)] = i < first ? Side::first : Side::last;
        }
        std::fill_n(u + upper * n, size, 0.0);
        u[upper * n + upper] = 1;
        d[upper] = 0;
        if (extra == 1) {
            // Of the two rows that are orthogonal to all others, one remains so.
            const Rotation turn(z[static_cast<std::size_t>(upper)], z[static_cast<std::size_t>(size)]);
            rotate_rows(turn.c, turn.s, size + 1, v + upper * n, v + size * n);
            z[static_cast<std::size_t>(upper)] = turn.length;
            side[static_cast<std::size_t>(upper)] = Side::all;
        }
        const auto parts = order.begin() + begin;
        std::transform(parts + first, parts + size, parts + first, [first](std::int64_t i) { return i + first; });
        std::merge(parts, parts + upper, parts + first, parts + size, sorted.begin(),
                   [d](std::int64_t i, std::int64_t j) { return d[i] < d[j]; });
        const double scale = std::max({largest_part(d, size), std::fabs(on_diagonal), std::fabs(above)});
        if (scale == 0) {
            return;
        }
        const std::int64_t count = keep(u, v, d, 8 * epsilon * scale, size, upper, extra);
        for (std::int64_t k = 0; k < count; ++k) {
            const auto i = static_cast<std::size_t>(kept[static_cast<std::size_t>(k)]);
            poles[static_cast<std::size_t>(k)] = d[i];
            vector[static_cast<std::size_t>(k)] = z[i];
        }
        z.swap(vector);
        equation.solve(SecularEquation::Poles::squared, count, poles.data(), 1, z.data(), roots.data());
        merged_left.choose(kept.data(), count, side.data());
        merged_right.choose(kept.data(), count, side.data());
        for (std::int64_t i = 0; i < count; ++i) {
            const double* gaps = equation.gaps(i);
            for (std::int64_t k = 0; k < count; ++k) {
                vector[static_cast<std::size_t>(k)] = z[static_cast<std::size_t>(k)] / gaps[k];
            }
            merged_right.weigh(i, vector.data());
            for (std::int64_t k = 0; k < count; ++k) {
                vector[static_cast<std::size_t>(k)] *= poles[static_cast<std::size_t>(k)];
            }
            vector[0] = -1;
            merged_left.weigh(i, vector.data());
            d[kept[static_cast<std::size_t>(i)]] = roots[static_cast<std::size_t>(i)];
        }
        merged_left.replace(u, n, first, size);
        merged_right.replace(v, n, first, size + extra);
    }

    // Finds the rows that the equation is about: `upper`, and the others without those that have no part in it, after
    // rotations that free one of two rows of nearly the same value.
    std::int64_t keep(double* u, double* v, double* d, double nothing, std::int64_t size, std::int64_t upper,
                      std::int64_t extra) {
        double& z_zero = z[static_cast<std::size_t>(upper)];
        Side& side_zero = side[static_cast<std::size_t>(upper)];
        std::int64_t count = 0;
        kept[static_cast<std::size_t>(count++)] = upper;
        std::int64_t last = -1;
        for (std::int64_t position = 0; position + 1 < size; ++position) {
            const std::int64_t i = sorted[static_cast<std::size_t>(position)];
            double& z_i = z[static_cast<std::size_t>(i)];
            Side& side_i = side[static_cast<std::size_t>(i)];
            if (std::fabs(z_i) <= nothing) {
                continue;
            }
            if (d[i] <= nothing) {
                const Rotation turn(z_zero, z_i);
                rotate_rows(turn.c, turn.s, size + extra, v + upper * n, v + i * n);
                z_zero = turn.length;
                side_zero = side_i = both_sides(side_zero, side_i);
                continue;
            }
            if (last >= 0 && d[i] - d[last] <= nothing) {
                const double z_last = z[static_cast<std::size_t>(last)];
                const Rotation turn(z_i, -z_last);
                rotate_rows(turn.c, turn.s, size, u + last * n, u + i * n);
                rotate_rows(turn.c, turn.s, size + extra, v + last * n, v + i * n);
                z_i = turn.length;
                side_i = both_sides(side_i, side[static_cast<std::size_t>(last)]);
            } else if (last >= 0) {
                kept[static_cast<std::size_t>(count++)] = last;
            }
            last = i;
        }
        if (last >= 0) {
            kept[static_cast<std::size_t>(count++)] = last;
        }
        if (std::fabs(z_zero) < nothing) {
            z_zero = nothing;
        }
        return count;
    }
};

BidiagonalSolver::BidiagonalSolver(std::int64_t n, bool vectors) : work_(std::make_unique<Work>(n, vectors)) {}

BidiagonalSolver::~BidiagonalSolver() = default;

bool BidiagonalSolver::solve(double* diagonal, double* beside, double* left, double* right) {
    Work& work = *work_;
    const std::int64_t n = work.n;
    if (left == nullptr) {
        if (std::fabs(diagonal[0]) < std::fabs(diagonal[n - 1])) {  // Sweeps like values that fall.
            std::reverse(diagonal, diagonal + n);
            std::reverse(beside, beside + n - 1);
        }
        const bool converged = solve_by_rotations(n, diagonal, beside, {}, {});
        std::sort(diagonal, diagonal + n, std::greater<>());
        return converged;
    }
    work.left.resize(static_cast<std::size_t>(n * n));
    work.right.resize(static_cast<std::size_t>(n * n));
    work.values = diagonal;
    work.beside = beside;
    if (!work.divide(0, n, 0)) {
        return false;
    }
    std::vector<double> values(static_cast<std::size_t>(n));
    for (std::int64_t i = 0; i < n; ++i) {
        const std::int64_t from = work.order[static_cast<std::size_t>(n - 1 - i)];
        values[static_cast<std::size_t>(i)] = diagonal[from];
        std::copy_n(work.left.data() + from * n, n, left + i * n);
        std::copy_n(work.right.data() + from * n, n, right + i * n);
    }
    std::copy(values.begin(), values.end(), diagonal);
    return true;
}

}  // namespace ornik::device::cpu
