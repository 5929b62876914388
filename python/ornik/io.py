"""Tensors in files: .safetensors, .npz and .npy."""

from __future__ import annotations

import os
from collections.abc import Mapping
from typing import TYPE_CHECKING, Literal

from . import _ornik
from ._convert import is_tensor

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "load",
    "load_npy",
    "load_npz",
    "load_safetensors",
    "npy_from_bytes",
    "npy_to_bytes",
    "npz_from_bytes",
    "npz_to_bytes",
    "safetensors_from_bytes",
    "safetensors_to_bytes",
    "save",
    "save_npy",
    "save_npz",
    "save_safetensors",
]

Path = str | os.PathLike[str]
Mode = Literal["copy_on_write", "read_only", "copy"]


def _path(path: Path, ending: str = "") -> str:
    text = os.fspath(path)
    if not isinstance(text, str):
        raise TypeError(f"a path is text, but got {type(text).__name__}")
    if not text.endswith(ending):
        raise ValueError(f'"{text}" does not end in {ending}')
    return text


def save(
    path: Path,
    tensors: Mapping[str, KTensor] | KTensor,
    *,
    metadata: Mapping[str, str] | None = None,
    compress: bool = False,
    sync: bool = False,
) -> None:
    """Writes named tensors into the kind of file that its name ends in; a .npy file takes one tensor.

    The file is replaced when all is written. ``metadata`` belongs to safetensors, ``compress`` to npz. With ``sync``
    the function returns when the file has reached the disk.
    """
    named = {"": tensors} if is_tensor(tensors) else dict(tensors)
    _ornik.save(_path(path), named, dict(metadata or {}), compress, sync)


def load(path: Path, mode: Mode = "copy_on_write") -> dict[str, KTensor]:
    """The tensors of such a file by name; that of a .npy file is named "".

    They lie on a map of the file where their bytes can serve as they are. Writing to them changes memory, never the
    file; "read_only" ones refuse it, and "copy" holds nothing of the file.
    """
    return _ornik.load(_path(path), mode)


def save_npy(path: Path, tensor: KTensor) -> None:
    """One tensor."""
    _ornik.save(_path(path, ".npy"), {"": tensor}, {}, False, False)


def load_npy(path: Path, mode: Mode = "copy_on_write") -> KTensor:
    """The tensor of a .npy file."""
    return _ornik.load(_path(path, ".npy"), mode)[""]


def save_npz(path: Path, tensors: Mapping[str, KTensor], *, compress: bool = False) -> None:
    """Named tensors in a zip archive."""
    _ornik.save(_path(path, ".npz"), dict(tensors), {}, compress, False)


def load_npz(path: Path, mode: Mode = "copy_on_write") -> dict[str, KTensor]:
    """The tensors of a .npz file."""
    return _ornik.load(_path(path, ".npz"), mode)


def save_safetensors(path: Path, tensors: Mapping[str, KTensor], metadata: Mapping[str, str] | None = None) -> None:
    """Named tensors, and texts about them."""
    _ornik.save(_path(path, ".safetensors"), dict(tensors), dict(metadata or {}), False, False)


def load_safetensors(path: Path, mode: Mode = "copy_on_write") -> tuple[dict[str, KTensor], dict[str, str]]:
    """The tensors of a .safetensors file, and the texts."""
    return _ornik.load_safetensors(_path(path), mode)


def npy_to_bytes(tensor: KTensor) -> bytes:
    """What save_npy() writes."""
    return _ornik.npy_to_bytes(tensor)


def npy_from_bytes(data: bytes) -> KTensor:
    """The tensor of a .npy file's bytes."""
    return _ornik.npy_from_bytes(bytes(data))


def npz_to_bytes(tensors: Mapping[str, KTensor], *, compress: bool = False) -> bytes:
    """What save_npz() writes."""
    return _ornik.npz_to_bytes(dict(tensors), compress)


def npz_from_bytes(data: bytes) -> dict[str, KTensor]:
    """The tensors of a .npz file's bytes."""
    return _ornik.npz_from_bytes(bytes(data))


def safetensors_to_bytes(tensors: Mapping[str, KTensor], metadata: Mapping[str, str] | None = None) -> bytes:
    """What save_safetensors() writes."""
    return _ornik.safetensors_to_bytes(dict(tensors), dict(metadata or {}))


def safetensors_from_bytes(data: bytes) -> tuple[dict[str, KTensor], dict[str, str]]:
    """The tensors of a .safetensors file's bytes, and the texts."""
    return _ornik.safetensors_from_bytes(bytes(data))
