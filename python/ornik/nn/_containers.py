"""Modules and parameters in sequences and dictionaries."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any, overload

from ._module import Module, Parameter

__all__ = ["ModuleDict", "ModuleList", "ParameterDict", "ParameterList", "Residual", "Sequential"]


class _List(Module):
    """Items under the names "0", "1", ..."""

    _kind: type = Module

    def __init__(self, items: Iterable[Any] = ()) -> None:
        self._items: list[Any] = []
        self.extend(items)

    def _checked(self, item: Any) -> Any:
        if not isinstance(item, self._kind):
            raise TypeError(f"{type(self).__name__} holds {self._kind.__name__}s, but got {type(item).__name__}")
        return item

    def _members(self) -> Iterator[tuple[str, Any]]:
        yield from super()._members()
        yield from ((str(i), item) for i, item in enumerate(self._items))

    def append(self, item: Any) -> Any:
        """Adds one at the end. Returns the list."""
        self._items.append(self._checked(item))
        return self

    def extend(self, items: Iterable[Any]) -> Any:
        """Adds several at the end. Returns the list."""
        self._items.extend([self._checked(item) for item in items])
        return self

    def insert(self, index: int, item: Any) -> None:
        """Adds one before another."""
        self._items.insert(index, self._checked(item))

    def pop(self, index: int = -1) -> Any:
        """Takes one out."""
        return self._items.pop(index)

    def __len__(self) -> int:
        return len(self._items)

    def __iter__(self) -> Iterator[Any]:
        return iter(self._items)

    def __contains__(self, item: object) -> bool:
        return any(item is own for own in self._items)

    def __getitem__(self, index: int | slice) -> Any:
        if isinstance(index, slice):
            part = type(self)()
            part._items = self._items[index]
            return part
        return self._items[index]

    def __setitem__(self, index: int, item: Any) -> None:
        self._items[index] = self._checked(item)

    def __delitem__(self, index: int | slice) -> None:
        del self._items[index]


class ModuleList(_List):
    """A list of modules, which it owns; it is not called itself.

    >>> blocks = nn.ModuleList(nn.Linear(4, 4) for _ in range(3))
    >>> len(list(blocks.parameters()))
    6
    """

    @overload
    def __getitem__(self, index: int) -> Module: ...
    @overload
    def __getitem__(self, index: slice) -> ModuleList: ...
    def __getitem__(self, index: int | slice) -> Module | ModuleList:
        return super().__getitem__(index)  # type: ignore[no-any-return]

    def __iter__(self) -> Iterator[Module]:
        return iter(self._items)


class Residual(Module):
    """``activation(body(x) + shortcut(x))``, with x itself where there is no shortcut.

    >>> nn.Residual(nn.Linear(4, 4), activation=nn.ReLU())(ornik.ones((2, 4))).shape
    (2, 4)
    """

    def __init__(self, body: Module, shortcut: Module | None = None, activation: Module | None = None) -> None:
        for part in (body, shortcut, activation):
            if not isinstance(part, Module) and (part is not None or part is body):
                raise TypeError(f"Residual() is made of Modules, but got {type(part).__name__}")
        self.body = body
        self.shortcut = shortcut
        self.activation = activation

    def forward(self, x: Any) -> Any:
        total = self.body(x) + (x if self.shortcut is None else self.shortcut(x))
        return total if self.activation is None else self.activation(total)


class Sequential(_List):
    """Modules one behind the other; a dictionary of modules gives them names.

    >>> nn.Sequential(nn.Linear(4, 3), nn.ReLU())
    Sequential(
      (0): Linear(4, 3)
      (1): ReLU()
    )
    """

    def __init__(self, *modules: Module | Mapping[str, Module]) -> None:
        self._names: list[str] | None = None
        if len(modules) == 1 and isinstance(modules[0], Mapping):
            self._names = [_checked_name(name) for name in modules[0]]
            super().__init__(modules[0].values())
        else:
            super().__init__(modules)

    def _members(self) -> Iterator[tuple[str, Any]]:
        if self._names is None:
            yield from super()._members()
        else:
            yield from Module._members(self)
            yield from zip(self._names, self._items)

    def __getattr__(self, name: str) -> Any:
        names = self.__dict__.get("_names") or []
        if name in names:
            return self._items[names.index(name)]
        raise AttributeError(f"{type(self).__name__!r} object has no attribute {name!r}")

    def _unnamed(self) -> None:
        if self._names is not None:
            raise TypeError("modules with names are not added, moved or taken out by number")

    def extend(self, items: Iterable[Any]) -> Any:
        if getattr(self, "_items", None):
            self._unnamed()
        return super().extend(items)

    def append(self, item: Any) -> Any:
        self._unnamed()
        return super().append(item)

    def insert(self, index: int, item: Any) -> None:
        self._unnamed()
        super().insert(index, item)

    def pop(self, index: int = -1) -> Any:
        self._unnamed()
        return super().pop(index)

    def __delitem__(self, index: int | slice) -> None:
        self._unnamed()
        super().__delitem__(index)

    def forward(self, x: Any) -> Any:
        """The last module's result of the one before, and so on."""
        for module in self._items:
            x = module(x)
        return x


def _checked_name(name: object) -> str:
    if not isinstance(name, str) or not name or "." in name:
        raise ValueError(f"a name is a string without points, not {name!r}")
    return name


class _Dict(Module):
    """Items under their keys."""

    _kind: type = Module

    def __init__(self, items: Mapping[str, Any] | Iterable[tuple[str, Any]] = ()) -> None:
        self._items: dict[str, Any] = {}
        self.update(items)

    def _members(self) -> Iterator[tuple[str, Any]]:
        yield from super()._members()
        yield from self._items.items()

    def update(self, items: Mapping[str, Any] | Iterable[tuple[str, Any]]) -> None:
        """Adds items, in the place of those of the same keys."""
        for name, item in dict(items).items():
            self[name] = item

    def pop(self, name: str) -> Any:
        """Takes one out."""
        return self._items.pop(name)

    def keys(self) -> Iterable[str]:
        return self._items.keys()

    def values(self) -> Iterable[Any]:
        return self._items.values()

    def items(self) -> Iterable[tuple[str, Any]]:
        return self._items.items()

    def __len__(self) -> int:
        return len(self._items)

    def __iter__(self) -> Iterator[str]:
        return iter(self._items)

    def __contains__(self, name: object) -> bool:
        return name in self._items

    def __getitem__(self, name: str) -> Any:
        return self._items[name]

    def __setitem__(self, name: str, item: Any) -> None:
        if not isinstance(item, self._kind):
            raise TypeError(f"{type(self).__name__} holds {self._kind.__name__}s, but got {type(item).__name__}")
        self._items[_checked_name(name)] = item

    def __delitem__(self, name: str) -> None:
        del self._items[name]


class ModuleDict(_Dict):
    """A dictionary of modules, which it owns; it is not called itself."""


class ParameterList(_List):
    """A list of parameters."""

    _kind = Parameter

    def extra_repr(self) -> str:
        return ", ".join(f"{list(p.shape)} {p.dtype}" for p in self._items)


class ParameterDict(_Dict):
    """A dictionary of parameters."""

    _kind = Parameter

    def extra_repr(self) -> str:
        return ", ".join(f"{name}: {list(p.shape)} {p.dtype}" for name, p in self._items.items())
