// Random sequences of views and copies against a model that keeps, for every element, the cell it lives in.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <stdexcept>

#include "support/tensors.h"
#include "tensor/tensor_shape.h"

namespace ornik::test {
namespace {

using Cells = std::vector<std::int64_t>;

struct State {
    TensorPtr t;
    Dims shape;
    std::vector<std::size_t> cell;  // of each element, in row-major order
    std::shared_ptr<Cells> cells;

    std::vector<std::int64_t> values() const {
        std::vector<std::int64_t> result;
        for (const std::size_t at : cell) {
            result.push_back((*cells)[at]);
        }
        return result;
    }
};

class Walk {
  public:
    explicit Walk(unsigned seed) : engine_(seed) {}

    void run(int steps) {
        State state = start();
        for (int i = 0; i < steps; ++i) {
            State next = step(state);
            check(next);
            if (testing::Test::HasFailure()) {
                return;
            }
            write(next);
            check(next);
            check(state);  // Sees the write when the two share cells, and only then.
            state = next.cell.empty() || next.cell.size() > 3000 || next.shape.size() > 7 ? start() : std::move(next);
        }
    }

  private:
    int below(int n) { return static_cast<int>(engine_() % static_cast<unsigned>(n)); }

    State start() {
        trace_.clear();
        State state;
        for (int i = below(4); i >= 0; --i) {
            state.shape.push_back(1 + below(4));
        }
        state.cells = std::make_shared<Cells>(counted<std::int64_t>(numel_of(state.shape)));
        state.t = make(state.shape, *state.cells, all_layouts[below(5)]);
        state.cell.resize(state.cells->size());
        std::iota(state.cell.begin(), state.cell.end(), 0U);
        return state;
    }

    void check(const State& state) {
        ASSERT_EQ(state.t->Shape(), state.shape) << trace_;
        ASSERT_EQ(values_of<std::int64_t>(state.t), state.values()) << trace_;
        ASSERT_EQ(state.t->Size(), numel_of(state.shape)) << trace_;
    }

    void write(State& state) {
        const auto i = static_cast<std::size_t>(below(static_cast<int>(state.cell.size())));
        (*state.cells)[state.cell[i]] = ++written_;
        std::size_t k = 0;
        auto* data = static_cast<std::int64_t*>(state.t->getRawData());
        for_each_offset(state.t->Shape(), state.t->Strides(), [&](std::int64_t offset) {
            if (k++ == i) {
                data[offset] = written_;
            }
        });
    }

    static Dims row_major(const Dims& shape) {
        Dims strides(shape.size(), 1);
        for (std::size_t d = shape.size(); d-- > 1;) {
            strides[d - 1] = strides[d] * shape[d];
        }
        return strides;
    }

    // Element i of the result is element places[i] of `from`. The storage says whether cells are shared.
    static State mapped(const State& from, Tensor* result, const Dims& shape, const std::vector<std::size_t>& places) {
        State next{TensorPtr(result), shape, {}, from.cells};
        for (const std::size_t place : places) {
            next.cell.push_back(from.cell[place]);
        }
        if (result->getStorage() != from.t->getStorage()) {
            next.cells = std::make_shared<Cells>(next.values());
            std::iota(next.cell.begin(), next.cell.end(), 0U);
        }
        return next;
    }

    // The same with places that lie the strides apart.
    static State strided(const State& from, Tensor* result, const Dims& shape, const Dims& strides,
                         std::int64_t first = 0) {
        std::vector<std::size_t> places;
        for_each_offset(shape, strides,
                        [&](std::int64_t at) { places.push_back(static_cast<std::size_t>(first + at)); });
        return mapped(from, result, shape, places);
    }

    Dims random_shape_of(std::int64_t numel) {
        Dims shape{1};
        for (const std::int64_t prime : {2, 2, 2, 2, 2, 2, 3, 3, 3, 5, 7}) {
            if (numel % prime == 0) {
                numel /= prime;
                if (below(2) == 0) {
                    shape.push_back(1);
                }
                shape[static_cast<std::size_t>(below(static_cast<int>(shape.size())))] *= prime;
            }
        }
        shape.back() *= numel;
        return shape;
    }

