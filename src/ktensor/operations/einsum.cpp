// einsum.cpp: sums of products over named axes, and the products that are such sums.
//
// Everything is made of recorded operations, so gradients of any order come by themselves. Operands are contracted from
// left to right: an axis that no later operand and not the result names is summed as soon as it is met, alone or in the
// matrix product of the two operands that have it.
#include <algorithm>
#include <array>
#include <numeric>
#include <string>

#include "ktensor/arithmetic.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/operands.h"
#include "ktensor/products.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/promotion.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

namespace {

// A tensor and the name of each of its axes, all different.
struct Named {
    KTensor x;
    std::string axes;

    int find(char name) const { return static_cast<int>(axes.find(name)); }
    bool has(char name) const { return axes.find(name) != std::string::npos; }
    std::int64_t extent(char name) const { return x.shape()[axes.find(name)]; }
};

bool contains(const std::string& names, char name) { return names.find(name) != std::string::npos; }

// x with its axes in the order of `names`, which are those that it has.
KTensor ordered(const Named& operand, const std::string& names) {
    std::vector<int> order;
    for (const char name : names) {
        order.push_back(operand.find(name));
    }
    return std::is_sorted(order.begin(), order.end()) ? operand.x : permute(operand.x, order);
}

std::int64_t elements_of(const Named& operand, const std::string& names) {
    std::int64_t count = 1;
    for (const char name : names) {
        count *= operand.extent(name);
    }
    return count;
}

// The sum over axes, in x's dtype: of integers it wraps, of bool it is the or.
KTensor summed(const KTensor& x, const std::vector<int>& axes) {
    if (axes.empty()) {
        return x;
    }
    return x.dtype() == dtype::boolean ? any(x, axes) : astype(sum(x, axes), x.dtype());
}

// Without the axes that `kept` does not name.
Named reduced(const Named& operand, const std::string& kept) {
    std::vector<int> axes;
    std::string names;
    for (const char name : operand.axes) {
        if (contains(kept, name)) {
            names += name;
        } else {
            axes.push_back(operand.find(name));
        }
    }
    return {summed(operand.x, axes), names};
}

// The product of two operands of one dtype, summed over the axes of both that `kept` does not name; all axes of one
// operand alone are kept.
Named contract(const Named& a, const Named& b, const std::string& kept) {
    std::string batch;
    std::string inner;
    std::string left;
    std::string right;
    for (const char name : a.axes) {
        (!b.has(name) ? left : contains(kept, name) ? batch : inner) += name;
    }
    std::copy_if(b.axes.begin(), b.axes.end(), std::back_inserter(right), [&](char name) { return !a.has(name); });

    Dims shape;
    for (const char name : batch + left) {
        shape.push_back(a.extent(name));
    }
    for (const char name : right) {
        shape.push_back(b.extent(name));
    }
    const Dims batch_shape(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(batch.size()));
    const auto matrix = [&](const Named& operand, const std::string& rows, const std::string& columns) {
        Dims extents = batch_shape;
        extents.push_back(elements_of(operand, rows));
        extents.push_back(elements_of(operand, columns));
        return reshape(ordered(operand, batch + rows + columns), extents);
    };
    const std::string names = batch + left + right;
    if (!inner.empty() && (batch.empty() || !left.empty() || !right.empty())) {
        return {reshape(ornik::matmul(matrix(a, left, inner), matrix(b, inner, right)), shape), names};
    }
    // Nothing that a matrix product would share: products of elements.
    const auto spread = [](const KTensor& x, std::size_t axis, std::size_t count) {
        Dims extents = x.shape();
        extents.insert(extents.begin() + static_cast<std::ptrdiff_t>(axis), count, 1);
        return reshape(x, extents);
    };
    const KTensor product = spread(ordered(a, batch + left + inner), batch.size() + left.size(), right.size()) *
                            spread(ordered(b, batch + right + inner), batch.size(), left.size());
    std::vector<int> axes(inner.size());
    std::iota(axes.begin(), axes.end(), static_cast<int>(names.size()));
    return {summed(product, axes), names};
}

// ---- The text ----

// Axes of an ellipsis are named by their distance from its last one: characters before the letters, in order.
constexpr char last_of_ellipsis = '<';

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string readable(char name) {
    return is_letter(name) ? std::string("'") + name + "'"
                           : std::to_string(name - last_of_ellipsis - 1) + " of the ellipsis";
}

class Text {
  public:
    Text(const std::string& text, std::size_t operands) : text_(text) {
        const std::size_t arrow = text.find("->");
        std::string inputs = text.substr(0, arrow);
        for (std::size_t comma = inputs.find(','); comma != std::string::npos; comma = inputs.find(',')) {
            terms_.push_back(checked(inputs.substr(0, comma)));
            inputs.erase(0, comma + 1);
        }
        terms_.push_back(checked(inputs));
        has_output_ = arrow != std::string::npos;
        if (has_output_) {
            output_ = checked(text.substr(arrow + 2));
        }
        if (terms_.size() != operands) {
            refuse("it is about ", terms_.size(), " operands, and ", operands, " are given.");
        }
    }

