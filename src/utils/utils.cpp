// utils.cpp: the device check, the resolution of requested shapes, and the two grammars of selection items.
#include "utils/utils.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>

#include "utils/logging.h"
#include "utils/selection.h"
#include "utils/shape_rules.h"

namespace ornik {

void CheckDev(std::int64_t device) {
    if (device == device_cpu || device == device_other || is_gpu_device(device)) {
        return;
    }
    fail(ErrorKind::device, where("CheckDev"), "Not exist device: ", device, " , ",
         "out of range!  set device = ", device_cpu, " for CPU, set device >= ", device_first_gpu,
         " for GPU:0,...,GPU:8 .");
}

void refuse_gpu() { throw Error(ErrorKind::device, "Not compiled for GPU, set device = 0 or device = None", ""); }

void detail::refuse_axis(const Where& at, int rank) {
    fail(ErrorKind::index, at, "axis should in range of [", -rank, ",", rank - 1, "]");
}

Dims shape2stride(const Dims& shape) {
    Dims strides(shape.size());
    std::uint64_t step = 1;  // Unsigned: an absurd shape wraps here and is refused by its element count.
    for (std::size_t i = shape.size(); i-- > 0;) {
        strides[i] = static_cast<std::int64_t>(step);
        step *= static_cast<std::uint64_t>(shape[i]);
    }
    return strides;
}

Dims infer_final_reshape(const Dims& shape, const Dims& input_shape, std::int64_t numel) {
    const Where at = where("ornik::infer_final_reshape");
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    std::int64_t unknown = 0;
    std::int64_t known = 1;
    for (const std::int64_t entry : shape) {
        if (entry < -1) {
            fail(at,
                 "shape should not less than -1, in which case it'sinferred from the remaining dimensions and "
                 "the number of elements.");
        }
        unknown += entry == -1 ? 1 : 0;
        if (entry > 0) {
            known = known > max / entry ? max : known * entry;
        }
    }
    if (unknown > 1) {
        fail(at, "Can only specify one unknown dimension, FILE: ");
    }
    Dims result = shape;
    std::uint32_t count = 1;
    for (std::int64_t& entry : result) {
        if (entry == -1) {
            entry = numel / known;
        }
        count *= static_cast<std::uint32_t>(entry);
    }
    if (static_cast<std::int32_t>(count) != numel) {
        fail(at, "Not compatible shapes, input ", input_shape, " ,                target ", result);
    }
    return result;
}

Dims infer_tile_shape(const Dims& shape, const std::vector<int>& reps) {
    const std::size_t rank = std::max(shape.size(), reps.size());
    Dims result(rank, 1);
    std::copy(shape.begin(), shape.end(), result.end() - static_cast<std::ptrdiff_t>(shape.size()));
    for (std::size_t i = 0; i < reps.size(); ++i) {
        if (reps[i] <= 0) {
            fail(where("ornik::infer_tile_shape"), "repeat time for tile should be greater than 0. ");
        }
        std::int64_t& extent = result[rank - reps.size() + i];
        extent = static_cast<std::int32_t>(static_cast<std::uint32_t>(extent) * static_cast<std::uint32_t>(reps[i]));
    }
    return result;
}

Dims gather_dims(const Dims& values, const std::vector<int>& order) {
    if (values.size() != order.size()) {
        fail(where("ornik::gather_dims"), "Dimensions do not match");
    }
    Dims result;
    for (const int axis : order) {
        result.push_back(values[static_cast<std::size_t>(maybe_wrap_dim(axis, static_cast<int>(values.size())))]);
    }
    return result;
}

namespace {

bool is_list_item(const std::string& item) {
    return item.find(',') != std::string::npos && item.find(':') == std::string::npos;
}

bool is_integer_item(const std::string& item) { return item.find_first_of(",:") == std::string::npos; }

// One item per axis, without blanks.
std::vector<std::string> complete_items(const Where& at, const std::vector<std::string>& items, const Dims& shape) {
    if (items.size() > shape.size()) {
        fail(at,
             "The number of dimensions of the indices cannot be greater                 than the shape of the "
             "tensor to match");
    }
    std::vector<std::string> result = items;
    result.resize(shape.size(), ":");
    for (std::string& item : result) {
        item.erase(std::remove(item.begin(), item.end(), ' '), item.end());
    }
    return result;
}

std::int64_t leading_number(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of("\t\n\v\f\r"), text.size()));
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') {
        text.remove_prefix(1);
    }
    std::int32_t number = 0;
    switch (std::from_chars(text.data(), text.data() + text.size(), number).ec) {
        case std::errc::invalid_argument:
            throw std::invalid_argument("invalid stoi argument");
        case std::errc::result_out_of_range:
            throw std::out_of_range("stoi argument out of range");
        default:
            return number;
    }
}

