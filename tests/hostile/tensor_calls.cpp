#include "calls.h"

namespace ornik::test {

namespace {

using tensorT::Tensor_Meta;
using tensorT::Tensor_storage;

void make_from_tensor(const Dims& shape, const Tensor* other) { const Tensor made(shape, other); }
void make_packed(const Dims& shape, std::int32_t packed) { const Tensor made(shape, packed); }
void make_general(const Dims& shape, std::int32_t packed) { const Tensor made(shape, nullptr, packed, nullptr); }
void make_meta(const Dims& shape, const Dims& strides, std::int64_t dtype, std::int64_t device, std::int64_t layout,
               std::int64_t offset, bool alloc) {
    const Tensor_Meta made(shape, strides, dtype, device, layout, offset, alloc);
}
void make_storage(std::int64_t device, std::int64_t size, std::int64_t dtype) {
    const Tensor_storage made(device, size, dtype);
}
void fill_meta(Tensor* t, const void* elements, std::int64_t dtype) {
    if (t != nullptr && t->getMeta()) {
        static const char enough[4096] = {};
        t->getMeta()->convert_dtype_and_copy_data(elements == nullptr ? enough : elements, dtype);
    }
}

}  // namespace

void add_tensor_calls(CallTable& table) {
    ORNIK_CALLS("x|0,6", make_from_tensor, make_packed, make_general)
    ORNIK_CALLS("x|0,19,6,0,0,0,1", make_meta)
    ORNIK_CALLS("x|0,6,6", make_storage)
    ORNIK_CALLS("x|0,0,6", &Tensor::empty, &Tensor::zeros, &Tensor::ones)
    ORNIK_CALLS("x", &Tensor::empty_like, &Tensor::zeros_like, &Tensor::empty_using_tensor_options,
                &Tensor::zeros_with_tensor_options, &Tensor::JungleInlegalShape, &Tensor::getDeviceID,
                &Tensor::sameDtype)
    ORNIK_CALLS("x|0,6", &Tensor::empty_with_dtype_and_dev)
    ORNIK_CALLS("x|6", &Tensor::scalar)
    ORNIK_CALLS("x|0,19,6", &Tensor::empty_strided)
    ORNIK_CALLS("x|0,19,0,0,6", &Tensor::new_tensor)
    ORNIK_CALLS("x|0,1,0,6", &Tensor::full<float>)
    ORNIK_CALLS("x|0,1,1,0,8", &Tensor::full_std_complex_wrapper<std::complex<float>>)
    ORNIK_CALLS("x|0,4,1,0,6", &Tensor::arange, &Tensor::range, &Tensor::linspace, &Tensor::CheckLegalArange)
    ORNIK_CALLS("x|0,4,5,2,0,6", &Tensor::logspace)
    ORNIK_CALLS("x|3,3,0,6", &Tensor::eye)
    ORNIK_CALLS("x|0,0,1,0,6", &Tensor::randn, &Tensor::randu, &Tensor::randint)
    ORNIK_CALLS("x|5,0,4", &Tensor::permutation)
    ORNIK_CALLS("-|257,0,1", &Tensor::permutation)
    ORNIK_CALLS("x|0,0.5,0,6", &Tensor::dropout_mask)
    ORNIK_CALLS("x", &Tensor::bernoulli, &Tensor::multinomial)
    ORNIK_CALLS("Ox", &Tensor::binomial)

    ORNIK_CALLS("x|0,0,1", &Tensor::diagonal)
    ORNIK_CALLS("x|0", &Tensor::CPU, &Tensor::toCPU, &Tensor::toDevice, &Tensor::updateOffset)
    ORNIK_CALLS("-x", &Tensor::GPU, &Tensor::toGPU, &Tensor::flatten_)
    ORNIK_CALLS("x|6", &Tensor::astype, &Tensor::toDtype, &Tensor::updateDtype)
    ORNIK_CALLS("x", &Tensor::tril, &Tensor::triu, &Tensor::contiguous, &Tensor::clone, &Tensor::copy,
                &Tensor::broadcast, &Tensor::broadcast_to, &Tensor::view, &Tensor::permute, &Tensor::swapaxis,
                &Tensor::unsqueeze, &Tensor::reshape, &Tensor::reshape_, &Tensor::reshape_copy, &Tensor::flatten,
                &Tensor::flip, &Tensor::select, &Tensor::select_ndim, &Tensor::select_ndim_without_copy,
                &Tensor::select_ndim_grad, &Tensor::info, &Tensor::info_debug, &Tensor::Print, &Tensor::print,
                &Tensor::size_to_dim, &Tensor::size_from_dim, &Tensor::size_out_dim, &Tensor::setStorage,
                &Tensor::updateShape, &Tensor::updateSize, &Tensor::updateDevice,
                &Tensor::init_tensor_without_alloc_data, &Tensor::initialize_none_tensor, &Tensor::getDeviceName,
                &Tensor::is_contiguous, &Tensor::getStorage, &Tensor::getRawData, &Tensor::get_alloc_mem_size)
    ORNIK_CALLS("x|6", &Tensor::setSize)
    ORNIK_CALLS("x|0,19,6,0,0,0", &Tensor::init_none_tensor_with_shared_storage)
    ORNIK_CALLS("x|7,6,0,2", &Tensor::init_sparse_tensor)
    ORNIK_OVERLOAD("x", Tensor * (Tensor::*)() const, &Tensor::transpose)
    ORNIK_OVERLOAD("x", Tensor * (Tensor::*)(const std::vector<int>&) const, &Tensor::transpose)
    ORNIK_OVERLOAD("x", Tensor * (Tensor::*)() const, &Tensor::squeeze)
    ORNIK_OVERLOAD("x", Tensor * (Tensor::*)(int) const, &Tensor::squeeze)
    ORNIK_OVERLOAD("x|1", Tensor * (Tensor::*)(const std::vector<int>&) const, &Tensor::squeeze)
    ORNIK_OVERLOAD("x", void(Tensor::*)(), &Tensor::updateStrides)
    ORNIK_OVERLOAD("x|19", void(Tensor::*)(const Dims&), &Tensor::updateStrides)

    ORNIK_CALLS("x!x", &Tensor::copy_from_, &Tensor::set_select_legacy, &Tensor::set_select_ndim,
                &Tensor::set_select_ndim_grad)
    ORNIK_CALLS("x!", &Tensor::fill_, &Tensor::fill_with_<float>, &Tensor::fill_rand_normal_inplace,
                &Tensor::fill_rand_uniform_inplace, &Tensor::fill_rand_signed_uniform_inplace,
                &Tensor::fill_rand_binary_inplace)
    ORNIK_CALLS("x!|0,1", &Tensor::fill_rand_uniform_withbound_inplace)
    ORNIK_CALLS("x!|4", fill_meta)
    ORNIK_CALLS("c!", &Tensor::fill_std_complex_pybind_<std::complex<float>>,
                &Tensor::fill_with_<complex_scalar::complex<float>>)
    ORNIK_CALLS("xx!", copy_tensor)
    ORNIK_CALLS("xx!|6,1", &Tensor::CopyToTargetWithDtype)

    ORNIK_CALLS("x|0,19,6,0", share_storage_tensor)
    ORNIK_CALLS("x", reshape_copy, permute)
    ORNIK_CALLS("x|5", tile)
    ORNIK_CALLS("x|0,5", TileGrad)
    ORNIK_CALLS("x", concat, stack)
    ORNIK_OVERLOAD("x", Tensor * (*)(const Tensor*, const Dims&), ornik::view)
    ORNIK_OVERLOAD("x", Tensor * (*)(const Tensor*, const Dims&), ornik::reshape)
    ORNIK_OVERLOAD("x", Tensor * (*)(const Tensor*, const Dims&), ornik::view_tensor)
    using StorageView = Tensor* (*)(const std::shared_ptr<Tensor_storage>&, const Dims&, const Dims&, std::int64_t,
                                    std::int64_t, std::int64_t);
    ORNIK_OVERLOAD("x|0,19,0,6,0", StorageView, ornik::view_tensor)
    ORNIK_CALLS("c", view_as_real)
    ORNIK_CALLS("w", view_as_complex)
    ORNIK_CALLS("q", permute_12_reshape_b_n_embed_dims)
    ORNIK_CALLS("q|1,0", reshape_permute_select_grad)
    ORNIK_CALLS("t|1,1,0", reshape_permute_select)
    ORNIK_CALLS("M|9", permute_12_reshape_b_n_embed_dims_grad)

    ORNIK_CALLS("x", infer_size_impl, inferExpandGeometryImpl, just_if_broadcastable, gather_dims, dtype_name,
                parse_indices, parse_indicesv2, parse_selection, just_keep_dims, kept_entries,
                get_new_strides_for_select, get_indexing_storage_offset, pack_dtype_and_device)
    ORNIK_CALLS("x|0,0,6", infer_final_reshape)
    ORNIK_CALLS("x|0,5", infer_tile_shape)
    ORNIK_CALLS("x|0,2", maybe_wrap_dim, maybe_warp_dim)
    ORNIK_CALLS("x|0", CheckDev)
}

}  // namespace ornik::test
