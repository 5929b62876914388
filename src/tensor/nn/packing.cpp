#include "tensor/nn/packing.h"

#include "hardware/cpu/nn/cpu_packing.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"

namespace ornik {

namespace {

std::unique_ptr<Tensor> pack(const Where& at, Tensor* padded, const Packing& packing) {
    const auto batch = static_cast<std::int64_t>(packing.lengths().size());
    if (padded == nullptr || padded->ndim() < 2 || padded->Shape()[0] != batch ||
        padded->Shape()[1] < packing.steps() || padded->Size() < 1) {
        fail(at, "These sequences are padded to [", batch, ", ", packing.steps(), " or more, ...], however they are ",
             padded == nullptr ? Dims{} : padded->Shape());
    }
    check_operands(at, padded);
    Dims shape(padded->Shape().begin() + 1, padded->Shape().end());
    shape[0] = packing.entries();
    std::unique_ptr<Tensor> packed(Tensor::empty(shape, padded->Device(), padded->Dtype()));
    device::cpu::pack(Borrowed::contiguous(padded).get(), packing, packed.get());
    return packed;
}

std::unique_ptr<Tensor> unpack(const Where& at, Tensor* packed, const Packing& packing, std::int64_t steps,
                               double padding) {
    if (packed == nullptr || packed->ndim() < 1 || packed->Shape()[0] != packing.entries() || packed->Size() < 1) {
        fail(at, "These sequences are packed to [", packing.entries(), ", ...], however they are ",
             packed == nullptr ? Dims{} : packed->Shape());
    }
    check_operands(at, packed);
    if (steps < packing.steps()) {
        fail(at, "Sequences of up to ", packing.steps(), " steps do not fit into ", steps);
    }
    Dims shape = packed->Shape();
    shape[0] = steps;
    shape.insert(shape.begin(), static_cast<std::int64_t>(packing.lengths().size()));
    std::unique_ptr<Tensor> padded(Tensor::empty(shape, packed->Device(), packed->Dtype()));
    padded->fill_(padding);
    device::cpu::unpack(Borrowed::contiguous(packed).get(), packing, padded.get());
    return padded;
}

}  // namespace

Tensor* pack_sequences(Tensor* padded, const Packing& packing) {
    return pack(where("ornik::pack_sequences"), padded, packing).release();
}

Tensor* pack_sequences_grad(Tensor* packed_gradient, const Packing& packing, std::int64_t steps) {
    return unpack(where("ornik::pack_sequences_grad"), packed_gradient, packing, steps, 0.0).release();
}

Tensor* unpack_sequences(Tensor* packed, const Packing& packing, std::int64_t steps, double padding) {
    return unpack(where("ornik::unpack_sequences"), packed, packing, steps == 0 ? packing.steps() : steps, padding)
        .release();
}

Tensor* unpack_sequences_grad(Tensor* padded_gradient, const Packing& packing) {
    return pack(where("ornik::unpack_sequences_grad"), padded_gradient, packing).release();
}

}  // namespace ornik
