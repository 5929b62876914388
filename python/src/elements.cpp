// elements.cpp: element-wise functions, from the library's table of them.
#include "ktensor/elements.h"

#include "arguments.h"
#include "descriptors/element_operations.h"
#include "gil.h"
#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

template <typename Function>
void add_unary(nb::module_& m, const char* name, Function function) {
    m.def(name, [function](const KTensor& x) { return without_lock(x.size(), [&] { return function(x); }); });
}

std::int64_t elements_of(const Operand& operand) {
    const KTensor* tensor = std::get_if<KTensor>(&operand.value);
    return tensor == nullptr ? 0 : tensor->size();
}

// Two operands, of which one at least is a tensor.
template <typename Function>
void add_binary(nb::module_& m, const char* name, Function function) {
    m.def(name, [name, function](const Operand& a, const Operand& b) {
        return without_lock(std::max(elements_of(a), elements_of(b)), [&] {
            return std::visit(
                [&](const auto& x, const auto& y) -> KTensor {
                    if constexpr (std::is_same_v<decltype(x), const Scalar&> &&
                                  std::is_same_v<decltype(y), const Scalar&>) {
                        fail(ErrorKind::dtype, where(name), name, "(): two numbers; one of the operands is a KTensor.");
                    } else {
                        return function(x, y);
                    }
                },
                a.value, b.value);
        });
    });
}

}  // namespace

void add_elements(nb::module_& m) {
#define ORNIK_DEFINE(name, accepts, result, error32, error64) \
    add_unary(m, #name, [](const KTensor& x) { return ornik::name(x); });
    ORNIK_UNARY_OPERATIONS(ORNIK_DEFINE)
#undef ORNIK_DEFINE
#define ORNIK_DEFINE(name, accepts, result, error32, error64) \
    add_binary(m, #name, [](const auto& a, const auto& b) { return ornik::name(a, b); });
    ORNIK_BINARY_OPERATIONS(ORNIK_DEFINE)
#undef ORNIK_DEFINE
    add_binary(m, "add", [](const auto& a, const auto& b) { return a + b; });
    add_binary(m, "sub", [](const auto& a, const auto& b) { return a - b; });
    add_binary(m, "mul", [](const auto& a, const auto& b) { return a * b; });
    add_binary(m, "floor_divide", [](const auto& a, const auto& b) { return floor_divide(a, b); });
    add_binary(m, "copysign", [](const auto& a, const auto& b) { return ornik::copysign(a, b); });
    add_binary(m, "hypot", [](const auto& a, const auto& b) { return ornik::hypot(a, b); });
    add_binary(m, "logaddexp", [](const auto& a, const auto& b) { return logaddexp(a, b); });
    add_binary(m, "nextafter", [](const auto& a, const auto& b) { return ornik::nextafter(a, b); });
    add_unary(m, "signbit", [](const KTensor& x) { return ornik::signbit(x); });
    add_binary(m, "div", [](const auto& a, const auto& b) { return a / b; });

    constexpr std::pair<const char*, KTensor (*)(const KTensor&)> activations[] = {
        {"relu", relu}, {"selu", selu}, {"hardsigmoid", hardsigmoid}, {"hardswish", hardswish}, {"mish", mish}};
    for (const auto& [name, function] : activations) {
        add_unary(m, name, function);
    }
    m.def("leaky_relu",
          [](const KTensor& x, Real slope) { return without_lock(x.size(), [&] { return leaky_relu(x, slope); }); });
    m.def("elu", [](const KTensor& x, Real alpha) { return without_lock(x.size(), [&] { return elu(x, alpha); }); });
    m.def("hardtanh", [](const KTensor& x, Real low, Real high) {
        return without_lock(x.size(), [&] { return hardtanh(x, low, high); });
    });
    m.def("dropout", [](const KTensor& x, Real p, Flag training) {
        return without_lock(x.size(), [&] { return dropout(x, p, training); });
    });
    m.def("dropout_channels", [](const KTensor& x, Real p, Flag training) {
        return without_lock(x.size(), [&] { return dropout_channels(x, p, training); });
    });

    m.def("where", [](const KTensor& condition, const Operand& a, const Operand& b) {
        return without_lock(condition.size(), [&] {
            const KTensor* x = std::get_if<KTensor>(&a.value);
            const KTensor* y = std::get_if<KTensor>(&b.value);
            if (x != nullptr) {
                return y != nullptr ? where(condition, *x, *y) : where(condition, *x, std::get<Scalar>(b.value));
            }
            return where(condition, std::get<Scalar>(a.value),
                         y != nullptr ? *y : KTensor::scalar(std::get<Scalar>(b.value)));
        });
    });
    m.def("masked_fill", [](const KTensor& x, const KTensor& mask, const Number& value) {
        return without_lock(x.size(), [&] { return masked_fill(x, mask, value.value); });
    });
    m.def("clamp", [](const KTensor& x, const Number& low, const Number& high) {
        return without_lock(x.size(), [&] { return clamp(x, low.value, high.value); });
    });
    m.def("clamp_min", [](const KTensor& x, const Number& low) {
        return without_lock(x.size(), [&] { return clamp_min(x, low.value); });
    });
    m.def("clamp_max", [](const KTensor& x, const Number& high) {
        return without_lock(x.size(), [&] { return clamp_max(x, high.value); });
    });
    m.def("is_close", [](const KTensor& a, const KTensor& b, Real rtol, Real atol, Flag equal_nan) {
        return without_lock(a.size(), [&] { return is_close(a, b, rtol, atol, equal_nan); });
    });
}

}  // namespace ornik::python
