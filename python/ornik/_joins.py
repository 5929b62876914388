"""Tensors joined, parted, repeated, shifted and padded."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

from . import _ornik
from ._convert import Axes, Number, Shape, is_tensor

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "broadcast_arrays",
    "chunk",
    "concat",
    "diff",
    "meshgrid",
    "moveaxis",
    "pad",
    "repeat",
    "roll",
    "split",
    "stack",
    "tile",
    "unbind",
    "unstack",
    "windows",
]


def concat(arrays: Sequence[KTensor], /, *, axis: int | None = 0) -> KTensor:
    """One after the other along an axis, or, without one, flattened.

    >>> ornik.concat([ornik.zeros(1), ornik.ones(2)])
    KTensor([0., 1., 1.])
    """
    if axis is None:
        return _ornik.concat([_ornik.reshape(x, -1) for x in arrays], 0)
    return _ornik.concat(arrays, axis)


def stack(arrays: Sequence[KTensor], /, *, axis: int = 0) -> KTensor:
    """Tensors of one shape along a new axis."""
    return _ornik.stack(arrays, axis)


def split(x: KTensor, extents: int | Sequence[int], /, *, axis: int = 0) -> tuple[KTensor, ...]:
    """Views of consecutive parts along an axis: of these extents, or of one, the last part smaller."""
    if isinstance(extents, int):
        return tuple(_ornik.split_every(x, extents, axis))
    return tuple(_ornik.split(x, extents, axis))


def chunk(x: KTensor, parts: int, /, *, axis: int = 0) -> tuple[KTensor, ...]:
    """Views of about this many parts of one extent, the last one smaller."""
    return tuple(_ornik.chunk(x, parts, axis))


def unstack(x: KTensor, /, *, axis: int = 0) -> tuple[KTensor, ...]:
    """Views without the axis, one for each of its positions."""
    return tuple(_ornik.unbind(x, axis))


unbind = unstack


def moveaxis(x: KTensor, source: Axes, destination: Axes, /) -> KTensor:
    """Axes go to other places; the others keep their order: a view."""
    return _ornik.moveaxis(x, source, destination)


def broadcast_arrays(*arrays: KTensor) -> tuple[KTensor, ...]:
    """All under their common shape: views."""
    return tuple(_ornik.broadcast_together(arrays))


def meshgrid(*arrays: KTensor, indexing: str = "xy") -> tuple[KTensor, ...]:
    """Rows of numbers as coordinates of a grid. "ij" keeps the order of axes, "xy" changes the first two."""
    if indexing not in ("xy", "ij"):
        raise ValueError(f'indexing is "xy" or "ij", not {indexing!r}')
    return tuple(_ornik.meshgrid(arrays, indexing == "xy"))


def windows(x: KTensor, size: int, /, *, axis: int = -1, step: int = 1) -> KTensor:
    """Stretches of ``size`` elements, ``step`` apart: the axis counts them, a new last axis walks within. A view."""
    return _ornik.windows(x, axis, size, step)


def tile(x: KTensor, repetitions: Shape, /) -> KTensor:
    """The whole tensor repeated along its axes."""
    return _ornik.tile(x, repetitions)


def repeat(x: KTensor, repeats: int | KTensor, /, *, axis: int | None = None) -> KTensor:
    """Every element, or every slice of an axis, several times in a row."""
    if is_tensor(repeats) and repeats.size == 1:
        repeats = int(repeats)
    return _ornik.repeat(_ornik.reshape(x, -1), repeats, 0) if axis is None else _ornik.repeat(x, repeats, axis)


def roll(x: KTensor, /, shift: Shape, *, axis: Axes = None) -> KTensor:
    """Elements move on; what leaves at the end comes in at the beginning. Without an axis, in row-major order."""
    if isinstance(shift, int) and axis is not None and not isinstance(axis, int):
        shift = [shift] * len(axis)
    return _ornik.roll(x, shift, axis)


def diff(
    x: KTensor, /, *, axis: int = -1, n: int = 1, prepend: KTensor | None = None, append: KTensor | None = None
) -> KTensor:
    """x[i + 1] - x[i] along an axis, n times; of x with ``prepend`` before it and ``append`` behind it."""
    if n < 0:
        raise ValueError(f"differences are taken n >= 0 times, not {n}")
    if prepend is not None or append is not None:
        x = _ornik.concat([part for part in (prepend, x, append) if part is not None], axis)
    for _ in range(n):
        x = _ornik.diff(x, axis)
    return x


def pad(
    x: KTensor, widths: int | Sequence[int] | Sequence[tuple[int, int]], /, *, mode: str = "constant", value: Number = 0
) -> KTensor:
    """Wider at the begin and end of every axis: one width for all, one pair for all, or a pair for each.

    Modes: "constant", "reflect", "edge", "wrap".

    >>> ornik.pad(ornik.ones(2), (1, 0))
    KTensor([0., 1., 1.])
    """
    _ornik.checked(x)
    if isinstance(widths, int):
        pairs = [(widths, widths)] * x.ndim
    elif len(widths) == 2 and all(isinstance(w, int) for w in widths):
        pairs = [(widths[0], widths[1])] * x.ndim  # type: ignore[list-item]
    else:
        pairs = [(before, after) for before, after in widths]  # type: ignore[misc]
    if len(pairs) != x.ndim:
        raise ValueError(f"{x.ndim} axes take {x.ndim} pairs of widths, not {len(pairs)}")
    return _ornik.pad(x, [width for pair in pairs for width in pair], mode, value)
