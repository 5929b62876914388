// cpu_copy.cpp: copies and conversions between tensors.
#include "descriptors/tensoriterator.h"
#include "hardware/block_copy.h"
#include "hardware/cpu/copy/cpu_core.h"
#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/copy/item_bytes.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain_bytes = 1 << 18;

MultiTensorIterationHelper elements_of(const Tensor* in, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_output(out);
    elements.build();
    return elements;
}

void copy_items(const Tensor* in, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of(in, out);
    dispatch_item_size(in->itemsize(), [&]<typename Item>() {
        elements.run<TypeList<Item>, TypeList<Item>>([](Item item) { return item; });
    });
}

}  // namespace

void copy(const Tensor* in, Tensor* out) {
    if (in->Dtype() != out->Dtype()) {
        const MultiTensorIterationHelper elements = elements_of(in, out);
        dispatch(AllTypes{}, in->Dtype(), [&]<typename From>() {
            dispatch(AllTypes{}, out->Dtype(), [&]<typename To>() {
                elements.run_rows<TypeList<To>, TypeList<From>>(
                    [](std::int64_t n, To* target, const From* source) {
                        ORNIK_INDEPENDENT_ITERATIONS
                        for (std::int64_t i = 0; i < n; ++i) {
                            target[i] = convert_element<To>(source[i]);
                        }
                    },
                    true);
            });
        });
        return;
    }
    // The block copy serves the ranks that the engine serves, and no others.
    constexpr std::int32_t max_dims = OffsetCalculator_cpu<std::int64_t>::max_dims;
    if (in->ndim() > max_dims || out->ndim() > max_dims || !in->is_contiguous() || !out->is_contiguous()) {
        copy_items(in, out);
        return;
    }
    const char* source = static_cast<const char*>(in->getRawData());
    char* target = static_cast<char*>(out->getRawData());
    const std::int64_t total = in->Size() * in->itemsize();
    parallel_for(total, 64, grain_bytes, [&](std::int64_t begin, std::int64_t end) {
        copy_block(target + begin, source + begin, end - begin, total);
    });
}

}  // namespace ornik::device::cpu
