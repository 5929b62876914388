"""Functions of each element.

Two operands broadcast, and one of them may be a number, which takes the dtype of a tensor of its kind.
"""

from __future__ import annotations

from typing import TYPE_CHECKING

from . import _ornik
from ._convert import Number, Operand, is_tensor

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "abs",
    "acos",
    "acosh",
    "add",
    "allclose",
    "angle",
    "asin",
    "asinh",
    "atan",
    "atan2",
    "atanh",
    "bitwise_and",
    "bitwise_invert",
    "bitwise_left_shift",
    "bitwise_or",
    "bitwise_right_shift",
    "bitwise_xor",
    "ceil",
    "clip",
    "conj",
    "copysign",
    "cos",
    "cosh",
    "divide",
    "equal",
    "erf",
    "exp",
    "exp2",
    "expm1",
    "floor",
    "floor_divide",
    "fmod",
    "greater",
    "greater_equal",
    "hypot",
    "imag",
    "isclose",
    "isfinite",
    "isinf",
    "isnan",
    "less",
    "less_equal",
    "log",
    "log10",
    "log1p",
    "log2",
    "logaddexp",
    "logical_and",
    "logical_not",
    "logical_or",
    "logical_xor",
    "masked_fill",
    "maximum",
    "minimum",
    "multiply",
    "negative",
    "nextafter",
    "not_equal",
    "positive",
    "pow",
    "real",
    "reciprocal",
    "remainder",
    "round",
    "rsqrt",
    "sigmoid",
    "sign",
    "signbit",
    "sin",
    "sinh",
    "sqrt",
    "square",
    "subtract",
    "tan",
    "tanh",
    "trunc",
    "where",
]


def exp(x: KTensor, /) -> KTensor:
    """e to the power of each element."""
    return _ornik.exp(x)


def exp2(x: KTensor, /) -> KTensor:
    """2 to the power of each element."""
    return _ornik.exp2(x)


def expm1(x: KTensor, /) -> KTensor:
    """exp(x) - 1, exact near 0."""
    return _ornik.expm1(x)


def log(x: KTensor, /) -> KTensor:
    """The natural logarithm."""
    return _ornik.log(x)


def log2(x: KTensor, /) -> KTensor:
    """The logarithm to base 2."""
    return _ornik.log2(x)


def log10(x: KTensor, /) -> KTensor:
    """The logarithm to base 10."""
    return _ornik.log10(x)


def log1p(x: KTensor, /) -> KTensor:
    """log(1 + x), exact near 0."""
    return _ornik.log1p(x)


def sqrt(x: KTensor, /) -> KTensor:
    """The square root."""
    return _ornik.sqrt(x)


def rsqrt(x: KTensor, /) -> KTensor:
    """1 / sqrt(x)."""
    return _ornik.rsqrt(x)


def reciprocal(x: KTensor, /) -> KTensor:
    """1 / x."""
    return _ornik.reciprocal(x)


def sin(x: KTensor, /) -> KTensor:
    """The sine."""
    return _ornik.sin(x)


def cos(x: KTensor, /) -> KTensor:
    """The cosine."""
    return _ornik.cos(x)


def tan(x: KTensor, /) -> KTensor:
    """The tangent."""
    return _ornik.tan(x)


def asin(x: KTensor, /) -> KTensor:
    """The inverse sine."""
    return _ornik.asin(x)


def acos(x: KTensor, /) -> KTensor:
    """The inverse cosine."""
    return _ornik.acos(x)


def atan(x: KTensor, /) -> KTensor:
    """The inverse tangent."""
    return _ornik.atan(x)


def sinh(x: KTensor, /) -> KTensor:
    """The hyperbolic sine."""
    return _ornik.sinh(x)


def cosh(x: KTensor, /) -> KTensor:
    """The hyperbolic cosine."""
    return _ornik.cosh(x)


def tanh(x: KTensor, /) -> KTensor:
    """The hyperbolic tangent."""
    return _ornik.tanh(x)


def asinh(x: KTensor, /) -> KTensor:
    """The inverse hyperbolic sine."""
    return _ornik.asinh(x)


def acosh(x: KTensor, /) -> KTensor:
    """The inverse hyperbolic cosine."""
    return _ornik.acosh(x)


def atanh(x: KTensor, /) -> KTensor:
    """The inverse hyperbolic tangent."""
    return _ornik.atanh(x)


