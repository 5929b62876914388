"""First values of parameters, from the default generator; each function fills its tensor and returns it."""

from __future__ import annotations

import math
from typing import TYPE_CHECKING

from .. import _dtypes, _ornik
from ._arguments import tensors

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "calculate_gain",
    "constant_",
    "dirac_",
    "eye_",
    "kaiming_normal_",
    "kaiming_uniform_",
    "normal_",
    "ones_",
    "orthogonal_",
    "trunc_normal_",
    "uniform_",
    "xavier_normal_",
    "xavier_uniform_",
    "zeros_",
]


def calculate_gain(nonlinearity: str, param: float | None = None) -> float:
    """The factor that keeps the variance behind an activation; ``param`` is the slope of leaky_relu."""
    if nonlinearity in ("linear", "sigmoid", "conv1d", "conv2d", "conv_transpose1d", "conv_transpose2d"):
        return 1.0
    gains = {"tanh": 5 / 3, "relu": math.sqrt(2), "selu": 0.75}
    if nonlinearity == "leaky_relu":
        return math.sqrt(2 / (1 + (0.01 if param is None else param) ** 2))
    if nonlinearity not in gains:
        raise ValueError(f"calculate_gain(): there is no gain for {nonlinearity!r}")
    return gains[nonlinearity]


def _fans(name: str, tensor: KTensor) -> tuple[int, int]:
    """How many numbers go into a result, and how many results a number goes into."""
    tensors(tensor)
    if tensor.ndim < 2:
        raise ValueError(f"{name}(): a tensor of 2 axes and more is wanted, but got {list(tensor.shape)}")
    window = math.prod(tensor.shape[2:])
    return tensor.shape[1] * window, tensor.shape[0] * window


def uniform_(tensor: KTensor, a: float = 0.0, b: float = 1.0) -> KTensor:
    """Uniform in [a, b)."""
    _ornik.fill_uniform(_ornik.detach(tensor), a, b)
    return tensor


def normal_(tensor: KTensor, mean: float = 0.0, std: float = 1.0) -> KTensor:
    """Normal."""
    _ornik.fill_normal(_ornik.detach(tensor), mean, std)
    return tensor


def trunc_normal_(tensor: KTensor, mean: float = 0.0, std: float = 1.0, a: float = -2.0, b: float = 2.0) -> KTensor:
    """Normal, but drawn again where it lies outside [a, b]."""
    tensors(tensor)
    if not std > 0:
        raise ValueError(f"trunc_normal_(): a deviation is above 0, not {std}")
    inside = 0.5 * (math.erf((b - mean) / (std * math.sqrt(2))) - math.erf((a - mean) / (std * math.sqrt(2))))
    if not inside > 1e-4:
        raise ValueError(f"trunc_normal_(): hardly anything of mean {mean} and deviation {std} lies in [{a}, {b}]")
    values = _ornik.randn(tensor.shape, tensor.dtype, mean, std)
    while True:
        outside = _ornik.logical_or(values < a, values > b)
        if not bool(_ornik.any(outside, None, False)):
            break
        values = _ornik.where(outside, _ornik.randn(tensor.shape, tensor.dtype, mean, std), values)
    return _filled_with(tensor, values)


def _filled_with(tensor: KTensor, values: KTensor) -> KTensor:
    _ornik.copy_into(_ornik.detach(tensor), values)
    return tensor


def constant_(tensor: KTensor, val: float) -> KTensor:
    """One number everywhere."""
    _ornik.fill_with(_ornik.detach(tensor), val)
    return tensor


def ones_(tensor: KTensor) -> KTensor:
    """Ones."""
    return constant_(tensor, 1)


def zeros_(tensor: KTensor) -> KTensor:
    """Zeros."""
    return constant_(tensor, 0)


