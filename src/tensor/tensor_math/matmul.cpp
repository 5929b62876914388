// matmul.cpp: products of batches of matrices with any strides.
//
// Operands are described by extents and steps, without a tensor for each view. What the kernel can not read as it
// lies is copied; what repeats is not. Batch axes that the right operand repeats along become rows of one product,
// and batch axes that a gradient is summed over become inner elements.
#include "tensor/tensor_math/matmul.h"

#include <algorithm>

#include "hardware/cpu/elements/cpu_math.h"
#include "hardware/cpu/product/cpu_product.h"
#include "results.h"
#include "tensor/checks.h"
#include "tensor/overlap.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

namespace {

struct Axis {
    std::int64_t size = 1;
    std::int64_t step = 0;
};

// Do two neighbouring axes lie in memory like one?
bool in_line(const Axis& outer, const Axis& inner) {
    return inner.size <= 1 || outer.size <= 1 || outer.step == inner.step * inner.size;
}
Axis joined(const Axis& outer, const Axis& inner) {
    return {outer.size * inner.size, inner.size == 1 ? outer.step : inner.step};
}

// Matrices in a tensor's memory; batch axes outermost first.
struct Matrices {
    const Tensor* tensor = nullptr;
    std::vector<Axis> batch{};
    Axis rows{};
    Axis cols{};
    bool by_columns = false;  // How the caller sees them in memory, where both would do.

    Matrices transposed() const { return {tensor, batch, cols, rows, !by_columns}; }
    Matrices flagged(int transpose) const {
        const bool is_vector = tensor->Shape().size() == 1;
        return transpose != 0 && !is_vector ? transposed() : *this;
    }

    // The kernel reads rows of neighbouring elements, or columns.
    bool has_dense_rows() const { return is_dense(rows, cols); }
    bool has_dense_cols() const { return is_dense(cols, rows); }
    bool is_readable() const { return has_dense_rows() || has_dense_cols(); }
    bool reads_columns() const { return by_columns ? has_dense_cols() : !has_dense_rows(); }

    // Elements from one stored row, or column, to the next.
    std::int64_t stored_step() const {
        const Axis& outer = reads_columns() ? cols : rows;
        const Axis& inner = reads_columns() ? rows : cols;
        return outer.size <= 1 ? std::max<std::int64_t>(inner.size, 1) : outer.step;
    }

    std::vector<std::int64_t> starts() const {
        std::vector<std::int64_t> result{0};
        for (const Axis& axis : batch) {
            std::vector<std::int64_t> next;
            next.reserve(result.size() * static_cast<std::size_t>(axis.size));
            for (const std::int64_t start : result) {
                for (std::int64_t i = 0; i < axis.size; ++i) {
                    next.push_back(start + i * axis.step);
                }
            }
            result = std::move(next);
        }
        return result;
    }

  private:
    static bool is_dense(const Axis& outer, const Axis& inner) {
        return (inner.size <= 1 || inner.step == 1) &&
               (outer.size <= 1 || outer.step >= std::max<std::int64_t>(inner.size, 1));
    }
};

// The matrices of a tensor that may lack the axis of their rows or of their columns.
Matrices matrices_of(const Tensor* t, bool lacks_rows, bool lacks_cols) {
    Matrices m{t};
    for (std::size_t i = 0; i < t->Shape().size(); ++i) {
        m.batch.push_back({t->Shape()[i], t->Strides()[i]});
    }
    const auto take_last = [&m](Axis& axis) {
        axis = m.batch.back();
        m.batch.pop_back();
    };
    if (!lacks_cols) {
        take_last(m.cols);
    }
    if (!lacks_rows) {
        take_last(m.rows);
    }
    return m;
}

bool is_vector(const Dims& shape) { return shape.size() == 1; }
Matrices left_operand(const Tensor* t) { return matrices_of(t, is_vector(t->Shape()), false); }
Matrices right_operand(const Tensor* t) { return matrices_of(t, false, is_vector(t->Shape())); }

// C = A B, summed over the batch axes that C lacks. C has dense rows or columns and overlaps no operand.
class Product {
  public:
    Product(Matrices a, Matrices b, Matrices c) : a_(std::move(a)), b_(std::move(b)), c_(std::move(c)) {
        const std::size_t rank = std::max({a_.batch.size(), b_.batch.size(), c_.batch.size()});
        for (Matrices* m : {&a_, &b_, &c_}) {
            m->batch.insert(m->batch.begin(), rank - m->batch.size(), Axis{});
        }
        if (!c_.has_dense_rows()) {
            std::swap(a_, b_);
            for (Matrices* m : {&a_, &b_, &c_}) {
                *m = m->transposed();
            }
        }
    }

