// selection.h: the two grammars that turn one text item per axis into the positions selected along it.
//
// Common to both: at most one item per axis, missing ones count as ":"; blanks inside an item do not count;
// numbers are read from the longest numeric prefix of their text, in 32 bits. Text without a number throws
// std::invalid_argument("invalid stoi argument"), a number beyond 32 bits
// std::out_of_range("stoi argument out of range"); everything else that is refused throws through ErrorMsg.
//
// The legacy grammar knows "i", ":", "a:", ":b" and "a:b" (b excluded). The n-dimensional grammar adds steps
// ("a:b:c"), ranges that run down ("3:0" is 3, 2, 1) and lists ("1,3,1").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../export.h"
#include "error.h"

namespace ornik {

/// The positions start, start + step, ... (count of them) along one axis, or those of `list` when it is not
/// empty. Ranges stay ranges: ":" over an axis of millions costs nothing.
struct AxisSelection {
    std::int64_t start = 0;
    std::int64_t step = 1;
    std::int64_t count = 0;
    Dims list{};

    std::int64_t at(std::int64_t i) const {
        return list.empty() ? start + i * step : list[static_cast<std::size_t>(i)];
    }
    std::int64_t lowest() const;
    std::int64_t highest() const;
    /// All positions, in selection order.
    Dims positions() const;
};

/// The legacy grammar: for every axis the pair [first, last], last included. Every pair lies within its axis.
ORNIK_API std::vector<Dims> parse_indices(const std::vector<std::string>& items, const Dims& shape);

/// The n-dimensional grammar: for every axis its positions, in selection order. At least one per axis, none beyond
/// the axis' end; a number that stays below 0 when the extent has been added once is not refused here.
ORNIK_API std::vector<Dims> parse_indicesv2(const std::vector<std::string>& items, const Dims& shape);

/// The same without writing ranges out.
ORNIK_API std::vector<AxisSelection> parse_selection(const std::vector<std::string>& items, const Dims& shape);

/// For every axis, does select_ndim keep it? Axes of plain integer items are dropped; lists and ranges keep
/// theirs.
ORNIK_API std::vector<bool> just_keep_dims(const std::vector<std::string>& items, const Dims& shape);

/// The entries of `values`, one per axis, that belong to kept axes.
ORNIK_API Dims kept_entries(const Dims& values, const std::vector<bool>& keep);

/// Strides of the view that shows a selection: those of the tensor times the steps. `items` are as given to the
/// parser: a list of positions has no stride.
ORNIK_API Dims get_new_strides_for_select(const std::vector<std::string>& items,
                                          const std::vector<AxisSelection>& selection, const Dims& strides);

/// Distance, in elements, of the first selected element from the tensor's first. Steps must be positive.
ORNIK_API std::int64_t get_indexing_storage_offset(const std::vector<AxisSelection>& selection, const Dims& strides);

}  // namespace ornik