def eye_(tensor: KTensor) -> KTensor:
    """Ones on the diagonal of a matrix, zeros elsewhere."""
    tensors(tensor)
    if tensor.ndim != 2:
        raise ValueError(f"eye_(): a matrix is wanted, but got {list(tensor.shape)}")
    return _filled_with(tensor, _ornik.eye(tensor.shape[0], tensor.shape[1], 0, tensor.dtype))


def dirac_(tensor: KTensor, groups: int = 1) -> KTensor:
    """Of a convolution's weight: each group passes on as many of its channels as it can."""
    tensors(tensor)
    if tensor.ndim not in (3, 4) or groups < 1 or tensor.shape[0] % groups:
        raise ValueError(
            f"dirac_(): the weight of a convolution of {groups} groups is wanted, not {list(tensor.shape)}"
        )
    constant_(tensor, 0)
    values, each = _ornik.detach(tensor), tensor.shape[0] // groups
    centre = [n // 2 for n in tensor.shape[2:]]
    for group in range(groups):
        for channel in range(min(each, tensor.shape[1])):
            place = (group * each + channel, channel, *centre)
            values[place] = 1
    return tensor


def xavier_uniform_(tensor: KTensor, gain: float = 1.0) -> KTensor:
    """Uniform within gain * sqrt(6 / (fan_in + fan_out)) (Glorot and Bengio, 2010)."""
    bound = gain * math.sqrt(6 / max(sum(_fans("xavier_uniform_", tensor)), 1))
    return uniform_(tensor, -bound, bound)


def xavier_normal_(tensor: KTensor, gain: float = 1.0) -> KTensor:
    """Normal of deviation gain * sqrt(2 / (fan_in + fan_out))."""
    return normal_(tensor, 0.0, gain * math.sqrt(2 / max(sum(_fans("xavier_normal_", tensor)), 1)))


def _kaiming(name: str, tensor: KTensor, a: float, mode: str, nonlinearity: str) -> float:
    if mode not in ("fan_in", "fan_out"):
        raise ValueError(f'{name}(): mode is "fan_in" or "fan_out", not {mode!r}')
    return calculate_gain(nonlinearity, a) / math.sqrt(max(_fans(name, tensor)[mode == "fan_out"], 1))


def kaiming_uniform_(
    tensor: KTensor, a: float = 0.0, mode: str = "fan_in", nonlinearity: str = "leaky_relu"
) -> KTensor:
    """Uniform within gain * sqrt(3 / fan) (He and others, 2015); ``a`` is the slope of leaky_relu."""
    bound = math.sqrt(3) * _kaiming("kaiming_uniform_", tensor, a, mode, nonlinearity)
    return uniform_(tensor, -bound, bound)


def kaiming_normal_(tensor: KTensor, a: float = 0.0, mode: str = "fan_in", nonlinearity: str = "leaky_relu") -> KTensor:
    """Normal of deviation gain / sqrt(fan) (He and others, 2015)."""
    return normal_(tensor, 0.0, _kaiming("kaiming_normal_", tensor, a, mode, nonlinearity))


def orthogonal_(tensor: KTensor, gain: float = 1.0) -> KTensor:
    """As a matrix of shape[0] rows, with orthonormal rows or columns, the fewer of them (Saxe and others, 2014).

    Every such matrix is as likely as any other: the polar factor of normal deviates.
    """
    tensors(tensor)
    if tensor.ndim < 2:
        raise ValueError(f"orthogonal_(): a tensor of 2 axes and more is wanted, but got {list(tensor.shape)}")
    rows, columns = tensor.shape[0], math.prod(tensor.shape[1:])
    if rows == 0 or columns == 0:
        return tensor
    a = _ornik.randn((max(rows, columns), min(rows, columns)), _dtypes.float64, 0.0, 1.0)
    squares, vectors = _ornik.eigh(_ornik.matmul(a.T, a))
    root = _ornik.matmul(vectors * _ornik.rsqrt(squares), vectors.T)
    result = gain * _ornik.matmul(a, root)
    return _filled_with(tensor, _ornik.reshape(result if rows >= columns else result.T, tensor.shape))
