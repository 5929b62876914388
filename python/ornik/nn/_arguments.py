"""Arguments of layers: checked when a layer is made, and as text."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, Union

from .. import _ornik

__all__ = ["Pair", "extents", "is_whole", "pair", "positive", "probability", "shown", "tensors"]

#: One number for all axes, or one for each.
Pair = Union[int, Sequence[int]]


def is_whole(value: object) -> bool:
    return hasattr(value, "__index__") and not isinstance(value, bool)


def tensors(*operands: object) -> None:
    """Refuses what is no tensor."""
    for operand in operands:
        _ornik.checked(operand)  # type: ignore[arg-type]


def positive(layer: str, **arguments: int) -> None:
    """Refuses what is no whole number above 0."""
    for name, value in arguments.items():
        if not is_whole(value):
            raise TypeError(f"{layer}(): {name} is a whole number, but got {type(value).__name__}")
        if value < 1:
            raise ValueError(f"{layer}(): {name} is above 0, not {value}")


def probability(layer: str, p: float) -> None:
    """Refuses what lies outside [0, 1]."""
    if not 0 <= _ornik.checked_number(p) <= 1:
        raise ValueError(f"{layer}(): a probability lies between 0 and 1, not at {p}")


def extents(layer: str, name: str, value: Pair, axes: int, least: int = 0) -> tuple[int, ...]:
    """One whole number for each axis, none below ``least``."""
    numbers: Any = (value,) * axes if is_whole(value) else tuple(value) if isinstance(value, (tuple, list)) else None
    if numbers is None or not all(is_whole(n) for n in numbers):
        raise TypeError(f"{layer}(): {name} is a whole number or {axes} of them, but got {value!r}")
    if len(numbers) != axes or min(numbers) < least:
        raise ValueError(f"{layer}(): {name} is {axes} numbers of {least} and above, but got {value!r}")
    return tuple(int(n) for n in numbers)


def pair(layer: str, name: str, value: Pair, axes: int, rest: int, least: int = 0) -> tuple[int, int]:
    """The same as two numbers: those for one axis with ``rest`` for the second."""
    numbers = extents(layer, name, value, axes, least)
    return (numbers[0], numbers[1] if axes == 2 else rest)


def shown(*values: object, **arguments: tuple[Any, Any]) -> str:
    """ "5, 3, bias=False": the arguments, named ones where they differ from their defaults."""
    texts = [str(value) for value in values]
    texts += [f"{name}={value!r}" for name, (value, default) in arguments.items() if value != default]
    return ", ".join(texts)
