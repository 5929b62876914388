"""Files in the IDX format, as small collections of images come in."""

from __future__ import annotations

import os
from typing import TYPE_CHECKING

from .. import _creation, _dtypes, _ornik

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["read_idx"]

_KINDS = {
    0x08: (_dtypes.uint8, "u1"),
    0x09: (_dtypes.int8, "i1"),
    0x0B: (_dtypes.int16, ">i2"),
    0x0C: (_dtypes.int32, ">i4"),
    0x0D: (_dtypes.float32, ">f4"),
    0x0E: (_dtypes.float64, ">f8"),
}


def read_idx(path: str | os.PathLike[str]) -> KTensor:
    """The tensor of an IDX file, plain or compressed with gzip.

    A file that is no such file, is cut short, or holds more than its header tells, is refused with ValueError.
    """
    name = os.fspath(path)
    with open(name, "rb") as file:
        data = file.read()
    if data[:2] == b"\x1f\x8b":
        import gzip
        import zlib

        try:
            data = gzip.decompress(data)
        except (EOFError, OSError, zlib.error) as error:
            raise ValueError(f"{name}: the gzip file is damaged: {error}") from None
    if len(data) < 4 or data[:2] != b"\0\0" or data[2] not in _KINDS:
        raise ValueError(f"{name}: is no IDX file")
    dtype, code = _KINDS[data[2]]
    begin = 4 + 4 * data[3]
    if len(data) < begin:
        raise ValueError(f"{name}: the header is cut short")
    shape = tuple(int.from_bytes(data[at : at + 4], "big") for at in range(4, begin, 4))
    count = 1
    for extent in shape:
        count *= extent
    if len(data) - begin != count * dtype.itemsize:
        raise ValueError(
            f"{name}: {list(shape)} {dtype} takes {count * dtype.itemsize} bytes, but there are {len(data) - begin}"
        )
    if count == 0:
        return _creation.zeros(shape, dtype=dtype)
    if len(code) == 2:
        return _ornik.reshape(_ornik.clone(_creation.frombuffer(data, dtype, offset=begin)), shape)
    import numpy

    array = numpy.frombuffer(data, code, offset=begin)
    return _ornik.from_buffer(array.astype(array.dtype.newbyteorder("=")).reshape(shape), None)
