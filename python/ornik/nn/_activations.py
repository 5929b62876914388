"""Activations as modules; formulas: :mod:`ornik.nn.functional`."""

from __future__ import annotations

from collections.abc import Callable
from typing import TYPE_CHECKING, ClassVar

from .._convert import DTypeLike
from . import functional
from ._arguments import positive
from ._basic import filled_parameter
from ._module import Module

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "ELU",
    "GELU",
    "Hardsigmoid",
    "Hardswish",
    "Hardtanh",
    "LeakyReLU",
    "LogSigmoid",
    "LogSoftmax",
    "Mish",
    "PReLU",
    "ReLU",
    "ReLU6",
    "SELU",
    "SiLU",
    "Sigmoid",
    "Softmax",
    "Softmin",
    "Softplus",
    "Tanh",
]


class _Plain(Module):
    """A function without arguments. ``inplace`` is taken and without effect."""

    _function: ClassVar[Callable[..., KTensor]]

    def __init__(self, inplace: bool = False) -> None:
        pass

    def forward(self, x: KTensor) -> KTensor:
        return type(self)._function(x)


class ReLU(_Plain):
    """max(x, 0)."""

    _function = staticmethod(functional.relu)


class ReLU6(_Plain):
    """min(max(x, 0), 6)."""

    _function = staticmethod(functional.relu6)


class SELU(_Plain):
    """elu() with the constants that keep mean 0 and variance 1."""

    _function = staticmethod(functional.selu)


class SiLU(_Plain):
    """x * sigmoid(x)."""

    _function = staticmethod(functional.silu)


class Mish(_Plain):
    """x * tanh(softplus(x))."""

    _function = staticmethod(functional.mish)


class Hardswish(_Plain):
    """x * hardsigmoid(x)."""

    _function = staticmethod(functional.hardswish)


class Hardsigmoid(_Plain):
    """(x + 3) / 6 cut off at 0 and 1."""

    _function = staticmethod(functional.hardsigmoid)


class Sigmoid(_Plain):
    """1 / (1 + exp(-x))."""

    _function = staticmethod(functional.sigmoid)


class LogSigmoid(_Plain):
    """log(sigmoid(x))."""

    _function = staticmethod(functional.logsigmoid)


class Tanh(_Plain):
    """The hyperbolic tangent."""

    _function = staticmethod(functional.tanh)


class GELU(Module):
    """x times the normal distribution function of x, or, with approximate="tanh", nearly that."""

    def __init__(self, approximate: str = "none") -> None:
        if approximate not in ("none", "tanh"):
            raise ValueError(f'GELU(): approximate is "none" or "tanh", not {approximate!r}')
        self.approximate = approximate

    def forward(self, x: KTensor) -> KTensor:
        return functional.gelu(x, self.approximate)

    def extra_repr(self) -> str:
        return f"approximate={self.approximate!r}"


class Softplus(Module):
    """log(1 + exp(beta * x)) / beta."""

    def __init__(self, beta: float = 1.0) -> None:
        if not beta > 0:
            raise ValueError(f"Softplus(): beta is above 0, not {beta}")
        self.beta = beta

    def forward(self, x: KTensor) -> KTensor:
        return functional.softplus(x, self.beta)

    def extra_repr(self) -> str:
        return f"beta={self.beta}"


class LeakyReLU(Module):
    """x above 0, negative_slope * x else."""

    def __init__(self, negative_slope: float = 0.01, inplace: bool = False) -> None:
        self.negative_slope = negative_slope

    def forward(self, x: KTensor) -> KTensor:
        return functional.leaky_relu(x, self.negative_slope)

    def extra_repr(self) -> str:
        return f"negative_slope={self.negative_slope}"


class PReLU(Module):
    """x above 0, weight * x else: one weight, or one for each channel of [N, C, ...]."""

    def __init__(self, num_parameters: int = 1, init: float = 0.25, *, dtype: DTypeLike | None = None) -> None:
        positive("PReLU", num_parameters=num_parameters)
        self.num_parameters = num_parameters
        self.weight = filled_parameter((num_parameters,), init, dtype)

    def forward(self, x: KTensor) -> KTensor:
        return functional.prelu(x, self.weight)

    def extra_repr(self) -> str:
        return f"num_parameters={self.num_parameters}"


class ELU(Module):
    """x above 0, alpha * (exp(x) - 1) else."""

    def __init__(self, alpha: float = 1.0, inplace: bool = False) -> None:
        self.alpha = alpha

    def forward(self, x: KTensor) -> KTensor:
        return functional.elu(x, self.alpha)

    def extra_repr(self) -> str:
        return f"alpha={self.alpha}"


class Hardtanh(Module):
    """x cut off at both bounds."""

    def __init__(self, min_val: float = -1.0, max_val: float = 1.0, inplace: bool = False) -> None:
        if not min_val < max_val:
            raise ValueError(f"Hardtanh(): min_val is below max_val, but got {min_val} and {max_val}")
        self.min_val = min_val
        self.max_val = max_val

    def forward(self, x: KTensor) -> KTensor:
        return functional.hardtanh(x, self.min_val, self.max_val)

    def extra_repr(self) -> str:
        return f"min_val={self.min_val}, max_val={self.max_val}"


class Softmax(Module):
    """exp(x) / sum(exp(x)) along an axis."""

    def __init__(self, dim: int = -1) -> None:
        self.dim = dim

    def forward(self, x: KTensor) -> KTensor:
        return functional.softmax(x, self.dim)

    def extra_repr(self) -> str:
        return f"dim={self.dim}"


class Softmin(Softmax):
    """softmax(-x)."""

    def forward(self, x: KTensor) -> KTensor:
        return functional.softmin(x, self.dim)


class LogSoftmax(Softmax):
    """The logarithm of softmax."""

    def forward(self, x: KTensor) -> KTensor:
        return functional.log_softmax(x, self.dim)
