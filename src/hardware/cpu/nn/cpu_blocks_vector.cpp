// cpu_blocks_vector.cpp: planes turned into blocks and back.
#include "conv_transpose.h"
#include "cpu_conv_kernels.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_blocks.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

// Calls piece(place of the group's first channel in its sample's channels, channels, first position, positions), where
// the place counts all samples' channels.
template <typename T, typename Piece>
void for_each_piece(std::int64_t batch, std::int64_t channels, std::int64_t plane, const Piece& piece) {
    constexpr std::int64_t width = vec::lanes<T>;
    constexpr std::int64_t most = 16 * width;  // positions: what is read and written meets in the nearest cache
    const std::int64_t groups = (channels + width - 1) / width;
    const std::int64_t pieces = (plane + most - 1) / most;
    parallel_for(batch * groups * pieces, 1, std::max<std::int64_t>(2, conv_grain / (most * width)),
                 [&](std::int64_t begin, std::int64_t end) {
                     for (std::int64_t i = begin; i < end; ++i) {
                         const std::int64_t group = i / pieces;
                         const std::int64_t channel = group % groups * width;
                         const std::int64_t first = i % pieces * most;
                         const std::int64_t planes = group / groups * channels + channel;
                         piece(planes * plane + first, (group * plane + first) * width,
                               std::min(width, channels - channel), std::min(most, plane - first));
                     }
                 });
}

}  // namespace

std::int64_t block_lanes(std::int64_t dtype) {
    std::int64_t lanes = 0;
    dispatch(FloatTypes{}, dtype, [&]<typename T>() { lanes = vec::lanes<T>; });
    return lanes;
}

std::int64_t block_groups(std::int64_t dtype, std::int64_t channels) {
    const std::int64_t lanes = block_lanes(dtype);
    return (channels + lanes - 1) / lanes;
}

void write_blocks(std::int64_t dtype, std::int64_t batch, std::int64_t channels, std::int64_t plane, const void* planes,
                  void* blocks) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() {
        constexpr std::int64_t width = vec::lanes<T>;
        std::int64_t rows[width];
        for (std::int64_t i = 0; i < width; ++i) {
            rows[i] = i * plane;
        }
        for_each_piece<T>(batch, channels, plane,
                          [&](std::int64_t in_planes, std::int64_t in_blocks, std::int64_t count, std::int64_t length) {
                              turn_rows(static_cast<const T*>(planes) + in_planes, rows, count, width, length,
                                        static_cast<T*>(blocks) + in_blocks, width);
                          });
    });
}

void write_planes(std::int64_t dtype, std::int64_t batch, std::int64_t channels, std::int64_t plane, const void* blocks,
                  void* planes) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() {
        constexpr std::int64_t width = vec::lanes<T>;
        for_each_piece<T>(batch, channels, plane,
                          [&](std::int64_t in_planes, std::int64_t in_blocks, std::int64_t count, std::int64_t length) {
                              turn_columns(static_cast<const T*>(blocks) + in_blocks, width, length, count,
                                           static_cast<T*>(planes) + in_planes, plane,
                                           [](const auto& v, std::int64_t /*i*/, std::int64_t /*k*/) { return v; });
                          });
    });
}

}  // namespace ornik::device::cpu
