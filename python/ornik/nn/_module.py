"""What all modules share: parameters, buffers, parts, state, hooks."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping
from types import MappingProxyType
from typing import TYPE_CHECKING, Any, NamedTuple

from .. import _dtypes, _ornik
from .._convert import DTypeLike, from_object
from .._tensor import KTensor

if TYPE_CHECKING:
    from typing_extensions import Self

__all__ = ["HookHandle", "LoadResult", "Module", "Parameter", "functional_call"]


class Parameter(KTensor):
    """A tensor that a module learns: on the memory of ``data`` where that can serve, and asking for gradients.

    >>> nn.Parameter(ornik.zeros(2))
    Parameter([0., 0.], requires_grad=True)
    """

    __slots__ = ()

    def __new__(cls, data: object, requires_grad: bool = True) -> Self:
        made: Any = _ornik.KTensorBase.__new__(cls, _ornik.detach(from_object(data, None, None)))
        result: Self = made
        if requires_grad:
            result.requires_grad = True
        return result


class LoadResult(NamedTuple):
    """What ``load_state_dict(strict=False)`` did not find a counterpart for."""

    missing: list[str]
    unexpected: list[str]


class HookHandle:
    """Takes a hook away again."""

    __slots__ = ("_hooks", "_number")

    def __init__(self, hooks: dict[int, Callable[..., Any]], number: int) -> None:
        self._hooks = hooks
        self._number = number

    def remove(self) -> None:
        """The hook is not called any more. A second call changes nothing."""
        self._hooks.pop(self._number, None)


class _Hooks:
    """Functions around forward(), by number."""

    def __init__(self) -> None:
        self.before: dict[int, Callable[..., Any]] = {}
        self.after: dict[int, Callable[..., Any]] = {}
        self._next = 0

    def add(self, hooks: dict[int, Callable[..., Any]], hook: Callable[..., Any]) -> HookHandle:
        if not callable(hook):
            raise TypeError(f"a hook is a function, but got {type(hook).__name__}")
        self._next += 1
        hooks[self._next] = hook
        return HookHandle(hooks, self._next)


class Module:
    """A part of a network: it owns parameters and other modules, and is called like a function.

    What is assigned to an attribute and is a :class:`Parameter` or a module belongs to it:

    >>> class Network(nn.Module):
    ...     def __init__(self):
    ...         self.hidden = nn.Linear(4, 3)
    ...         self.scores = nn.Linear(3, 2, bias=False)
    ...
    ...     def forward(self, x):
    ...         return self.scores(nn.functional.relu(self.hidden(x)))
    >>> network = Network()
    >>> network(ornik.ones((5, 4))).shape
    (5, 2)
    >>> [name for name, _ in network.named_parameters()]
    ['hidden.weight', 'hidden.bias', 'scores.weight']
    """

    #: Do layers such as dropout and batch normalization act as in training?
    training: bool = True
    # Names of buffers, and whether they belong to the state.
    _buffers: Mapping[str, bool] = MappingProxyType({})
    # Names of the state that may be missing in one that is loaded.
    _optional: frozenset[str] = frozenset()
    _hooks: _Hooks | None = None
    # Weights laid out for inference, by name.
    _kept: dict[str, _ornik.Prepared] | None = None

    def forward(self, *args: Any, **kwargs: Any) -> Any:
        """What calling the module does."""
        raise NotImplementedError(f"{type(self).__name__} has no forward()")

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        if self._hooks is None:
            return self.forward(*args, **kwargs)
        for hook in list(self._hooks.before.values()):
            changed = hook(self, args)
            if changed is not None:
                args = changed if isinstance(changed, tuple) else (changed,)
        result = self.forward(*args, **kwargs)
        for hook in list(self._hooks.after.values()):
            changed = hook(self, args, result)
            if changed is not None:
                result = changed
        return result

    def __setattr__(self, name: str, value: Any) -> None:
        held = self.__dict__.get(name)
        if held is not None:
            for kind in (Parameter, Module):
                if isinstance(held, kind) and not (value is None or isinstance(value, kind)):
                    raise TypeError(
                        f"{type(self).__name__}.{name} is a {kind.__name__}; another one or None takes its place, "
                        f"not {type(value).__name__}"
                    )
            if name in self._buffers and not (value is None or isinstance(value, KTensor)):
                raise TypeError(f"{type(self).__name__}.{name} is a buffer; it holds a KTensor or None, not {value!r}")
        object.__setattr__(self, name, value)

    def _prepared(self, name: str = "weight") -> _ornik.Prepared:
        """What keeps that weight laid out between calls in inference."""
        kept = self.__dict__.setdefault("_kept", {})
        prepared: _ornik.Prepared = kept.get(name) or kept.setdefault(name, _ornik.Prepared())
        return prepared

    # ---- What it owns ----

    def _members(self) -> Iterator[tuple[str, Any]]:
        """Everything that may be a parameter, a buffer or a module."""
        return iter(self.__dict__.items())

    def _register(self, name: str, value: Any, kind: type) -> None:
        if not isinstance(name, str) or not name or "." in name:
            raise ValueError(f"a name is a string without points, not {name!r}")
        if not (value is None or isinstance(value, kind)):
            raise TypeError(f'"{name}" is to be a {kind.__name__} or None, but got {type(value).__name__}')
        if name not in self._buffers and hasattr(self, name) and not isinstance(getattr(self, name), kind | None):
            raise ValueError(f'{type(self).__name__} has another attribute "{name}" already')
        setattr(self, name, value)

    def register_parameter(self, name: str, parameter: Parameter | None) -> None:
        """Assigns a parameter under a name."""
        self._register(name, parameter, Parameter)

    def register_module(self, name: str, module: Module | None) -> None:
        """Assigns a module under a name."""
        self._register(name, module, Module)

    add_module = register_module

    def register_buffer(self, name: str, tensor: KTensor | None, persistent: bool = True) -> None:
        """Assigns a tensor that is no parameter and moves with the module; unless ``persistent``, no part of the state.

        >>> layer = nn.Module()
        >>> layer.register_buffer("count", ornik.zeros(()))
        >>> layer.state_dict()
        {'count': KTensor(0.)}
        """
        self._register(name, tensor, KTensor)
        self.__dict__["_buffers"] = {**self._buffers, name: bool(persistent)}

    def named_children(self) -> Iterator[tuple[str, Module]]:
        """The modules one floor below."""
        seen: set[int] = set()
        for name, value in list(self._members()):
            if isinstance(value, Module) and id(value) not in seen:
                seen.add(id(value))
                yield name, value

    def children(self) -> Iterator[Module]:
        """The modules one floor below."""
        return (module for _, module in self.named_children())

    def named_modules(self, prefix: str = "", _seen: set[int] | None = None) -> Iterator[tuple[str, Module]]:
        """This module and all below, each once, by the way to them: "encoder.layers.0"."""
        seen = set() if _seen is None else _seen
        if id(self) not in seen:
            seen.add(id(self))
            yield prefix, self
            for name, value in self.named_children():
                yield from value.named_modules(f"{prefix}.{name}" if prefix else name, seen)

    def modules(self) -> Iterator[Module]:
        """This module and all below, each once."""
        return (module for _, module in self.named_modules())

    def _own_parameters(self) -> Iterator[tuple[str, Parameter]]:
        return ((name, value) for name, value in list(self._members()) if isinstance(value, Parameter))

    def _own_buffers(self, persistent_only: bool = False) -> Iterator[tuple[str, KTensor]]:
        for name, persistent in self._buffers.items():
            value = self.__dict__.get(name)
            if value is not None and (persistent or not persistent_only):
                yield name, value

    def named_parameters(self, prefix: str = "", recurse: bool = True) -> Iterator[tuple[str, Parameter]]:
        """The parameters by the way to them, a shared one under its first name alone."""
        seen: set[int] = set()
        for path, module in self.named_modules(prefix) if recurse else [(prefix, self)]:
            for name, value in module._own_parameters():
                if hash(value) not in seen:  # The hash of a tensor is its identity.
                    seen.add(hash(value))
                    yield (f"{path}.{name}" if path else name), value

    def parameters(self, recurse: bool = True) -> Iterator[Parameter]:
        """The parameters, each once."""
        return (value for _, value in self.named_parameters(recurse=recurse))

    def named_buffers(self, prefix: str = "", recurse: bool = True) -> Iterator[tuple[str, KTensor]]:
        """The buffers by the way to them, a shared one under its first name alone."""
        seen: set[int] = set()
        for path, module in self.named_modules(prefix) if recurse else [(prefix, self)]:
            for name, value in module._own_buffers():
                if hash(value) not in seen:
                    seen.add(hash(value))
                    yield (f"{path}.{name}" if path else name), value

    def buffers(self, recurse: bool = True) -> Iterator[KTensor]:
        """The buffers, each once."""
        return (value for _, value in self.named_buffers(recurse=recurse))

    def get_submodule(self, path: str) -> Module:
        """The module at the end of a way such as "encoder.layers.0"."""
        module: Module = self
        for name in path.split(".") if path else []:
            found = dict(module.named_children()).get(name)
            if found is None:
                raise AttributeError(f'{type(module).__name__} has no module "{name}", looking for "{path}"')
            module = found
        return module

    def parameter_count(self, trainable_only: bool = False) -> int:
        """The number of elements of all parameters."""
        return sum(p.size for p in self.parameters() if p.requires_grad or not trainable_only)

    # ---- State ----

    def _state(self, prefix: str = "") -> Iterator[tuple[str, KTensor, bool]]:
        """Name, tensor, and whether it may be missing, shared ones under every name."""
        for name, value in [*self._own_parameters(), *self._own_buffers(persistent_only=True)]:
            yield prefix + name, value, name in self._optional
        for name, value in list(self._members()):
            if isinstance(value, Module):
                yield from value._state(f"{prefix}{name}.")

    def state_dict(self) -> dict[str, KTensor]:
        """Parameters and persistent buffers by name, on the module's own memory.

        Names and layouts are those of the large frameworks, so that their checkpoints fit.
        """
        return {name: tensor.detach() for name, tensor, _ in self._state()}

    def load_state_dict(self, state: Mapping[str, Any], strict: bool = True) -> LoadResult:
        """Copies values into parameters and buffers, converted to their dtypes.

        Values are tensors, or what :func:`ornik.asarray` takes. Names that are missing or surplus, unless not
        ``strict``, and values of another shape are all listed in one ValueError, and nothing is changed.

        >>> layer = nn.Linear(2, 1)
        >>> layer.load_state_dict({"weight": ornik.ones((1, 2)), "bias": ornik.zeros(1)})
        LoadResult(missing=[], unexpected=[])
        """
        own = list(self._state())
        names = {name for name, _, _ in own}
        # One name is enough for a tensor of several.
        covered = {hash(tensor) for name, tensor, _ in own if name in state}
        values = {name: from_object(state[name], None, None) for name in names if name in state}
        missing = [n for n, tensor, optional in own if n not in state and not optional and hash(tensor) not in covered]
        unexpected = [name for name in state if name not in names]
        faults = [
            f"{name} is {_described(tensor)}, not {_described(values[name])}"
            for name, tensor, _ in own
            if name in values and not _fits(tensor, values[name])
        ]
        if strict:
            faults = [f"{n} is missing" for n in missing] + [f"{n} is unexpected" for n in unexpected] + faults
        if faults:
            raise ValueError(f"load_state_dict() of {type(self).__name__}: " + "; ".join(faults))
        from ..autograd import no_grad

        with no_grad():
            for name, tensor, optional in own:
                if name in values:
                    _ornik.copy_into(tensor, values[name])
                elif strict and optional:
                    _ornik.fill_with(tensor, 0)
        return LoadResult(missing, unexpected)

    # ---- Settings ----

    def train(self, mode: bool = True) -> Self:
        """Layers such as dropout act as in training, or not. Returns the module."""
        for module in self.modules():
            module.training = bool(mode)
        return self

    def eval(self) -> Self:
        """``train(False)``."""
        return self.train(False)

    def requires_grad_(self, requires_grad: bool = True) -> Self:
        """Do the parameters ask for gradients? Returns the module."""
        for parameter in self.parameters():
            parameter.requires_grad = requires_grad
        return self

    def zero_grad(self) -> None:
        """Drops the gradients of all parameters."""
        for parameter in self.parameters():
            parameter.grad = None

    def to(self, dtype: DTypeLike) -> Self:
        """Turns floating parameters and buffers into another floating or complex dtype, in place: optimizers keep them.

        Gradients are dropped. Returns the module.
        """
        kind = _dtypes.dtype(dtype)
        if kind.kind not in "fc":
            raise TypeError(f"parameters are floating or complex, not {kind}")
        for tensor in [*self.parameters(), *self.buffers()]:
            if tensor.dtype.kind in "fc" and tensor.dtype is not kind:
                _ornik.convert_to(tensor, kind)
        return self

    def float(self) -> Self:
        """``to(ornik.float32)``."""
        return self.to(_dtypes.float32)

    def double(self) -> Self:
        """``to(ornik.float64)``."""
        return self.to(_dtypes.float64)

    def apply(self, function: Callable[[Module], object]) -> Self:
        """Calls it for every module below, then for this one. Returns the module."""
        for child in self.children():
            child.apply(function)
        function(self)
        return self

    # ---- Hooks ----

    def register_forward_pre_hook(self, hook: Callable[[Any, tuple[Any, ...]], Any]) -> HookHandle:
        """Calls ``hook(module, args)`` before forward(); what it returns takes the arguments' place."""
        if self._hooks is None:
            self._hooks = _Hooks()
        return self._hooks.add(self._hooks.before, hook)

    def register_forward_hook(self, hook: Callable[[Any, tuple[Any, ...], Any], Any]) -> HookHandle:
        """Calls ``hook(module, args, result)`` behind forward(); what it returns takes the result's place."""
        if self._hooks is None:
            self._hooks = _Hooks()
        return self._hooks.add(self._hooks.after, hook)

    # ---- Text ----

    def extra_repr(self) -> str:
        """What stands between the parentheses: the arguments."""
        return ""

    def __repr__(self) -> str:
        parts = [f"({name}): " + repr(module).replace("\n", "\n  ") for name, module in self.named_children()]
        arguments, name = self.extra_repr(), type(self).__name__
        if not parts:
            return f"{name}({arguments})"
        return f"{name}({arguments}\n  " + "\n  ".join(parts) + "\n)"


