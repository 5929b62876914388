// The same rows through libtorch, as a yardstick.
#include "tensors.h"

namespace {

using bench::filled;

template <typename Optimizer, typename Options>
void step_row(const std::string& name, const Options& options) {
    at::Tensor p = filled({1'000'000}, 1);
    p.set_requires_grad(true);
    p.mutable_grad() = filled({1'000'000}, 1e-3);
    const auto optimizer = std::make_shared<Optimizer>(std::vector<at::Tensor>{p}, options);
    bench::row(name + "/1000000", [=] { optimizer->step(); });
}

// The peer has no Adamax and no Adadelta.
void step_rows() {
    using namespace torch::optim;
    step_row<SGD>("sgd", SGDOptions(1e-3).momentum(0.9));
    step_row<RMSprop>("rmsprop", RMSpropOptions(1e-3).alpha(0.9));
    step_row<Adam>("adam", AdamOptions(1e-3));
    step_row<Adam>("adam/amsgrad", AdamOptions(1e-3).amsgrad(true));
    step_row<AdamW>("adamw", AdamWOptions(1e-3));
    step_row<Adagrad>("adagrad", AdagradOptions(1e-3));
}

}  // namespace

int main(int argc, char** argv) {
    step_rows();
    bench::recording_rows();
    bench::training_rows();
    const torch::NoGradGuard no_gradients;
    bench::tensor_rows();
    bench::math_rows();
    bench::network_rows();
    bench::kernel_rows();
    bench::inference_rows();
    return bench::run(argc, argv);
}
