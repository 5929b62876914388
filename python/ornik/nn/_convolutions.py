"""Convolutions along one axis and two."""

from __future__ import annotations

import functools
import math
from typing import TYPE_CHECKING, Any, ClassVar

from .. import _ornik
from .._convert import DTypeLike
from . import functional
from ._arguments import Pair, extents, positive, shown
from ._basic import uniform_parameter
from ._module import Module, Parameter

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["Conv1d", "Conv2d", "ConvTranspose1d", "ConvTranspose2d"]


class _Convolution(Module):
    """Weight and bias, uniform within 1 / sqrt(elements of weight[0]).

    After ``eval()``, calls that record nothing keep the weight laid out for its kernel, until it is written to.
    """

    _axes: ClassVar[int]
    _name: ClassVar[str]
    bias: Parameter | None

    def _set(
        self,
        in_channels: int,
        out_channels: int,
        kernel_size: Pair,
        stride: Pair,
        padding: Pair | str,
        dilation: Pair,
        groups: int,
        bias: bool,
        dtype: DTypeLike | None,
        transposed: bool = False,
    ) -> None:
        name, axes = type(self).__name__, self._axes
        positive(name, in_channels=in_channels, out_channels=out_channels, groups=groups)
        if in_channels % groups or out_channels % groups:
            raise ValueError(f"{name}(): {in_channels} and {out_channels} channels do not fall into {groups} groups")
        self.in_channels = in_channels
        self.out_channels = out_channels
        self.kernel_size = extents(name, "kernel_size", kernel_size, axes, 1)
        self.stride = extents(name, "stride", stride, axes, 1)
        self.padding = padding if isinstance(padding, str) else extents(name, "padding", padding, axes)
        self.dilation = extents(name, "dilation", dilation, axes, 1)
        self.groups = groups
        if isinstance(padding, str) and padding not in ("same", "valid"):
            raise ValueError(f'{name}(): padding is numbers, "same" or "valid", not {padding!r}')
        if padding == "same" and any(s != 1 for s in self.stride):
            raise ValueError(f'{name}(): padding="same" is for a stride of 1, not of {self.stride}')
        first, second = (in_channels, out_channels) if transposed else (out_channels, in_channels)
        shape = (first, second // groups, *self.kernel_size)
        bound = 1 / math.sqrt(math.prod(shape[1:]))
        self.weight = uniform_parameter(shape, bound, dtype)
        self.bias = uniform_parameter((out_channels,), bound, dtype) if bias else None

    def forward(self, x: KTensor) -> KTensor:
        return self._ended(x, "none", None)

    def _ended(self, x: KTensor, end: str, residual: KTensor | None) -> KTensor:
        """The activation of forward(x) + residual: the same bits in fewer passes."""
        padding: Any = self.padding
        if getattr(self, "padding_mode", "zeros") != "zeros":
            x, padding = functional.pad(x, self._widths(), getattr(self, "padding_mode")), 0  # noqa: B009
        if residual is not None and residual.ndim == self._axes + 1:
            residual = _ornik.unsqueeze(residual, 0)
        return functional.convolve(
            self._name,
            self._axes,
            x,
            self.weight,
            self.bias,
            self.stride,
            padding,
            self.dilation,
            self.groups,
            getattr(self, "output_padding", None),
            functools.partial(self._prepared().convolution, end, residual, not self.training),
        )

    def _widths(self) -> list[int]:
        """As pad() takes them."""
        if self.padding == "valid":
            return [0] * (2 * self._axes)
        if self.padding == "same":
            totals = [(k - 1) * d for k, d in zip(self.kernel_size, self.dilation)]
            return [n for total in reversed(totals) for n in (total // 2, total - total // 2)]
        return [n for width in reversed(self.padding) if isinstance(width, int) for n in (width, width)]

    def extra_repr(self) -> str:
        ones, zeros = (1,) * self._axes, (0,) * self._axes
        return shown(
            self.in_channels,
            self.out_channels,
            kernel_size=(self.kernel_size, None),
            stride=(self.stride, ones),
            padding=(self.padding, zeros),
            output_padding=(getattr(self, "output_padding", zeros), zeros),
            dilation=(self.dilation, ones),
            groups=(self.groups, 1),
            bias=(self.bias is not None, True),
            padding_mode=(getattr(self, "padding_mode", "zeros"), "zeros"),
        )


class _Plain(_Convolution):
    def __init__(
        self,
        in_channels: int,
        out_channels: int,
        kernel_size: Pair,
        stride: Pair = 1,
        padding: Pair | str = 0,
        dilation: Pair = 1,
        groups: int = 1,
        bias: bool = True,
        padding_mode: str = "zeros",
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self._set(in_channels, out_channels, kernel_size, stride, padding, dilation, groups, bias, dtype)
        if padding_mode not in ("zeros", "reflect", "replicate", "circular"):
            raise ValueError(
                f'{type(self).__name__}(): padding_mode is "zeros", "reflect", "replicate" or "circular", '
                f"not {padding_mode!r}"
            )
        self.padding_mode = padding_mode


class Conv1d(_Plain):
    """[N, in_channels, L] -> [N, out_channels, L']; weight [out_channels, in_channels / groups, kernel]."""

    _axes = 1
    _name = "conv1d"


class Conv2d(_Plain):
    """[N, in_channels, H, W] -> [N, out_channels, H', W'].

    Parameters: weight [out_channels, in_channels / groups, rows, columns] and bias [out_channels], uniform within
    1 / sqrt(elements of weight[0]).

    >>> nn.Conv2d(3, 8, 3, padding=1)(ornik.ones((2, 3, 5, 5))).shape
    (2, 8, 5, 5)
    """

    _axes = 2
    _name = "conv2d"


class _Transposed(_Convolution):
    def __init__(
        self,
        in_channels: int,
        out_channels: int,
        kernel_size: Pair,
        stride: Pair = 1,
        padding: Pair = 0,
        output_padding: Pair = 0,
        groups: int = 1,
        bias: bool = True,
        dilation: Pair = 1,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self._set(in_channels, out_channels, kernel_size, stride, padding, dilation, groups, bias, dtype, True)
        self.output_padding = extents(type(self).__name__, "output_padding", output_padding, self._axes)


class ConvTranspose1d(_Transposed):
    """[N, in_channels, L] -> [N, out_channels, L']; weight [in_channels, out_channels / groups, kernel]."""

    _axes = 1
    _name = "conv_transpose1d"


class ConvTranspose2d(_Transposed):
    """[N, in_channels, H, W] -> [N, out_channels, H', W']; weight [in_channels, out_channels / groups, rows, cols]."""

    _axes = 2
    _name = "conv_transpose2d"