def is_plain(module: Module, kind: type) -> bool:
    """Does calling the module do what the class does, and nothing besides?"""
    return type(module) is kind and module._hooks is None


def functional_call(module: Module, tensors: Mapping[str, KTensor], *args: Any, **kwargs: Any) -> Any:
    """``module(*args, **kwargs)`` with other tensors in the place of its parameters and buffers, by name.

    Networks as functions of their state, for :func:`ornik.grad`. Not for one module on several threads at once.

    >>> net = nn.Linear(2, 1, bias=False)
    >>> gradient = ornik.grad(lambda state: nn.functional_call(net, state, ornik.ones(2)).sum())
    >>> gradient({"weight": ornik.zeros((1, 2))})
    {'weight': KTensor([[1., 1.]])}
    """
    places: list[tuple[Any, Any, KTensor]] = []
    for path, tensor in tensors.items():
        owner, _, name = path.rpartition(".")
        found = module.get_submodule(owner)
        held = dict(found._members()).get(name)
        if not isinstance(held, KTensor) or not isinstance(tensor, KTensor):
            raise ValueError(f'functional_call(): "{path}" is no parameter or buffer, or not given as a KTensor')
        if held.shape != tensor.shape:
            raise ValueError(f"functional_call(): {path} is {_described(held)}, not {_described(tensor)}")
        items = found.__dict__ if name in found.__dict__ else found.__dict__["_items"]
        places.append((items, int(name) if isinstance(items, list) else name, tensor))
    before = [items[name] for items, name, _ in places]
    try:
        for items, name, tensor in places:
            items[name] = tensor
        return module(*args, **kwargs)
    finally:
        for (items, name, _), tensor in zip(places, before):
            items[name] = tensor


def _fits(own: KTensor, value: KTensor) -> bool:
    return own.shape == value.shape and (own.dtype.is_complex or not value.dtype.is_complex)


def _described(tensor: KTensor) -> str:
    return f"{list(tensor.shape)} {tensor.dtype}"
