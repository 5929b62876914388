#include "tensor/overlap.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "tensor/geometry.h"

namespace ornik {

namespace {

struct Term {
    std::int64_t step;   // bytes, positive
    std::int64_t count;  // largest index
};

// Bytes from the lowest element of a tensor to its element 0, and its axes as positive terms.
std::int64_t add_terms(const Tensor* t, std::vector<Term>& terms) {
    std::int64_t below = 0;
    for (std::size_t i = 0; i < t->Shape().size(); ++i) {
        const std::int64_t count = t->Shape()[i] - 1;
        const std::int64_t step = count > 0 ? t->Strides()[i] * t->itemsize() : 0;
        if (step != 0) {
            terms.push_back({std::abs(step), count});
            below += step < 0 ? -step * count : 0;
        }
    }
    return below;
}

// Is there a sum of terms[first ..] with indices in range, within [low, high]? Terms fall in size, so
// that few indices of each are worth trying; `reach` and `gcd` are those of the terms from `first` on.
class SumSearch {
  public:
    explicit SumSearch(std::vector<Term> terms) : terms_(std::move(terms)) {
        std::sort(terms_.begin(), terms_.end(), [](const Term& a, const Term& b) { return a.step > b.step; });
        reach_.assign(terms_.size() + 1, 0);
        gcd_.assign(terms_.size() + 1, 0);
        for (std::size_t i = terms_.size(); i-- > 0;) {
            reach_[i] = reach_[i + 1] + terms_[i].step * terms_[i].count;
            gcd_[i] = std::gcd(gcd_[i + 1], terms_[i].step);
        }
    }

    bool find(std::int64_t low, std::int64_t high, std::size_t first = 0) {
        low = std::max<std::int64_t>(low, 0);
        high = std::min(high, reach_[first]);
        if (low > high) {
            return false;
        }
        if (first == terms_.size() || --budget_ < 0) {
            return true;
        }
        const std::int64_t gcd = gcd_[first];
        if (high / gcd < (low + gcd - 1) / gcd) {
            return false;  // No multiple of the greatest common divisor in between.
        }
        const Term& term = terms_[first];
        const std::int64_t rest = reach_[first + 1];
        const std::int64_t begin = low > rest ? (low - rest + term.step - 1) / term.step : 0;
        const std::int64_t end = std::min(term.count, high / term.step);
        for (std::int64_t index = begin; index <= end; ++index) {
            if (find(low - index * term.step, high - index * term.step, first + 1)) {
                return true;
            }
        }
        return false;
    }

  private:
    std::vector<Term> terms_;
    std::vector<std::int64_t> reach_;
    std::vector<std::int64_t> gcd_;
    int budget_ = 100000;
};

bool same_view(const Tensor* a, const Tensor* b) {
    if (a->getRawData() != b->getRawData() || a->Dtype() != b->Dtype() || a->Size() != b->Size()) {
        return false;
    }
    return (a->Shape() == b->Shape() && a->Strides() == b->Strides()) || (a->is_contiguous() && b->is_contiguous());
}

// Every address from the first to the last element of one lies before those of the other.
bool lies_before(const Tensor* a, const Tensor* b) {
    const std::optional<Span> of_a = element_span(a->Shape(), a->Strides());
    const std::optional<Span> of_b = element_span(b->Shape(), b->Strides());
    return of_a && of_b &&
           a->get_data_intptr() + (of_a->highest + 1) * a->itemsize() <=
               b->get_data_intptr() + of_b->lowest * b->itemsize();
}

}  // namespace

Overlap memory_overlap(const Tensor* a, const Tensor* b) {
    if (a->borrow_storage() == nullptr || b->borrow_storage() == nullptr || a->Size() < 1 || b->Size() < 1) {
        return Overlap::none;
    }
    if (same_view(a, b)) {
        return Overlap::same;
    }
    if (lies_before(a, b) || lies_before(b, a)) {
        return Overlap::none;
    }
    std::vector<Term> terms;
    const std::int64_t below_a = add_terms(a, terms);
    const std::int64_t reach_a =
        std::accumulate(terms.begin(), terms.end(), std::int64_t{0},
                        [](std::int64_t sum, const Term& term) { return sum + term.step * term.count; });
    const std::int64_t below_b = add_terms(b, terms);
    // With x the sum of a's terms and y that of b's: element addresses low_a + x and low_b + y share a byte
    // when -size_b < low_b + y - low_a - x < size_a. Counting a's indices from the other end turns -x into
    // x' - reach_a, so that every term adds.
    const std::int64_t distance = (b->get_data_intptr() - below_b) - (a->get_data_intptr() - below_a);
    const std::int64_t target = reach_a - distance;
    const bool shares = SumSearch(std::move(terms)).find(target - b->itemsize() + 1, target + a->itemsize() - 1);
    return shares ? Overlap::partial : Overlap::none;
}

}  // namespace ornik
