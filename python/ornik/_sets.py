"""Tensors as sets: their different elements, and membership.

NaN is equal to nothing: each one counts for itself.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, NamedTuple

from . import _dtypes, _ornik
from ._convert import Operand, is_tensor, ready
from ._promotion import result_type

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = ["isin", "unique_all", "unique_counts", "unique_inverse", "unique_values"]


class UniqueAll(NamedTuple):
    """The different elements in order, where each stands first, for each element of x the place of its equal, and how
    often each occurs."""

    values: KTensor
    indices: KTensor
    inverse_indices: KTensor
    counts: KTensor


class UniqueCounts(NamedTuple):
    """The different elements in order, and how often each occurs."""

    values: KTensor
    counts: KTensor


class UniqueInverse(NamedTuple):
    """The different elements in order, and for each element of x the place of its equal."""

    values: KTensor
    inverse_indices: KTensor


def _order(x: KTensor) -> KTensor:
    """Positions that sort one axis; complex numbers by their real, then their imaginary parts."""
    if x.dtype.kind != "c":
        return _ornik.argsort(x, 0, False)
    by_imaginary = _ornik.argsort(_ornik.imag(x), 0, False)
    return by_imaginary[_ornik.argsort(_ornik.real(x)[by_imaginary], 0, False)]


def _runs(x: KTensor) -> tuple[KTensor, KTensor, KTensor]:
    """The elements in order, where they stood, and true for those that differ from the one before."""
    flat = _ornik.reshape(x, -1)
    order = _order(flat)
    ordered = flat[order]
    first = _ornik.full(flat.shape, True, _dtypes.bool_)
    first[1:] = _ornik.not_equal(ordered[1:], ordered[:-1])
    return ordered, order, first


def _counts(first: KTensor) -> KTensor:
    starts = _ornik.reshape(_ornik.argwhere(first), -1)
    end = _ornik.full(1, first.size, _dtypes.int64)
    return _ornik.diff(_ornik.concat([starts, end], 0), 0)


def _inverse(x: KTensor, order: KTensor, first: KTensor) -> KTensor:
    places = _ornik.sub(_ornik.cumsum(first, 0), 1)
    return _ornik.reshape(_ornik.scatter(_ornik.empty(x.size, _dtypes.int64), 0, order, places), x.shape)


def unique_all(x: KTensor, /) -> UniqueAll:
    """The different elements and all about them.

    >>> ornik.unique_all(ornik.asarray([3, 1, 3])).indices
    KTensor([1, 0])
    """
    ordered, order, first = _runs(x)
    return UniqueAll(ordered[first], order[first], _inverse(x, order, first), _counts(first))


def unique_counts(x: KTensor, /) -> UniqueCounts:
    """The different elements, and how often each occurs."""
    ordered, _, first = _runs(x)
    return UniqueCounts(ordered[first], _counts(first))


def unique_inverse(x: KTensor, /) -> UniqueInverse:
    """The different elements, and for each element of x the place of its equal."""
    ordered, order, first = _runs(x)
    return UniqueInverse(ordered[first], _inverse(x, order, first))


def unique_values(x: KTensor, /) -> KTensor:
    """The different elements in order."""
    ordered, _, first = _runs(x)
    return ordered[first]


def isin(x1: Operand, x2: Operand, /, *, invert: bool = False) -> KTensor:
    """True where an element of x1 is one of x2's; with ``invert``, where it is none.

    >>> ornik.isin(ornik.arange(4), ornik.asarray([1, 3]))
    KTensor([False,  True, False,  True])
    """
    if is_tensor(x1) or is_tensor(x2):
        kind = result_type(x1, x2)
        elements, members = _ornik.astype(ready(x1), kind), _ornik.astype(ready(x2), kind)
    else:
        elements, members = ready(x1), ready(x2)
    members = _ornik.reshape(members, -1)
    if members.size == 0:
        return _ornik.full(elements.shape, invert, _dtypes.bool_)
    flat = _ornik.reshape(elements, -1)
    compare = _ornik.not_equal if invert else _ornik.equal
    if members.dtype.kind == "c":
        pairs = compare(_ornik.unsqueeze(flat, 1), members)
        found = _ornik.all(pairs, 1, False) if invert else _ornik.any(pairs, 1, False)
    else:
        members = _ornik.sort(members, 0, False)[0]
        places = _ornik.clamp_max(_ornik.searchsorted(members, flat, False), members.size - 1)
        found = compare(flat, members[places])
    return _ornik.reshape(found, elements.shape)
