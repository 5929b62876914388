"""Normalizations. Weight and bias, where they are, begin as 1 and 0."""

from __future__ import annotations

from typing import TYPE_CHECKING

from .. import _dtypes, _ornik
from .._convert import DTypeLike
from . import functional
from ._arguments import Pair, extents, is_whole, positive, tensors
from ._basic import filled_parameter
from ._module import Module, Parameter

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "BatchNorm1d",
    "BatchNorm2d",
    "GroupNorm",
    "InstanceNorm1d",
    "InstanceNorm2d",
    "LayerNorm",
    "RMSNorm",
]


class _Running(Module):
    """Weight and bias [num_features]; buffers running_mean, running_var and num_batches_tracked."""

    _optional = frozenset({"num_batches_tracked"})
    weight: Parameter | None
    bias: Parameter | None
    running_mean: KTensor | None
    running_var: KTensor | None
    num_batches_tracked: KTensor | None

    def _set(
        self,
        num_features: int,
        eps: float,
        momentum: float | None,
        affine: bool,
        track_running_stats: bool,
        dtype: DTypeLike | None,
    ) -> None:
        positive(type(self).__name__, num_features=num_features)
        self.num_features = num_features
        self.eps = eps
        self.momentum = momentum
        self.affine = affine
        self.track_running_stats = track_running_stats
        kind = _dtypes.float32 if dtype is None else dtype
        self.weight = filled_parameter((num_features,), 1, kind) if affine else None
        self.bias = filled_parameter((num_features,), 0, kind) if affine else None
        track = track_running_stats
        self.register_buffer("running_mean", _ornik.full((num_features,), 0, kind) if track else None)
        self.register_buffer("running_var", _ornik.full((num_features,), 1, kind) if track else None)
        self.register_buffer("num_batches_tracked", _ornik.full((), 0, _dtypes.int64) if track else None)

    def _check(self, x: KTensor, axes: tuple[int, ...]) -> None:
        tensors(x)
        if x.ndim not in axes:
            wanted = " or ".join(str(n) for n in axes)
            raise ValueError(f"{type(self).__name__}(): {wanted} axes are wanted, but got {list(x.shape)}")

    def _count_batch(self) -> float:
        """The momentum of this batch in training; it is counted."""
        if self.num_batches_tracked is None or not self.training:
            return 0.0 if self.momentum is None else self.momentum
        if not _ornik.is_recomputing():
            self.num_batches_tracked += 1
        return 1 / max(int(self.num_batches_tracked), 1) if self.momentum is None else self.momentum

    def extra_repr(self) -> str:
        return (
            f"{self.num_features}, eps={self.eps}, momentum={self.momentum}, affine={self.affine}, "
            f"track_running_stats={self.track_running_stats}"
        )


