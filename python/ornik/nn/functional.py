"""Layers and losses as functions, which keep nothing between calls.

Operands of one call have one dtype, float32 or float64 unless said otherwise. Images are [N, C, H, W], series
[N, C, L]; without N they count as one sample.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from typing import TYPE_CHECKING

from .. import _dtypes, _elements, _ornik
from ._arguments import Pair, extents, pair, tensors

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "adaptive_avg_pool1d",
    "adaptive_avg_pool2d",
    "adaptive_max_pool1d",
    "adaptive_max_pool2d",
    "avg_pool1d",
    "avg_pool2d",
    "batch_norm",
    "binary_cross_entropy",
    "binary_cross_entropy_with_logits",
    "conv1d",
    "conv2d",
    "conv_transpose1d",
    "conv_transpose2d",
    "cosine_similarity",
    "cross_entropy",
    "dropout",
    "dropout1d",
    "dropout2d",
    "elu",
    "embedding",
    "gelu",
    "group_norm",
    "hardsigmoid",
    "hardswish",
    "hardtanh",
    "huber_loss",
    "instance_norm",
    "interpolate",
    "kl_div",
    "l1_loss",
    "layer_norm",
    "leaky_relu",
    "linear",
    "log_softmax",
    "logsigmoid",
    "max_pool1d",
    "max_pool2d",
    "mish",
    "mse_loss",
    "nll_loss",
    "normalize",
    "one_hot",
    "pad",
    "pixel_shuffle",
    "pixel_unshuffle",
    "prelu",
    "relu",
    "relu6",
    "rms_norm",
    "scaled_dot_product_attention",
    "selu",
    "sigmoid",
    "silu",
    "smooth_l1_loss",
    "softmax",
    "softmin",
    "softplus",
    "tanh",
]

# ---- Activations ----

sigmoid = _elements.sigmoid
tanh = _elements.tanh


def relu(x: KTensor, /) -> KTensor:
    """max(x, 0)."""
    return _ornik.relu(x)


def relu6(x: KTensor, /) -> KTensor:
    """min(max(x, 0), 6)."""
    return _ornik.hardtanh(x, 0.0, 6.0)


def leaky_relu(x: KTensor, negative_slope: float = 0.01) -> KTensor:
    """x above 0, negative_slope * x else."""
    tensors(x)
    if x.dtype is _dtypes.float64:  # The kernel's slope is a single-precision number.
        return _ornik.relu(x) - negative_slope * _ornik.relu(-x)
    return _ornik.leaky_relu(x, negative_slope)


def prelu(x: KTensor, weight: KTensor) -> KTensor:
    """x above 0, weight * x else: one weight, or one for each channel of [N, C, ...]."""
    tensors(x, weight)
    if weight.size != 1 and x.ndim > 2:
        weight = weight.reshape(-1, *[1] * (x.ndim - 2))
    return _ornik.relu(x) - weight * _ornik.relu(-x)


def elu(x: KTensor, alpha: float = 1.0) -> KTensor:
    """x above 0, alpha * (exp(x) - 1) else."""
    tensors(x)
    if x.dtype is _dtypes.float64:  # The kernel's factor is a single-precision number.
        return _ornik.relu(x) + alpha * _ornik.expm1(-_ornik.relu(-x))
    return _ornik.elu(x, alpha)


def selu(x: KTensor, /) -> KTensor:
    """elu() with the constants that keep mean 0 and variance 1 (Klambauer and others, 2017)."""
    return _ornik.selu(x)


def silu(x: KTensor, /) -> KTensor:
    """x * sigmoid(x)."""
    return _ornik.silu(x)


def mish(x: KTensor, /) -> KTensor:
    """x * tanh(softplus(x)) (Misra, 2019)."""
    return _ornik.mish(x)


def gelu(x: KTensor, approximate: str = "none") -> KTensor:
    """x times the normal distribution function of x; approximate="tanh" takes (1 + tanh(...)) / 2 for that."""
    if approximate == "tanh":
        return 0.5 * x * (1 + _ornik.tanh(math.sqrt(2 / math.pi) * (x + 0.044715 * x * x * x)))
    if approximate != "none":
        raise ValueError(f'gelu(): approximate is "none" or "tanh", not {approximate!r}')
    return _ornik.gelu(x)


def softplus(x: KTensor, beta: float = 1.0) -> KTensor:
    """log(1 + exp(beta * x)) / beta."""
    return _ornik.softplus(x) if beta == 1 else _ornik.softplus(x * beta) / beta


def logsigmoid(x: KTensor, /) -> KTensor:
    """log(sigmoid(x)), exact for large numbers."""
    return _ornik.logsigmoid(x)


def hardtanh(x: KTensor, min_val: float = -1.0, max_val: float = 1.0) -> KTensor:
    """x cut off at both bounds."""
    return _ornik.hardtanh(x, min_val, max_val)


def hardsigmoid(x: KTensor, /) -> KTensor:
    """(x + 3) / 6 cut off at 0 and 1."""
    tensors(x)
    if x.dtype is _dtypes.float64:  # The kernel's sixth is a single-precision number.
        return _ornik.hardtanh(x / 6 + 0.5, 0.0, 1.0)
    return _ornik.hardsigmoid(x)


def hardswish(x: KTensor, /) -> KTensor:
    """x * hardsigmoid(x)."""
    return _ornik.hardswish(x)


def softmax(x: KTensor, dim: int = -1) -> KTensor:
    """exp(x) / sum(exp(x)) along an axis."""
    return _ornik.softmax(x, dim)


def softmin(x: KTensor, dim: int = -1) -> KTensor:
    """softmax(-x)."""
    return _ornik.softmax(-_ornik.checked(x), dim)


def log_softmax(x: KTensor, dim: int = -1) -> KTensor:
    """The logarithm of softmax, exact where that is near 0."""
    return _ornik.log_softmax(x, dim)


def dropout(x: KTensor, p: float = 0.5, training: bool = True) -> KTensor:
    """In training, an element becomes 0 with probability p, and the others are scaled by 1 / (1 - p)."""
    return _ornik.dropout(x, p, training and p != 0)  # No random numbers for nothing.


def dropout1d(x: KTensor, p: float = 0.5, training: bool = True) -> KTensor:
    """:func:`dropout` of whole channels of [N, C, ...]."""
    return _ornik.dropout_channels(x, p, training and p != 0)


dropout2d = dropout1d

# ---- Linear maps, embeddings ----


def linear(x: KTensor, weight: KTensor, bias: KTensor | None = None) -> KTensor:
    """``x @ weight.T + bias``: x [..., in], weight [out, in], bias [out]. Complex dtypes, too."""
    return _ornik.linear(x, weight, bias)


def embedding(indices: KTensor, weight: KTensor, padding_idx: int | None = None) -> KTensor:
    """Rows of weight [count, width] by whole numbers; the row ``padding_idx`` gets no gradient."""
    tensors(indices, weight)
    if padding_idx is not None and padding_idx < 0:
        padding_idx += weight.shape[0]
    return _ornik.embedding(indices, weight, padding_idx)


def one_hot(indices: KTensor, num_classes: int = -1) -> KTensor:
    """int64 [..., num_classes] with 1 where each whole number points to; -1: as many classes as it takes.

    >>> nn.functional.one_hot(ornik.tensor([2, 0]))
    KTensor([[0, 0, 1],
             [1, 0, 0]])
    """
    tensors(indices)
    if num_classes < 0:
        if indices.size == 0:
            raise ValueError("one_hot(): num_classes is wanted where there are no indices")
        num_classes = int(_ornik.max(indices, None, False)) + 1
    return _ornik.one_hot(indices, num_classes, _dtypes.int64)


# ---- Convolutions ----


def _on_batch(name: str, x: KTensor, axes: int, function: Callable[[KTensor], KTensor]) -> KTensor:
    """One sample without its axis counts as a batch of one."""
    tensors(x)
    if x.ndim == axes + 1:
        return _ornik.squeeze(function(_ornik.unsqueeze(x, 0)), 0)
    return function(x)


def convolve(
    name: str,
    axes: int,
    x: KTensor,
    weight: KTensor,
    bias: KTensor | None,
    stride: Pair,
    padding: Pair | str,
    dilation: Pair,
    groups: int,
    output_padding: Pair | None = None,
    convolution: Callable[..., KTensor] = _ornik.convolution,
) -> KTensor:
    """The function of that name, by a sum that takes what ``_ornik.convolution`` does."""
    tensors(x, weight)
    if weight.ndim != axes + 2 or x.ndim not in (axes + 1, axes + 2):
        shape = "[N, C, L]" if axes == 1 else "[N, C, H, W]"
        raise ValueError(
            f"{name}(): x {list(x.shape)} and weight {list(weight.shape)}; wanted are {shape} and {axes + 2} axes"
        )
    windows = convolution_windows(name, axes, weight.shape, stride, padding, dilation, groups, output_padding)
    return _on_batch(name, x, axes, lambda batch: convolution(batch, weight, bias, *windows))


_Two = tuple[int, int]


def convolution_windows(
    name: str,
    axes: int,
    weight: Sequence[int],
    stride: Pair,
    padding: Pair | str,
    dilation: Pair,
    groups: int,
    output_padding: Pair | None,
) -> tuple[_Two, tuple[_Two, _Two], _Two, int, bool, _Two]:
    """What ``_ornik.convolution`` takes behind the bias, for a weight of that shape; transposed with output_padding."""
    steps = pair(name, "stride", stride, axes, 1, 1)
    spread = pair(name, "dilation", dilation, axes, 1, 1)
    if isinstance(padding, str):
        widths = _padding_by_name(name, padding, weight[2:], steps, spread)
    else:
        both = pair(name, "padding", padding, axes, 0)
        widths = ((both[0], both[0]), (both[1], both[1]))
    more = pair(name, "output_padding", 0 if output_padding is None else output_padding, axes, 0)
    return steps, widths, spread, groups, output_padding is not None, more


def _padding_by_name(
    name: str, padding: str, kernel: Sequence[int], stride: tuple[int, int], dilation: tuple[int, int]
) -> tuple[tuple[int, int], tuple[int, int]]:
    if padding == "valid":
        return ((0, 0), (0, 0))
    if padding != "same":
        raise ValueError(f'{name}(): padding is numbers, "same" or "valid", not {padding!r}')
    if stride != (1, 1):
        raise ValueError(f'{name}(): padding="same" is for a stride of 1, not of {stride}')
    totals = [(k - 1) * d for k, d in zip(kernel, dilation)] + [0]
    # Of an odd total the larger half is behind.
    return ((totals[0] // 2, totals[0] - totals[0] // 2), (totals[1] // 2, totals[1] - totals[1] // 2))


def conv1d(
    x: KTensor,
    weight: KTensor,
    bias: KTensor | None = None,
    stride: Pair = 1,
    padding: Pair | str = 0,
    dilation: Pair = 1,
    groups: int = 1,
) -> KTensor:
    """x [N, in, L], weight [out, in / groups, kernel], bias [out]. Complex dtypes, too."""
    return convolve("conv1d", 1, x, weight, bias, stride, padding, dilation, groups)


def conv2d(
    x: KTensor,
    weight: KTensor,
    bias: KTensor | None = None,
    stride: Pair = 1,
    padding: Pair | str = 0,
    dilation: Pair = 1,
    groups: int = 1,
) -> KTensor:
    """x [N, in, H, W], weight [out, in / groups, rows, columns], bias [out]. Complex dtypes, too."""
    return convolve("conv2d", 2, x, weight, bias, stride, padding, dilation, groups)


def conv_transpose1d(
    x: KTensor,
    weight: KTensor,
    bias: KTensor | None = None,
    stride: Pair = 1,
    padding: Pair = 0,
    output_padding: Pair = 0,
    groups: int = 1,
    dilation: Pair = 1,
) -> KTensor:
    """x [N, in, L], weight [in, out / groups, kernel], bias [out]. Complex dtypes, too."""
    return convolve("conv_transpose1d", 1, x, weight, bias, stride, padding, dilation, groups, output_padding)


def conv_transpose2d(
    x: KTensor,
    weight: KTensor,
    bias: KTensor | None = None,
    stride: Pair = 1,
    padding: Pair = 0,
    output_padding: Pair = 0,
    groups: int = 1,
    dilation: Pair = 1,
) -> KTensor:
    """x [N, in, H, W], weight [in, out / groups, rows, columns], bias [out]. Complex dtypes, too."""
    return convolve("conv_transpose2d", 2, x, weight, bias, stride, padding, dilation, groups, output_padding)


# ---- Pools ----


def _windows(
    name: str, axes: int, kernel: Pair, stride: Pair | None, padding: Pair
) -> tuple[tuple[int, int], tuple[int, int], tuple[int, int]]:
    size = pair(name, "kernel_size", kernel, axes, 1, 1)
    steps = size if stride is None else pair(name, "stride", stride, axes, 1, 1)
    return size, steps, pair(name, "padding", padding, axes, 0)


def _surplus(
    shape: Sequence[int], size: tuple[int, int], stride: tuple[int, int], padding: tuple[int, int]
) -> list[int]:
    """How far the last window reaches beyond each axis when extents are rounded up; it begins inside."""
    result = []
    for n, k, s, p in zip(shape, size, stride, padding):
        count = -((n + 2 * p - k) // -s) + 1
        if (count - 1) * s >= n + p:
            count -= 1
        result.append(max(0, (count - 1) * s + k - n - 2 * p))
    return result


def _max_pool(
    name: str, axes: int, x: KTensor, kernel: Pair, stride: Pair | None, padding: Pair, ceil_mode: bool
) -> KTensor:
    size, steps, widths = _windows(name, axes, kernel, stride, padding)

    def pool(batch: KTensor) -> KTensor:
        more = _surplus(batch.shape[2:], size, steps, widths) if ceil_mode else []
        if any(more):
            batch = pad(batch, [n for width in reversed(more) for n in (0, width)], value=-math.inf)
        return _ornik.max_pool(batch, size, steps, widths)

    return _on_batch(name, x, axes, pool)


def max_pool1d(
    x: KTensor, kernel_size: Pair, stride: Pair | None = None, padding: Pair = 0, ceil_mode: bool = False
) -> KTensor:
    """The largest element of each window of [N, C, L]; windows lie side by side unless ``stride`` says otherwise."""
    return _max_pool("max_pool1d", 1, x, kernel_size, stride, padding, ceil_mode)


def max_pool2d(
    x: KTensor, kernel_size: Pair, stride: Pair | None = None, padding: Pair = 0, ceil_mode: bool = False
) -> KTensor:
    """The largest element of each window of [N, C, H, W]."""
    return _max_pool("max_pool2d", 2, x, kernel_size, stride, padding, ceil_mode)


def _avg_pool(
    name: str,
    axes: int,
    x: KTensor,
    kernel: Pair,
    stride: Pair | None,
    padding: Pair,
    ceil_mode: bool,
    count_include_pad: bool,
) -> KTensor:
    size, steps, widths = _windows(name, axes, kernel, stride, padding)

    def pool(batch: KTensor) -> KTensor:
        extents = batch.shape[2:]
        more = _surplus(extents, size, steps, widths) if ceil_mode else [0] * axes
        if not any(more) and (count_include_pad or not any(widths)):
            return _ornik.average_pool(batch, size, steps, widths)
        # What windows count stands as ones; their mean divides.
        around = [n for width, extra in zip(reversed(widths[:axes]), reversed(more)) for n in (width, width + extra)]
        counted = _ornik.full((1, 1, *extents), 1, batch.dtype)
        if count_include_pad:
            counted = pad(counted, [n for width in reversed(widths[:axes]) for n in (width, width)], value=1)
            counted = pad(counted, [n for extra in reversed(more) for n in (0, extra)])
        else:
            counted = pad(counted, around)
        mean, part = (_ornik.average_pool(t, size, steps, (0, 0)) for t in (pad(batch, around), counted))
        return mean / part

    return _on_batch(name, x, axes, pool)


def avg_pool1d(
    x: KTensor,
    kernel_size: Pair,
    stride: Pair | None = None,
    padding: Pair = 0,
    ceil_mode: bool = False,
    count_include_pad: bool = True,
) -> KTensor:
    """The mean of each window of [N, C, L]; padding counts as zeros, or not at all."""
    return _avg_pool("avg_pool1d", 1, x, kernel_size, stride, padding, ceil_mode, count_include_pad)


def avg_pool2d(
    x: KTensor,
    kernel_size: Pair,
    stride: Pair | None = None,
    padding: Pair = 0,
    ceil_mode: bool = False,
    count_include_pad: bool = True,
) -> KTensor:
    """The mean of each window of [N, C, H, W]; padding counts as zeros, or not at all."""
    return _avg_pool("avg_pool2d", 2, x, kernel_size, stride, padding, ceil_mode, count_include_pad)


def adaptive_avg_pool1d(x: KTensor, output_size: Pair) -> KTensor:
    """The means of ``output_size`` windows of [N, C, L], which may overlap by one."""
    output = pair("adaptive_avg_pool1d", "output_size", output_size, 1, 1, 1)
    return _on_batch("adaptive_avg_pool1d", x, 1, lambda batch: _ornik.adaptive_average_pool(batch, output))


def adaptive_avg_pool2d(x: KTensor, output_size: Pair) -> KTensor:
    """The means of so many windows for rows and columns of [N, C, H, W]."""
    output = pair("adaptive_avg_pool2d", "output_size", output_size, 2, 1, 1)
    return _on_batch("adaptive_avg_pool2d", x, 2, lambda batch: _ornik.adaptive_average_pool(batch, output))


def adaptive_max_pool1d(x: KTensor, output_size: Pair) -> KTensor:
    """The largest elements of the windows of :func:`adaptive_avg_pool1d`."""
    output = pair("adaptive_max_pool1d", "output_size", output_size, 1, 1, 1)
    return _on_batch("adaptive_max_pool1d", x, 1, lambda batch: _ornik.adaptive_max_pool(batch, output))


def adaptive_max_pool2d(x: KTensor, output_size: Pair) -> KTensor:
    """The largest elements of the windows of :func:`adaptive_avg_pool2d`."""
    output = pair("adaptive_max_pool2d", "output_size", output_size, 2, 1, 1)
    return _on_batch("adaptive_max_pool2d", x, 2, lambda batch: _ornik.adaptive_max_pool(batch, output))


# ---- Images ----

_PAD_MODES = {"constant": "constant", "reflect": "reflect", "replicate": "edge", "circular": "wrap"}


def pad(x: KTensor, pad: Sequence[int], mode: str = "constant", value: float = 0.0) -> KTensor:
    """Elements before and behind the last axis, the one before it, and so on; negative numbers cut off.

    Modes: "constant", "reflect", "replicate", "circular".

    >>> nn.functional.pad(ornik.ones((1, 2)), (0, 1, 1, 0))
    KTensor([[0., 0., 0.],
             [1., 1., 0.]])
    """
    tensors(x)
    if len(pad) % 2 or len(pad) > 2 * x.ndim:
        raise ValueError(f"pad(): two numbers for each of up to {x.ndim} axes are wanted, but got {len(pad)}")
    if mode not in _PAD_MODES:
        raise ValueError(f"pad(): a mode is one of {', '.join(_PAD_MODES)}, not {mode!r}")
    widths = [0] * (2 * x.ndim - len(pad))
    for i in range(len(pad) - 2, -1, -2):
        widths += [pad[i], pad[i + 1]]
    return _ornik.pad(x, widths, _PAD_MODES[mode], value)


def interpolate(
    x: KTensor,
    size: Pair | None = None,
    scale_factor: float | Sequence[float] | None = None,
    mode: str = "nearest",
    align_corners: bool = False,
) -> KTensor:
    """[N, C, L] or [N, C, H, W] in another resolution: given extents, or factors, whose products are rounded down.

    Modes: "nearest", and "linear" for one axis or "bilinear" for two. Positions follow from the extents alone.
    """
    tensors(x)
    axes = x.ndim - 2
    if axes not in (1, 2):
        raise ValueError(f"interpolate(): x is [N, C, L] or [N, C, H, W], but got {list(x.shape)}")
    if mode not in ("nearest", ("linear", "bilinear")[axes - 1]):
        raise ValueError(f"interpolate(): there is no mode {mode!r} for {axes} of the axes")
    if (size is None) == (scale_factor is None):
        raise ValueError("interpolate(): either size or scale_factor is wanted")
    if size is not None:
        target = extents("interpolate", "size", size, axes, 1)
    else:
        factors = scale_factor if isinstance(scale_factor, (tuple, list)) else [scale_factor] * axes
        if len(factors) != axes or not all(isinstance(f, (int, float)) and 0 < f < math.inf for f in factors):
            raise ValueError(f"interpolate(): scale_factor is {axes} numbers above 0, but got {scale_factor!r}")
        target = tuple(math.floor(n * f) for n, f in zip(x.shape[2:], factors))
    return _ornik.interpolate(x, target, "bilinear" if mode == "linear" else mode, align_corners)


def pixel_shuffle(x: KTensor, upscale_factor: int) -> KTensor:
    """[..., C r r, H, W] becomes [..., C, H r, W r]."""
    return _ornik.pixel_shuffle(x, upscale_factor)


def pixel_unshuffle(x: KTensor, downscale_factor: int) -> KTensor:
    """The reverse of :func:`pixel_shuffle`."""
    return _ornik.pixel_unshuffle(x, downscale_factor)


# ---- Normalizations ----


def batch_norm(
    x: KTensor,
    running_mean: KTensor | None,
    running_var: KTensor | None,
    weight: KTensor | None = None,
    bias: KTensor | None = None,
    training: bool = False,
    momentum: float = 0.1,
    eps: float = 1e-5,
) -> KTensor:
    """[N, C, ...] by the statistics of each channel, or, not in training, by the running ones.

    In training the running ones move: (1 - momentum) running + momentum batch, with the unbiased variance.
    """
    return _ornik.batch_norm(x, running_mean, running_var, weight, bias, training, momentum, eps)


def instance_norm(
    x: KTensor,
    running_mean: KTensor | None = None,
    running_var: KTensor | None = None,
    weight: KTensor | None = None,
    bias: KTensor | None = None,
    use_input_stats: bool = True,
    momentum: float = 0.1,
    eps: float = 1e-5,
) -> KTensor:
    """[N, C, ...] by the statistics of each channel of each sample, or by the running ones.

    The running ones, if given, move to the samples' mean statistics as those of :func:`batch_norm` do.
    """
    tensors(x)
    if not use_input_stats:
        return _ornik.batch_norm(x, running_mean, running_var, weight, bias, False, momentum, eps)
    y = _ornik.group_norm(x, x.shape[1] if x.ndim > 1 else 1, weight, bias, eps)
    if running_mean is not None and running_var is not None and not _ornik.is_recomputing():
        axes = list(range(2, x.ndim))
        own = x.detach()
        for running, statistic in (
            (running_mean, _ornik.mean(own, axes, False)),
            (running_var, _ornik.var(own, axes, False, 1.0)),
        ):
            _ornik.copy_into(running, (1 - momentum) * running + momentum * _ornik.mean(statistic, 0, False))
    return y


def layer_norm(
    x: KTensor,
    normalized_shape: Pair,
    weight: KTensor | None = None,
    bias: KTensor | None = None,
    eps: float = 1e-5,
) -> KTensor:
    """By the statistics of the last axes, whose extents are ``normalized_shape``, as weight's and bias's are."""
    return _ornik.layer_norm(x, normalized_shape, weight, bias, eps)


def rms_norm(x: KTensor, normalized_shape: Pair, weight: KTensor | None = None, eps: float | None = None) -> KTensor:
    """x / sqrt(mean(x**2) + eps) * weight over the last axes (Zhang and Sennrich, 2019).

    Without eps, the distance from 1 to the next number of x's dtype.
    """
    tensors(x)
    shape = (normalized_shape,) if isinstance(normalized_shape, int) else tuple(normalized_shape)
    if not shape or x.shape[-len(shape) :] != shape:
        raise ValueError(f"rms_norm(): the last axes of {list(x.shape)} are not {list(shape)}")
    if eps is None:
        eps = 2.0**-52 if x.dtype is _dtypes.float64 else 2.0**-23
    y = x * _ornik.rsqrt(_ornik.mean(_ornik.sqr(x), list(range(-len(shape), 0)), True) + eps)
    return y if weight is None else y * weight


def group_norm(
    x: KTensor, num_groups: int, weight: KTensor | None = None, bias: KTensor | None = None, eps: float = 1e-5
) -> KTensor:
    """[N, C, ...] by the statistics of each sample's groups of channels; weight and bias are [C]."""
    return _ornik.group_norm(x, num_groups, weight, bias, eps)


