"""The types of elements."""

from __future__ import annotations

import sys
from typing import Any

from . import _ornik

__all__ = ["DType", "dtype"]

_KINDS = ("b", "i", "f", "c")


class DType:
    """The type of a tensor's elements: ``ornik.float32``, ``ornik.int64``, ...

    Equal to itself, to its name, and to what NumPy and Python call the same type.
    """

    __slots__ = ("code", "itemsize", "kind", "name")

    code: int
    name: str
    itemsize: int
    #: The first letter of bool, integer, unsigned, floating or complex.
    kind: str

    def __init__(self, code: int, name: str, itemsize: int, kind: str) -> None:
        self.code = code
        self.name = name
        self.itemsize = itemsize
        self.kind = kind

    @property
    def is_floating_point(self) -> bool:
        return self.kind == "f"

    @property
    def is_complex(self) -> bool:
        return self.kind == "c"

    @property
    def is_integer(self) -> bool:
        return self.kind in "iu"

    def __repr__(self) -> str:
        return f"ornik.{self.name}"

    def __str__(self) -> str:
        return self.name

    def __hash__(self) -> int:
        return hash(self.name)

    def __eq__(self, other: object) -> bool:
        if self is other:
            return True
        if isinstance(other, DType) or other is None:
            return False
        try:
            return dtype(other) is self
        except TypeError:
            return False

    def __reduce__(self) -> tuple[Any, ...]:
        return dtype, (self.name,)


_TABLE = tuple(
    DType(code, name, itemsize, "u" if name == "uint8" else _KINDS[kind])
    for code, (name, itemsize, kind) in enumerate(_ornik.dtype_rows)
)
bool_, uint8, int8, int16, int32, int64, float32, float64, complex64, complex128 = _TABLE
_BY_NAME = {d.name: d for d in _TABLE}
_BY_TYPE: dict[object, DType] = {bool: bool_, int: int64, float: float32, complex: complex64}


def dtype(of: object) -> DType:
    """The dtype that ``of`` names: a dtype, its name, a type of Python's, or a dtype or scalar type of NumPy's.

    Python's ``float`` is float32 here, and ``complex`` complex64: what numbers without a dtype become.

    >>> ornik.dtype("int16")
    ornik.int16
    """
    if isinstance(of, DType):
        return of
    if isinstance(of, str):
        found = _BY_NAME.get(of)
        if found is None:
            raise TypeError(f'there is no dtype "{of}"; there are {", ".join(_BY_NAME)}')
        return found
    found = _BY_TYPE.get(of) if isinstance(of, type) else None
    if found is not None:
        return found
    numpy = sys.modules.get("numpy")
    if numpy is not None and (isinstance(of, numpy.dtype) or (isinstance(of, type) and issubclass(of, numpy.generic))):
        as_numpy = numpy.dtype(of)
        found = _BY_NAME.get(as_numpy.name)
        if found is not None and as_numpy.isnative:
            return found
        raise TypeError(f"NumPy's {as_numpy!r} has no dtype here; there are {', '.join(_BY_NAME)}")
    raise TypeError(f"a dtype is wanted, but got {of!r}")


_ornik.register_dtypes(_TABLE, dtype)
