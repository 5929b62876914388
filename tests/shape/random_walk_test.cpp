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

    // Element i of the result is element source(index) of `from`. The storage says whether cells are shared.
    template <typename Source>
    State mapped(const State& from, Tensor* result, const Dims& shape, const Source& source) {
        State next;
        next.t.reset(result);
        next.shape = shape;
        Dims index(shape.size(), 0);
        for (std::int64_t i = 0, n = numel_of(shape); i < n; ++i) {
            next.cell.push_back(from.cell[static_cast<std::size_t>(flat(source(index), from.shape))]);
            for (std::size_t d = shape.size(); d-- > 0 && ++index[d] == shape[d];) {
                index[d] = 0;
            }
        }
        next.cells = from.cells;
        if (result->getStorage() != from.t->getStorage()) {
            next.cells = std::make_shared<Cells>(next.values());
            std::iota(next.cell.begin(), next.cell.end(), 0U);
        }
        return next;
    }

    static std::int64_t flat(const Dims& index, const Dims& shape) {
        std::int64_t result = 0;
        for (std::size_t d = 0; d < shape.size(); ++d) {
            result = result * shape[d] + index[d];
        }
        return result;
    }

    static Dims unflat(std::int64_t position, const Dims& shape) {
        Dims index(shape.size());
        for (std::size_t d = shape.size(); d-- > 0;) {
            index[d] = position % shape[d];
            position /= shape[d];
        }
        return index;
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
        switch (below(8)) {
            case 0:
            case 1: {
                Dims shape = random_shape_of(t->Size());
                trace_ += "reshape" + shape_text(shape);
                const auto same = [&](const Dims& index) { return unflat(flat(index, shape), state.shape); };
                TensorPtr result(t->reshape(shape));
                try {
                    TensorPtr viewed(t->view(shape));
                    EXPECT_EQ(result->getStorage(), t->getStorage());
                    result = std::move(viewed);
                } catch (const std::runtime_error&) {
                    EXPECT_NE(result->getStorage(), t->getStorage());
                }
                return mapped(state, result.release(), shape, same);
            }
            case 2: {
                std::vector<int> order(static_cast<std::size_t>(rank));
                std::iota(order.begin(), order.end(), 0);
                std::shuffle(order.begin(), order.end(), engine_);
                Dims shape;
                for (const int axis : order) {
                    shape.push_back(state.shape[static_cast<std::size_t>(axis)]);
                }
                trace_ += "permute" + shape_text(shape);
                return mapped(state, t->permute(order), shape, [&](const Dims& index) {
                    Dims source(index.size());
                    for (std::size_t d = 0; d < order.size(); ++d) {
                        source[static_cast<std::size_t>(order[d])] = index[d];
                    }
                    return source;
                });
            }
            case 3: {
                Dims shape;
                std::copy_if(state.shape.begin(), state.shape.end(), std::back_inserter(shape),
                             [](std::int64_t extent) { return extent != 1; });
                trace_ += "squeeze ";
                return mapped(state, t->squeeze(), shape,
                              [&](const Dims& index) { return unflat(flat(index, shape), state.shape); });
            }
            case 4: {
                const int axis = below(rank + 1);
                Dims shape = state.shape;
                shape.insert(shape.begin() + axis, 1);
                trace_ += "unsqueeze " + std::to_string(axis) + " ";
                return mapped(state, t->unsqueeze(axis), shape,
                              [&](const Dims& index) { return unflat(flat(index, shape), state.shape); });
            }
            case 5: {
                Dims shape = state.shape;
                for (std::int64_t& extent : shape) {
                    extent = extent == 1 ? 1 + below(3) : extent;
                }
                shape.insert(shape.begin(), 1 + below(2));
                trace_ += "broadcast" + shape_text(shape);
                return mapped(state, Tensor::broadcast_to(t, shape), shape, [&](Dims index) {
                    index.erase(index.begin());
                    for (std::size_t d = 0; d < index.size(); ++d) {
                        index[d] = state.shape[d] == 1 ? 0 : index[d];
                    }
                    return index;
                });
            }
            case 6: {
                std::vector<int> dims;
                for (int d = 0; d < rank; ++d) {
                    if (below(2) == 0) {
                        dims.push_back(below(2) == 0 ? d : d - rank);
                    }
                }
                trace_ += "flip ";
                return mapped(state, t->flip(dims), state.shape, [&](Dims index) {
                    for (const int dim : dims) {
                        const auto d = static_cast<std::size_t>(dim < 0 ? dim + rank : dim);
                        index[d] = state.shape[d] - 1 - index[d];
                    }
                    return index;
                });
            }
            default:
                return select(state);
        }
    }

    State select(const State& state) {
        std::vector<std::string> items;
        std::vector<Dims> lists;
        Dims shape;
        std::vector<bool> kept;
        bool viewable = true;
        for (const std::int64_t extent : state.shape) {
            const int n = static_cast<int>(extent);
            const int a = below(n);
            Dims list{a};
            std::string item = std::to_string(below(2) == 0 ? a : a - n);
            kept.push_back(true);
            switch (below(4)) {
                case 0:
                    kept.back() = false;
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
            if (kept.back()) {
                shape.push_back(static_cast<std::int64_t>(list.size()));
            }
            trace_ += "[" + item + "]";
        }
        Tensor* result =
            viewable && below(2) == 0 ? state.t->select_ndim_without_copy(items) : state.t->select_ndim(items);
        return mapped(state, result, shape, [&](const Dims& index) {
            Dims source;
            for (std::size_t d = 0, i = 0; d < lists.size(); ++d) {
                source.push_back(lists[d][kept[d] ? static_cast<std::size_t>(index[i++]) : 0]);
            }
            return source;
        });
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