    // A name for every axis of an operand; letters may repeat.
    std::string names_of(std::size_t i, const KTensor& x) {
        const std::string& term = terms_[i];
        const auto rank = static_cast<std::size_t>(x.ndim());
        const bool has_ellipsis = contains(term, '.');
        const std::size_t letters = term.size() - (has_ellipsis ? 1 : 0);
        if (has_ellipsis ? rank < letters : rank != letters) {
            refuse("operand ", i, ", ", describe(x), ", has ", rank, " axes, not ", letters,
                   has_ellipsis ? " and more." : ".");
        }
        std::string names;
        for (const char c : term) {
            if (c != '.') {
                names += c;
                continue;
            }
            for (std::size_t left = rank - letters; left > 0; --left) {
                names += static_cast<char>(last_of_ellipsis - static_cast<int>(left - 1));
            }
            widest_ = std::max(widest_, rank - letters);
        }
        return names;
    }

    // The axes of the result, when the operands' are known.
    std::string output(const std::vector<std::string>& operands) const {
        std::string all;
        for (const std::string& names : operands) {
            all += names;
        }
        std::string ellipsis;
        for (std::size_t left = widest_; left > 0; --left) {
            ellipsis += static_cast<char>(last_of_ellipsis - static_cast<int>(left - 1));
        }
        std::string result;
        if (!has_output_) {
            std::copy_if(all.begin(), all.end(), std::back_inserter(result),
                         [&](char c) { return is_letter(c) && std::count(all.begin(), all.end(), c) == 1; });
            std::sort(result.begin(), result.end());
            return ellipsis + result;
        }
        if (!ellipsis.empty() && !contains(output_, '.')) {
            refuse("the result lacks the ellipsis.");
        }
        for (const char c : output_) {
            if (c == '.') {
                result += ellipsis;
            } else if (!contains(all, c)) {
                refuse("axis ", readable(c), " of the result is in no operand.");
            } else if (contains(result, c)) {
                refuse("axis ", readable(c), " is named twice in the result.");
            } else {
                result += c;
            }
        }
        return result;
    }

    template <typename... Pieces>
    [[noreturn]] void refuse(const Pieces&... pieces) const {
        fail(where("ornik::einsum"), "einsum(): \"", text_, "\": ", pieces...);
    }

  private:
    // A term without spaces, its ellipsis as one dot.
    std::string checked(const std::string& term) const {
        std::string result;
        for (std::size_t i = 0; i < term.size(); ++i) {
            if (term.compare(i, 3, "...") == 0 && !contains(result, '.')) {
                result += '.';
                i += 2;
            } else if (is_letter(term[i])) {
                result += term[i];
            } else if (term[i] != ' ') {
                refuse("'", std::string(1, term[i]), "' does not name an axis here.");
            }
        }
        return result;
    }

