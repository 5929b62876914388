"""Products and decompositions of matrices."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING, NamedTuple

from . import _ornik

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "Eigen",
    "cross",
    "dot",
    "eigh",
    "eigvalsh",
    "einsum",
    "inner",
    "kron",
    "matmul",
    "outer",
    "tensordot",
    "trace",
    "vdot",
    "vecdot",
]


def matmul(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The product of the matrices in the last two axes; the axes before them broadcast."""
    return _ornik.matmul(x1, x2)


def dot(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The sum of the products of two rows of numbers."""
    return _ornik.dot(x1, x2)


def einsum(text: str, /, *operands: KTensor) -> KTensor:
    """Sums of products over named axes.

    >>> ornik.einsum("ij,jk->ik", ornik.ones((2, 3)), ornik.ones((3, 2)))
    KTensor([[3., 3.],
             [3., 3.]])
    """
    return _ornik.einsum(text, operands)


def tensordot(x1: KTensor, x2: KTensor, /, *, axes: int | tuple[Sequence[int], Sequence[int]] = 2) -> KTensor:
    """The products summed over the last axes of x1 and the first ones of x2, or over pairs of axes."""
    if isinstance(axes, int):
        if not 0 <= axes <= min(_ornik.checked(x1).ndim, _ornik.checked(x2).ndim):
            raise ValueError(f"tensordot(): there are no {axes} axes on both sides of {x1.shape} and {x2.shape}")
        return _ornik.tensordot(x1, x2, list(range(x1.ndim - axes, x1.ndim)), list(range(axes)))
    return _ornik.tensordot(x1, x2, axes[0], axes[1])


def inner(x1: KTensor, x2: KTensor, /) -> KTensor:
    """Sums of products over the last axis of both."""
    return _ornik.inner(x1, x2)


def outer(x1: KTensor, x2: KTensor, /) -> KTensor:
    """x1[i] * x2[j]."""
    return _ornik.outer(x1, x2)


def vdot(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The sum of conj(x1) * x2 over all elements."""
    return _ornik.vdot(x1, x2)


def vecdot(x1: KTensor, x2: KTensor, /, *, axis: int = -1) -> KTensor:
    """The sums of conj(x1) * x2 along an axis, counted from the end; the other axes broadcast."""
    return _ornik.vecdot(x1, x2, axis)


def cross(x1: KTensor, x2: KTensor, /, *, axis: int = -1) -> KTensor:
    """The vector product along an axis of 3 elements."""
    return _ornik.cross(x1, x2, axis)


def kron(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The Kronecker product of two matrices."""
    return _ornik.kron(x1, x2)


def trace(x: KTensor, /, *, offset: int = 0, axis1: int = -2, axis2: int = -1) -> KTensor:
    """The sum along a diagonal of two axes."""
    return _ornik.trace(x, offset, axis1, axis2)


class Eigen(NamedTuple):
    """Eigenvalues in ascending order, and eigenvectors in columns."""

    eigenvalues: KTensor
    eigenvectors: KTensor


def eigh(x: KTensor, /) -> Eigen:
    """The eigenvalues and eigenvectors of a symmetric or Hermitian matrix; its lower triangle is read."""
    return Eigen(*_ornik.eigh(x))


def eigvalsh(x: KTensor, /) -> KTensor:
    """The eigenvalues of a symmetric or Hermitian matrix, in ascending order."""
    return _ornik.eigvalsh(x)
