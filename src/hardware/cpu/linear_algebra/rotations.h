// rotations.h: plane rotations of rows. Included by *_vector.cpp files.
#pragma once

#include "row_operations.h"

namespace ornik::device::cpu {

/// c f + s g = length, c g - s f = 0
struct Rotation {
    double c, s, length;

    Rotation(double f, double g) : c(1), s(0), length(f) {
        if (g != 0) {
            double scale = 1;
            double square = f * f + g * g;
            if (!(square > 0x1p-900 && square < 0x1p900)) {
                scale = scale_below(std::max(std::fabs(f), std::fabs(g)));
                f /= scale;
                g /= scale;
                square = f * f + g * g;
            }
            // The root and the quotient are computed side by side: chains of rotations wait for both.
            const double root = std::sqrt(square);
            const double inverse = 1 / square;
            c = f * inverse * root;
            s = g * inverse * root;
            length = root * scale;
        }
    }
};

/// x and y become c x + s y and c y - s x.
template <typename R>
void rotate_rows(double c, double s, std::int64_t n, R* x, R* y) {
    detail::for_vectors<R>(0, n, [=]<typename V>(std::int64_t i) {
        const V cosine = vec::broadcast<V>(static_cast<R>(c));
        const V sine = vec::broadcast<V>(static_cast<R>(s));
        const V a = vec::load<V>(x + i);
        const V b = vec::load<V>(y + i);
        vec::store(static_cast<V>(cosine * a + sine * b), x + i);
        vec::store(static_cast<V>(cosine * b - sine * a), y + i);
    });
}

}  // namespace ornik::device::cpu
