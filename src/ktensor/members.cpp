// members.cpp: the operations that are members, too.
#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/products.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

// clang-format off

KTensor KTensor::astype(std::int64_t dtype) const         { return ornik::astype(*this, dtype); }
KTensor KTensor::clone() const                            { return ornik::clone(*this); }
KTensor KTensor::contiguous() const                       { return ornik::contiguous(*this); }
KTensor KTensor::reshape(const Dims& shape) const         { return ornik::reshape(*this, shape); }
KTensor KTensor::view(const Dims& shape) const            { return ornik::view(*this, shape); }
KTensor KTensor::flatten(int start, int end) const        { return ornik::flatten(*this, start, end); }
KTensor KTensor::broadcast_to(const Dims& shape) const    { return ornik::broadcast_to(*this, shape); }
KTensor KTensor::permute(const std::vector<int>& a) const { return ornik::permute(*this, a); }
KTensor KTensor::transpose() const                        { return ornik::transpose(*this); }
KTensor KTensor::transpose(int a, int b) const            { return ornik::swapaxes(*this, a, b); }
KTensor KTensor::squeeze() const                          { return ornik::squeeze(*this); }
KTensor KTensor::squeeze(const std::vector<int>& a) const { return ornik::squeeze(*this, a); }
KTensor KTensor::unsqueeze(int axis) const                { return ornik::unsqueeze(*this, axis); }

#define ORNIK_REDUCTION_MEMBER(name)                                            \
    KTensor(KTensor::name)(const std::vector<int>& axes, bool keep_dims) const { \
        return ornik::name(*this, axes, keep_dims);                             \
    }
#define ORNIK_MOMENT_MEMBER(name)                                                                   \
    KTensor KTensor::name(const std::vector<int>& axes, bool keep_dims, double correction) const { \
        return ornik::name(*this, axes, keep_dims, correction);                                     \
    }
#define ORNIK_AXIS_MEMBER(name) \
    KTensor KTensor::name(int axis) const { return ornik::name(*this, axis); }
#define ORNIK_UNARY_MEMBER(name) \
    KTensor KTensor::name() const { return ornik::name(*this); }
#define ORNIK_IN_PLACE_MEMBER(name)                                                        \
    KTensor& KTensor::name(const KTensor& other) { return ornik::name(*this, other); }     \
    KTensor& KTensor::name(const Scalar& number) { return ornik::name(*this, number); }

ORNIK_REDUCTION_MEMBER(sum)
ORNIK_REDUCTION_MEMBER(prod)
ORNIK_REDUCTION_MEMBER(mean)
ORNIK_REDUCTION_MEMBER(l2_norm)
ORNIK_REDUCTION_MEMBER(max)
ORNIK_REDUCTION_MEMBER(min)
ORNIK_REDUCTION_MEMBER(argmax)
ORNIK_REDUCTION_MEMBER(argmin)
ORNIK_REDUCTION_MEMBER(any)
ORNIK_REDUCTION_MEMBER(all)
ORNIK_MOMENT_MEMBER(var)
ORNIK_MOMENT_MEMBER(std_dev)
ORNIK_AXIS_MEMBER(cumsum)
ORNIK_AXIS_MEMBER(softmax)
ORNIK_AXIS_MEMBER(log_softmax)
ORNIK_UNARY_MEMBER(exp)
ORNIK_UNARY_MEMBER(log)
ORNIK_UNARY_MEMBER(sqrt)
ORNIK_UNARY_MEMBER(rsqrt)
ORNIK_UNARY_MEMBER(sqr)
ORNIK_UNARY_MEMBER(sin)
ORNIK_UNARY_MEMBER(cos)
ORNIK_UNARY_MEMBER(tanh)
ORNIK_UNARY_MEMBER(sigmoid)
ORNIK_UNARY_MEMBER(relu)
ORNIK_UNARY_MEMBER(abs)
ORNIK_UNARY_MEMBER(neg)
ORNIK_UNARY_MEMBER(conj)
ORNIK_UNARY_MEMBER(real)
ORNIK_UNARY_MEMBER(imag)
ORNIK_IN_PLACE_MEMBER(add_)
ORNIK_IN_PLACE_MEMBER(sub_)
ORNIK_IN_PLACE_MEMBER(mul_)
ORNIK_IN_PLACE_MEMBER(div_)

#undef ORNIK_REDUCTION_MEMBER
#undef ORNIK_MOMENT_MEMBER
#undef ORNIK_AXIS_MEMBER
#undef ORNIK_UNARY_MEMBER
#undef ORNIK_IN_PLACE_MEMBER

KTensor KTensor::pow(const KTensor& exponent) const                   { return ornik::pow(*this, exponent); }
KTensor KTensor::pow(const Scalar& exponent) const                    { return ornik::pow(*this, exponent); }
KTensor KTensor::clamp(const Scalar& low, const Scalar& high) const   { return ornik::clamp(*this, low, high); }
KTensor KTensor::matmul(const KTensor& other) const                   { return ornik::matmul(*this, other); }
KTensor KTensor::dot(const KTensor& other) const                      { return ornik::dot(*this, other); }
KTensor& KTensor::clamp_(const Scalar& low, const Scalar& high)       { return ornik::clamp_(*this, low, high); }
KTensor& KTensor::copy_(const KTensor& source)                        { return ornik::copy_(*this, source); }
KTensor& KTensor::fill_(const Scalar& value)                          { return ornik::fill_(*this, value); }
KTensor& KTensor::zero_()                                             { return ornik::zero_(*this); }

// clang-format on

KTensor KTensor::t() const {
    autograd::check_defined("t", *this, 0);
    if (ndim() > 2) {
        fail(where("ornik::KTensor::t"), "t(): ", autograd::describe(*this),
             " has more than two axes; transpose() exchanges the last two.");
    }
    return ndim() == 2 ? ornik::transpose(*this) : *this;
}

}  // namespace ornik
