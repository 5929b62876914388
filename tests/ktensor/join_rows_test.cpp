// join_rows_test.cpp: gradients of joins, of sums of products, and of what is made of other operations.
#include "ktensor/convolutions.h"
#include "ktensor/images.h"
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

std::vector<Row> join_rows() {
    std::vector<Row> rows;
    const auto add_row = [&](Op op, const std::vector<Dims>& shapes, Function function, bool complex = true,
                             const std::string& note = "") {
        rows.push_back({op, shapes, std::move(function), complex, -1.5, 1.5, note});
    };
    add_row(Op::concat, {{2, 3}, {2, 1}}, [](const Tensors& x) { return concat({x[0], x[1], x[0]}, -1); });
    add_row(Op::stack, {{2, 3}, {2, 3}}, [](const Tensors& x) { return stack({x[0], x[1], x[0]}, 1); });
    add_row(
        Op::split, {{2, 5}},
        [](const Tensors& x) {
            return split(x[0], Dims{1, 3, 1}, 1)[1];
        },
        true, "one part");
    add_row(
        Op::concat, {{5, 2}},
        [](const Tensors& x) {
            std::vector<KTensor> parts = split(x[0], 2);
            std::ranges::reverse(parts);
            return concat(parts);
        },
        true, "all parts");
    add_row(
        Op::squeeze, {{2, 3}}, [](const Tensors& x) { return unbind(x[0], 1)[2]; }, true, "unbind");
    add_row(Op::windows, {{2, 7}}, [](const Tensors& x) { return windows(x[0], 1, 3, 2); });
    add_row(Op::add_windows, {{3, 2, 3}}, [](const Tensors& x) { return add_windows(x[0], {7, 2}, 0, 3, 2); });
    add_row(Op::tile, {{2, 3}}, [](const Tensors& x) { return tile(x[0], {2, 1, 3}); });
    add_row(
        Op::tile, {{1, 2, 3}}, [](const Tensors& x) { return tile(x[0], {2}); }, true, "last axis");
    add_row(
        Op::reshape, {{2, 3}}, [](const Tensors& x) { return repeat_interleave(x[0], 2, 0); }, true, "interleave");
    add_row(Op::repeat_by_counts, {{2, 3}}, [](const Tensors& x) {
        return repeat_interleave(x[0], KTensor({2, 0, 3}), 1);
    });
    add_row(Op::roll, {{2, 3}}, [](const Tensors& x) { return roll(x[0], {1, 4, -7}, {0, 1, 1}); });
    add_row(
        Op::roll, {{2, 3}}, [](const Tensors& x) { return roll(x[0], {2}); }, true, "flat");
    add_row(Op::pad, {{3, 4}}, padded({{1, 2}, {-1, 3}}, PadMode::constant));
    add_row(Op::pad, {{3, 4}}, padded({{1, 5}, {2, 0}}, PadMode::reflect), true, "reflect");
    add_row(Op::pad, {{3, 4}}, padded({{1, 2}, {0, 1}}, PadMode::replicate), true, "replicate");
    add_row(Op::pad, {{3, 4}}, padded({{1, 4}, {2, 1}}, PadMode::circular), true, "circular");
    add_row(
        Op::sub, {{2, 4}}, [](const Tensors& x) { return diff(x[0]); }, true, "diff");
    add_row(Op::broadcast_to, {{2}, {3}}, [](const Tensors& x) {
        const std::vector<KTensor> grid = meshgrid({x[1], x[0], x[1]}, true);
        return broadcast_to(grid[1] * grid[2] + grid[0], {2, 3, 3});
    });
    add_row(Op::permute, {{2, 3, 4}}, [](const Tensors& x) { return moveaxis(x[0], {0, -1}, {-1, 0}); });
    add_row(Op::view_as_real, {{2, 3}}, [](const Tensors& x) { return view_as_real(astype(x[0], dtype::complex128)); });
    add_row(
        Op::view_as_complex, {{3, 2}}, [](const Tensors& x) { return view_as_complex(contiguous(x[0])); }, false);
    add_row(Op::add_all, {{2, 3}, {3}, {2, 1}}, [](const Tensors& x) { return add_all({x[0], x[1], x[2], x[1]}); });

    add_row(Op::permute, {{2, 3, 4}, {2, 4, 5}}, einsum_of("bij,bjk->kib"), true, "einsum: product");
    add_row(Op::matmul, {{2, 3}, {3, 4}, {4, 2}}, einsum_of("ij,jk,kl->il"), true, "einsum: chain");
    add_row(Op::reshape, {{3, 2, 2}, {1, 2, 3}}, einsum_of("...ii,...ij->..."), true, "einsum: trace, batch");
    add_row(Op::sum, {{2, 3}, {2, 3}}, einsum_of("bi,bi->b"), true, "einsum: rows");
    add_row(Op::matmul, {{2, 3, 4}, {4, 3, 2}}, [](const Tensors& x) { return tensordot(x[0], x[1], {0, 2}, {2, 0}); });
    add_row(
        Op::squeeze, {{2, 3}, {2, 3}}, [](const Tensors& x) { return vdot(x[0], x[1]); }, true, "vdot");
    add_row(
        Op::sub, {{3, 2}, {3, 1}}, [](const Tensors& x) { return cross(x[0], x[1], 0); }, true, "cross");
    add_row(
        Op::mul, {{2}, {3}}, [](const Tensors& x) { return outer(x[0], x[1]); }, true, "outer");

    add_row(
        Op::interpolate, {{1, 2, 3, 2}},
        [](const Tensors& x) {
            return interpolate(x[0], {4, 5});
        },
        false);
    add_row(
        Op::squeeze, {{1, 2, 3}}, [](const Tensors& x) { return interpolate(x[0], {5}, "bilinear", true); }, false,
        "bilinear");
    add_row(
        Op::add, {{2, 4, 2, 3}},
        [](const Tensors& x) {
            return pixel_shuffle(x[0], 2) + reshape(pixel_unshuffle(pixel_shuffle(x[0], 2), 2), {2, 1, 4, 6});
        },
        true, "pixel shuffle");
    add_row(
        Op::stack, {{1, 2, 5, 4}},
        [](const Tensors& x) {
            return adaptive_max_pool(x[0], {2, 3});
        },
        false);
    add_row(
        Op::sub, {{2, 2, 3}}, [](const Tensors& x) { return global_average_pool(x[0]) - global_max_pool(x[0]); }, false,
        "global pools");
    add_row(Op::pack_sequences, {{3, 4, 2}}, [](const Tensors& x) { return pack_sequences(x[0], packing()); });
    add_row(Op::unpack_sequences, {{6, 2}}, [](const Tensors& x) { return unpack_sequences(x[0], packing(), 4, 3); });
    add_row(
        Op::div, {{2, 3}}, [](const Tensors& x) { return normalize(x[0]); }, true, "normalize");
    add_row(
        Op::sum, {{2, 3}, {3}}, [](const Tensors& x) { return cosine_similarity(x[0], x[1]); }, false, "cosine");
    add_row(
        Op::scatter_add, {{2, 3}},
        [](const Tensors& x) {
            return bincount(KTensor({{0, 2, 2}, {4, 0, 2}}), x[0], 6);
        },
        true, "bincount");
    return rows;
}

TEST(Gradients, Joins) { std::ranges::for_each(join_rows(), check); }

}  // namespace ornik::gradcheck