// Unsigned: extents are the caller's, and a position that wraps lies outside all of them.
std::int64_t wrapped_once(std::int64_t position, std::int64_t extent) {
    const auto sum = static_cast<std::uint64_t>(position) + static_cast<std::uint64_t>(extent);
    return position < 0 ? static_cast<std::int64_t>(sum) : position;
}

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        text += item + " ";
    }
    return text;
}

Dims legacy_range(const std::string& item, std::int64_t extent) {
    const std::string_view text = item;
    const std::size_t colon = text.find(':');
    std::int64_t first = 0;
    std::int64_t last = extent - 1;
    if (colon == std::string_view::npos) {
        first = leading_number(text);
        last = first;
    } else if (text != ":") {
        if (colon > 0) {
            first = leading_number(text.substr(0, colon));
        }
        if (colon + 1 < text.size()) {
            last = leading_number(text.substr(colon + 1)) - 1;
        }
    }
    return {wrapped_once(first, extent), wrapped_once(last, extent)};
}

}  // namespace

std::vector<Dims> parse_indices(const std::vector<std::string>& items, const Dims& shape) {
    const Where at = where("parse_indices");
    const std::vector<std::string> texts = complete_items(at, items, shape);
    std::vector<Dims> ranges;
    for (std::size_t k = 0; k < shape.size(); ++k) {
        ranges.push_back(legacy_range(texts[k], shape[k]));
    }
    for (std::size_t k = 0; k < shape.size(); ++k) {
        const std::int64_t first = ranges[k][0];
        const std::int64_t last = ranges[k][1];
        const char* reason = nullptr;
        if (first < 0 || last < 0) {
            reason = "Indices must be greater than zero.";
        } else if (last < first) {
            reason = "The last index of the range must be greater or equal than the first.";
        } else if (last >= shape[k]) {
            reason = "The last index of the range must fit in its dimension.";
        }
        if (reason != nullptr) {
            DebugMsg("str_indices " + joined(texts), "");
            DebugMsg("shape  " + shape_text(shape), "");
            fail(ErrorKind::index, at, "Invalid indices: '", texts[k], "'. ", reason);
        }
    }
    return ranges;
}

std::int64_t AxisSelection::lowest() const {
    return list.empty() ? std::min(start, at(count - 1)) : *std::min_element(list.begin(), list.end());
}

std::int64_t AxisSelection::highest() const {
    return list.empty() ? std::max(start, at(count - 1)) : *std::max_element(list.begin(), list.end());
}

Dims AxisSelection::positions() const {
    Dims result = list;
    for (std::int64_t i = 0; list.empty() && i < count; ++i) {
        result.push_back(at(i));
    }
    return result;
}

namespace {

// stop is excluded; both ends have been wrapped.
AxisSelection stepped_range(const Where& at, std::int64_t start, std::int64_t stop, std::int64_t step) {
    if (start == stop) {
        fail(at, "max == min is not valid for Ornik tensor slice.");
    }
    if (step == 0) {
        fail(at, "slice step cannot be zero");
    }
    const std::int64_t last = stop > start ? stop - 1 : stop + 1;
    const std::int64_t distance = step > 0 ? last - start : start - last;
    return {start, step, distance < 0 ? 0 : distance / std::abs(step) + 1};
}

AxisSelection position_list(std::string_view text, std::int64_t extent) {
    AxisSelection selection;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        selection.list.push_back(wrapped_once(leading_number(text.substr(begin, end - begin)), extent));
        begin = end + 1;
    }
    selection.count = static_cast<std::int64_t>(selection.list.size());
    return selection;
}

