// tensor_device.cpp: moves between devices. This build has the CPU alone.
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

// A copy of `t` on `device`: a dense tensor, or a sparse one around copies of its members.
std::unique_ptr<Tensor> copy_to_device(const Tensor* t, std::int64_t device) {
    if (t->is_dense()) {
        std::unique_ptr<Tensor> result(Tensor::empty(t->Shape(), device, t->Dtype()));
        copy_tensor(t, result.get());
        return result;
    }
    CheckDev(device);
    if (device != device_cpu) {
        refuse_gpu();
    }
    std::vector<std::unique_ptr<Tensor>> members;
    for (const Tensor* member : t->get_csr_members()) {
        members.push_back(member == nullptr ? nullptr : make_tensor(member->Shape(), member->Dtype()));
        if (member != nullptr) {
            copy_tensor(member, members.back().get());
        }
    }
    auto result = std::make_unique<Tensor>();
    result->init_sparse_tensor(t->Shape(), t->Dtype(), device, t->Layout(), std::move(members));
    return result;
}

}  // namespace

Tensor* Tensor::CPU(std::int64_t device) {
    if (device != device_cpu) {
        fail(ErrorKind::device, where("ornik::Tensor::CPU"), "CPU device should be 0.");
    }
    return copy_to_device(this, device).release();
}

Tensor* Tensor::GPU(std::int64_t device) {
    if (device < device_first_gpu) {
        fail(ErrorKind::device, where("ornik::Tensor::GPU"), "GPU device should be integer not less than DEV_GPU .");
    }
    return copy_to_device(this, device).release();
}

void Tensor::toCPU(std::int64_t device) { CheckDev(device); }

void Tensor::toGPU(std::int64_t /*device*/) { refuse_gpu(); }

void Tensor::toDevice(std::int64_t device) {
    switch (getDeviceID(device)) {
        case 0:
            CheckDev(device);
            return;
        case 1:
            refuse_gpu();
        default:
            fail(where("ornik::Tensor::toDevice"), "dev ", device, "not support");
    }
}

}  // namespace ornik
