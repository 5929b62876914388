"""Pools, resizing, and channels exchanged for resolution."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import TYPE_CHECKING, ClassVar

from . import functional
from ._arguments import Pair, extents, positive, shown
from ._module import Module

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "AdaptiveAvgPool1d",
    "AdaptiveAvgPool2d",
    "AdaptiveMaxPool1d",
    "AdaptiveMaxPool2d",
    "AvgPool1d",
    "AvgPool2d",
    "MaxPool1d",
    "MaxPool2d",
    "PixelShuffle",
    "PixelUnshuffle",
    "Upsample",
]


class _Windows(Module):
    _axes: ClassVar[int]
    _function: ClassVar[Callable[..., KTensor]]

    def _set(self, kernel_size: Pair, stride: Pair | None, padding: Pair, ceil_mode: bool) -> None:
        name, axes = type(self).__name__, self._axes
        self.kernel_size = extents(name, "kernel_size", kernel_size, axes, 1)
        self.stride = self.kernel_size if stride is None else extents(name, "stride", stride, axes, 1)
        self.padding = extents(name, "padding", padding, axes)
        self.ceil_mode = ceil_mode
        if any(p >= k for p, k in zip(self.padding, self.kernel_size)):
            raise ValueError(f"{name}(): a padding of {self.padding} is not less than the kernel {self.kernel_size}")

    def extra_repr(self) -> str:
        return shown(
            kernel_size=(self.kernel_size, None),
            stride=(self.stride, self.kernel_size),
            padding=(self.padding, (0,) * self._axes),
            ceil_mode=(self.ceil_mode, False),
            count_include_pad=(getattr(self, "count_include_pad", True), True),
        )


class _Max(_Windows):
    def __init__(
        self, kernel_size: Pair, stride: Pair | None = None, padding: Pair = 0, ceil_mode: bool = False
    ) -> None:
        self._set(kernel_size, stride, padding, ceil_mode)

    def forward(self, x: KTensor) -> KTensor:
        return type(self)._function(x, self.kernel_size, self.stride, self.padding, self.ceil_mode)


class MaxPool1d(_Max):
    """The largest element of each window of [N, C, L]; windows lie side by side unless ``stride`` says otherwise."""

    _axes = 1
    _function = staticmethod(functional.max_pool1d)


class MaxPool2d(_Max):
    """The largest element of each window of [N, C, H, W]; windows lie side by side unless ``stride`` says otherwise."""

    _axes = 2
    _function = staticmethod(functional.max_pool2d)


class _Avg(_Windows):
    def __init__(
        self,
        kernel_size: Pair,
        stride: Pair | None = None,
        padding: Pair = 0,
        ceil_mode: bool = False,
        count_include_pad: bool = True,
    ) -> None:
        self._set(kernel_size, stride, padding, ceil_mode)
        self.count_include_pad = count_include_pad

    def forward(self, x: KTensor) -> KTensor:
        return type(self)._function(
            x, self.kernel_size, self.stride, self.padding, self.ceil_mode, self.count_include_pad
        )


class AvgPool1d(_Avg):
    """The mean of each window of [N, C, L]; padding counts as zeros, or not at all."""

    _axes = 1
    _function = staticmethod(functional.avg_pool1d)


class AvgPool2d(_Avg):
    """The mean of each window of [N, C, H, W]; padding counts as zeros, or not at all."""

    _axes = 2
    _function = staticmethod(functional.avg_pool2d)


class _Adaptive(Module):
    _axes: ClassVar[int]
    _function: ClassVar[Callable[..., KTensor]]

    def __init__(self, output_size: Pair) -> None:
        self.output_size = extents(type(self).__name__, "output_size", output_size, self._axes, 1)

    def forward(self, x: KTensor) -> KTensor:
        return type(self)._function(x, self.output_size)

    def extra_repr(self) -> str:
        return f"output_size={self.output_size}"


class AdaptiveAvgPool1d(_Adaptive):
    """The means of as many windows of [N, C, L] as asked for."""

    _axes = 1
    _function = staticmethod(functional.adaptive_avg_pool1d)


class AdaptiveAvgPool2d(_Adaptive):
    """The means of as many windows of [N, C, H, W] as asked for."""

    _axes = 2
    _function = staticmethod(functional.adaptive_avg_pool2d)


class AdaptiveMaxPool1d(_Adaptive):
    """The largest elements of as many windows of [N, C, L] as asked for."""

    _axes = 1
    _function = staticmethod(functional.adaptive_max_pool1d)


class AdaptiveMaxPool2d(_Adaptive):
    """The largest elements of as many windows of [N, C, H, W] as asked for."""

    _axes = 2
    _function = staticmethod(functional.adaptive_max_pool2d)


class Upsample(Module):
    """[N, C, L] or [N, C, H, W] in another resolution: extents, or factors; see :func:`functional.interpolate`."""

    def __init__(
        self,
        size: Pair | None = None,
        scale_factor: float | Sequence[float] | None = None,
        mode: str = "nearest",
        align_corners: bool = False,
    ) -> None:
        if (size is None) == (scale_factor is None):
            raise ValueError("Upsample(): either size or scale_factor is wanted")
        if mode not in ("nearest", "linear", "bilinear"):
            raise ValueError(f'Upsample(): a mode is "nearest", "linear" or "bilinear", not {mode!r}')
        self.size = size
        self.scale_factor = scale_factor
        self.mode = mode
        self.align_corners = align_corners

    def forward(self, x: KTensor) -> KTensor:
        return functional.interpolate(x, self.size, self.scale_factor, self.mode, self.align_corners)

    def extra_repr(self) -> str:
        return shown(
            size=(self.size, None),
            scale_factor=(self.scale_factor, None),
            mode=(self.mode, None),
            align_corners=(self.align_corners, False),
        )


class PixelShuffle(Module):
    """[..., C r r, H, W] becomes [..., C, H r, W r]."""

    def __init__(self, upscale_factor: int) -> None:
        positive("PixelShuffle", upscale_factor=upscale_factor)
        self.upscale_factor = upscale_factor

    def forward(self, x: KTensor) -> KTensor:
        return functional.pixel_shuffle(x, self.upscale_factor)

    def extra_repr(self) -> str:
        return f"upscale_factor={self.upscale_factor}"


class PixelUnshuffle(Module):
    """The reverse of :class:`PixelShuffle`."""

    def __init__(self, downscale_factor: int) -> None:
        positive("PixelUnshuffle", downscale_factor=downscale_factor)
        self.downscale_factor = downscale_factor

    def forward(self, x: KTensor) -> KTensor:
        return functional.pixel_unshuffle(x, self.downscale_factor)

    def extra_repr(self) -> str:
        return f"downscale_factor={self.downscale_factor}"
