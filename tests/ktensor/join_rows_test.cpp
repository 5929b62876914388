// join_rows_test.cpp: gradients of joins, of reading and writing at places, of sums of products, and of what is made of
// other operations.
#include "ktensor/convolutions.h"
#include "ktensor/images.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/networks.h"
#include "ktensor/normalizations.h"
#include "ktensor/products.h"
#include "rows.h"

namespace ornik::gradcheck {

namespace {

Function einsum_of(const std::string& text) {
    return [text](const Tensors& x) { return einsum(text, x); };
}

Function padded(const std::vector<PadWidth>& widths, PadMode mode) {
    return [=](const Tensors& x) { return pad(x[0], widths, mode); };
}

const Packing& packing() {
    static const Packing lengths({1, 3, 2});
    return lengths;
}

}  // namespace

Rows join_rows() {
    Rows rows;
    rows.add(Op::concat, {{2, 3}, {2, 1}}, [](const Tensors& x) { return concat({x[0], x[1], x[0]}, -1); });
    rows.add(Op::stack, {{2, 3}, {2, 3}}, [](const Tensors& x) { return stack({x[0], x[1], x[0]}, 1); });
    rows.add(Op::split, {{2, 5}}, {"one part"}, [](const Tensors& x) { return split(x[0], Dims{1, 3, 1}, 1)[1]; });
    rows.add(Op::concat, {{5, 2}}, {"all parts"}, [](const Tensors& x) {
        std::vector<KTensor> parts = split(x[0], 2);
        std::ranges::reverse(parts);
        return concat(parts);
    });
    rows.add(Op::squeeze, {{2, 3}}, {"unbind"}, [](const Tensors& x) { return unbind(x[0], 1)[2]; });
    rows.add(Op::windows, {{2, 7}}, [](const Tensors& x) { return windows(x[0], 1, 3, 2); });
    rows.add(Op::add_windows, {{3, 2, 3}}, [](const Tensors& x) { return add_windows(x[0], {7, 2}, 0, 3, 2); });
    rows.add(Op::tile, {{2, 3}}, [](const Tensors& x) { return tile(x[0], {2, 1, 3}); });
    rows.add(Op::tile, {{1, 2, 3}}, {"last axis"}, [](const Tensors& x) { return tile(x[0], {2}); });
    rows.add(Op::reshape, {{2, 3}}, {"interleave"}, [](const Tensors& x) { return repeat_interleave(x[0], 2, 0); });
    const KTensor counts({2, 0, 3});
    rows.add(Op::repeat_by_counts, {{2, 3}}, [=](const Tensors& x) { return repeat_interleave(x[0], counts, 1); });
    rows.add(Op::roll, {{2, 3}}, [](const Tensors& x) { return roll(x[0], {1, 4, -7}, {0, 1, 1}); });
    rows.add(Op::roll, {{2, 3}}, {"flat"}, [](const Tensors& x) { return roll(x[0], {2}); });
    rows.add(Op::pad, {{3, 4}}, padded({{1, 2}, {-1, 3}}, PadMode::constant));
    rows.add(Op::pad, {{3, 4}}, {"reflect"}, padded({{1, 5}, {2, 0}}, PadMode::reflect));
    rows.add(Op::pad, {{3, 4}}, {"replicate"}, padded({{1, 2}, {0, 1}}, PadMode::replicate));
    rows.add(Op::pad, {{3, 4}}, {"circular"}, padded({{1, 4}, {2, 1}}, PadMode::circular));
    rows.add(Op::sub, {{2, 4}}, {"diff"}, [](const Tensors& x) { return diff(x[0]); });
    rows.add(Op::broadcast_to, {{2}, {3}}, [](const Tensors& x) {
        const std::vector<KTensor> grid = meshgrid({x[1], x[0], x[1]}, true);
        return broadcast_to(grid[1] * grid[2] + grid[0], {2, 3, 3});
    });
    rows.add(Op::permute, {{2, 3, 4}}, [](const Tensors& x) { return moveaxis(x[0], {0, -1}, {-1, 0}); });
    rows.add(Op::view_as_real, {{2, 3}},
             [](const Tensors& x) { return view_as_real(astype(x[0], dtype::complex128)); });
    rows.add(Op::view_as_complex, {{3, 2}}, real_only,
             [](const Tensors& x) { return view_as_complex(contiguous(x[0])); });
    rows.add(Op::add_all, {{2, 3}, {3}, {2, 1}}, [](const Tensors& x) { return add_all({x[0], x[1], x[2], x[1]}); });

    rows.add(Op::permute, {{2, 3, 4}, {2, 4, 5}}, {"einsum: product"}, einsum_of("bij,bjk->kib"));
    rows.add(Op::matmul, {{2, 3}, {3, 4}, {4, 2}}, {"einsum: chain"}, einsum_of("ij,jk,kl->il"));
    rows.add(Op::reshape, {{3, 2, 2}, {1, 2, 3}}, {"einsum: trace, batch"}, einsum_of("...ii,...ij->..."));
    rows.add(Op::sum, {{2, 3}, {2, 3}}, {"einsum: rows"}, einsum_of("bi,bi->b"));
    rows.add(Op::matmul, {{2, 3, 4}, {4, 3, 2}}, [](const Tensors& x) {
        return tensordot(x[0], x[1], {0, 2}, {2, 0});
    });
    rows.add(Op::squeeze, {{2, 3}, {2, 3}}, {"vdot"}, two<vdot>);
    rows.add(Op::sub, {{3, 2}, {3, 1}}, {"cross"}, [](const Tensors& x) { return cross(x[0], x[1], 0); });
    rows.add(Op::mul, {{2}, {3}}, {"outer"}, two<outer>);

    rows.add(Op::interpolate, {{1, 2, 3, 2}}, real_only, [](const Tensors& x) { return interpolate(x[0], {4, 5}); });
    rows.add(Op::squeeze, {{1, 2, 3}}, {"bilinear", false},
             [](const Tensors& x) { return interpolate(x[0], {5}, "bilinear", true); });
    rows.add(Op::add, {{2, 4, 2, 3}}, {"pixel shuffle"}, [](const Tensors& x) {
        return pixel_shuffle(x[0], 2) + reshape(pixel_unshuffle(pixel_shuffle(x[0], 2), 2), {2, 1, 4, 6});
    });
    rows.add(Op::stack, {{1, 2, 5, 4}}, real_only, [](const Tensors& x) { return adaptive_max_pool(x[0], {2, 3}); });
    rows.add(Op::sub, {{2, 2, 3}}, {"global pools", false},
             [](const Tensors& x) { return global_average_pool(x[0]) - global_max_pool(x[0]); });
    rows.add(Op::pack_sequences, {{3, 4, 2}}, [](const Tensors& x) { return pack_sequences(x[0], packing()); });
    rows.add(Op::unpack_sequences, {{6, 2}}, [](const Tensors& x) { return unpack_sequences(x[0], packing(), 4, 3); });
    rows.add(Op::div, {{2, 3}}, {"normalize"}, [](const Tensors& x) { return normalize(x[0]); });
    rows.add(Op::sum, {{2, 3}, {3}}, {"cosine", false}, [](const Tensors& x) { return cosine_similarity(x[0], x[1]); });
    const KTensor bins({{0, 2, 2}, {4, 0, 2}});
    rows.add(Op::scatter_add, {{2, 3}}, {"bincount"}, [=](const Tensors& x) { return bincount(bins, x[0], 6); });
    return rows;
}

TEST(Gradients, Joins) { std::ranges::for_each(join_rows(), check); }

Rows index_rows() {
    Rows rows;
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
        rows.add(Op::index, {{2, 3, 2}}, {note}, [chosen](const Tensors& x) { return x[0].index(chosen); });
        for (const bool accumulate : {false, true}) {
            const auto put = [=](const Tensors& x) { return index_put(x[0], chosen, x[1], accumulate); };
            rows.add(Op::index_put, {{2, 3, 2}, like.shape()}, {note}, put);
            if (like.size() != 0) {
                rows.add(Op::index_put, {{2, 3, 2}, {1, 1, 1, 1, 1}}, {note}, put);
            }
        }
    }
    rows.add(Op::masked_select, {{2, 3}}, [=](const Tensors& x) { return x[0][mask]; });
    rows.add(Op::masked_select, {{2, 1}}, {"broadcast"}, [=](const Tensors& x) { return masked_select(x[0], mask); });
    rows.add(Op::index_select, {{2, 3}}, [=](const Tensors& x) { return index_select(x[0], -1, repeated); });
    rows.add(Op::index_add, {{3, 2}, {3, 2}}, [=](const Tensors& x) { return index_add(x[0], 0, repeated, x[1]); });
    rows.add(Op::take, {{2, 3}}, [](const Tensors& x) { return take(x[0], KTensor({{5, 0}, {-1, 0}})); });
    const KTensor places({{2, 0}, {2, 1}});
    rows.add(Op::gather, {{3, 2}}, [=](const Tensors& x) { return gather(x[0], 0, places); });
    rows.add(Op::gather, {{1, 3}}, {"broadcast"}, [=](const Tensors& x) { return take_along_axis(x[0], places); });
    rows.add(Op::scatter, {{3, 2}, {2, 2}}, [=](const Tensors& x) { return scatter(x[0], 0, places, x[1]); });
    rows.add(Op::scatter_add, {{3, 2}, {2, 2}}, [=](const Tensors& x) { return scatter_add(x[0], 0, places, x[1]); });
    rows.add(Op::diagonal, {{2, 3, 4}}, [](const Tensors& x) { return diagonal(x[0], 1, 0, -1); });
    rows.add(Op::diagonal_scatter, {{4, 3, 2}, {3, 2}},
             [](const Tensors& x) { return diagonal_scatter(x[0], x[1], -1, 0, 2); });
    rows.add(Op::diag_embed, {{2, 3}}, [](const Tensors& x) { return diag_embed(x[0], -1, 0, 2); });
    rows.add(Op::diag_embed, {{3}}, {"diag"}, [](const Tensors& x) { return diag(x[0], 1); });
    rows.add(Op::diagonal, {{3, 4}}, {"diag"}, [](const Tensors& x) { return diag(x[0], 1); });
    rows.add(Op::tril, {{2, 3, 4}}, [](const Tensors& x) { return tril(x[0], 1); });
    rows.add(Op::triu, {{3, 4}}, [](const Tensors& x) { return triu(x[0], -1); });
    return rows;
}

TEST(Gradients, Indexing) { std::ranges::for_each(index_rows(), check); }

}  // namespace ornik::gradcheck
