"""Linear algebra: decompositions, solutions, determinants and norms of matrices.

The last two axes of a tensor are its matrices, those before them a batch. Every function of floating and complex
numbers has gradients.

>>> x = ornik.asarray([[2.0, 0.0], [0.0, 4.0]])
>>> ornik.linalg.solve(x, ornik.ones(2))
KTensor([0.5 , 0.25])
"""

from __future__ import annotations

from typing import TYPE_CHECKING, NamedTuple

from . import _ornik, _reductions
from ._convert import Axes, DTypeLike
from ._products import Eigen as Eigen
from ._products import cross as cross
from ._products import eigh as eigh
from ._products import eigvalsh as eigvalsh
from ._products import matmul as matmul
from ._products import outer as outer
from ._products import tensordot as tensordot
from ._products import vecdot as vecdot
from ._shapes import matrix_transpose as matrix_transpose

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "cholesky",
    "cross",
    "det",
    "diagonal",
    "eig",
    "eigh",
    "eigvals",
    "eigvalsh",
    "inv",
    "matmul",
    "matrix_norm",
    "matrix_power",
    "matrix_rank",
    "matrix_transpose",
    "outer",
    "pinv",
    "qr",
    "slogdet",
    "solve",
    "svd",
    "svdvals",
    "tensordot",
    "trace",
    "vecdot",
    "vector_norm",
]


class QR(NamedTuple):
    """Orthonormal columns, and an upper triangle."""

    Q: KTensor
    R: KTensor


class SVD(NamedTuple):
    """Left vectors in columns, decreasing singular values, right vectors in rows, conjugated."""

    U: KTensor
    S: KTensor
    Vh: KTensor


class SLogDet(NamedTuple):
    """det(x) = sign * exp(logabsdet)."""

    sign: KTensor
    logabsdet: KTensor


def cholesky(x: KTensor, /, *, upper: bool = False) -> KTensor:
    """The lower triangle L with x = L @ L^H of positive definite matrices, or the upper one U with x = U^H @ U."""
    return _ornik.cholesky(x, upper)


def qr(x: KTensor, /, *, mode: str = "reduced") -> QR:
    """x = Q @ R; with mode="complete" Q is square."""
    if mode not in ("reduced", "complete"):
        raise ValueError(f'mode is "reduced" or "complete", not {mode!r}')
    return QR(*_ornik.qr(x, mode == "complete"))


def svd(x: KTensor, /, *, full_matrices: bool = True) -> SVD:
    """The singular value decomposition x = U @ diag(S) @ Vh."""
    return SVD(*_ornik.svd(x, full_matrices))


def svdvals(x: KTensor, /) -> KTensor:
    """The singular values, decreasing."""
    return _ornik.svdvals(x)


def eig(x: KTensor, /) -> Eigen:
    """Complex eigenvalues, in no order, and eigenvectors of length 1 in columns, of square matrices."""
    return Eigen(*_ornik.eig(x))


def eigvals(x: KTensor, /) -> KTensor:
    """Complex eigenvalues of square matrices, in no order."""
    return _ornik.eigvals(x)


def inv(x: KTensor, /) -> KTensor:
    """The inverse; a singular matrix is an error."""
    return _ornik.inv(x)


def det(x: KTensor, /) -> KTensor:
    """The determinant."""
    return _ornik.det(x)


def slogdet(x: KTensor, /) -> SLogDet:
    """The determinant's sign (or phase) and the logarithm of its magnitude."""
    return SLogDet(*_ornik.slogdet(x))


def solve(x1: KTensor, x2: KTensor, /) -> KTensor:
    """y with x1 @ y = x2; x2 of one axis is a vector for every matrix."""
    return _ornik.solve(x1, x2)


def pinv(x: KTensor, /, *, rtol: float | KTensor | None = None) -> KTensor:
    """The pseudo-inverse; singular values of at most rtol times the largest one count as 0."""
    return _ornik.pinv(x, rtol)


def matrix_rank(x: KTensor, /, *, rtol: float | KTensor | None = None) -> KTensor:
    """How many singular values are larger than rtol times the largest one."""
    return _ornik.matrix_rank(x, rtol)


def matrix_power(x: KTensor, n: int, /) -> KTensor:
    """The product of n matrices x; of inverses for negative n."""
    return _ornik.matrix_power(x, n)


def matrix_norm(x: KTensor, /, *, keepdims: bool = False, ord: float | str | None = "fro") -> KTensor:
    """The norm "fro" or "nuc", that of sums of magnitudes (1, -1, inf, -inf) or of singular values (2, -2)."""
    name = "fro" if ord is None else ord if isinstance(ord, str) else f"{ord:g}"
    return _ornik.matrix_norm(x, name, keepdims)


def vector_norm(x: KTensor, /, *, axis: Axes = None, keepdims: bool = False, ord: float = 2) -> KTensor:
    """sum(abs(x)**ord)**(1/ord) over axes, or over all elements."""
    if isinstance(axis, (tuple, list)) and len(axis) == 0:
        return _ornik.vector_norm(_ornik.unsqueeze(x, 0), 0, False, ord)
    return _ornik.vector_norm(x, axis, keepdims, ord)


def diagonal(x: KTensor, /, *, offset: int = 0) -> KTensor:
    """The diagonals of matrices: a view."""
    return _ornik.diagonal(x, offset, -2, -1)


def trace(x: KTensor, /, *, offset: int = 0, dtype: DTypeLike | None = None) -> KTensor:
    """The sums of the diagonals of matrices."""
    return _reductions.sum(_ornik.diagonal(x, offset, -2, -1), axis=-1, dtype=dtype)
