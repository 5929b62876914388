"""Linear maps, embeddings, dropout, other shapes of the same elements."""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import TYPE_CHECKING

from .. import _dtypes, _ornik
from .._convert import DTypeLike
from . import functional
from ._arguments import is_whole, positive, probability, shown, tensors
from ._module import Module, Parameter

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["Dropout", "Dropout1d", "Dropout2d", "Embedding", "Flatten", "Identity", "Linear", "Unflatten"]


def uniform_parameter(shape: Sequence[int], bound: float, dtype: DTypeLike | None) -> Parameter:
    """Uniform within a bound."""
    return Parameter(_ornik.rand(shape, _dtypes.float32 if dtype is None else dtype, -bound, bound))


def filled_parameter(shape: Sequence[int], value: float, dtype: DTypeLike | None) -> Parameter:
    """One number everywhere."""
    return Parameter(_ornik.full(shape, value, _dtypes.float32 if dtype is None else dtype))


class Identity(Module):
    """Its argument."""

    def __init__(self, *_: object, **__: object) -> None:
        pass

    def forward(self, x: KTensor) -> KTensor:
        return x


class Linear(Module):
    """``x @ weight.T + bias`` of x [..., in_features].

    Parameters: weight [out_features, in_features] and bias [out_features], uniform within 1 / sqrt(in_features). After
    ``eval()``, calls that record nothing keep the weight laid out for the product, until it is written to.
    """

    bias: Parameter | None

    def __init__(
        self, in_features: int, out_features: int, bias: bool = True, *, dtype: DTypeLike | None = None
    ) -> None:
        positive("Linear", in_features=in_features, out_features=out_features)
        self.in_features = in_features
        self.out_features = out_features
        bound = 1 / math.sqrt(in_features)
        self.weight = uniform_parameter((out_features, in_features), bound, dtype)
        self.bias = uniform_parameter((out_features,), bound, dtype) if bias else None

    def forward(self, x: KTensor) -> KTensor:
        return self._ended(x, "none", None)

    def _ended(self, x: KTensor, end: str, residual: KTensor | None) -> KTensor:
        """The activation of forward(x) + residual: the same bits in fewer passes."""
        return self._prepared().linear(end, residual, not self.training, x, self.weight, self.bias)

    def extra_repr(self) -> str:
        return shown(self.in_features, self.out_features, bias=(self.bias is not None, True))


class Embedding(Module):
    """Rows of ``weight`` [num_embeddings, embedding_dim] by whole numbers; at first normal deviates.

    The row ``padding_idx``, which may be counted from the end, is 0 and gets no gradient.
    """

    def __init__(
        self,
        num_embeddings: int,
        embedding_dim: int,
        padding_idx: int | None = None,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        positive("Embedding", num_embeddings=num_embeddings, embedding_dim=embedding_dim)
        if padding_idx is not None and not -num_embeddings <= padding_idx < num_embeddings:
            raise ValueError(f"Embedding(): there is no row {padding_idx} among {num_embeddings}")
        self.num_embeddings = num_embeddings
        self.embedding_dim = embedding_dim
        self.padding_idx = padding_idx if padding_idx is None else padding_idx % num_embeddings
        kind = _dtypes.float32 if dtype is None else dtype
        table = _ornik.randn((num_embeddings, embedding_dim), kind, 0.0, 1.0)
        if self.padding_idx is not None:
            table[self.padding_idx] = 0
        self.weight = Parameter(table)

    def forward(self, indices: KTensor) -> KTensor:
        return _ornik.embedding(indices, self.weight, self.padding_idx)

    def extra_repr(self) -> str:
        return shown(self.num_embeddings, self.embedding_dim, padding_idx=(self.padding_idx, None))


class Dropout(Module):
    """In training, an element becomes 0 with probability p, and the others are scaled by 1 / (1 - p)."""

    def __init__(self, p: float = 0.5) -> None:
        probability(type(self).__name__, p)
        self.p = p

    def forward(self, x: KTensor) -> KTensor:
        return functional.dropout(x, self.p, self.training)

    def extra_repr(self) -> str:
        return f"p={self.p}"


class Dropout1d(Dropout):
    """The same for whole channels of [N, C, ...]."""

    def forward(self, x: KTensor) -> KTensor:
        return functional.dropout1d(x, self.p, self.training)


class Dropout2d(Dropout1d):
    """The same for whole channels of [N, C, ...]."""


class Flatten(Module):
    """Axes start_dim to end_dim, both included, become one."""

    def __init__(self, start_dim: int = 1, end_dim: int = -1) -> None:
        self.start_dim = start_dim
        self.end_dim = end_dim

    def forward(self, x: KTensor) -> KTensor:
        return _ornik.flatten(x, self.start_dim, self.end_dim)

    def extra_repr(self) -> str:
        return f"start_dim={self.start_dim}, end_dim={self.end_dim}"


class Unflatten(Module):
    """One axis becomes several, whose extents multiply to its own; one of them may be -1."""

    def __init__(self, dim: int, unflattened_size: Sequence[int]) -> None:
        if not unflattened_size or not all(is_whole(n) for n in unflattened_size):
            raise TypeError(f"Unflatten(): unflattened_size is whole numbers, but got {unflattened_size!r}")
        self.dim = dim
        self.unflattened_size = tuple(unflattened_size)

    def forward(self, x: KTensor) -> KTensor:
        tensors(x)
        if not -x.ndim <= self.dim < x.ndim:
            raise IndexError(f"Unflatten(): there is no axis {self.dim} among {x.ndim}")
        at, sizes = self.dim % x.ndim, list(self.unflattened_size)
        known = math.prod(n for n in sizes if n != -1)
        if sizes.count(-1) == 1 and known > 0 and x.shape[at] % known == 0:
            sizes[sizes.index(-1)] = x.shape[at] // known
        if math.prod(sizes) != x.shape[at] or min(sizes) < 0:
            raise ValueError(f"Unflatten(): {x.shape[at]} elements do not fall into {list(self.unflattened_size)}")
        return _ornik.reshape(x, (*x.shape[:at], *sizes, *x.shape[at + 1 :]))

    def extra_repr(self) -> str:
        return f"dim={self.dim}, unflattened_size={self.unflattened_size}"
