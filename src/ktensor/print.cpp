// print.cpp: tensors as text.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ostream>

#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "ktensor/impl.h"
#include "ktensor/ktensor.h"
#include "ktensor/shapes.h"

namespace ornik {

namespace {

constexpr std::int64_t summary_threshold = 1000;
constexpr std::int64_t edge_items = 3;
constexpr std::size_t line_width = 80;

// How the floating numbers of one tensor are written, so that their points stand in one column.
struct FloatStyle {
    int digits = 0;
    bool scientific = false;
};

std::string float_text(double value, const FloatStyle& style) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-inf" : "inf";
    }
    std::array<char, 400> text;
    const auto format = style.scientific ? std::chars_format::scientific : std::chars_format::fixed;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value, format, style.digits).ptr;
    return std::string(text.data(), end) + (style.digits == 0 && !style.scientific ? "." : "");
}

// Digits behind the point that the value needs, at most `most`.
int digits_needed(double value, int most) {
    std::string text = float_text(value, {most, false});
    text.erase(text.find_last_not_of('0') + 1);
    return static_cast<int>(text.size() - text.find('.') - 1);
}

FloatStyle style_of(const std::vector<double>& values, int precision) {
    double largest = 0;
    double smallest = HUGE_VAL;
    for (const double value : values) {
        if (std::isfinite(value) && value != 0) {
            largest = std::max(largest, std::abs(value));
            smallest = std::min(smallest, std::abs(value));
        }
    }
    if (largest >= 1e8 || (largest > 0 && (smallest < 1e-4 || largest / smallest > 1e5))) {
        return {precision, true};
    }
    FloatStyle style;
    for (const double value : values) {
        if (std::isfinite(value) && precision > 0) {
            style.digits = std::max(style.digits, digits_needed(value, precision));
        }
    }
    return style;
}

// Positions of an axis that are shown; -1 stands for those left out.
std::vector<std::int64_t> shown_positions(std::int64_t extent, bool summarize) {
    std::vector<std::int64_t> positions;
    for (std::int64_t i = 0; i < extent; ++i) {
        if (summarize && extent > 2 * edge_items && i == edge_items) {
            positions.push_back(-1);
            i = extent - edge_items;
        }
        positions.push_back(i);
    }
    return positions;
}

class Printer {
  public:
    Printer(const Tensor& t, int precision) : t_(t), summarize_(t.Size() > summary_threshold) {
        visit(0, 0, [&](std::int64_t offset) { collect(offset); });
        const FloatStyle style = style_of(parts_, precision);
        visit(0, 0, [&](std::int64_t offset) { texts_.push_back(text_of(offset, style)); });
        for (const std::string& text : texts_) {
            width_ = std::max(width_, text.size());
        }
    }

    std::string text() {
        next_ = 0;
        return block(0, 0);
    }

  private:
    template <typename Use>
    void visit(std::size_t axis, std::int64_t offset, const Use& use) const {
        if (axis == t_.Shape().size()) {
            use(offset);
            return;
        }
        for (const std::int64_t i : shown_positions(t_.Shape()[axis], summarize_)) {
            if (i >= 0) {
                visit(axis + 1, offset + i * t_.Strides()[axis], use);
            }
        }
    }

    template <typename Use>
    void with_element(std::int64_t offset, const Use& use) const {
        dispatch(AllTypes{}, t_.Dtype(), [&]<typename T>() { use(static_cast<const T*>(t_.getRawData())[offset]); });
    }

    void collect(std::int64_t offset) {
        with_element(offset, [&]<typename T>(const T& value) {
            if constexpr (is_complex_element<T>) {
                parts_.push_back(static_cast<double>(value.real));
                parts_.push_back(static_cast<double>(value.imag));
            } else if constexpr (std::is_floating_point_v<T>) {
                parts_.push_back(static_cast<double>(value));
            }
        });
    }

    std::string text_of(std::int64_t offset, const FloatStyle& style) const {
        std::string text;
        with_element(offset, [&]<typename T>(const T& value) {
            if constexpr (std::is_same_v<T, bool>) {
                text = value ? "true" : "false";
            } else if constexpr (is_complex_element<T>) {
                const std::string imaginary = float_text(static_cast<double>(value.imag), style);
                text = float_text(static_cast<double>(value.real), style) + (imaginary[0] == '-' ? "" : "+") +
                       imaginary + "i";
            } else if constexpr (std::is_floating_point_v<T>) {
                text = float_text(static_cast<double>(value), style);
            } else {
                text = std::to_string(value);
            }
        });
        return text;
    }

    // The elements below one position of the axes before `axis`, lines behind the first indented.
    std::string block(std::size_t axis, std::size_t indent) {
        const std::size_t rank = t_.Shape().size();
        if (axis == rank) {
            const std::string& text = texts_[next_++];
            return std::string(width_ - text.size(), ' ') + text;
        }
        const std::string gap(indent + 1, ' ');
        const bool last = axis + 1 == rank;
        const std::string line_end = ",\n" + std::string(last ? 0 : rank - axis - 2, '\n') + gap;
        std::string result = "[";
        std::size_t column = indent + 1;
        bool first = true;
        for (const std::int64_t i : shown_positions(t_.Shape()[axis], summarize_)) {
            const std::string item = i < 0 ? "..." : block(axis + 1, indent + 1);
            if (!first) {
                const bool wraps = !last || column + 2 + item.size() >= line_width;
                result += wraps ? line_end : ", ";
                column = wraps ? indent + 1 : column + 2;
            }
            result += item;
            column += item.size();
            first = false;
        }
        return result + "]";
    }

    const Tensor& t_;
    bool summarize_;
    std::vector<double> parts_;
    std::vector<std::string> texts_;
    std::size_t width_ = 0;
    std::size_t next_ = 0;
};

}  // namespace

std::string KTensor::to_string(int precision) const {
    return defined() ? Printer(*tensor(), std::clamp(precision, 0, 17)).text() : "undefined";
}

std::ostream& operator<<(std::ostream& stream, const KTensor& tensor) { return stream << tensor.to_string(); }

}  // namespace ornik
