"""What dtypes hold, and which one several of them give."""

from __future__ import annotations

from typing import TYPE_CHECKING, NamedTuple

from . import _dtypes, _ornik
from ._convert import DTypeLike, Number, is_tensor
from ._dtypes import DType

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = ["can_cast", "finfo", "iinfo", "isdtype", "result_type"]


class FloatingInfo(NamedTuple):
    """What a floating dtype, or the parts of a complex one, can hold."""

    bits: int
    #: From 1 to the next number.
    eps: float
    max: float
    min: float
    smallest_normal: float
    dtype: DType


class IntegerInfo(NamedTuple):
    """What an integer dtype can hold."""

    bits: int
    max: int
    min: int
    dtype: DType


_SINGLE = FloatingInfo(32, 2.0**-23, (2 - 2.0**-23) * 2.0**127, -(2 - 2.0**-23) * 2.0**127, 2.0**-126, _dtypes.float32)
_DOUBLE = FloatingInfo(
    64, 2.0**-52, (2 - 2.0**-52) * 2.0**1023, -(2 - 2.0**-52) * 2.0**1023, 2.0**-1022, _dtypes.float64
)
_FLOATING = {
    _dtypes.float32: _SINGLE,
    _dtypes.complex64: _SINGLE,
    _dtypes.float64: _DOUBLE,
    _dtypes.complex128: _DOUBLE,
}

_KINDS = {
    "bool": "b",
    "signed integer": "i",
    "unsigned integer": "u",
    "integral": "iu",
    "real floating": "f",
    "complex floating": "c",
    "numeric": "iufc",
}


def _dtype_of(type: KTensor | DTypeLike) -> DType:
    return type.dtype if is_tensor(type) else _dtypes.dtype(type)


def finfo(type: KTensor | DTypeLike, /) -> FloatingInfo:
    """The limits of a floating or complex dtype, or of a tensor's.

    >>> ornik.finfo(ornik.float32).eps
    1.1920928955078125e-07
    """
    kind = _dtype_of(type)
    if kind not in _FLOATING:
        raise TypeError(f"finfo() is about floating and complex dtypes, not {kind}")
    return _FLOATING[kind]


def iinfo(type: KTensor | DTypeLike, /) -> IntegerInfo:
    """The limits of an integer dtype, or of a tensor's.

    >>> ornik.iinfo("int8").max
    127
    """
    kind = _dtype_of(type)
    if not kind.is_integer:
        raise TypeError(f"iinfo() is about integer dtypes, not {kind}")
    bits = 8 * kind.itemsize
    if kind.kind == "u":
        return IntegerInfo(bits, 2**bits - 1, 0, kind)
    return IntegerInfo(bits, 2 ** (bits - 1) - 1, -(2 ** (bits - 1)), kind)


def isdtype(dtype: DTypeLike, kind: DTypeLike | tuple[DTypeLike, ...]) -> bool:
    """Is it a dtype, or of a kind: "bool", "signed integer", "unsigned integer", "integral", "real floating",
    "complex floating", "numeric"; or one of several of these?

    >>> ornik.isdtype(ornik.int8, ("integral", "bool"))
    True
    """
    given = _dtypes.dtype(dtype)
    if isinstance(kind, tuple):
        return any(isdtype(given, k) for k in kind)
    if isinstance(kind, str) and kind in _KINDS:
        return given.kind in _KINDS[kind]
    if isinstance(kind, str) and kind != "bool":
        raise ValueError(f'there is no kind of dtypes "{kind}"; there are {", ".join(_KINDS)}')
    return given is _dtypes.dtype(kind)


def result_type(*arrays_and_dtypes: KTensor | Number | DTypeLike) -> DType:
    """The dtype of a sum of all these: tensors, dtypes and, beside them, numbers.

    >>> ornik.result_type(ornik.int8, ornik.uint8)
    ornik.int16
    """
    numbers = [x for x in arrays_and_dtypes if isinstance(x, (bool, int, float, complex))]
    kinds = [_dtype_of(x) for x in arrays_and_dtypes if not isinstance(x, (bool, int, float, complex))]
    if not kinds:
        raise ValueError("result_type(): one tensor or dtype at least is wanted")
    result = kinds[0]
    for kind in kinds[1:]:
        result = _of_pair(result, kind)
    for number in numbers:
        result = _chosen(result, number)
    return result


def _chosen(kind: DType, other: KTensor | Number) -> DType:
    """By a choice between elements, which promotes as a sum does, and takes bools, too."""
    return _ornik.where(_ornik.empty(0, _dtypes.bool_), _ornik.empty(0, kind), other).dtype


_PAIRS: dict[tuple[DType, DType], DType] = {}


def _of_pair(a: DType, b: DType) -> DType:
    if a is b:
        return a
    result = _PAIRS.get((a, b))
    if result is None:
        result = _PAIRS[a, b] = _chosen(a, _ornik.empty(0, b))
    return result


def can_cast(from_: KTensor | DTypeLike, to: DTypeLike, /) -> bool:
    """Does the dtype turn into the other one by promotion?"""
    target = _dtypes.dtype(to)
    return result_type(_dtype_of(from_), target) is target
