// indexing_rows_test.cpp: gradients of reading and writing at places.
#include "ktensor/indexing.h"
#include "rows.h"

namespace ornik::gradcheck {

std::vector<Row> index_rows() {
    std::vector<Row> rows;
    const auto add_row = [&](Op op, std::vector<Dims> shapes, Function function, const char* note = "") {
        rows.push_back({op, std::move(shapes), std::move(function), true, -1.5, 1.5, note});
    };
    const KTensor repeated({1, 0, -2});
    const KTensor column({{1}, {0}});
    const KTensor mask({{true, false, true}, {false, true, true}});
    const std::vector<std::pair<const char*, std::vector<Index>>> selections{
        {"slices", {Slice({}, {}, -2), ellipsis, newaxis, Slice(1)}},
        {"position", {-1}},
        {"nothing", {Slice(), Slice(2, 2)}},
        {"repeated", {Slice(), repeated}},
        {"block in place", {column, repeated}},
        {"block in front", {1, newaxis, repeated, ellipsis}},
        {"kept apart", {Slice(), column, ellipsis, repeated}},
        {"rows", {KTensor({false, true})}},
        {"part of a mask", {mask, Slice(0, 1)}},
        {"all of a new axis", {true, ellipsis, 0}},
    };
    for (const auto& [note, items] : selections) {
        const std::vector<Index> chosen = items;
        const KTensor like = KTensor::zeros({2, 3, 2}).index(chosen);
        add_row(
            Op::index, {{2, 3, 2}}, [chosen](const Tensors& x) { return x[0].index(chosen); }, note);
        for (const bool accumulate : {false, true}) {
            const auto put = [chosen, accumulate](const Tensors& x) {
                return index_put(x[0], chosen, x[1], accumulate);
            };
            add_row(Op::index_put, {{2, 3, 2}, like.shape()}, put, note);
            if (like.size() != 0) {
                add_row(Op::index_put, {{2, 3, 2}, {1, 1, 1, 1, 1}}, put, note);
            }
        }
    }
    add_row(Op::masked_select, {{2, 3}}, [mask](const Tensors& x) { return x[0][mask]; });
    add_row(
        Op::masked_select, {{2, 1}}, [mask](const Tensors& x) { return masked_select(x[0], mask); }, "broadcast");
    add_row(Op::index_select, {{2, 3}}, [=](const Tensors& x) { return index_select(x[0], -1, repeated); });
    add_row(Op::index_add, {{3, 2}, {3, 2}}, [=](const Tensors& x) { return index_add(x[0], 0, repeated, x[1]); });
    add_row(Op::take, {{2, 3}}, [](const Tensors& x) { return take(x[0], KTensor({{5, 0}, {-1, 0}})); });
    const KTensor places({{2, 0}, {2, 1}});
    add_row(Op::gather, {{3, 2}}, [=](const Tensors& x) { return gather(x[0], 0, places); });
    add_row(
        Op::gather, {{1, 3}}, [=](const Tensors& x) { return take_along_axis(x[0], places); }, "broadcast");
    add_row(Op::scatter, {{3, 2}, {2, 2}}, [=](const Tensors& x) { return scatter(x[0], 0, places, x[1]); });
    add_row(Op::scatter_add, {{3, 2}, {2, 2}}, [=](const Tensors& x) { return scatter_add(x[0], 0, places, x[1]); });
    add_row(Op::diagonal, {{2, 3, 4}}, [](const Tensors& x) { return diagonal(x[0], 1, 0, -1); });
    add_row(Op::diagonal_scatter, {{4, 3, 2}, {3, 2}},
            [](const Tensors& x) { return diagonal_scatter(x[0], x[1], -1, 0, 2); });
    add_row(Op::diag_embed, {{2, 3}}, [](const Tensors& x) { return diag_embed(x[0], -1, 0, 2); });
    add_row(
        Op::diag_embed, {{3}}, [](const Tensors& x) { return diag(x[0], 1); }, "diag");
    add_row(
        Op::diagonal, {{3, 4}}, [](const Tensors& x) { return diag(x[0], 1); }, "diag");
    add_row(Op::tril, {{2, 3, 4}}, [](const Tensors& x) { return tril(x[0], 1); });
    add_row(Op::triu, {{3, 4}}, [](const Tensors& x) { return triu(x[0], -1); });
    return rows;
}

TEST(Gradients, Indexing) { std::ranges::for_each(index_rows(), check); }

}  // namespace ornik::gradcheck
