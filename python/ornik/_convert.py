"""What functions take: tensors, numbers, shapes, arrays of others."""

from __future__ import annotations

import sys
from collections.abc import Sequence
from typing import TYPE_CHECKING, Any, Union

from . import _ornik

if TYPE_CHECKING:
    from typing_extensions import TypeIs

    from ._dtypes import DType
    from ._tensor import KTensor

__all__ = ["Axes", "DTypeLike", "Number", "Operand", "Shape", "check_device", "from_object", "is_tensor", "ready"]

Number = Union[bool, int, float, complex]
Operand = Union["KTensor", Number]
Shape = Union[int, Sequence[int]]
Axes = Union[int, Sequence[int], None]
DTypeLike = Union["DType", str, type, Any]


def check_device(device: object) -> None:
    """Tensors live in the memory of the processor; ``device`` is None or "cpu"."""
    if device is not None and device != "cpu":
        raise ValueError(f'there is one device, "cpu", but got {device!r}')


def is_tensor(obj: object) -> TypeIs[KTensor]:
    """Is it a tensor, of this class or one derived from it?"""
    return isinstance(obj, _ornik.KTensorBase)


def ready(x: Operand) -> KTensor:
    """A tensor as it is, a number as a tensor without axes."""
    return x if is_tensor(x) else _ornik.from_nested(x, None)


def from_object(obj: object, dtype: DTypeLike, copy: bool | None) -> KTensor:
    """A tensor of anything that holds numbers: without a copy where its memory can serve, unless one is asked for."""
    if is_tensor(obj):
        return _as(obj, dtype, copy)
    shared = _from_memory(obj, copy if dtype is None else None)
    if shared is not None:
        return _as(shared, dtype, None if copy else copy)
    if copy is False:
        raise ValueError(f"copy=False, but a tensor of {_kind(obj)} takes memory of its own")
    if isinstance(obj, (list, tuple, range)):
        return _ornik.from_nested(_plain(obj), dtype)
    return _ornik.from_nested(obj, dtype)


def _kind(obj: object) -> str:
    return type(obj).__name__


def _as(x: KTensor, dtype: DTypeLike, copy: bool | None) -> KTensor:
    converted = x if dtype is None else _ornik.astype(x, dtype)
    if converted is x or _ornik.same(converted, x):
        return _ornik.clone(x) if copy else x
    if copy is False:
        raise ValueError(f"copy=False, but {x.dtype} has to become {converted.dtype}")
    return converted


def _from_memory(obj: object, copy: bool | None) -> KTensor | None:
    """By the buffer protocol, DLPack or NumPy's, in this order; None where an object has none of them."""
    if isinstance(obj, (str, bytes)):
        raise TypeError(f"a tensor is made of numbers, but got {_kind(obj)}")
    if type(obj) in (bool, int, float, complex) or isinstance(obj, (list, tuple, range)):
        return None
    numpy: Any = sys.modules.get("numpy")
    if numpy is not None and isinstance(obj, numpy.generic):
        return _ornik.from_buffer(numpy.asarray(obj), copy is not False)
    if hasattr(obj, "__dlpack__") and not hasattr(obj, "__array_interface__"):
        return from_dlpack(obj, copy=copy)
    try:
        memoryview(obj)  # type: ignore[arg-type]
    except (TypeError, ValueError, BufferError):
        if not hasattr(obj, "__array__") and not hasattr(obj, "__array_interface__"):
            return None
        import numpy as np

        array = np.asarray(obj)
        if array.dtype.hasobject or array.dtype.kind not in "biufc":
            raise TypeError(f"a tensor is made of numbers, but got {_kind(obj)} of {array.dtype}") from None
        return _ornik.from_buffer(array, copy)
    return _ornik.from_buffer(obj, copy)


def _plain(rows: Sequence[Any], above: tuple[int, ...] = ()) -> Any:
    """The rows with arrays and tensors among them as lists; the rows themselves where there are none."""
    if len(above) > 29 or id(rows) in above:
        return rows  # The reader says what is wrong.
    above = (*above, id(rows))
    changed = [_plain(r, above) if isinstance(r, (list, tuple, range)) else _listed(r) for r in rows]
    return rows if all(a is b for a, b in zip(changed, rows)) and not isinstance(rows, range) else changed


def _listed(item: Any) -> Any:
    return item.tolist() if getattr(item, "ndim", 0) > 0 and hasattr(item, "tolist") else item


def from_dlpack(x: object, /, *, device: object = None, copy: bool | None = None) -> KTensor:
    """The tensor of an object with ``__dlpack__``, on the same memory unless ``copy``."""
    check_device(device)
    if not hasattr(x, "__dlpack__"):
        raise TypeError(f"an object with __dlpack__() is wanted, but got {_kind(x)}")
    source: Any = x
    try:
        capsule = source.__dlpack__(max_version=(1, 1), copy=copy)
    except TypeError:
        # A producer of the first version, which has no arguments of that kind.
        capsule = source.__dlpack__()
    flags = getattr(x, "flags", None)
    return _ornik.from_capsule(capsule, copy, getattr(flags, "writeable", True) is False)
