// pooling_layers.cpp: what pools check when they are made.
#include "modules/pooling_layers.h"

#include "arguments.h"

namespace ornik {

detail::Pool::Pool(const char* name, int axes, const nn::PoolParameters& p) : parameters_(p) {
    check_positive(name, {p.kernel[0], p.kernel[1], p.stride[0], p.stride[1]});
    check_at_least(name, 0, {p.padding[0], p.padding[1]});
    if (p.padding[0] >= p.kernel[0] || p.padding[1] >= p.kernel[1]) {
        fail(where("ornik::Module"), name, "(): the padding is less than the kernel.");
    }
    const auto shown = [&](const std::array<std::int64_t, 2>& pair) { return Dims(pair.begin(), pair.begin() + axes); };
    set_arguments(Arguments()
                      .add("kernel", shown(p.kernel))
                      .add("stride", shown(p.stride))
                      .add("padding", shown(p.padding))
                      .text());
}

AdaptiveAvgPool1d::AdaptiveAvgPool1d(std::int64_t output) : output_(output) {
    check_positive("AdaptiveAvgPool1d", {output});
    set_arguments(Arguments().add("output", output).text());
}

AdaptiveAvgPool2d::AdaptiveAvgPool2d(std::array<std::int64_t, 2> output) : output_(output) {
    check_positive("AdaptiveAvgPool2d", {output[0], output[1]});
    set_arguments(Arguments().add("output", output).text());
}

AdaptiveMaxPool1d::AdaptiveMaxPool1d(std::int64_t output) : output_(output) {
    check_positive("AdaptiveMaxPool1d", {output});
    set_arguments(Arguments().add("output", output).text());
}

AdaptiveMaxPool2d::AdaptiveMaxPool2d(std::array<std::int64_t, 2> output) : output_(output) {
    check_positive("AdaptiveMaxPool2d", {output[0], output[1]});
    set_arguments(Arguments().add("output", output).text());
}

}  // namespace ornik
