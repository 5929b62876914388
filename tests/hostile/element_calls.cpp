#include "calls.h"

namespace ornik::test {

void add_element_calls(CallTable& table) {
#define FRESH(name, ...) ORNIK_OVERLOAD("x", Tensor* (Tensor::*)(), &Tensor::name)
#define IN_PLACE(name, ...) ORNIK_CALLS("x!", &Tensor::name##_inplace)
#define INTO(name, ...) ORNIK_OVERLOAD("xx!", void (*)(Tensor*, Tensor*), ornik::name)
#define GRAD(name, ...) ORNIK_CALLS("xx", name##_grad)
#define ALL_FORMS(OPERATIONS) OPERATIONS(FRESH) OPERATIONS(IN_PLACE) OPERATIONS(INTO)
    ALL_FORMS(ORNIK_FLOATING_OPERATIONS)
    ALL_FORMS(ORNIK_NETWORK_OPERATIONS)
    ALL_FORMS(ORNIK_SIGN_OPERATIONS)
    ALL_FORMS(ORNIK_PART_OPERATIONS)
    ALL_FORMS(ORNIK_ANGLE_OPERATIONS)
    ALL_FORMS(ORNIK_STEP_OPERATIONS)
    ALL_FORMS(ORNIK_ROUNDING_OPERATIONS)
    ORNIK_DIFFERENTIABLE_OPERATIONS(GRAD)
    ORNIK_TEST_OPERATIONS(FRESH)
    ORNIK_CALLS("xb!", is_nan, is_inf, is_finite, logical_not)
    ORNIK_CALLS("k", &Tensor::bitwise_not)
    ORNIK_CALLS("k!", &Tensor::bitwise_not_inplace)
    ORNIK_CALLS("kk!", bitwise_not)

#define PAIR(name, ...) ORNIK_CALLS("xx", &Tensor::name, &Tensor::name##_scalar)
#define PAIR_IN_PLACE(name, ...) ORNIK_CALLS("x!x", &Tensor::name##_inplace, &Tensor::name##_scalar_inplace)
#define PAIR_INTO(name, ...) ORNIK_CALLS("xxx!", ornik::name)
#define PAIR_GRAD(name, ...) ORNIK_CALLS("xxx", name##_dx_grad, name##_dy_grad)
#define TRUTH_INTO(name, ...) ORNIK_CALLS("xxb!", ornik::name)
#define BIT_PAIR(name, ...) ORNIK_CALLS("kk", &Tensor::name, &Tensor::name##_scalar)
#define BIT_PAIR_IN_PLACE(name, ...) ORNIK_CALLS("k!k", &Tensor::name##_inplace, &Tensor::name##_scalar_inplace)
#define BIT_PAIR_INTO(name, ...) ORNIK_CALLS("kkk!", ornik::name)
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(PAIR)
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(PAIR_IN_PLACE)
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(PAIR_INTO)
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(PAIR_GRAD)
    ORNIK_EQUALITY_OPERATIONS(PAIR)
    ORNIK_EQUALITY_OPERATIONS(TRUTH_INTO)
    ORNIK_ORDER_OPERATIONS(PAIR)
    ORNIK_ORDER_OPERATIONS(TRUTH_INTO)
    ORNIK_BIT_PAIR_OPERATIONS(BIT_PAIR)
    ORNIK_BIT_PAIR_OPERATIONS(BIT_PAIR_IN_PLACE)
    ORNIK_BIT_PAIR_OPERATIONS(BIT_PAIR_INTO)

    ORNIK_CALLS("x", &Tensor::clamp, &Tensor::clamp_min, &Tensor::clamp_max, &Tensor::is_close, &Tensor::all_close)
    ORNIK_CALLS("x!", &Tensor::clamp_inplace, &Tensor::clamp_min_inplace, &Tensor::clamp_max_inplace)
    ORNIK_CALLS("xb", &Tensor::masked_fill)
    ORNIK_CALLS("x!b", &Tensor::masked_fill_inplace)
    ORNIK_OVERLOAD("bxx", Tensor * (*)(Tensor*, Tensor*, Tensor*), ornik::where)
    ORNIK_CALLS("bx", where_dx_grad, where_dy_grad, masked_fill_grad)
    ORNIK_CALLS("x", clamp_grad)

    ORNIK_CALLS("x", &Tensor::add_tensor, &Tensor::sub_tensor, &Tensor::mult_tensor, &Tensor::div_tensor)
    ORNIK_CALLS("x!x", &Tensor::add_tensor_inplace, &Tensor::sub_tensor_inplace, &Tensor::mult_tensor_inplace,
                &Tensor::div_tensor_inplace)
    ORNIK_CALLS("x", &Tensor::add_tensors_list, mult_grad_impl, div_dx_grad_impl, div_dy_grad_impl)
    ORNIK_CALLS("xxx!", ornik::add, ornik::sub, ornik::mult, ornik::div)
    ORNIK_CALLS("-kkk", ornik::div)
    ORNIK_CALLS("-b", &Tensor::sub_tensor)
    ORNIK_CALLS("x", &Tensor::add_scalar<float>, &Tensor::sub_scalar<bool>, &Tensor::mult_scalar<std::int64_t>,
                &Tensor::div_scalar<double>, &Tensor::add_scalar_std_complex_wrapper<std::complex<float>>,
                &Tensor::sub_scalar_std_complex_wrapper<std::complex<double>>,
                &Tensor::mult_scalar_std_complex_wrapper<std::complex<float>>,
                &Tensor::div_scalar_std_complex_wrapper<std::complex<float>>,
                &Tensor::mult_scalar_std_complex_grad_wrapper<std::complex<float>>)
    ORNIK_CALLS("x!", &Tensor::add_scalar_inplace<float>, &Tensor::sub_scalar_inplace<std::int8_t>,
                &Tensor::mult_scalar_inplace<std::int64_t>, &Tensor::div_scalar_inplace<float>)
    ORNIK_CALLS("c!", &Tensor::add_scalar_inplace_std_complex_wrapper<std::complex<float>>,
                &Tensor::sub_scalar_inplace_std_complex_wrapper<std::complex<float>>,
                &Tensor::mult_scalar_inplace_std_complex_wrapper<std::complex<float>>,
                &Tensor::div_scalar_inplace_std_complex_wrapper<std::complex<double>>)
}

}  // namespace ornik::test