def sigmoid(x: KTensor, /) -> KTensor:
    """1 / (1 + exp(-x))."""
    return _ornik.sigmoid(x)


def erf(x: KTensor, /) -> KTensor:
    """The error function."""
    return _ornik.erf(x)


def negative(x: KTensor, /) -> KTensor:
    """-x."""
    return _ornik.neg(x)


def square(x: KTensor, /) -> KTensor:
    """x * x."""
    return _ornik.sqr(x)


def abs(x: KTensor, /) -> KTensor:
    """The magnitude; real for complex numbers."""
    return _ornik.abs(x)


def conj(x: KTensor, /) -> KTensor:
    """The complex conjugate."""
    return _ornik.conj(x)


def real(x: KTensor, /) -> KTensor:
    """The real part."""
    return _ornik.real(x)


def imag(x: KTensor, /) -> KTensor:
    """The imaginary part; zeros for real numbers."""
    return _ornik.imag(x)


def angle(x: KTensor, /) -> KTensor:
    """The phase in (-pi, pi]."""
    return _ornik.angle(x)


def sign(x: KTensor, /) -> KTensor:
    """-1, 0 or 1; z / abs(z) for complex numbers."""
    return _ornik.sign(x)


def floor(x: KTensor, /) -> KTensor:
    """The next whole number below."""
    return _ornik.floor(x)


def ceil(x: KTensor, /) -> KTensor:
    """The next whole number above."""
    return _ornik.ceil(x)


def round(x: KTensor, /) -> KTensor:
    """The nearest whole number, halves to even; of complex numbers both parts."""
    return _ornik.round(x)


def trunc(x: KTensor, /) -> KTensor:
    """The whole part."""
    return _ornik.trunc(x)


def isnan(x: KTensor, /) -> KTensor:
    """True for what is not a number."""
    return _ornik.is_nan(x)


def isinf(x: KTensor, /) -> KTensor:
    """True for infinities."""
    return _ornik.is_inf(x)


def isfinite(x: KTensor, /) -> KTensor:
    """True for numbers that are neither infinite nor NaN."""
    return _ornik.is_finite(x)


def logical_not(x: KTensor, /) -> KTensor:
    """True for zero."""
    return _ornik.logical_not(x)


def bitwise_invert(x: KTensor, /) -> KTensor:
    """Every bit turned over."""
    return _ornik.bitwise_not(x)


def add(x1: Operand, x2: Operand, /) -> KTensor:
    """The sum."""
    return _ornik.add(x1, x2)


def subtract(x1: Operand, x2: Operand, /) -> KTensor:
    """The difference."""
    return _ornik.sub(x1, x2)


def multiply(x1: Operand, x2: Operand, /) -> KTensor:
    """The product, element by element."""
    return _ornik.mul(x1, x2)


def divide(x1: Operand, x2: Operand, /) -> KTensor:
    """The quotient: floating or complex."""
    return _ornik.div(x1, x2)


def pow(x1: Operand, x2: Operand, /) -> KTensor:
    """a to the power of b."""
    return _ornik.pow(x1, x2)


def fmod(x1: Operand, x2: Operand, /) -> KTensor:
    """The remainder, of the dividend's sign."""
    return _ornik.fmod(x1, x2)


def remainder(x1: Operand, x2: Operand, /) -> KTensor:
    """The remainder, of the divisor's sign: Python's %."""
    return _ornik.remainder(x1, x2)


def maximum(x1: Operand, x2: Operand, /) -> KTensor:
    """The larger one of each pair; NaN wins."""
    return _ornik.maximum(x1, x2)


def minimum(x1: Operand, x2: Operand, /) -> KTensor:
    """The smaller one of each pair; NaN wins."""
    return _ornik.minimum(x1, x2)


def atan2(x1: Operand, x2: Operand, /) -> KTensor:
    """The angle of the point (b, a)."""
    return _ornik.atan2(x1, x2)


def equal(x1: Operand, x2: Operand, /) -> KTensor:
    """a == b."""
    return _ornik.equal(x1, x2)


def not_equal(x1: Operand, x2: Operand, /) -> KTensor:
    """a != b."""
    return _ornik.not_equal(x1, x2)


def greater(x1: Operand, x2: Operand, /) -> KTensor:
    """a > b."""
    return _ornik.greater(x1, x2)


def greater_equal(x1: Operand, x2: Operand, /) -> KTensor:
    """a >= b."""
    return _ornik.greater_equal(x1, x2)


