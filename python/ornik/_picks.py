"""Elements picked by tensors of positions, masks, diagonals and triangles."""

from __future__ import annotations

from typing import TYPE_CHECKING

from . import _ornik

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "argwhere",
    "diag",
    "diagonal",
    "gather",
    "index_add",
    "index_select",
    "masked_select",
    "nonzero",
    "scatter",
    "scatter_add",
    "take",
    "take_along_axis",
    "tril",
    "triu",
]


def take(x: KTensor, indices: KTensor, /, *, axis: int | None = None) -> KTensor:
    """Slices of an axis by their positions; without an axis, elements of the flattened tensor."""
    return _ornik.take_flat(x, indices) if axis is None else _ornik.index_select(x, axis, indices)


def index_select(x: KTensor, axis: int, indices: KTensor, /) -> KTensor:
    """Slices of an axis by their positions."""
    return _ornik.index_select(x, axis, indices)


def index_add(x: KTensor, axis: int, indices: KTensor, source: KTensor, /) -> KTensor:
    """x, with slice k of ``source`` added to slice indices[k]."""
    return _ornik.index_add(x, axis, indices, source)


def take_along_axis(x: KTensor, indices: KTensor, /, *, axis: int = -1) -> KTensor:
    """One position of the axis for each element, after x and indices have been broadcast along the others."""
    return _ornik.take_along_axis(x, indices, axis)


def gather(x: KTensor, axis: int, indices: KTensor, /) -> KTensor:
    """result[i][j] = x[i][indices[i][j]] for axis 1; shaped as ``indices``."""
    return _ornik.gather(x, axis, indices)


def scatter(x: KTensor, axis: int, indices: KTensor, source: KTensor, /) -> KTensor:
    """x, but result[i][indices[i][j]] = source[i][j] for axis 1."""
    return _ornik.scatter(x, axis, indices, source)


def scatter_add(x: KTensor, axis: int, indices: KTensor, source: KTensor, /) -> KTensor:
    """x, with source[i][j] added at [i][indices[i][j]] for axis 1."""
    return _ornik.scatter_add(x, axis, indices, source)


def masked_select(x: KTensor, mask: KTensor, /) -> KTensor:
    """The elements where the mask is true, in row-major order."""
    return _ornik.masked_select(x, mask)


def argwhere(x: KTensor, /) -> KTensor:
    """The positions [count, ndim] of the elements that are not zero."""
    return _ornik.argwhere(x)


def nonzero(x: KTensor, /) -> tuple[KTensor, ...]:
    """The positions of the elements that are not zero: a tensor for each axis."""
    if _ornik.checked(x).ndim == 0:
        raise ValueError("nonzero() is for tensors with axes")
    return tuple(_ornik.unbind(_ornik.argwhere(x), 1))


def diagonal(x: KTensor, /, *, offset: int = 0, axis1: int = -2, axis2: int = -1) -> KTensor:
    """A diagonal of two axes as a last axis: a view."""
    return _ornik.diagonal(x, offset, axis1, axis2)


def diag(x: KTensor, /, *, k: int = 0) -> KTensor:
    """The matrix with this diagonal, or the diagonal of this matrix."""
    return _ornik.diag(x, k)


def tril(x: KTensor, /, *, k: int = 0) -> KTensor:
    """The elements on and below diagonal k, zeros elsewhere."""
    return _ornik.tril(x, k)


def triu(x: KTensor, /, *, k: int = 0) -> KTensor:
    """The elements on and above diagonal k, zeros elsewhere."""
    return _ornik.triu(x, k)