    State step(const State& state) {
        const int rank = static_cast<int>(state.shape.size());
        const Tensor* t = state.t.get();
        Dims shape = state.shape, strides = row_major(shape);
        switch (below(8)) {
            case 0:
            case 1: {
                shape = random_shape_of(t->Size());
                trace_ += "reshape" + shape_text(shape);
                TensorPtr result(t->reshape(shape));
                try {
                    TensorPtr viewed(t->view(shape));
                    EXPECT_EQ(result->getStorage(), t->getStorage());
                    result = std::move(viewed);
                } catch (const std::runtime_error&) {
                    EXPECT_NE(result->getStorage(), t->getStorage());
                }
                return strided(state, result.release(), shape, row_major(shape));
            }
            case 2: {
                std::vector<int> order(shape.size());
                std::iota(order.begin(), order.end(), 0);
                std::shuffle(order.begin(), order.end(), engine_);
                for (std::size_t d = 0; d < order.size(); ++d) {
                    shape[d] = state.shape[static_cast<std::size_t>(order[d])];
                    strides[d] = row_major(state.shape)[static_cast<std::size_t>(order[d])];
                }
                trace_ += "permute" + shape_text(shape);
                return strided(state, t->permute(order), shape, strides);
            }
            case 3:
                std::erase(shape, 1);
                trace_ += "squeeze ";
                return strided(state, t->squeeze(), shape, row_major(shape));
            case 4: {
                const int axis = below(rank + 1);
                shape.insert(shape.begin() + axis, 1);
                trace_ += "unsqueeze " + std::to_string(axis) + " ";
                return strided(state, t->unsqueeze(axis), shape, row_major(shape));
            }
            case 5:
                for (std::size_t d = 0; d < shape.size(); ++d) {
                    strides[d] = shape[d] == 1 ? 0 : strides[d];
                    shape[d] = shape[d] == 1 ? 1 + below(3) : shape[d];
                }
                shape.insert(shape.begin(), 1 + below(2));
                strides.insert(strides.begin(), 0);
                trace_ += "broadcast" + shape_text(shape);
                return strided(state, Tensor::broadcast_to(t, shape), shape, strides);
            case 6: {
                std::vector<int> axes;
                std::int64_t first = 0;
                for (int d = 0; d < rank; ++d) {
                    if (below(2) == 0) {
                        std::int64_t& stride = strides[static_cast<std::size_t>(d)];
                        axes.push_back(below(2) == 0 ? d : d - rank);
                        first += stride * (shape[static_cast<std::size_t>(d)] - 1);
                        stride = -stride;
                    }
                }
                trace_ += "flip ";
                return strided(state, t->flip(axes), shape, strides, first);
            }
            default:
                return select(state);
        }
    }

    State select(const State& state) {
        std::vector<std::string> items;
        std::vector<Dims> lists;
        Dims shape;
        bool viewable = true;
        for (const std::int64_t extent : state.shape) {
            const int n = static_cast<int>(extent);
            const int a = below(n);
            Dims list{a};
            std::string item = std::to_string(below(2) == 0 ? a : a - n);
            bool kept = true;
            switch (below(4)) {
                case 0:
                    kept = false;
                    break;
                case 1: {
                    const int b = below(n);
                    list.push_back(b);
                    item += "," + std::to_string(b);
                    viewable = false;
                    break;
                }
                case 2: {
                    const int step = 1 + below(2);
                    for (int i = a + step; i < n; i += step) {
                        list.push_back(i);
                    }
                    item += ":" + std::to_string(n) + ":" + std::to_string(step);
                    break;
                }
                default:
                    list.resize(static_cast<std::size_t>(n));
                    std::iota(list.begin(), list.end(), 0);
                    item = ":";
            }
            items.push_back(item);
            lists.push_back(list);
            if (kept) {
                shape.push_back(static_cast<std::int64_t>(list.size()));
            }
            trace_ += "[" + item + "]";
        }
        Tensor* result =
            viewable && below(2) == 0 ? state.t->select_ndim_without_copy(items) : state.t->select_ndim(items);
        return mapped(state, result, shape, flat_positions(lists, state.shape));
    }

    std::mt19937 engine_;
    std::int64_t written_ = 1'000'000;
    std::string trace_;
};

TEST(RandomWalk, ViewsAndCopiesAgreeWithIndexLists) {
    for (unsigned seed = 1; seed <= 40 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Walk(seed).run(150);
    }
}

}  // namespace
}  // namespace ornik::test
