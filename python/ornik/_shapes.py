"""The same elements under other shapes, orders and dtypes."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

from . import _ornik
from ._convert import Axes, DTypeLike, Shape, check_device

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "astype",
    "broadcast_shapes",
    "broadcast_to",
    "clone",
    "contiguous",
    "expand_dims",
    "flatten",
    "flip",
    "matrix_transpose",
    "permute_dims",
    "reshape",
    "squeeze",
    "sum_to_shape",
    "swapaxes",
    "unsqueeze",
    "view",
]


def astype(x: KTensor, dtype: DTypeLike, /, *, copy: bool = True, device: object = None) -> KTensor:
    """The elements as another dtype; with ``copy=False`` the tensor itself when it has that dtype.

    Complex numbers give their real part to real dtypes; fractions are cut off to whole numbers.
    """
    check_device(device)
    converted = _ornik.astype(x, dtype)
    return _ornik.clone(x) if copy and _ornik.same(converted, x) else converted


def clone(x: KTensor, /) -> KTensor:
    """A copy in memory of its own, row after row."""
    return _ornik.clone(x)


def contiguous(x: KTensor, /) -> KTensor:
    """The tensor itself when its rows stand one behind the other, else a copy."""
    return _ornik.contiguous(x)


def reshape(x: KTensor, /, shape: Shape, *, copy: bool | None = None) -> KTensor:
    """The same elements in the same order; one extent may be -1. A view where the strides admit one, else a copy."""
    if copy is False:
        return _ornik.view(x, shape)
    y = _ornik.reshape(x, shape)
    return _ornik.clone(y) if copy and _ornik.shares_memory(x, y) else y


def view(x: KTensor, /, shape: Shape) -> KTensor:
    """``reshape`` that refuses to copy."""
    return _ornik.view(x, shape)


def flatten(x: KTensor, /, start: int = 0, end: int = -1) -> KTensor:
    """Axes start to end, both included, become one."""
    return _ornik.flatten(x, start, end)


def broadcast_to(x: KTensor, /, shape: Shape) -> KTensor:
    """Repeated along leading axes and axes of extent 1: a view."""
    return _ornik.broadcast_to(x, shape)


def broadcast_shapes(*shapes: Sequence[int]) -> tuple[int, ...]:
    """The common shape of tensors of these shapes.

    >>> ornik.broadcast_shapes((2, 1), (3,))
    (2, 3)
    """
    rank = max((len(s) for s in shapes), default=0)
    result = [1] * rank
    for shape in shapes:
        for axis, extent in enumerate(shape, rank - len(shape)):
            if extent != 1 and result[axis] not in (1, extent):
                raise ValueError(f"the shapes {', '.join(str(tuple(s)) for s in shapes)} do not broadcast")
            if extent != 1:
                result[axis] = extent
    return tuple(result)


def sum_to_shape(x: KTensor, /, shape: Shape) -> KTensor:
    """The reverse of :func:`broadcast_to`: a sum."""
    return _ornik.sum_to_shape(x, shape)


def permute_dims(x: KTensor, /, axes: Sequence[int]) -> KTensor:
    """Axis i of the result is axis axes[i] of x: a view."""
    return _ornik.permute(x, axes)


def matrix_transpose(x: KTensor, /) -> KTensor:
    """The last two axes change places: a view."""
    return _ornik.transpose(x)


def swapaxes(x: KTensor, axis1: int, axis2: int, /) -> KTensor:
    """Two axes change places: a view."""
    return _ornik.swapaxes(x, axis1, axis2)


def squeeze(x: KTensor, /, axis: Axes = None) -> KTensor:
    """Without the axes of extent 1, or without those named, which have extent 1: a view."""
    return _ornik.squeeze(x, axis)


def expand_dims(x: KTensor, /, axis: int | tuple[int, ...] | list[int] = 0) -> KTensor:
    """With axes of extent 1 at these places of the result: a view."""
    if not isinstance(axis, (tuple, list)):
        return _ornik.unsqueeze(x, axis)
    rank = x.ndim + len(axis)
    places = sorted(a + rank if a < 0 else a for a in axis)
    if len(set(places)) != len(places):
        raise ValueError(f"expand_dims(): a place stands twice in {tuple(axis)}")
    if places and not 0 <= places[0] <= places[-1] < rank:
        raise IndexError(f"expand_dims(): {tuple(axis)} are no axes of {rank}")
    for place in places:
        x = _ornik.unsqueeze(x, place)
    return x


def unsqueeze(x: KTensor, axis: int, /) -> KTensor:
    """:func:`expand_dims` by its other name."""
    return _ornik.unsqueeze(x, axis)


def flip(x: KTensor, /, *, axis: Axes = None) -> KTensor:
    """A copy with the elements in reverse order along the axes, or along all."""
    return _ornik.flip(x, list(range(_ornik.checked(x).ndim)) if axis is None else axis)