    void run(void* out, bool accumulate) {
        sum_over_missing_axes();
        for (Matrices* m : {&a_, &b_}) {
            for (std::size_t i = 0; i < c_.batch.size(); ++i) {
                m->batch[i] = m->batch[i].size == 1 ? Axis{c_.batch[i].size, 0} : m->batch[i];
            }
            if (!m->is_readable()) {
                copy_row_major(*m, {&m->rows, &m->cols});
            }
        }
        join_batch_and_rows();
        device::cpu::ProductPlan plan{};
        plan.rows = c_.rows.size;
        plan.cols = c_.cols.size;
        plan.depth = a_.cols.size;
        plan.transpose_a = a_.reads_columns();
        plan.transpose_b = b_.reads_columns();
        plan.accumulate = accumulate;
        plan.batch = 1;
        plan.place_a.row_step = a_.stored_step();
        plan.place_b.row_step = b_.stored_step();
        plan.place_c.row_step = c_.rows.size <= 1 ? std::max<std::int64_t>(c_.cols.size, 1) : c_.rows.step;
        std::vector<std::int64_t> starts[3];
        if (!c_.batch.empty()) {
            const Matrices* operands[] = {&a_, &b_, &c_};
            std::transform(operands, operands + 3, starts, [](const Matrices* m) { return m->starts(); });
            plan.batch = static_cast<std::int64_t>(starts[2].size());
            plan.place_a.starts = starts[0].data();
            plan.place_b.starts = starts[1].data();
            plan.place_c.starts = starts[2].data();
        }
        device::cpu::product(c_.tensor->Dtype(), plan, a_.tensor->getRawData(), b_.tensor->getRawData(), out);
    }

  private:
    // Makes the axes of m's matrices, outermost first, row-major in a copy. Batch axes that repeat still do.
    void copy_row_major(Matrices& m, const std::vector<Axis*>& axes) {
        std::vector<Axis*> all;
        Dims shape;
        Dims strides;
        for (Axis& axis : m.batch) {
            all.push_back(&axis);
            shape.push_back(axis.step == 0 ? std::min<std::int64_t>(axis.size, 1) : axis.size);
        }
        for (Axis* axis : axes) {
            all.push_back(axis);
            shape.push_back(axis->size);
        }
        std::transform(all.begin(), all.end(), std::back_inserter(strides),
                       [](const Axis* axis) { return axis->step; });
        copies_.push_back(row_major_copy(new_view(m.tensor, shape, strides).get()));
        m.tensor = copies_.back().get();
        m.by_columns = false;
        for (std::size_t i = 0; i < all.size(); ++i) {
            all[i]->step = shape[i] == all[i]->size ? m.tensor->Strides()[i] : 0;
        }
    }

