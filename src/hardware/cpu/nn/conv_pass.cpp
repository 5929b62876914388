#include "conv_pass.h"

#include <algorithm>

namespace ornik::device::cpu {

namespace {

std::int64_t floor_div(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }
std::int64_t floor_mod(std::int64_t a, std::int64_t b) { return a - floor_div(a, b) * b; }

PassAxis grid_axis(const ConvAxis& axis) {
    PassAxis pass{axis.image, axis.grid, axis.grid, axis.stride, 0, 1, {}};
    for (std::int64_t i = 0; i < axis.kernel; ++i) {
        pass.taps.push_back({i * axis.dilation - axis.padding, i});
    }
    return pass;
}

// The image positions r with (r + padding) % stride == phase: r = q * stride + phase - padding, which kernel
// element i of dilation d meets from grid position q - (i * d - phase) / stride.
PassAxis image_axis(const ConvAxis& axis, std::int64_t phase) {
    const std::int64_t start = floor_div(axis.padding - phase + axis.stride - 1, axis.stride);
    const std::int64_t first = start * axis.stride + phase - axis.padding;
    const std::int64_t positions = std::max<std::int64_t>(0, floor_div(axis.image - 1 - first, axis.stride) + 1);
    PassAxis pass{axis.grid, axis.image, positions, 1, first, axis.stride, {}};
    for (std::int64_t i = 0; i < axis.kernel; ++i) {
        if (floor_mod(i * axis.dilation, axis.stride) == phase) {
            pass.taps.push_back({start - (i * axis.dilation - phase) / axis.stride, i});
        }
    }
    return pass;
}

// One axis per remainder that any kernel element meets.
std::vector<PassAxis> image_axes(const ConvAxis& axis) {
    std::vector<std::int64_t> phases;
    for (std::int64_t i = 0; i < axis.kernel; ++i) {
        phases.push_back(i * axis.dilation % axis.stride);
    }
    std::sort(phases.begin(), phases.end());
    phases.erase(std::unique(phases.begin(), phases.end()), phases.end());
    std::vector<PassAxis> axes;
    for (const std::int64_t phase : phases) {
        PassAxis pass = image_axis(axis, phase);
        if (pass.positions > 0) {
            axes.push_back(std::move(pass));
        }
    }
    return axes;
}

bool fills(const PassAxis& axis) { return axis.first == 0 && axis.stride == 1 && axis.positions == axis.target; }

bool reads_its_own(const PassAxis& axis) {
    return axis.step == 1 && axis.positions == axis.source && axis.taps.size() == 1 && axis.taps[0].offset == 0;
}

}  // namespace

std::pair<std::int64_t, std::int64_t> PassAxis::taps_inside(std::int64_t position) const {
    const auto inside = [&](const Tap& tap) { return is_inside(tap, position); };
    const auto begin = std::find_if(taps.begin(), taps.end(), inside);
    const auto end = std::find_if_not(begin, taps.end(), inside);
    if (std::any_of(end, taps.end(), inside)) {
        return {0, static_cast<std::int64_t>(taps.size())};
    }
    return {begin - taps.begin(), end - taps.begin()};
}

bool ConvPass::fills_target() const { return fills(rows) && fills(cols); }
bool ConvPass::is_pointwise() const { return reads_its_own(rows) && reads_its_own(cols); }

ConvPass ConvPass::as_one_row() const {
    const std::int64_t plane = source_plane();
    return {{1, 1, 1, 1, 0, 1, {{0, 0}}}, {plane, plane, plane, 1, 0, 1, {{0, 0}}}, 1};
}

ConvGeometry with_long_columns(const ConvGeometry& geometry) {
    ConvGeometry result = geometry;
    const ConvAxis& cols = geometry.cols;
    if (cols.image == 1 && cols.grid == 1 && cols.kernel == 1 && cols.padding == 0) {
        result.cols = geometry.rows;
        result.rows = {1, 1, 1, 1, 0, 1};
    }
    return result;
}

ConvPass grid_pass(const ConvGeometry& geometry) {
    return {grid_axis(geometry.rows), grid_axis(geometry.cols), geometry.cols.kernel};
}

std::vector<ConvPass> image_passes(const ConvGeometry& geometry) {
    std::vector<ConvPass> passes;
    const std::vector<PassAxis> cols = image_axes(geometry.cols);
    for (const PassAxis& row_axis : image_axes(geometry.rows)) {
        for (const PassAxis& col_axis : cols) {
            passes.push_back({row_axis, col_axis, geometry.cols.kernel});
        }
    }
    return passes;
}

AxisSlots::AxisSlots(const PassAxis& axis, std::int64_t tile, bool apart) : taps(axis.taps.size()) {
    // Taps with one remainder by the step share a run as long as their reaches meet.
    std::vector<std::size_t> order(axis.taps.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    const auto phase = [&](std::size_t tap) { return floor_mod(axis.taps[tap].offset, axis.step); };
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return phase(a) != phase(b) ? phase(a) < phase(b) : axis.taps[a].offset < axis.taps[b].offset;
    });
    std::int64_t end = 0;  // of the latest run
    for (const std::size_t tap : order) {
        const std::int64_t offset = axis.taps[tap].offset;
        const bool continues = !apart && !sources.empty() && floor_mod(sources.back(), axis.step) == phase(tap) &&
                               (offset - sources.back()) / axis.step <= end;
        if (!continues) {
            sources.push_back(offset);
        }
        const std::int64_t slot = (offset - sources.back()) / axis.step;
        end = slot + tile;
        length = std::max(length, end);
        taps[tap] = {sources.size() - 1, slot};
    }
}

TileShape choose_tile(const ConvPass& pass, std::int64_t most, std::int64_t unit) {
    const std::int64_t width = pass.cols.positions;
    if (width > most) {
        const std::int64_t pieces = (width + most - 1) / most;
        const std::int64_t piece = (width + pieces - 1) / pieces;
        return {1, std::min((piece + unit - 1) / unit * unit, std::max(most, unit))};
    }
    // Among the heights that fit: the one that leaves the fewest positions outside whole units, counting a
    // tile's fixed cost as one unit.
    TileShape best{1, width};
    double best_cost = -1;
    for (std::int64_t height = 1; height <= std::min(pass.rows.positions, most / width); ++height) {
        const auto cost = [&](std::int64_t positions) {
            return positions == 0 ? 0.0 : static_cast<double>((positions + unit - 1) / unit + 1);
        };
        const std::int64_t whole = pass.rows.positions / height;
        const double total =
            static_cast<double>(whole) * cost(height * width) + cost((pass.rows.positions - whole * height) * width);
        if (best_cost < 0 || total <= best_cost) {
            best = {height, width};
            best_cost = total;
        }
    }
    return best;
}

}  // namespace ornik::device::cpu
