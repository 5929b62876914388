"""Batches of items."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

from .. import _ornik
from .._convert import from_object, is_tensor

__all__ = ["collate"]


def collate(items: Sequence[Any]) -> Any:
    """One batch of several items of one kind.

    Tensors, arrays and numbers of Python become tensors with the batch as their first axis; texts become lists.
    Dictionaries, tuples, named tuples, lists and dataclasses stay what they are, with batches in their places.

    >>> ornik.data.collate([{"x": 1.0, "name": "a"}, {"x": 2.0, "name": "b"}])
    {'x': KTensor([1., 2.]), 'name': ['a', 'b']}
    """
    if not items:
        raise ValueError("collate(): a batch has at least one item")
    return _collate(list(items), "")


def _collate(items: list[Any], place: str) -> Any:
    first = items[0]
    if is_tensor(first) or hasattr(first, "__array__") or hasattr(first, "__dlpack__"):
        return _stack([from_object(item, None, None) for item in items], place)
    if isinstance(first, (bool, int, float, complex)):
        return _ornik.from_nested(items, None)
    if isinstance(first, (str, bytes)) or first is None:
        return items
    if isinstance(first, dict):
        if any(not isinstance(item, dict) or item.keys() != first.keys() for item in items):
            raise ValueError(f"collate(): items have different keys{_at(place)}")
        return {key: _collate([item[key] for item in items], f"{place}[{key!r}]") for key in first}
    if isinstance(first, (tuple, list)):
        if any(not isinstance(item, (tuple, list)) or len(item) != len(first) for item in items):
            raise ValueError(f"collate(): items have different lengths{_at(place)}")
        parts = [_collate(list(part), f"{place}[{i}]") for i, part in enumerate(zip(*items))]
        if isinstance(first, list):
            return parts
        return type(first)(*parts) if hasattr(first, "_fields") else tuple(parts)
    fields = getattr(first, "__dataclass_fields__", None)
    if fields is not None:
        return type(first)(
            **{name: _collate([getattr(item, name) for item in items], f"{place}.{name}") for name in fields}
        )
    raise TypeError(
        f"collate(): there is no batch of {type(first).__name__}{_at(place)}; a loader's collate_fn makes batches of "
        "any kind"
    )


def _stack(tensors: list[Any], place: str) -> Any:
    shape, dtype = tensors[0].shape, tensors[0].dtype
    for tensor in tensors:
        if tensor.shape != shape or tensor.dtype is not dtype:
            raise ValueError(
                f"collate(): items are {list(shape)} {dtype} and {list(tensor.shape)} {tensor.dtype}{_at(place)}"
            )
    return _ornik.stack(tensors, 0)


def _at(place: str) -> str:
    return f" at {place}" if place else ""