    const std::string& text_;
    std::vector<std::string> terms_;
    std::string output_;
    bool has_output_ = false;
    std::size_t widest_ = 0;
};

// How many elements the axes of each name have; where they differ, those of 1 repeat.
class Extents {
  public:
    void add(const Text& text, const std::vector<KTensor>& operands, std::size_t i, const std::string& names) {
        for (std::size_t axis = 0; axis < names.size(); ++axis) {
            Entry& entry = entries_[static_cast<unsigned char>(names[axis])];
            const std::int64_t extent = operands[i].shape()[axis];
            if (entry.extent == 1 || entry.extent == -1) {
                entry = {extent, i};
            } else if (extent != 1 && extent != entry.extent) {
                text.refuse("axis ", readable(names[axis]), " has ", entry.extent, " elements in operand ",
                            entry.operand, ", ", describe(operands[entry.operand]), ", and ", extent, " in operand ", i,
                            ", ", describe(operands[i]), ".");
            }
        }
    }
    std::int64_t operator[](char name) const { return entries_[static_cast<unsigned char>(name)].extent; }

  private:
    struct Entry {
        std::int64_t extent = -1;
        std::size_t operand = 0;
    };
    std::array<Entry, 128> entries_{};
};

// An operand without axes that repeat: diagonals of names that stand twice; an axis of 1 element that is longer in
// other operands is the same for all its positions.
Named plain(const KTensor& x, const std::string& names, const Extents& extents) {
    Named result{x, names};
    for (std::size_t i = result.axes.size(); i-- > 0;) {
        const char name = result.axes[i];
        if (result.x.shape()[i] == 1 && extents[name] != 1) {
            result.x = squeeze(result.x, {static_cast<int>(i)});
            result.axes.erase(i, 1);
        }
    }
    for (std::size_t i = 0; i < result.axes.size();) {
        const char name = result.axes[i];
        const std::size_t other = result.axes.find(name, i + 1);
        if (other == std::string::npos) {
            ++i;
            continue;
        }
        result.x = diagonal(result.x, 0, static_cast<int>(i), static_cast<int>(other));
        result.axes.erase(other, 1);
        result.axes.erase(i, 1);
        result.axes += name;  // Where the diagonal stands.
    }
    return result;
}

}  // namespace

KTensor einsum(const std::string& text, const std::vector<KTensor>& operands) {
    Text parsed(text, operands.size());
    std::vector<std::string> names;
    Extents extents;
    std::int64_t dtype = dtype::boolean;
    for (std::size_t i = 0; i < operands.size(); ++i) {
        autograd::check_defined("einsum", operands[i], i);
        names.push_back(parsed.names_of(i, operands[i]));
        extents.add(parsed, operands, i, names[i]);
        dtype = i == 0 ? operands[0].dtype() : promotion::of_tensors(dtype, operands[i].dtype());
    }
    const std::string output = parsed.output(names);

    std::vector<Named> terms;
    for (std::size_t i = 0; i < operands.size(); ++i) {
        terms.push_back(plain(astype(operands[i], dtype), names[i], extents));
    }
    // What operand i and those after it, and the result, still name.
    std::vector<std::string> later(terms.size() + 1, output);
    for (std::size_t i = terms.size(); i-- > 0;) {
        later[i] = later[i + 1] + terms[i].axes;
    }
    Named result;
    std::string earlier;
    for (std::size_t i = 0; i < terms.size(); ++i) {
        const Named term = reduced(terms[i], earlier + later[i + 1]);
        result = i == 0 ? term : contract(result, term, later[i + 1]);
        earlier = result.axes;
    }
    return ordered(result, output);
}

// ---- Products that have names of their own ----

