// random.cpp: random numbers by given probabilities, and in place.
#include "ktensor/random.h"

#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"

namespace ornik {

using autograd::make_ktensor;
using autograd::Shown;

KTensor bernoulli(const KTensor& probabilities) {
    autograd::check_defined("bernoulli", probabilities, 0);
    return probabilities.size() == 0 ? KTensor::empty_like(probabilities)
                                     : make_ktensor(Tensor::bernoulli(probabilities.tensor()));
}

KTensor binomial(const KTensor& trials, const KTensor& probabilities) {
    autograd::check_defined("binomial", trials, 0);
    autograd::check_defined("binomial", probabilities, 1);
    const Dims shape = autograd::broadcast_shape("binomial", trials, probabilities);
    if (trials.dtype() == probabilities.dtype() && std::find(shape.begin(), shape.end(), 0) != shape.end()) {
        return KTensor::empty(shape, trials.dtype());
    }
    return make_ktensor(Tensor::binomial(Shown(trials, shape).get(), Shown(probabilities, shape).get()));
}

KTensor multinomial(const KTensor& weights, std::int64_t count, bool replacement) {
    autograd::check_defined("multinomial", weights, 0);
    return make_ktensor(Tensor::multinomial(weights.tensor(), count, replacement));
}

namespace {

template <typename Fill>
KTensor& filled(const char* name, KTensor& x, Fill&& fill) {
    const bool recorded = grad_enabled() && x.defined() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (recorded) {
        const KTensor y = KTensor::empty_like(x);
        fill(y.tensor());
        autograd::take_over(x, y);
    } else if (x.size() != 0) {
        fill(x.tensor());
    }
    return x;
}

}  // namespace

KTensor& normal_(KTensor& x, double mean, double deviation) {
    return filled("normal_", x, [=](Tensor* t) { t->fill_rand_normal_inplace(mean, deviation, true); });
}

KTensor& uniform_(KTensor& x, double low, double high) {
    return filled("uniform_", x, [=](Tensor* t) { t->fill_rand_uniform_withbound_inplace(low, high); });
}

KTensor& bernoulli_(KTensor& x, double p) {
    return filled("bernoulli_", x, [=](Tensor* t) { t->fill_rand_binary_inplace(p); });
}

}  // namespace ornik