AxisSelection parse_item(const Where& at, const std::string& item, std::int64_t extent) {
    const std::string_view text = item;
    const auto bound = [&](std::string_view piece) { return wrapped_once(leading_number(piece), extent); };
    if (is_list_item(item)) {
        return position_list(text, extent);
    }
    if (is_integer_item(item)) {
        return {bound(text), 1, 1};
    }
    if (std::count(text.begin(), text.end(), ':') > 2) {
        fail(at, "Select string", item, "not valid.");
    }
    if (text == ":") {
        return {0, 1, extent};
    }
    const std::size_t colon = text.find(':');
    if (text.back() == ':') {
        return stepped_range(at, bound(text.substr(0, text.size() - 1)), extent, 1);
    }
    if (colon == 0) {
        const std::int64_t stop = bound(text.substr(1));
        return stepped_range(at, 0, stop, 1);
    }
    const std::int64_t start = bound(text.substr(0, colon));
    const std::size_t second = text.find(':', colon + 1);
    const std::int64_t stop = bound(text.substr(colon + 1, second - colon - 1));
    if (second == std::string_view::npos) {
        return stepped_range(at, start, stop, stop > start ? 1 : -1);
    }
    return stepped_range(at, start, stop, leading_number(text.substr(second + 1)));
}

}  // namespace

std::vector<AxisSelection> parse_selection(const std::vector<std::string>& items, const Dims& shape) {
    const Where at = where("parse_indicesv2");
    const std::vector<std::string> texts = complete_items(at, items, shape);
    std::vector<AxisSelection> selection;
    for (std::size_t k = 0; k < shape.size(); ++k) {
        selection.push_back(parse_item(at, texts[k], shape[k]));
    }
    for (std::size_t k = 0; k < shape.size(); ++k) {
        if (selection[k].count <= 0) {
            fail(at, "index: ", texts[k], " of axis: ", k, " is emtpy.");
        }
        if (selection[k].highest() >= shape[k]) {
            fail(ErrorKind::index, at, "index: ", texts[k], " exceeds max bounds of axis: ", k,
                 " with size: ", shape[k]);
        }
    }
    return selection;
}

std::vector<Dims> parse_indicesv2(const std::vector<std::string>& items, const Dims& shape) {
    const std::vector<AxisSelection> selection = parse_selection(items, shape);
    for (std::size_t k = 0; k < shape.size(); ++k) {
        // A range of more positions than its axis has reaches below 0, and no operation takes it. One of
        // billions is not written out.
        constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
        if (selection[k].list.empty() && selection[k].count > std::min(shape[k], most) + (1 << 20)) {
            fail(ErrorKind::not_implemented, where("parse_indicesv2"), "unsuppoted select");
        }
    }
    std::vector<Dims> positions;
    for (const AxisSelection& axis : selection) {
        positions.push_back(axis.positions());
    }
    return positions;
}

std::vector<bool> just_keep_dims(const std::vector<std::string>& items, const Dims& shape) {
    std::vector<bool> keep;
    for (const std::string& item : complete_items(where("just_keep_dims"), items, shape)) {
        keep.push_back(!is_integer_item(item));
    }
    return keep;
}

Dims kept_entries(const Dims& values, const std::vector<bool>& keep) {
    if (values.size() != keep.size()) {
        fail(where("just_keep_dims"), "Incompatible dimensions with keep_dims");
    }
    Dims result;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (keep[i]) {
            result.push_back(values[i]);
        }
    }
    return result;
}

namespace {

void check_one_per_axis(const Where& at, const std::vector<AxisSelection>& selection, const Dims& strides) {
    if (selection.size() != strides.size()) {
        fail(at, "A selection of ", selection.size(), " axes does not fit strides ", strides);
    }
}

}  // namespace

namespace {

// Numbers that no tensor has may come in; they wrap.
std::int64_t wrapping_product(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}
std::int64_t wrapping_sum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace

Dims get_new_strides_for_select(const std::vector<std::string>& items, const std::vector<AxisSelection>& selection,
                                const Dims& strides) {
    check_one_per_axis(where("get_new_strides_for_select"), selection, strides);
    Dims result;
    for (std::size_t k = 0; k < strides.size(); ++k) {
        if (k < items.size() && is_list_item(items[k])) {
            fail(where("get_new_strides_for_select"), "can not infer new stride for split indexing.");
        }
        result.push_back(wrapping_product(strides[k], selection[k].step));
    }
    return result;
}

std::int64_t get_indexing_storage_offset(const std::vector<AxisSelection>& selection, const Dims& strides) {
    check_one_per_axis(where("get_indexing_storage_offset"), selection, strides);
    std::int64_t offset = 0;
    for (std::size_t k = 0; k < strides.size(); ++k) {
        if (selection[k].step <= 0) {
            fail(where("get_indexing_storage_offset"), "step must be greater than zero for slice operation");
        }
        offset = wrapping_sum(offset, wrapping_product(selection[k].start, strides[k]));
    }
    return offset;
}

}  // namespace ornik
