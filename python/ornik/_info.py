"""What the package says of itself as a namespace of the Python array API standard."""

from __future__ import annotations

from . import _dtypes
from ._convert import check_device
from ._dtypes import DType
from ._promotion import isdtype

__all__ = ["__array_namespace_info__"]


class Info:
    """Capabilities, devices and dtypes."""

    def capabilities(self) -> dict[str, bool | int]:
        """What not every library does."""
        return {"boolean indexing": True, "data-dependent shapes": True, "max dimensions": 29}

    def default_device(self) -> str:
        """Where tensors are."""
        return "cpu"

    def devices(self) -> tuple[str, ...]:
        """All devices."""
        return ("cpu",)

    def default_dtypes(self, *, device: object = None) -> dict[str, DType]:
        """The dtypes of what is made without one."""
        check_device(device)
        return {
            "real floating": _dtypes.float32,
            "complex floating": _dtypes.complex64,
            "integral": _dtypes.int64,
            "indexing": _dtypes.int64,
        }

    def dtypes(self, *, device: object = None, kind: str | tuple[str, ...] | None = None) -> dict[str, DType]:
        """The dtypes, or those of a kind (see :func:`ornik.isdtype`), by their names."""
        check_device(device)
        return {d.name: d for d in _dtypes._TABLE if kind is None or isdtype(d, kind)}


def __array_namespace_info__() -> Info:
    """The information that the Python array API standard asks for."""
    return Info()