def normalize(x: KTensor, p: float = 2.0, dim: int = 1, eps: float = 1e-12) -> KTensor:
    """x over its p-norm along an axis, or over eps where that is less."""
    if p == 2:
        return _ornik.normalize(x, dim, eps)
    if math.isinf(p):
        norm = _ornik.max(_ornik.abs(x), dim, True)
    else:
        norm = _ornik.sum(_ornik.abs(x) ** p, dim, True) ** (1 / p)
    return x / _ornik.clamp_min(norm, eps)


def cosine_similarity(x1: KTensor, x2: KTensor, dim: int = 1, eps: float = 1e-8) -> KTensor:
    """The cosines of the angles between vectors along an axis; the operands broadcast."""
    return _ornik.cosine_similarity(x1, x2, dim, eps)


# ---- Attention ----


def scaled_dot_product_attention(
    query: KTensor,
    key: KTensor,
    value: KTensor,
    attn_mask: KTensor | None = None,
    dropout_p: float = 0.0,
    is_causal: bool = False,
    scale: float | None = None,
) -> KTensor:
    """softmax(query @ key.mT * scale) @ value: query [..., n, d], key [..., m, d], value [..., m, e].

    The mask broadcasts to [..., n, m]: bool, true may be attended to, or floating, added to the scores. ``is_causal``:
    position i attends to the first i + 1 alone. scale is 1 / sqrt(d) unless given. A row that may attend to nothing
    gives zeros.
    """
    if scale == 0:
        raise ValueError(
            "scaled_dot_product_attention(): a scale of 0 makes all scores equal; None stands for 1 / sqrt(d)"
        )
    return _ornik.attention(query, key, value, attn_mask, is_causal, scale or 0.0, dropout_p, False)[0]