KTensor tensordot(const KTensor& a, const KTensor& b, const std::vector<int>& axes_of_a,
                  const std::vector<int>& axes_of_b) {
    autograd::check_defined("tensordot", a, 0);
    autograd::check_defined("tensordot", b, 1);
    const std::vector<std::size_t> left = autograd::wrap_axes("tensordot", a, axes_of_a);
    const std::vector<std::size_t> right = autograd::wrap_axes("tensordot", b, axes_of_b);
    bool fits = left.size() == right.size();
    for (std::size_t i = 0; fits && i < left.size(); ++i) {
        fits = a.shape()[left[i]] == b.shape()[right[i]];
    }
    if (!fits) {
        fail(where("ornik::tensordot"), "tensordot(): axes ",
             autograd::list_text(Dims(axes_of_a.begin(), axes_of_a.end())), " of ", describe(a), " do not match axes ",
             autograd::list_text(Dims(axes_of_b.begin(), axes_of_b.end())), " of ", describe(b), ".");
    }
    const std::int64_t dtype = promotion::of_tensors(a.dtype(), b.dtype());
    Named first{astype(a, dtype), std::string(a.shape().size(), ' ')};
    Named second{astype(b, dtype), std::string(b.shape().size(), ' ')};
    std::iota(first.axes.begin(), first.axes.end(), '\1');
    std::iota(second.axes.begin(), second.axes.end(), static_cast<char>(1 + first.axes.size()));
    for (std::size_t i = 0; i < left.size(); ++i) {
        second.axes[right[i]] = first.axes[left[i]];
    }
    return contract(first, second, "").x;
}

KTensor tensordot(const KTensor& a, const KTensor& b, int axes) {
    autograd::check_defined("tensordot", a, 0);
    autograd::check_defined("tensordot", b, 1);
    if (axes < 0 || axes > std::min(a.ndim(), b.ndim())) {
        fail(where("ornik::tensordot"), "tensordot(): ", describe(a), " and ", describe(b), " do not have ", axes,
             " axes each.");
    }
    std::vector<int> last(static_cast<std::size_t>(axes));
    std::vector<int> first(last.size());
    std::iota(last.begin(), last.end(), a.ndim() - axes);
    std::iota(first.begin(), first.end(), 0);
    return tensordot(a, b, last, first);
}

KTensor inner(const KTensor& a, const KTensor& b) {
    autograd::check_defined("inner", a, 0);
    autograd::check_defined("inner", b, 1);
    return a.ndim() == 0 || b.ndim() == 0 ? mul(a, b) : tensordot(a, b, {-1}, {-1});
}

KTensor outer(const KTensor& a, const KTensor& b) {
    autograd::check_defined("outer", a, 0);
    autograd::check_defined("outer", b, 1);
    if (a.ndim() != 1 || b.ndim() != 1) {
        fail(where("ornik::outer"), "outer(): takes tensors of one axis, not ", describe(a), " and ", describe(b), ".");
    }
    return mul(unsqueeze(a, 1), b);
}

KTensor vdot(const KTensor& a, const KTensor& b) {
    autograd::check_defined("vdot", a, 0);
    autograd::check_defined("vdot", b, 1);
    if (a.shape() != b.shape()) {
        fail(where("ornik::vdot"), "vdot(): ", describe(a), " and ", describe(b), " differ in shape.");
    }
    return dot(autograd::conj_of(reshape(a, {-1})), reshape(b, {-1}));
}

KTensor cross(const KTensor& a, const KTensor& b, int axis) {
    autograd::check_defined("cross", a, 0);
    autograd::check_defined("cross", b, 1);
    const std::vector<KTensor> both = broadcast_together({a, b});
    if (both[0].size(static_cast<int>(autograd::wrap_axis("cross", both[0], axis))) != 3) {
        fail(where("ornik::cross"), "cross(): axis ", axis, " of ", describe(a), " and ", describe(b),
             " does not have 3 elements.");
    }
    return roll(both[0], -1, axis) * roll(both[1], -2, axis) - roll(both[0], -2, axis) * roll(both[1], -1, axis);
}

}  // namespace ornik
