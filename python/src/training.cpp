// training.cpp: first values of parameters, parameters in another dtype, and the steps of optimizers.
#include <algorithm>
#include <cmath>
#include <limits>

#include "arguments.h"
#include "gil.h"
#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/random.h"
#include "ktensor/shapes.h"
#include "module.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

float single(double value) { return static_cast<float>(value); }

std::int32_t step_number(std::int64_t steps) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(steps, 1, std::numeric_limits<std::int32_t>::max()));
}

// The same tensor with its elements in another dtype: whoever holds it sees the change.
void convert(const KTensor& t, Dtype dtype) {
    const NoGrad values_alone;
    const KTensor converted = without_lock(t.size(), [&] { return astype(t.detach(), dtype.code); });
    KTensor(t).zero_grad();
    t.impl()->data = converted.impl()->data;
}

void add_steps(nb::module_& m) {
    m.def("sgd_step", [](const KTensor& p, const KTensor& g, const OptionalTensor& buffer, Real lr, Real momentum,
                         Real dampening, Real weight_decay, Flag nesterov, Flag first) {
        without_lock(p.size(), [&] {
            nn::sgd_step(p.tensor(), g.tensor(), buffer.tensor.tensor(),
                         {single(lr), single(momentum), single(dampening), single(weight_decay), nesterov, first});
        });
    });
    m.def("adam_step",
          [](const KTensor& p, const KTensor& g, const KTensor& mean, const KTensor& square,
             const OptionalTensor& largest, Real lr, Real beta1, Real beta2, Real eps, Real weight_decay, Whole step) {
              without_lock(p.size(), [&] {
                  nn::adam_step(
                      p.tensor(), g.tensor(), mean.tensor(), square.tensor(), largest.tensor.tensor(),
                      {single(lr), single(beta1), single(beta2), single(eps), single(weight_decay), step_number(step)});
              });
          });
    m.def("adamw_step",
          [](const KTensor& p, const KTensor& g, const KTensor& mean, const KTensor& square,
             const OptionalTensor& largest, Real lr, Real beta1, Real beta2, Real eps, Real weight_decay, Whole step) {
              without_lock(p.size(), [&] {
                  adamw_step(p.tensor(), g.tensor(), single(lr), single(beta1), single(beta2), single(eps),
                             single(weight_decay), step_number(step), mean.tensor(), square.tensor(),
                             largest.tensor.tensor(), largest.tensor.defined());
              });
          });
    m.def("adamax_step", [](const KTensor& p, const KTensor& g, const KTensor& mean, const KTensor& largest, Real lr,
                            Real beta1, Real beta2, Real eps, Real weight_decay, Whole step) {
        without_lock(p.size(), [&] {
            nn::adamax_step(
                p.tensor(), g.tensor(), mean.tensor(), largest.tensor(),
                {single(lr), single(beta1), single(beta2), single(eps), single(weight_decay), step_number(step)});
        });
    });
    m.def("adagrad_step", [](const KTensor& p, const KTensor& g, const KTensor& sum, Real lr, Real eps,
                             Real weight_decay) {
        without_lock(p.size(), [&] {
            nn::adagrad_step(p.tensor(), g.tensor(), sum.tensor(), {single(lr), single(eps), single(weight_decay)});
        });
    });
    m.def("adadelta_step", [](const KTensor& p, const KTensor& g, const KTensor& square, const KTensor& delta, Real lr,
                              Real rho, Real eps, Real weight_decay) {
        without_lock(p.size(), [&] {
            nn::adadelta_step(p.tensor(), g.tensor(), square.tensor(), delta.tensor(),
                              {single(lr), single(rho), single(eps), single(weight_decay)});
        });
    });
    m.def("rmsprop_step", [](const KTensor& p, const KTensor& g, const KTensor& square, const OptionalTensor& mean,
                             const OptionalTensor& buffer, Real lr, Real alpha, Real eps, Real momentum,
                             Real weight_decay) {
        without_lock(p.size(), [&] {
            nn::rmsprop_step(p.tensor(), g.tensor(), square.tensor(), mean.tensor.tensor(), buffer.tensor.tensor(),
                             {single(lr), single(alpha), single(eps), single(momentum), single(weight_decay)});
        });
    });
}

}  // namespace

void add_training(nb::module_& m) {
    m.def("convert_to", convert);
    m.def("fill_normal", [](KTensor x, Real mean, Real deviation) {
        without_lock(x.size(), [&] { normal_(x, mean, deviation); });
        return x;
    });
    m.def("fill_uniform", [](KTensor x, Real low, Real high) {
        without_lock(x.size(), [&] { uniform_(x, low, high); });
        return x;
    });
    add_steps(m);
}

}  // namespace ornik::python
