// elements_access.cpp: a tensor's elements as numbers of the program.
#include <cstring>

#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "ktensor/impl.h"
#include "ktensor/ktensor.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

namespace {

bool holds(std::int64_t target, std::int64_t source) {
    const auto kind = [](std::int64_t code) { return detail::dtype_table[static_cast<std::size_t>(code)].dtype_class; };
    return kind(target) >= kind(source);
}

}  // namespace

void KTensor::copy_item(void* value, std::int64_t dtype) const {
    autograd::check_defined("item", *this, 0);
    if (size() != 1) {
        fail(where("ornik::KTensor::item"), "item(): ", describe(*this), " does not have one element.");
    }
    if (!holds(dtype, this->dtype())) {
        fail(ErrorKind::dtype, where("ornik::KTensor::item"), "item(): ", dtype_name(dtype),
             " does not hold the element of ", describe(*this), ".");
    }
    dispatch(AllTypes{}, this->dtype(), [&]<typename From>() {
        From element;
        std::memcpy(&element, tensor()->getRawData(), sizeof element);
        dispatch(AllTypes{}, dtype, [&]<typename To>() {
            const To converted = convert_element<To>(element);
            std::memcpy(value, &converted, sizeof converted);
        });
    });
}

void KTensor::copy_elements(void* values, std::int64_t dtype) const {
    autograd::check_defined("to_vector", *this, 0);
    if (!holds(dtype, this->dtype())) {
        fail(ErrorKind::dtype, where("ornik::KTensor::to_vector"), "to_vector(): ", dtype_name(dtype),
             " does not hold the elements of ", describe(*this), ".");
    }
    const KTensor plain = detach().astype(dtype).contiguous();
    if (plain.size() != 0) {
        std::memcpy(values, plain.tensor()->getRawData(),
                    static_cast<std::size_t>(plain.size() * dtype_item_size(dtype)));
    }
}

const void* KTensor::checked_elements(std::int64_t dtype) const {
    autograd::check_defined("span", *this, 0);
    if (dtype != this->dtype()) {
        fail(ErrorKind::dtype, where("ornik::KTensor::span"), "span(): the elements of ", describe(*this), " are no ",
             dtype_name(dtype), ".");
    }
    if (!is_contiguous()) {
        fail(where("ornik::KTensor::span"), "span(): the elements of ", describe(*this),
             " do not stand one behind the other; contiguous() copies.");
    }
    return tensor()->getRawData();
}

void* KTensor::writable_elements(std::int64_t dtype) {
    (void)checked_elements(dtype);
    const auto storage = tensor()->getStorage();
    if (storage->read_only()) {
        fail(ErrorKind::state, where("ornik::KTensor::mutable_span"), "mutable_span(): the memory of ", describe(*this),
             " is read-only.");
    }
    storage->note_write();
    return tensor()->getRawData();
}

}  // namespace ornik
