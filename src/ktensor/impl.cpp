// impl.cpp: the handle's shared state.
#include "ktensor/impl.h"

#include "ktensor/node.h"
#include "tensor/make_tensor.h"

namespace ornik::autograd {

void retain(Impl* impl) noexcept { impl->references.fetch_add(1, std::memory_order_relaxed); }

void release(Impl* impl) noexcept { Ref<Impl>::drop(impl); }

KTensor make_ktensor(Ref<Data> data) {
    const std::uint32_t seen = recorded_version_of(*data->tensor);
    return KTensor::adopt(new Impl(std::move(data), seen));
}

KTensor make_ktensor(std::unique_ptr<Tensor> tensor) {
    return make_ktensor(Ref<Data>::adopt(new Data(std::move(tensor))));
}

KTensor share(const KTensor& x, const Dims& shape, const Dims& strides, std::int64_t offset) {
    const Tensor& t = *x.tensor();
    return make_ktensor(share_storage_tensor(t.getStorage(), shape, strides, t.Dtype(), t.StorageOffset() + offset));
}

KTensor with_past_of_now(const KTensor& tensor) {
    Past past = tensor.impl()->past.now();
    if (!past.node) {
        return tensor;
    }
    KTensor result = make_ktensor(tensor.impl()->data);
    result.impl()->past.begin(std::move(past.node), past.output);
    return result;
}

bool is_sole_owner(const KTensor& tensor) {
    const Impl* impl = tensor.impl();
    if (impl->references.load(std::memory_order_acquire) != 1 || !impl->past.empty() ||
        impl->data->references.load(std::memory_order_acquire) != 1) {
        return false;
    }
    const Tensor& elements = *impl->data->tensor;
    constexpr long mine = 2;  // the tensor's share and this one
    const auto storage = elements.getStorage();
    return elements.is_dense() && storage.use_count() == mine && !storage->read_only() && elements.is_contiguous();
}

std::unique_ptr<Tensor> empty_tensor(const Dims& shape, std::int64_t dtype) { return make_tensor(shape, dtype); }

std::unique_ptr<Tensor> copy_of(const Tensor& tensor) {
    std::unique_ptr<Tensor> copy = make_tensor(tensor.Shape(), tensor.Dtype());
    if (tensor.Size() != 0) {
        copy_tensor(&tensor, copy.get());
    }
    return copy;
}

std::string list_text(const Dims& numbers) {
    std::string text = "[";
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(numbers[i]);
    }
    return text + "]";
}

std::string describe(const Dims& shape, std::int64_t dtype) {
    std::string text = list_text(shape) + " ";
    text += is_valid_dtype(dtype) ? detail::dtype_table[static_cast<std::size_t>(dtype)].name : "unknown";
    return text;
}

std::string describe(const KTensor& tensor) {
    return tensor.defined() ? describe(tensor.shape(), tensor.dtype()) : "undefined";
}

}  // namespace ornik::autograd
