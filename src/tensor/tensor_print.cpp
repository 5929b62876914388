// tensor_print.cpp: descriptions of a tensor on standard output, for a person to read.
//
// This file is built with -fno-delete-null-pointer-checks: info() and info_debug() may be called on a null tensor,
// and compilers would otherwise take their test for dead code.
#include <iostream>
#include <memory>
#include <string>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

namespace {

constexpr const char* frame = "-------------------------------";

// One line, flushed.
template <typename... Pieces>
void line(const Pieces&... pieces) {
    (std::cout << ... << pieces) << std::endl;
}

// [2, 3]; [] for no axes.
std::string list_text(const Dims& list) {
    std::string text = "[";
    for (std::size_t i = 0; i < list.size(); ++i) {
        text += (i > 0 ? ", " : "") + std::to_string(list[i]);
    }
    return text + "]";
}

std::string short_dtype_name(std::int64_t code) {
    const std::string name = dtype_name(code);
    return name.substr(name.find('.') + 1);
}

template <typename T>
void print_item(std::int64_t i, T value) {
    std::cout << " data " << i << " : ";
    if constexpr (is_complex_element<T>) {
        std::cout << "real " << value.real << ",  imag " << value.imag << ", ";
    } else if constexpr (sizeof(T) == 1) {
        std::cout << static_cast<int>(value) << ", ";
    } else {
        std::cout << value << ", ";
    }
}

}  // namespace

void tensorT::Tensor_Meta::Print() const {
    if (layout_ != layout::dense) {
        line("Not support non-dense tensor. ");
        line("#######End###### ");
        return;
    }
    Tensor elements;  // Refused when they lie outside the storage.
    if (storage_) {
        elements.init_none_tensor_with_shared_storage(shape_, stride_, dtype_, device_, storage_, layout_,
                                                      storage_offset_);
    }
    if (storage_ && !is_contiguous()) {
        line("CHANGE TO contiguous;");
        const std::unique_ptr<Tensor> flat(elements.clone());
        flat->getMeta()->Print();
        return;
    }
    line("####Data#### ");
    if (!is_gpu_device(device_) && getRawData() != nullptr) {
        dispatch(AllTypes{}, dtype_, [&]<typename T>() {
            const char* items = static_cast<const char*>(getRawData());
            for (std::int64_t i = 0; i < size_; ++i) {
                print_item(i, detail::load<T>(items + i * static_cast<std::int64_t>(sizeof(T))));
            }
        });
    }
    line("\n#######End###### ");
}

void Tensor::Print() const {
    line("##########Print######### ");
    line(static_cast<const void*>(this));
    line("dtype: ", short_dtype_name(dtype_), ", device: ", getDeviceName(), ", shape: ", list_text(shape_),
         ", strides: ", list_text(strides_), ", size: ", size_);
    line("is_contiguous: ", is_contiguous() ? 1 : 0);
    if (meta_ == nullptr) {
        return;
    }
    if (is_dense() && !is_contiguous()) {
        const std::unique_ptr<Tensor> flat(copy());
        flat->getMeta()->Print();
        return;
    }
    getMeta()->Print();
}

void Tensor::print(int /*precision*/, bool /*suppress*/) const { Print(); }

void Tensor::info() const {
    if (this == nullptr) {
        line("Tensor is nullptr!");
        return;
    }
    line(frame);
    line("class address: ", static_cast<const void*>(this));
    line("if dense: ", is_dense() ? 1 : 0);
    line("ndim: ", ndim_);
    line("shape: ", list_text(shape_));
    line("strides: ", list_text(strides_));
    line("numel: ", size_);
    line("dtype: ", short_dtype_name(dtype_), " (code = ", dtype_, ")");
    line("device: ", getDeviceName());
    line("data address: ", getRawData());
    line("StorageOffset: ", StorageOffset());
    line(frame);
}

void Tensor::info_debug() const {
    if (this == nullptr) {
        line("Tensor is nullptr!");
        return;
    }
    line(frame);
    line("class addr: ", static_cast<const void*>(this));
    line("shape: ", list_text(shape_));
    line("stride: ", list_text(strides_));
    line("dtype: ", short_dtype_name(dtype_));
    line("device: ", getDeviceName());
    line("data: ", getRawData());
    line("is_contiguous : ", is_contiguous() ? 1 : 0);
    line(frame);
}

}  // namespace ornik
