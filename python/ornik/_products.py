"""Products and decompositions of matrices."""

from __future__ import annotations

from typing import TYPE_CHECKING, NamedTuple

from . import _ornik

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = ["Eigen", "dot", "eigh", "eigvalsh", "kron", "matmul", "trace"]


def matmul(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The product of the matrices in the last two axes; the axes before them broadcast."""
    return _ornik.matmul(x1, x2)


def dot(x1: KTensor, x2: KTensor, /) -> KTensor:
    """The sum of the products of two rows of numbers."""
    return _ornik.dot(x1, x2)


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
