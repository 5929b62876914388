"""Containers of tensors: nested lists, tuples, named tuples and dictionaries."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from ._convert import is_tensor

__all__ = ["flatten", "map_tensors", "rebuild"]


def map_tensors(function: Callable[[Any], Any], tree: Any) -> Any:
    """The same containers, with ``function`` of every tensor in its place; anything else stays as it is."""
    if is_tensor(tree):
        return function(tree)
    if isinstance(tree, dict):
        return {key: map_tensors(function, value) for key, value in tree.items()}
    if isinstance(tree, tuple):
        items = [map_tensors(function, item) for item in tree]
        return type(tree)(*items) if hasattr(tree, "_fields") else tuple(items)
    if isinstance(tree, list):
        return [map_tensors(function, item) for item in tree]
    return tree


def flatten(tree: Any) -> list[Any]:
    """The tensors in order."""
    tensors: list[Any] = []
    map_tensors(tensors.append, tree)
    return tensors


def rebuild(tree: Any, values: list[Any]) -> Any:
    """The containers, with these values in the tensors' places."""
    remaining = iter(values)
    return map_tensors(lambda _: next(remaining), tree)
