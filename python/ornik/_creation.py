"""New tensors."""

from __future__ import annotations

from typing import TYPE_CHECKING

from . import _dtypes, _ornik
from ._convert import DTypeLike, Number, Shape, check_device, from_dlpack, from_object

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "arange",
    "array",
    "asarray",
    "empty",
    "empty_like",
    "eye",
    "from_dlpack",
    "from_numpy",
    "frombuffer",
    "full",
    "full_like",
    "linspace",
    "ones",
    "ones_like",
    "tensor",
    "zeros",
    "zeros_like",
]


def asarray(
    obj: object, /, *, dtype: DTypeLike | None = None, device: object = None, copy: bool | None = None
) -> KTensor:
    """A tensor of numbers, nested lists, an array of NumPy, a buffer, or an object with ``__dlpack__``.

    Memory that can serve as it is stays where it is, and both see each other's writes; ``copy=True`` gives memory of
    its own, ``copy=False`` refuses to copy. Without a dtype, fractions in lists become float32, whole numbers int64.

    >>> ornik.asarray([[1, 2], [3, 4]]).shape
    (2, 2)
    """
    check_device(device)
    return from_object(obj, dtype, copy)


def tensor(data: object, dtype: DTypeLike | None = None, *, requires_grad: bool = False) -> KTensor:
    """A new tensor with the numbers of ``data``, which is what :func:`asarray` takes.

    >>> ornik.tensor([1.0, 2.0], requires_grad=True)
    KTensor([1., 2.], requires_grad=True)
    """
    result = from_object(data, dtype, True)
    result = _ornik.detach(result)
    if requires_grad:
        result.requires_grad = True
    return result


def array(obj: object, dtype: DTypeLike | None = None, *, copy: bool | None = True) -> KTensor:
    """:func:`asarray` that copies unless told otherwise."""
    return from_object(obj, dtype, copy)


def from_numpy(array: object, /) -> KTensor:
    """The tensor on an array's memory. Arrays that can not serve as they are, are refused."""
    return _ornik.from_buffer(array, False)


def frombuffer(buffer: object, dtype: DTypeLike = _dtypes.float32, count: int = -1, offset: int = 0) -> KTensor:
    """The numbers of a bytes-like object from ``offset`` bytes on, without a copy; -1: all of them."""
    code = _dtypes.dtype(dtype)
    total = memoryview(buffer).nbytes  # type: ignore[arg-type]
    if offset < 0 or offset > total:
        raise ValueError(f"offset {offset} is outside the {total} bytes")
    if count < 0:
        if (total - offset) % code.itemsize:
            raise ValueError(f"{total - offset} bytes are no whole number of elements of {code.itemsize} bytes")
        count = (total - offset) // code.itemsize
    return _ornik.from_bytes(buffer, code, (count,), offset, None)


def empty(shape: Shape, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """Elements of any value."""
    check_device(device)
    return _ornik.empty(shape, _dtypes.float32 if dtype is None else dtype)


def zeros(shape: Shape, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """Zeros; float32 unless told otherwise."""
    check_device(device)
    return _ornik.full(shape, 0, _dtypes.float32 if dtype is None else dtype)


def ones(shape: Shape, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """Ones; float32 unless told otherwise."""
    check_device(device)
    return _ornik.full(shape, 1, _dtypes.float32 if dtype is None else dtype)


def _dtype_of(value: Number) -> _dtypes.DType:
    if isinstance(value, bool):
        return _dtypes.bool_
    if isinstance(value, int):
        return _dtypes.int64
    return _dtypes.complex64 if isinstance(value, complex) else _dtypes.float32


def full(shape: Shape, fill_value: Number, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """The same number everywhere; without a dtype, that which :func:`asarray` gives it."""
    check_device(device)
    return _ornik.full(shape, fill_value, _dtype_of(fill_value) if dtype is None else dtype)


def empty_like(x: KTensor, /, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """:func:`empty` of x's shape and, unless told otherwise, dtype."""
    return empty(_ornik.checked(x).shape, dtype=x.dtype if dtype is None else dtype, device=device)


def zeros_like(x: KTensor, /, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """:func:`zeros` of x's shape and, unless told otherwise, dtype."""
    return zeros(_ornik.checked(x).shape, dtype=x.dtype if dtype is None else dtype, device=device)


def ones_like(x: KTensor, /, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """:func:`ones` of x's shape and, unless told otherwise, dtype."""
    return ones(_ornik.checked(x).shape, dtype=x.dtype if dtype is None else dtype, device=device)


def full_like(x: KTensor, /, fill_value: Number, *, dtype: DTypeLike | None = None, device: object = None) -> KTensor:
    """:func:`full` of x's shape and, unless told otherwise, dtype."""
    return full(_ornik.checked(x).shape, fill_value, dtype=x.dtype if dtype is None else dtype, device=device)


def arange(
    start: float,
    /,
    stop: float | None = None,
    step: float = 1,
    *,
    dtype: DTypeLike | None = None,
    device: object = None,
) -> KTensor:
    """start, start + step, ... before stop; with one argument, 0, 1, ... before it. int64 for whole numbers.

    >>> ornik.arange(2, 10, 3)
    KTensor([2, 5, 8])
    """
    check_device(device)
    begin, end = (0, start) if stop is None else (start, stop)
    if step == 0:
        raise ValueError("arange(): a step of 0 leads nowhere")
    if not all(isinstance(n, int) for n in (begin, end, step)):
        return _ornik.arange(begin, end, step, _dtypes.float32 if dtype is None else dtype)
    kind = _dtypes.int64 if dtype is None else dtype
    count = max(0, -((begin - end) // step)) if step > 0 else max(0, -((end - begin) // -step))
    if max(abs(begin), abs(end), abs(step)) < 2**52:
        return _ornik.arange(begin, begin + count * step, step, kind)
    # Beyond what a double counts exactly.
    return _ornik.astype(begin + step * _ornik.arange(0, count, 1, _dtypes.int64), kind)


def linspace(
    start: complex,
    stop: complex,
    /,
    num: int,
    *,
    dtype: DTypeLike | None = None,
    device: object = None,
    endpoint: bool = True,
) -> KTensor:
    """``num`` numbers from start to stop, which is one of them unless ``endpoint`` is false."""
    check_device(device)
    if num < 0:
        raise ValueError(f"linspace(): there are no {num} numbers")
    if isinstance(start, complex) or isinstance(stop, complex):
        begin, end = complex(start), complex(stop)
        parts = [
            linspace(a, b, num, dtype=_dtypes.float64, endpoint=endpoint)
            for a, b in ((begin.real, end.real), (begin.imag, end.imag))
        ]
        return _ornik.astype(parts[0] + parts[1] * 1j, _dtypes.complex64 if dtype is None else dtype)
    kind = _dtypes.float32 if dtype is None else dtype
    return _ornik.linspace(start, stop, num, kind) if endpoint else _ornik.linspace(start, stop, num + 1, kind)[:num]


def eye(
    n_rows: int, n_cols: int | None = None, /, *, k: int = 0, dtype: DTypeLike | None = None, device: object = None
) -> KTensor:
    """Ones on diagonal k, zeros elsewhere."""
    check_device(device)
    columns = n_rows if n_cols is None else n_cols
    diagonal = min(max(k, -n_rows), columns)  # Beyond the corners there is nothing.
    return _ornik.eye(n_rows, columns, diagonal, _dtypes.float32 if dtype is None else dtype)
