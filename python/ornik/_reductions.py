"""From many elements to one; running sums; order."""

from __future__ import annotations

import builtins
from collections.abc import Callable
from typing import TYPE_CHECKING, NamedTuple

from . import _ornik
from ._convert import Axes, DTypeLike, Operand, is_tensor
from ._dtypes import float32

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "Sorted",
    "Unique",
    "all",
    "any",
    "argmax",
    "argmin",
    "argsort",
    "count_nonzero",
    "cumprod",
    "cumsum",
    "cumulative_prod",
    "cumulative_sum",
    "l2_norm",
    "log_softmax",
    "logsumexp",
    "max",
    "mean",
    "median",
    "min",
    "prod",
    "searchsorted",
    "softmax",
    "sort",
    "std",
    "sum",
    "topk",
    "unique",
    "var",
]


def _over_nothing(axis: Axes) -> builtins.bool:
    return isinstance(axis, (tuple, list)) and len(axis) == 0


def sum(x: KTensor, /, *, axis: Axes = None, dtype: DTypeLike | None = None, keepdims: bool = False) -> KTensor:
    """The sum over some axes, or all of them. bools and whole numbers give int64.

    >>> ornik.sum(ornik.ones((2, 3)), axis=0)
    KTensor([2., 2., 2.])
    """
    if dtype is not None:
        x = _ornik.astype(x, dtype)
    if axis is None or not _over_nothing(axis):
        y = _ornik.sum(x, axis, keepdims)
    else:
        y = _ornik.sum(_ornik.unsqueeze(x, 0), 0, False)
    return y if dtype is None else _ornik.astype(y, dtype)


def prod(x: KTensor, /, *, axis: Axes = None, dtype: DTypeLike | None = None, keepdims: bool = False) -> KTensor:
    """The product over some axes, or all of them. bools and whole numbers give int64."""
    if dtype is not None:
        x = _ornik.astype(x, dtype)
    if axis is None or not _over_nothing(axis):
        y = _ornik.prod(x, axis, keepdims)
    else:
        y = _ornik.prod(_ornik.unsqueeze(x, 0), 0, False)
    return y if dtype is None else _ornik.astype(y, dtype)


def _reduced(function: Callable[[KTensor, Axes, bool], KTensor], x: KTensor, axis: Axes, keepdims: bool) -> KTensor:
    """With no axes at all, every element is reduced by itself."""
    if axis is not None and _over_nothing(axis):
        return function(_ornik.unsqueeze(x, 0), 0, False)
    return function(x, axis, keepdims)