    // Sums over the batch are part of the product: such axes become inner elements.
    void sum_over_missing_axes() {
        std::vector<Axis> of_a;
        std::vector<Axis> of_b;
        for (std::size_t i = 0; i < c_.batch.size();) {
            const std::int64_t extent = a_.batch[i].size == 1 ? b_.batch[i].size : a_.batch[i].size;
            if (c_.batch[i].size == extent) {
                ++i;
                continue;
            }
            for (const auto& [m, axes] : {std::pair{&a_, &of_a}, std::pair{&b_, &of_b}}) {
                const Axis axis = m->batch[i];
                axes->push_back(axis.size == 1 ? Axis{extent, 0} : axis);
            }
            for (Matrices* m : {&a_, &b_, &c_}) {
                m->batch.erase(m->batch.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        join_inner(a_, a_.cols, of_a, {&a_.rows}, {});
        join_inner(b_, b_.rows, of_b, {}, {&b_.cols});
    }

    // The inner axis of m takes in `axes`; `before` and `behind` are the matrix axes around them in a copy.
    void join_inner(Matrices& m, Axis& inner, std::vector<Axis>& axes, const std::vector<Axis*>& before,
                    const std::vector<Axis*>& behind) {
        Axis whole = inner;
        bool is_line = true;
        for (std::size_t i = axes.size(); i-- > 0;) {
            is_line = is_line && in_line(axes[i], whole);
            whole = joined(axes[i], whole);
        }
        if (!is_line) {
            std::vector<Axis*> order = before;
            for (Axis& axis : axes) {
                order.push_back(&axis);
            }
            order.push_back(&inner);
            order.insert(order.end(), behind.begin(), behind.end());
            copy_row_major(m, order);
            whole = {whole.size, inner.step};
        }
        inner = whole;
    }

    // What is multiplied by the same matrix is one matrix, if its rows lie in line.
    void join_batch_and_rows() {
        for (; !c_.batch.empty(); a_.batch.pop_back(), b_.batch.pop_back(), c_.batch.pop_back()) {
            const Axis& a = a_.batch.back();
            const Axis& c = c_.batch.back();
            if (c.size == 1) {
                continue;
            }
            Matrices left{a_.tensor, {}, joined(a, a_.rows), a_.cols, a_.by_columns};
            Matrices out{c_.tensor, {}, joined(c, c_.rows), c_.cols};
            if (b_.batch.back().step != 0 || !in_line(a, a_.rows) || !in_line(c, c_.rows) || !left.is_readable() ||
                !out.has_dense_rows()) {
                return;
            }
            a_.rows = left.rows;
            c_.rows = out.rows;
        }
    }

    Matrices a_;
    Matrices b_;
    Matrices c_;
    std::vector<TensorResult> copies_;
};

// The product into `result`, which has the matrices that describe(result) names.
template <typename Describe>
void multiply(const Matrices& a, const Matrices& b, Tensor* result, bool accumulate, const Describe& describe) {
    if (result->Size() == 0) {
        return;
    }
    const Matrices c = describe(result);
    if (c.is_readable() && memory_overlap(a.tensor, result) == Overlap::none &&
        memory_overlap(b.tensor, result) == Overlap::none) {
        Product(a, b, c).run(result->getRawData(), accumulate);
        return;
    }
    const TensorResult aside = accumulate ? row_major_copy(result) : new_result(result->Shape(), result->Dtype());
    Product(a, b, describe(aside.get())).run(aside->getRawData(), accumulate);
    device::cpu::copy(aside.get(), result);
}

TensorResult conjugated(const Tensor* t) {
    TensorResult result = new_result(t->Shape(), t->Dtype());
    device::cpu::conj(t, result.get());
    return result;
}

Dims product_shape(const Where& at, const Dims& a, const Dims& b, int ta, int tb) {
    for (const auto& [shape, name] : {std::pair{&a, "A"}, std::pair{&b, "B"}}) {
        if (shape->empty()) {
            fail(at, "matmul() needs at least one axis, input ", name, " has none");
        }
    }
    const auto flag = [](int transpose, const Dims& shape) { return transpose != 0 && !is_vector(shape) ? 1U : 0U; };
    const std::size_t rank_a = a.size();
    const std::size_t rank_b = b.size();
    const std::int64_t depth_a = a[rank_a - 1 - flag(ta, a)];
    const std::int64_t depth_b = is_vector(b) ? b[0] : b[rank_b - 2 + flag(tb, b)];
    bool fits = depth_a == depth_b;
    const std::size_t batch_a = rank_a - std::min<std::size_t>(rank_a, 2);
    const std::size_t batch_b = rank_b - std::min<std::size_t>(rank_b, 2);
    Dims shape(std::max(batch_a, batch_b));
    for (std::size_t back = 1; back <= shape.size(); ++back) {
        const std::int64_t extent_a = back <= batch_a ? a[batch_a - back] : 1;
        const std::int64_t extent_b = back <= batch_b ? b[batch_b - back] : 1;
        fits = fits && (extent_a == extent_b || extent_a == 1 || extent_b == 1);
        shape[shape.size() - back] = extent_a == 1 ? extent_b : extent_a;
    }
    if (!fits) {
        fail(at, "Incompatible dims for matmul(): input A has a shape of ", a, ", input B has a shape of ", b,
             ", transposed: ", ta != 0 ? 1 : 0, ", ", tb != 0 ? 1 : 0);
    }
    if (!is_vector(a)) {
        shape.push_back(a[rank_a - 2 + flag(ta, a)]);
    }
    if (!is_vector(b)) {
        shape.push_back(b[rank_b - 1 - flag(tb, b)]);
    }
    return shape;
}

void check_one_dtype(const Where& at, const Tensor* a, std::int64_t dtype) {
    if (a->Dtype() != dtype) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
}

void check_shape(const Where& at, const char* name, const Tensor* t, const Dims& shape) {
    if (t->Shape() != shape) {
        fail(at, name, " of matmul() should have a shape of ", shape, ", however it has ", t->Shape());
    }
}

// ---- Gradients: grad and the other operand, checked, and which operand the gradient is for. ----

struct Gradient {
    Where at;
    const Tensor* grad;
    const Tensor* other;
    const Dims& shape;
    bool for_a;
    int ta;
    int tb;

    std::int64_t dtype() const { return promotion::of_tensors(grad->Dtype(), other->Dtype()); }

    void check() const {
        check_cpu(at, grad, other);
        const Dims& a = for_a ? shape : other->Shape();
        const Dims& b = for_a ? other->Shape() : shape;
        check_shape(at, "Gradient", grad, product_shape(at, a, b, ta, tb));
    }

    void into(Tensor* result, bool accumulate) const {
        const Converted gradient(grad, dtype());
        const Converted converted(other, dtype());
        const TensorResult conjugate = other->isComplexType() ? conjugated(converted.get()) : nullptr;
        const Tensor* factor = conjugate ? conjugate.get() : converted.get();
        const bool is_a_vector = is_vector(for_a ? shape : other->Shape());
        const bool is_b_vector = is_vector(for_a ? other->Shape() : shape);
        const Matrices g = matrices_of(gradient.get(), is_a_vector, is_b_vector);
        if (for_a) {
            const Matrices b = right_operand(factor).flagged(tb).transposed();
            multiply(g, b, result, accumulate, [this](const Tensor* t) { return left_operand(t).flagged(ta); });
        } else {
            const Matrices a = left_operand(factor).flagged(ta).transposed();
            multiply(a, g, result, accumulate, [this](const Tensor* t) { return right_operand(t).flagged(tb); });
        }
    }

    Tensor* result() const {
        check();
        TensorResult made = new_result(shape, dtype());
        into(made.get(), false);
        return made.release();
    }

    void add_to(Tensor* target) const {
        check();
        check_one_dtype(at, target, dtype());
        check_not_expanded(at, target);
        announce_write(at, target);
        into(target, true);
    }
};

}  // namespace

Dims matmul_shape(const Dims& a, const Dims& b, int ta, int tb) {
    return product_shape(where("ornik::matmul_shape"), a, b, ta, tb);
}

Tensor* matmul(const Tensor* a, const Tensor* b, int ta, int tb) {
    const Where at = where("ornik::matmul");
    check_cpu(at, a, b);
    const Dims shape = product_shape(at, a->Shape(), b->Shape(), ta, tb);
    const std::int64_t dtype = promotion::of_tensors(a->Dtype(), b->Dtype());
    const Converted left(a, dtype);
    const Converted right(b, dtype);
    TensorResult result = new_result(shape, dtype);
    if (result->Size() > 0) {
        Product(left_operand(left.get()).flagged(ta), right_operand(right.get()).flagged(tb),
                matrices_of(result.get(), is_vector(a->Shape()), is_vector(b->Shape())))
            .run(result->getRawData(), false);
    }
    return result.release();
}

void matmul_into(const Tensor* A, int ta, const Tensor* B, int tb, Tensor* C, bool accumulate) {
    const Where at = where("ornik::matmul_into");
    check_cpu(at, A, B, C);
    check_shape(at, "Output", C, product_shape(at, A->Shape(), B->Shape(), ta, tb));
    check_one_dtype(at, A, C->Dtype());
    check_one_dtype(at, B, C->Dtype());
    check_not_expanded(at, C);
    announce_write(at, C);
    multiply(left_operand(A).flagged(ta), right_operand(B).flagged(tb), C, accumulate,
             [A, B](const Tensor* t) { return matrices_of(t, is_vector(A->Shape()), is_vector(B->Shape())); });
}

Tensor* matmul_grad_a(const Tensor* grad, const Tensor* b, const Dims& a_shape, int ta, int tb) {
    return Gradient{where("ornik::matmul_grad_a"), grad, b, a_shape, true, ta, tb}.result();
}

Tensor* matmul_grad_b(const Tensor* grad, const Tensor* a, const Dims& b_shape, int ta, int tb) {
    return Gradient{where("ornik::matmul_grad_b"), grad, a, b_shape, false, ta, tb}.result();
}

void add_matmul_grad_a(Tensor* into, const Tensor* grad, const Tensor* b, int ta, int tb) {
    const Where at = where("ornik::add_matmul_grad_a");
    check_cpu(at, into);
    Gradient{at, grad, b, into->Shape(), true, ta, tb}.add_to(into);
}

void add_matmul_grad_b(Tensor* into, const Tensor* grad, const Tensor* a, int ta, int tb) {
    const Where at = where("ornik::add_matmul_grad_b");
    check_cpu(at, into);
    Gradient{at, grad, a, into->Shape(), false, ta, tb}.add_to(into);
}

}  // namespace ornik