# ---- Losses: "none" keeps the terms, "sum" adds them, "mean" divides ----


def _classes_last(x: KTensor) -> KTensor:
    """[N, C, ...] as [N, ..., C]."""
    return x if x.ndim <= 2 else _ornik.permute(x, [0, *range(2, x.ndim), 1])


def cross_entropy(
    x: KTensor,
    target: KTensor,
    weight: KTensor | None = None,
    ignore_index: int = -100,
    reduction: str = "mean",
    label_smoothing: float = 0.0,
) -> KTensor:
    """-log(softmax(x)) of the target's class: x [C] or [N, C, ...], target whole numbers [N, ...].

    Or, with probabilities of x's shape as target, their mean. ``weight`` [C] scales the classes; the mean of class
    numbers divides by the sum of their weights.
    """
    tensors(x, target)
    if target.dtype.is_floating_point:
        target = _classes_last(target)
    return _ornik.cross_entropy(_classes_last(x), target, weight, ignore_index, label_smoothing, reduction)


def nll_loss(
    x: KTensor, target: KTensor, weight: KTensor | None = None, ignore_index: int = -100, reduction: str = "mean"
) -> KTensor:
    """:func:`cross_entropy` of log-probabilities."""
    tensors(x, target)
    return _ornik.nll_loss(_classes_last(x), target, weight, ignore_index, reduction)


