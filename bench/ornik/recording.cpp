// recording.cpp: what KTensor and its graph add to operations of one element.
#include "tensors.h"

namespace bench {

using ornik::KTensor;

namespace {

// A chain of operations on one element and its way back; the time of a row is that of the whole chain.
template <typename Step>
void chain_row(const std::string& name, const Step& step) {
    KTensor leaf = KTensor::ones({1}).requires_grad();
    row("one/" + name + "/recorded_and_backward/" + std::to_string(chain_length), [=]() mutable {
        KTensor y = leaf;
        for (int i = 0; i < chain_length; ++i) {
            y = step(y);
        }
        y.backward();
        leaf.zero_grad();
    });
}

}  // namespace

void recording_rows() {
    const KTensor a = KTensor::ones({1});
    const KTensor b = KTensor::ones({1});
    const KTensor w = KTensor::ones({1}).requires_grad();
    Tensor* const p = a.tensor();
    Tensor* const q = b.tensor();
    row("one/empty/plain", [=, keep = a] { delete Tensor::empty({1}, ornik::device_cpu, dtype::float32); });
    row("one/add/plain", [=, keep = a] { delete p->add_tensor(q); });
    row("one/add", [=] { (void)(a + b); });
    row("one/add/recorded", [=] { (void)(w + b); });
    row("one/mul/plain", [=, keep = a] { delete p->mult_tensor(q); });
    row("one/mul", [=] { (void)(a * b); });
    row("one/mul/recorded", [=] { (void)(w * b); });
    row("one/tanh/plain", [=, keep = a] { delete p->tanh(); });
    row("one/tanh", [=] { (void)tanh(a); });
    row("one/tanh/recorded", [=] { (void)tanh(w); });
    chain_row("add", [b](const KTensor& y) { return y + b; });
    chain_row("mul", [b](const KTensor& y) { return y * b; });
    chain_row("tanh", [](const KTensor& y) { return ornik::tanh(y); });
}

}  // namespace bench