def mean(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """The mean; bools and whole numbers give float32."""
    return _reduced(_ornik.mean, x, axis, keepdims)


def var(x: KTensor, /, *, axis: Axes = None, correction: float = 0.0, keepdims: bool = False) -> KTensor:
    """The mean of squared deviations from the mean, divided by count - correction."""
    return _reduced(lambda t, a, k: _ornik.var(t, a, k, correction), x, axis, keepdims)


def std(x: KTensor, /, *, axis: Axes = None, correction: float = 0.0, keepdims: bool = False) -> KTensor:
    """The square root of the variance."""
    return _reduced(lambda t, a, k: _ornik.std_dev(t, a, k, correction), x, axis, keepdims)


def logsumexp(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """log(sum(exp(x))), without overflow."""
    return _reduced(_ornik.logsumexp, x, axis, keepdims)


def l2_norm(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """The square root of the sum of squared magnitudes."""
    return _reduced(_ornik.l2_norm, x, axis, keepdims)


def median(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """The middle element in order, or the mean of the two middle ones."""
    return _reduced(_ornik.median, x, axis, keepdims)


def max(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """The largest element; NaN wins."""
    return _reduced(_ornik.max, x, axis, keepdims)


def min(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """The smallest element; NaN wins."""
    return _reduced(_ornik.min, x, axis, keepdims)


def all(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """Are all elements true?"""
    return _reduced(_ornik.all, x, axis, keepdims)


def any(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """Is one element true?"""
    return _reduced(_ornik.any, x, axis, keepdims)


def argmax(x: KTensor, /, *, axis: int | None = None, keepdims: bool = False) -> KTensor:
    """The position of the first largest element, in the flattened tensor or along an axis."""
    return _ornik.argmax(x, axis, keepdims)


def argmin(x: KTensor, /, *, axis: int | None = None, keepdims: bool = False) -> KTensor:
    """The position of the first smallest element, in the flattened tensor or along an axis."""
    return _ornik.argmin(x, axis, keepdims)


def count_nonzero(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False) -> KTensor:
    """How many elements are not zero."""
    return sum(_ornik.not_equal(x, 0), axis=axis, keepdims=keepdims)


def cumsum(x: KTensor, /, *, axis: int = -1) -> KTensor:
    """Running sums along an axis."""
    return _ornik.cumsum(x, axis)


def cumprod(x: KTensor, /, *, axis: int = -1) -> KTensor:
    """Running products along an axis."""
    return _ornik.cumprod(x, axis)


def _cumulated(
    function: Callable[[KTensor, int], KTensor],
    x: KTensor,
    axis: int | None,
    dtype: DTypeLike | None,
    first: int | None,
) -> KTensor:
    if axis is None:
        if _ornik.checked(x).ndim > 1:
            raise ValueError(f"a running result takes an axis of the {x.ndim}")
        axis = 0
    if dtype is not None:
        x = _ornik.astype(x, dtype)
    y = function(_ornik.unsqueeze(x, 0) if x.ndim == 0 else x, axis)
    if dtype is not None:
        y = _ornik.astype(y, dtype)
    if first is None:
        return _ornik.reshape(y, x.shape)
    shape = list(y.shape)
    shape[axis] = 1
    return _ornik.concat([_ornik.full(shape, first, y.dtype), y], axis)


def cumulative_sum(
    x: KTensor, /, *, axis: int | None = None, dtype: DTypeLike | None = None, include_initial: builtins.bool = False
) -> KTensor:
    """Running sums along an axis, which only one that is alone need not name; with a 0 before them on demand."""
    return _cumulated(_ornik.cumsum, x, axis, dtype, 0 if include_initial else None)


def cumulative_prod(
    x: KTensor, /, *, axis: int | None = None, dtype: DTypeLike | None = None, include_initial: builtins.bool = False
) -> KTensor:
    """Running products along an axis, which only one that is alone need not name; with a 1 before them on demand."""
    return _cumulated(_ornik.cumprod, x, axis, dtype, 1 if include_initial else None)


def softmax(x: KTensor, /, *, axis: int = -1) -> KTensor:
    """exp(x) / sum(exp(x)) along an axis."""
    return _ornik.softmax(x, axis)


def log_softmax(x: KTensor, /, *, axis: int = -1) -> KTensor:
    """The logarithm of softmax, exact where that is near 0."""
    return _ornik.log_softmax(x, axis)


class Sorted(NamedTuple):
    """Elements in order, and where they stood."""

    values: KTensor
    indices: KTensor


def sort(x: KTensor, /, *, axis: int = -1, descending: bool = False, stable: bool = True) -> KTensor:
    """The elements in order along an axis; NaN last. Equal ones always keep their order."""
    return _ornik.sort(x, axis, descending)[0]


def argsort(x: KTensor, /, *, axis: int = -1, descending: bool = False, stable: bool = True) -> KTensor:
    """Where the elements stand that sort() gives."""
    return _ornik.argsort(x, axis, descending)


def topk(x: KTensor, k: int, /, *, axis: int = -1, largest: bool = True) -> Sorted:
    """The k largest (smallest) elements in order, and where they stand."""
    return Sorted(*_ornik.topk(x, k, axis, largest))


class Unique(NamedTuple):
    """Different elements in order, for each element the place of its equal, and how often each occurs."""

    values: KTensor
    inverse_indices: KTensor
    counts: KTensor


def unique(x: KTensor, /) -> Unique:
    """The different elements; NaNs count as one."""
    return Unique(*_ornik.unique(x))


def searchsorted(x1: KTensor, x2: Operand, /, *, side: str = "left", sorter: KTensor | None = None) -> KTensor:
    """Where each number of x2 goes into the sorted x1, or into x1 in the order of ``sorter``: before its equals, or
    behind them with side="right"."""
    if side not in ("left", "right"):
        raise ValueError(f'side is "left" or "right", not {side!r}')
    _ornik.checked(x1)
    if sorter is not None:
        x1 = x1[sorter]
    if not is_tensor(x2):
        x2 = _ornik.full((), x2, x1.dtype if isinstance(x2, int) or x1.dtype.kind == "f" else float32)
    places = _ornik.searchsorted(x1, _ornik.reshape(x2, -1) if x1.ndim == 1 else x2, side == "right")
    return _ornik.reshape(places, x2.shape) if x1.ndim == 1 else places