def mse_loss(x: KTensor, target: KTensor, reduction: str = "mean") -> KTensor:
    """(x - target)**2."""
    return _ornik.mse_loss(x, target, reduction)


def l1_loss(x: KTensor, target: KTensor, reduction: str = "mean") -> KTensor:
    """``|x - target|``."""
    return _ornik.l1_loss(x, target, reduction)


def smooth_l1_loss(x: KTensor, target: KTensor, reduction: str = "mean", beta: float = 1.0) -> KTensor:
    """d**2 / (2 beta) of the distance d below beta, d - beta / 2 above."""
    return _ornik.smooth_l1_loss(x, target, beta, reduction)


def huber_loss(x: KTensor, target: KTensor, reduction: str = "mean", delta: float = 1.0) -> KTensor:
    """d**2 / 2 of the distance d below delta, delta (d - delta / 2) above."""
    return _ornik.huber_loss(x, target, delta, reduction)


def binary_cross_entropy(
    x: KTensor, target: KTensor, weight: KTensor | None = None, reduction: str = "mean"
) -> KTensor:
    """-(t log(x) + (1 - t) log(1 - x)) of probabilities x; ``weight`` broadcasts to the terms."""
    return _ornik.binary_cross_entropy(x, target, weight, reduction)


def binary_cross_entropy_with_logits(
    x: KTensor,
    target: KTensor,
    weight: KTensor | None = None,
    reduction: str = "mean",
    pos_weight: KTensor | None = None,
) -> KTensor:
    """The same of sigmoid(x), exact for large numbers; ``pos_weight`` scales the terms with t."""
    return _ornik.binary_cross_entropy_with_logits(x, target, weight, pos_weight, reduction)


def kl_div(x: KTensor, target: KTensor, reduction: str = "mean", log_target: bool = False) -> KTensor:
    """t (log(t) - x) of log-probabilities x; "batchmean" divides by the extent of the first axis alone."""
    tensors(x, target)
    if reduction == "batchmean":
        return _ornik.kl_div(x, target, log_target, "sum") / max(x.shape[0] if x.ndim else 1, 1)
    return _ornik.kl_div(x, target, log_target, reduction)
