#include "chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

std::string chart(const std::vector<float>& first, char first_sign, const std::vector<float>& second, char second_sign,
                  int lines) {
    float low = first[0];
    float high = first[0];
    for (const std::vector<float>* curve : {&first, &second}) {
        low = std::min(low, *std::min_element(curve->begin(), curve->end()));
        high = std::max(high, *std::max_element(curve->begin(), curve->end()));
    }
    const float step = std::max(high - low, 1e-6F) / static_cast<float>(lines - 1);
    std::vector<std::string> rows(static_cast<std::size_t>(lines), std::string(first.size(), ' '));
    const auto draw = [&](const std::vector<float>& curve, char sign) {
        for (std::size_t i = 0; i < curve.size(); ++i) {
            const auto row = static_cast<std::size_t>(std::lround((high - curve[i]) / step));
            rows[row][first.size() - curve.size() + i] = sign;
        }
    };
    draw(first, first_sign);
    draw(second, second_sign);
    std::string result;
    for (int i = 0; i < lines; ++i) {
        char scale[32];
        std::snprintf(scale, sizeof(scale), "%7.2f |", static_cast<double>(high - static_cast<float>(i) * step));
        result += scale + rows[static_cast<std::size_t>(i)] + "\n";
    }
    return result;
}
