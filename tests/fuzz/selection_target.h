// selection_target.h: one run of the selecting operations on arbitrary bytes. The first byte picks a shape, the rest
// are the items, one per line. Shared by the fuzzer and by its bounded run as a test.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/tensors.h"
#include "utils/selection.h"

namespace ornik::test {

/// The tensor that `make` returns, or null when it refuses its input.
inline std::unique_ptr<Tensor> accepted(const std::function<Tensor*()>& make) {
    try {
        return std::unique_ptr<Tensor>(make());
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {
    }
    return nullptr;
}

inline void demand(bool holds) {
    if (!holds) {
        std::abort();
    }
}

inline bool same_bytes(const Tensor* a, const Tensor* b) {
    return a->Shape() == b->Shape() && bytes_of(a) == bytes_of(b);
}

inline void exercise_selection(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return;
    }
    static const std::vector<Dims> shapes{{4, 5, 6}, {}, {1}, {7}, {3, 1, 2, 2}, {40, 3}};
    const Dims& shape = shapes[data[0] % shapes.size()];
    std::vector<std::string> items;
    if (size > 1) {
        items.emplace_back();
        for (std::size_t i = 1; i < size; ++i) {
            if (data[i] == '\n') {
                items.emplace_back();
            } else {
                items.back().push_back(static_cast<char>(data[i]));
            }
        }
    }
    const std::unique_ptr<Tensor> row(Tensor::arange(1, 1 + 120, 1, 0, dtype::int32));
    const std::unique_ptr<Tensor> t(row->select_ndim({":" + std::to_string(numel_of(shape))}));
    t->reshape_(shape);

    const std::unique_ptr<Tensor> legacy = accepted([&] { return t->select(items); });
    if (legacy) {
        demand(parse_indices(items, shape).size() == shape.size());
        t->set_select_legacy(legacy.get(), items);
    }
    const std::unique_ptr<Tensor> selected = accepted([&] { return t->select_ndim(items); });
    const std::unique_ptr<Tensor> view = accepted([&] { return t->select_ndim_without_copy(items); });
    if (!selected) {
        demand(!view);
        return;
    }
    demand(!view || same_bytes(view.get(), selected.get()));
    demand(just_keep_dims(items, shape).size() == shape.size());
    const std::unique_ptr<Tensor> gradient(t->select_ndim_grad(selected.get(), items));
    demand(gradient->Shape() == shape);
    // Writing back what was read changes nothing.
    const std::unique_ptr<Tensor> before(t->clone());
    t->set_select_ndim(selected.get(), items);
    demand(same_bytes(before.get(), t.get()));
    t->set_select_ndim_grad(selected.get(), items);
}

}  // namespace ornik::test