def less(x1: Operand, x2: Operand, /) -> KTensor:
    """a < b."""
    return _ornik.less(x1, x2)


def less_equal(x1: Operand, x2: Operand, /) -> KTensor:
    """a <= b."""
    return _ornik.less_equal(x1, x2)


def logical_and(x1: Operand, x2: Operand, /) -> KTensor:
    """True where both are not zero."""
    return _ornik.logical_and(x1, x2)


def logical_or(x1: Operand, x2: Operand, /) -> KTensor:
    """True where one is not zero."""
    return _ornik.logical_or(x1, x2)


def logical_xor(x1: Operand, x2: Operand, /) -> KTensor:
    """True where exactly one is not zero."""
    return _ornik.logical_xor(x1, x2)


def bitwise_and(x1: Operand, x2: Operand, /) -> KTensor:
    """a & b, bit by bit."""
    return _ornik.bitwise_and(x1, x2)


def bitwise_or(x1: Operand, x2: Operand, /) -> KTensor:
    """a | b, bit by bit."""
    return _ornik.bitwise_or(x1, x2)


def bitwise_xor(x1: Operand, x2: Operand, /) -> KTensor:
    """a ^ b, bit by bit."""
    return _ornik.bitwise_xor(x1, x2)


def bitwise_left_shift(x1: Operand, x2: Operand, /) -> KTensor:
    """a << b."""
    return _ornik.left_shift(x1, x2)


def bitwise_right_shift(x1: Operand, x2: Operand, /) -> KTensor:
    """a >> b."""
    return _ornik.right_shift(x1, x2)


def positive(x: KTensor, /) -> KTensor:
    """A copy."""
    return _ornik.clone(x)


def floor_divide(x1: Operand, x2: Operand, /) -> KTensor:
    """The largest whole number not above x1 / x2: Python's //."""
    return _ornik.floor_divide(x1, x2)


def copysign(x1: Operand, x2: Operand, /) -> KTensor:
    """The magnitude of x1 with the sign of x2."""
    return _ornik.copysign(x1, x2)


def hypot(x1: Operand, x2: Operand, /) -> KTensor:
    """sqrt(x1**2 + x2**2), without overflow."""
    return _ornik.hypot(x1, x2)


def logaddexp(x1: Operand, x2: Operand, /) -> KTensor:
    """log(exp(x1) + exp(x2)), without overflow."""
    return _ornik.logaddexp(x1, x2)


def nextafter(x1: Operand, x2: Operand, /) -> KTensor:
    """The next number from x1 towards x2."""
    return _ornik.nextafter(x1, x2)


def signbit(x: KTensor, /) -> KTensor:
    """True for numbers below 0, -0.0, and NaN with a sign."""
    return _ornik.signbit(x)


def clip(x: KTensor, /, min: Number | KTensor | None = None, max: Number | KTensor | None = None) -> KTensor:
    """What lies below ``min`` becomes ``min``, what lies above ``max`` becomes ``max``.

    >>> ornik.clip(ornik.arange(5), 1, 3)
    KTensor([1, 1, 2, 3, 3])
    """
    if is_tensor(min) or is_tensor(max):
        lifted = x if min is None else _ornik.maximum(x, min)
        return lifted if max is None else _ornik.minimum(lifted, max)
    if min is None:
        return _ornik.clone(x) if max is None else _ornik.clamp_max(x, max)
    return _ornik.clamp_min(x, min) if max is None else _ornik.clamp(x, min, max)


def where(condition: KTensor, x1: Operand, x2: Operand, /) -> KTensor:
    """x1 where the condition is true, x2 elsewhere."""
    return _ornik.where(condition, x1, x2)


def masked_fill(x: KTensor, mask: KTensor, value: Number) -> KTensor:
    """x, with the value where the mask is true."""
    return _ornik.masked_fill(x, mask, value)


def isclose(x1: KTensor, x2: KTensor, /, *, rtol: float = 1e-5, atol: float = 1e-8, equal_nan: bool = False) -> KTensor:
    """True where ``|x1 - x2| <= atol + rtol |x2|``."""
    return _ornik.is_close(x1, x2, rtol, atol, equal_nan)


def allclose(x1: KTensor, x2: KTensor, /, *, rtol: float = 1e-5, atol: float = 1e-8, equal_nan: bool = False) -> bool:
    """Are all elements close?"""
    return bool(_ornik.all(_ornik.is_close(x1, x2, rtol, atol, equal_nan), None, False))
