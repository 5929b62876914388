// cpu_product_panels.cpp: products of packed operands.
//
// The fast kernel is the inner loop of the matrix library's own product. That loop and its packed formats are
// no public interface: they are used with the version they were read from, and the public product takes their
// place with any other.
#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Core>
#include <type_traits>

#include "hardware/cpu/cpu_panels.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
void pack_columns(const T* b, std::int64_t row_stride, std::int64_t col_stride, std::int64_t depth, std::int64_t cols,
                  T* packed) {
    for (std::int64_t j = 0; j < cols; ++j) {
        for (std::int64_t k = 0; k < depth; ++k) {
            packed[j * depth + k] = b[k * row_stride + j * col_stride];
        }
    }
}

template <typename T>
void multiply_plain(const T* left, const T* right, std::int64_t rows, std::int64_t depth, std::int64_t cols, T* out,
                    std::int64_t out_stride) {
    using Matrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>;
    Eigen::Map<Matrix, 0, Eigen::OuterStride<>> result(out, rows, cols, Eigen::OuterStride<>(out_stride));
    result.noalias() += Eigen::Map<const Matrix>(left, rows, depth) * Eigen::Map<const Matrix>(right, depth, cols);
}

#if EIGEN_VERSION_AT_LEAST(3, 4, 0) && !EIGEN_VERSION_AT_LEAST(3, 4, 1)

using Index = std::int64_t;
template <typename T>
using Traits = Eigen::internal::gebp_traits<T, T>;
template <typename T, int Size>
using SmallerTraits = Eigen::internal::gebp_traits<T, T, false, false, Eigen::Architecture::Target, Size>;

template <typename T, int Order>
void pack_ordered(const T* b, std::int64_t stride, std::int64_t depth, std::int64_t cols, T* packed) {
    using Mapper = Eigen::internal::const_blas_data_mapper<T, Index, Order>;
    Eigen::internal::gemm_pack_rhs<T, Index, Mapper, Traits<T>::nr, Order> pack;
    pack(packed, Mapper(b, stride), depth, cols);
}

template <typename T>
void pack_right(const T* b, std::int64_t row_stride, std::int64_t col_stride, std::int64_t depth, std::int64_t cols,
                T* packed) {
    if (row_stride == 1) {
        pack_ordered<T, Eigen::ColMajor>(b, col_stride, depth, cols, packed);
    } else if (col_stride == 1) {
        pack_ordered<T, Eigen::RowMajor>(b, row_stride, depth, cols, packed);
    } else {
        const Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic> dense =
            Eigen::Map<const Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>, 0,
                       Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>>(
                b, depth, cols, Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>(col_stride, row_stride));
        pack_ordered<T, Eigen::ColMajor>(dense.data(), depth, depth, cols, packed);
    }
}

template <typename T>
void multiply_panels(const T* left, const T* right, std::int64_t rows, std::int64_t depth, std::int64_t cols, T* out,
                     std::int64_t out_stride) {
    using Mapper = Eigen::internal::blas_data_mapper<T, Index, Eigen::ColMajor>;
    Eigen::internal::gebp_kernel<T, T, Index, Mapper, Traits<T>::mr, Traits<T>::nr, false, false> kernel;
    kernel(Mapper(out, out_stride), left, right, rows, depth, cols, T(1));
}

template <typename T>
PanelKernel<T> library_kernel() {
    PanelKernel<T> kernel{{}, pack_right<T>, multiply_panels<T>};
    constexpr Index packet = Traits<T>::LhsProgress;
    Index count = 0;
    for (const Index width :
         {3 * packet, 2 * packet, packet, Index{SmallerTraits<T, Eigen::internal::GEBPPacketHalf>::LhsProgress},
          Index{SmallerTraits<T, Eigen::internal::GEBPPacketQuarter>::LhsProgress}, Index{1}}) {
        if (width <= Traits<T>::mr && (count == 0 || width < kernel.widths[count - 1])) {
            kernel.widths[count++] = width;
        }
    }
    return kernel;
}

#else

template <typename T>
PanelKernel<T> library_kernel() {
    return plain_panel_kernel<T>();
}

#endif

}  // namespace

template <typename T>
const PanelKernel<T>& plain_panel_kernel() {
    static const PanelKernel<T> kernel{{0, 1}, pack_columns<T>, multiply_plain<T>};
    return kernel;
}

template <typename T>
const PanelKernel<T>& panel_kernel() {
    if constexpr (std::is_floating_point_v<T>) {
        static const PanelKernel<T> kernel = library_kernel<T>();
        return kernel;
    } else {
        return plain_panel_kernel<T>();
    }
}

template const PanelKernel<float>& panel_kernel();
template const PanelKernel<double>& panel_kernel();
template const PanelKernel<std::complex<float>>& panel_kernel();
template const PanelKernel<std::complex<double>>& panel_kernel();
template const PanelKernel<float>& plain_panel_kernel();
template const PanelKernel<double>& plain_panel_kernel();

}  // namespace ornik::device::cpu