class _BatchNorm(_Running):
    def __init__(
        self,
        num_features: int,
        eps: float = 1e-5,
        momentum: float | None = 0.1,
        affine: bool = True,
        track_running_stats: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self._set(num_features, eps, momentum, affine, track_running_stats, dtype)

    def _run(self, x: KTensor) -> KTensor:
        by_batch = self.training or self.running_mean is None
        return _ornik.batch_norm(
            x, self.running_mean, self.running_var, self.weight, self.bias, by_batch, self._count_batch(), self.eps
        )


class BatchNorm1d(_BatchNorm):
    """[N, C] or [N, C, L] by the statistics of each channel, or, not in training, by the running ones.

    Parameters weight and bias [C]; buffers running_mean 0 and running_var 1 [C], num_batches_tracked. In training the
    running ones move: (1 - momentum) running + momentum batch; without a momentum they are the average of all batches.
    """

    def forward(self, x: KTensor) -> KTensor:
        self._check(x, (2, 3))
        return self._run(x)


class BatchNorm2d(_BatchNorm):
    """The same of [N, C, H, W]; see :class:`BatchNorm1d`."""

    def forward(self, x: KTensor) -> KTensor:
        self._check(x, (4,))
        return self._run(x)


class _InstanceNorm(_Running):
    def __init__(
        self,
        num_features: int,
        eps: float = 1e-5,
        momentum: float = 0.1,
        affine: bool = False,
        track_running_stats: bool = False,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self._set(num_features, eps, momentum, affine, track_running_stats, dtype)

    def _run(self, x: KTensor, axes: int) -> KTensor:
        self._check(x, (axes + 1, axes + 2))
        if x.ndim == axes + 1:
            return _ornik.squeeze(self._run(_ornik.unsqueeze(x, 0), axes), 0)
        by_sample = self.training or self.running_mean is None
        return functional.instance_norm(
            x, self.running_mean, self.running_var, self.weight, self.bias, by_sample, self._count_batch(), self.eps
        )


class InstanceNorm1d(_InstanceNorm):
    """[N, C, L] by the statistics of each channel of each sample."""

    def forward(self, x: KTensor) -> KTensor:
        return self._run(x, 1)


class InstanceNorm2d(_InstanceNorm):
    """[N, C, H, W] by the statistics of each channel of each sample."""

    def forward(self, x: KTensor) -> KTensor:
        return self._run(x, 2)


def _last_axes(layer: str, shape: Pair) -> tuple[int, ...]:
    axes = 1 if is_whole(shape) else len(shape)  # type: ignore[arg-type]
    if axes == 0:
        raise ValueError(f"{layer}(): there are no axes to normalize over")
    return extents(layer, "normalized_shape", shape, axes, 1)


class LayerNorm(Module):
    """By the statistics of the last axes; weight and bias are of ``normalized_shape``, their extents."""

    weight: Parameter | None
    bias: Parameter | None

    def __init__(
        self,
        normalized_shape: Pair,
        eps: float = 1e-5,
        elementwise_affine: bool = True,
        bias: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self.normalized_shape = _last_axes("LayerNorm", normalized_shape)
        self.eps = eps
        self.elementwise_affine = elementwise_affine
        self.weight = filled_parameter(self.normalized_shape, 1, dtype) if elementwise_affine else None
        self.bias = filled_parameter(self.normalized_shape, 0, dtype) if elementwise_affine and bias else None

    def forward(self, x: KTensor) -> KTensor:
        return _ornik.layer_norm(x, self.normalized_shape, self.weight, self.bias, self.eps)

    def extra_repr(self) -> str:
        return f"{self.normalized_shape}, eps={self.eps}, elementwise_affine={self.elementwise_affine}"


class RMSNorm(Module):
    """x / sqrt(mean(x**2) + eps) over the last axes, times weight; see :func:`functional.rms_norm`."""

    weight: Parameter | None

    def __init__(
        self,
        normalized_shape: Pair,
        eps: float | None = None,
        elementwise_affine: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self.normalized_shape = _last_axes("RMSNorm", normalized_shape)
        self.eps = eps
        self.elementwise_affine = elementwise_affine
        self.weight = filled_parameter(self.normalized_shape, 1, dtype) if elementwise_affine else None

    def forward(self, x: KTensor) -> KTensor:
        return functional.rms_norm(x, self.normalized_shape, self.weight, self.eps)

    def extra_repr(self) -> str:
        return f"{self.normalized_shape}, eps={self.eps}, elementwise_affine={self.elementwise_affine}"


class GroupNorm(Module):
    """[N, C, ...] by the statistics of each sample's groups of channels; weight and bias [num_channels]."""

    weight: Parameter | None
    bias: Parameter | None

    def __init__(
        self,
        num_groups: int,
        num_channels: int,
        eps: float = 1e-5,
        affine: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        positive("GroupNorm", num_groups=num_groups, num_channels=num_channels)
        if num_channels % num_groups:
            raise ValueError(f"GroupNorm(): {num_channels} channels do not fall into {num_groups} groups")
        self.num_groups = num_groups
        self.num_channels = num_channels
        self.eps = eps
        self.affine = affine
        self.weight = filled_parameter((num_channels,), 1, dtype) if affine else None
        self.bias = filled_parameter((num_channels,), 0, dtype) if affine else None

    def forward(self, x: KTensor) -> KTensor:
        return _ornik.group_norm(x, self.num_groups, self.weight, self.bias, self.eps)

    def extra_repr(self) -> str:
        return f"{self.num_groups}, {self.num_channels}, eps={self.eps}, affine={self.affine}"
