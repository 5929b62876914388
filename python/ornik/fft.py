"""Discrete Fourier transforms, with gradients.

The sums are scaled by ``norm``: "backward" divides the inverse transform by the number of elements, "forward" the
forward one, "ortho" both by its root. A length ``n`` cuts the axis off, or puts zeros behind it.

>>> ornik.fft.rfft(ornik.ones(4)).real
KTensor([4., 0., 0.])
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

from . import _dtypes, _ornik
from ._convert import Axes, DTypeLike, check_device

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "fft",
    "fftfreq",
    "fftn",
    "fftshift",
    "hfft",
    "ifft",
    "ifftn",
    "ifftshift",
    "ihfft",
    "irfft",
    "irfftn",
    "rfft",
    "rfftfreq",
    "rfftn",
]


def fft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The transform along an axis: complex."""
    return _ornik.fft(x, n, axis, norm)


def ifft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The inverse of :func:`fft`."""
    return _ornik.ifft(x, n, axis, norm)


def fftn(
    x: KTensor, /, *, s: Sequence[int] | None = None, axes: Sequence[int] | None = None, norm: str = "backward"
) -> KTensor:
    """The transform along several axes, of lengths ``s``, or along all."""
    return _ornik.fftn(x, () if s is None else s, axes, norm)


def ifftn(
    x: KTensor, /, *, s: Sequence[int] | None = None, axes: Sequence[int] | None = None, norm: str = "backward"
) -> KTensor:
    """The inverse of :func:`fftn`."""
    return _ornik.ifftn(x, () if s is None else s, axes, norm)


def rfft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The transform of real numbers: the n // 2 + 1 results that are not conjugates of others."""
    return _ornik.rfft(x, n, axis, norm)


def irfft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The inverse of :func:`rfft`: n real numbers, 2 * (m - 1) for an axis of m by default."""
    return _ornik.irfft(x, n, axis, norm)


def rfftn(
    x: KTensor, /, *, s: Sequence[int] | None = None, axes: Sequence[int] | None = None, norm: str = "backward"
) -> KTensor:
    """The transform of real numbers along several axes; the last of them is that of :func:`rfft`."""
    return _ornik.rfftn(x, () if s is None else s, axes, norm)


def irfftn(
    x: KTensor, /, *, s: Sequence[int] | None = None, axes: Sequence[int] | None = None, norm: str = "backward"
) -> KTensor:
    """The inverse of :func:`rfftn`."""
    return _ornik.irfftn(x, () if s is None else s, axes, norm)


def hfft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The transform, real, of numbers whose second half is the conjugate of the first, of which x is given."""
    return _ornik.hfft(x, n, axis, norm)


def ihfft(x: KTensor, /, *, n: int | None = None, axis: int = -1, norm: str = "backward") -> KTensor:
    """The inverse of :func:`hfft`."""
    return _ornik.ihfft(x, n, axis, norm)


def fftfreq(n: int, /, *, d: float = 1.0, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """The frequencies of the results of :func:`fft` for samples d apart."""
    check_device(device)
    return _ornik.fftfreq(n, d, _dtypes.float32 if dtype is None else dtype)


def rfftfreq(n: int, /, *, d: float = 1.0, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """The frequencies of the results of :func:`rfft` for samples d apart."""
    check_device(device)
    return _ornik.rfftfreq(n, d, _dtypes.float32 if dtype is None else dtype)


def fftshift(x: KTensor, /, *, axes: Axes = None) -> KTensor:
    """Frequency 0 moves from the begin of each axis to the middle."""
    return _ornik.fftshift(x, axes)


def ifftshift(x: KTensor, /, *, axes: Axes = None) -> KTensor:
    """The inverse of :func:`fftshift`."""
    return _ornik.ifftshift(x, axes)
