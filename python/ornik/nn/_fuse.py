"""Networks for inference in fewer passes over memory."""

from __future__ import annotations

import copy
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import TYPE_CHECKING, Any, NamedTuple

from .. import _ornik
from . import _activations, functional
from ._arguments import tensors
from ._basic import Dropout, Dropout1d, Dropout2d, Identity, Linear
from ._containers import Residual, Sequential, _List
from ._convolutions import Conv1d, Conv2d, ConvTranspose1d, ConvTranspose2d, _Convolution
from ._module import Module, Parameter, is_plain
from ._normalizations import BatchNorm1d, BatchNorm2d
from ._pools import AdaptiveAvgPool2d, AvgPool2d, MaxPool2d

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["fuse"]

_LAYERS = (Linear, Conv1d, Conv2d, ConvTranspose1d, ConvTranspose2d)
_ENDS: dict[type, str] = {
    getattr(_activations, name): name.lower() for name in _activations.__all__ if name.lower() in _ornik.layer_ends
}
_NOTHING = (Dropout, Dropout1d, Dropout2d, Identity)


def fuse(module: Module) -> Module:
    """The same network for inference, in fewer passes over memory. The module, which is in ``eval()``, stays.

    In what follows each other in a :class:`Sequential` (those within it count as its own), a batch normalization is
    folded into the convolution or linear map before it, an activation (ReLU, ReLU6, Sigmoid, Tanh, SiLU, GELU,
    Hardsigmoid, Hardswish) becomes its end, dropout goes. The sum of a :class:`Residual`, with its activation, becomes
    the end of its body's last layer.

    Such layers, activations, ``Residual`` and the pools MaxPool2d, AvgPool2d and AdaptiveAvgPool2d(1) that follow each
    other become one network of the library; within it, images stay in the layout of its kernels.

    Other modules stay what they are, with fused parts. What their ``forward()`` does between the parts is not seen: one
    that is made of parts in a row says so by a method ``fused()``, which returns what stands for it::

        def fused(self):
            body = nn.Sequential(self.conv1, self.bn1, nn.ReLU(), self.conv2, self.bn2)
            return nn.Residual(body, activation=nn.ReLU())

    Results have the bits of the module's but for folded normalizations: their scale is rounded into the weights, which
    changes each term of a sum by a rounding. Weights that nothing was folded into are the module's own; folded ones are
    those of the moment, so fuse again after changes. The result's ``state_dict()`` has names of its own: checkpoints
    are the module's, loaded before ``fuse()``. It is not for training.

    >>> network = nn.Sequential(nn.Conv2d(3, 8, 3, bias=False), nn.BatchNorm2d(8), nn.ReLU()).eval()
    >>> nn.fuse(network)
    Fused(Conv2d, normalized, relu)
    """
    for part in module.modules():
        # Containers and activations do the same in training.
        if part.training and not any(True for _ in part.children()) and type(part) not in _ENDS:
            raise RuntimeError(f"fuse(): {type(part).__name__} is in training; eval() the module first")
    return _closed(_chain([module])).eval()


#: A part as the extension takes it (python/src/fused.cpp): kind, numbers, tensors, parts, and its end or eps.
_Description = tuple[str, Sequence[int], Sequence[Any], Sequence[Any], Any]


class _Run(NamedTuple):
    """Parts in a row that the library knows, not yet fused."""

    parts: list[_Description]
    #: Those of the images, 0 for rows of elements; None where any will do.
    axes: int | None
    #: The outputs of the layer at the end, which takes a normalization or a sum; 0 where there is none.
    open: int = 0

    def then(self, more: _Run) -> _Run | None:
        """Both, unless they do not go together."""
        if None not in (self.axes, more.axes) and self.axes != more.axes:
            return None
        axes = more.axes if self.axes is None else self.axes
        return _Run([*self.parts, *more.parts], axes, more.open)

    def described(self) -> _Description:
        return ("Sequential", (), (), self.parts, None)


class _Fused(Module):
    """A network of the library."""

    def __init__(self, run: _Run) -> None:
        self._axes = run.axes
        self._open = run.open
        self._network = _ornik.Fused(run.described())

    def __getstate__(self) -> dict[str, Any]:
        return {name: value for name, value in self.__dict__.items() if name != "_own"}

    def _members(self) -> Iterator[tuple[str, Any]]:
        if "_own" not in self.__dict__:  # The network's own tensors, by their names in it.
            state = self._network.state().items()
            self.__dict__["_own"] = {name: _ornik.KTensorBase.__new__(Parameter, tensor) for name, tensor in state}
        return iter(self.__dict__["_own"].items())

    def forward(self, x: KTensor) -> KTensor:
        return self._on_batch(self._network, x)

    def adding(self, x: KTensor, added: KTensor) -> KTensor:
        """Of a residual alone: with another tensor in the shortcut's place."""
        return self._on_batch(self._network.adding, x, added)

    def _on_batch(self, function: Callable[..., KTensor], *operands: KTensor) -> KTensor:
        """One sample without its axis counts as a batch of one."""
        if self.training:
            raise RuntimeError("a fused module is for inference; train the one that it was made from")
        tensors(*operands)
        shape = operands[0].shape
        if not self._axes or len(shape) == self._axes + 2:
            return function(*operands)
        if len(shape) != self._axes + 1:
            wanted = "[N, C, L]" if self._axes == 1 else "[N, C, H, W]"
            raise ValueError(f"a fused network takes {wanted}, but got {list(shape)}")
        return _ornik.squeeze(function(*(_ornik.unsqueeze(x, 0) for x in operands)), 0)

    def __repr__(self) -> str:
        return repr(self._network)


class _FusedResidual(Module):
    """activation(last(first(x)) + shortcut(x)) where not all parts are the library's; the sum is inside the last."""

    def __init__(self, first: Module | None, last: _Fused, shortcut: Module | None, activation: Module | None) -> None:
        self.first = first
        self.last = last
        self.shortcut = shortcut
        self.activation = activation

    def forward(self, x: KTensor) -> KTensor:
        added = x if self.shortcut is None else self.shortcut(x)
        y: KTensor = self.last.adding(x if self.first is None else self.first(x), added)
        return y if self.activation is None else self.activation(y)


class _Pad(Module):
    """What a convolution with a padding of its own mode begins with."""

    def __init__(self, widths: list[int], mode: str) -> None:
        self.widths = widths
        self.mode = mode

    def forward(self, x: KTensor) -> KTensor:
        return functional.pad(x, self.widths, self.mode)

    def extra_repr(self) -> str:
        return f"{self.widths}, mode={self.mode!r}"


def _flat(modules: Iterable[Any]) -> Iterator[tuple[Module, bool]]:
    """The parts of what is made of others, in order, and whether they are to stay as they are."""
    for module in modules:
        made = getattr(module, "fused", None) if module._hooks is None else None
        if is_plain(module, Sequential):
            yield from _flat(module)
        elif made is not None:
            stands_for = made()
            if not isinstance(stands_for, Module):
                name = type(module).__name__
                raise TypeError(f"{name}.fused() returns a Module, but gave {type(stands_for).__name__}")
            yield from [(module, True)] if stands_for is module else _flat([stands_for])
        elif _is_one_of(module, (Conv1d, Conv2d)) and module.padding_mode != "zeros":
            yield _Pad(module._widths(), module.padding_mode), True
            bare = copy.copy(module)
            bare.__dict__.update(padding=(0,) * module._axes, padding_mode="zeros")
            yield bare, False
        elif not _is_one_of(module, _NOTHING):
            yield module, False


def _is_one_of(module: Any, kinds: tuple[type, ...]) -> bool:
    return type(module) in kinds and is_plain(module, type(module))


def _chain(modules: Iterable[Module]) -> list[Module | _Run]:
    """Fused, but for the runs."""
    result: list[Module | _Run] = []
    for module, stays in _flat(modules):
        last = result[-1] if result else None
        part = module if stays else _alone(module, last.open if isinstance(last, _Run) else 0)
        both = last.then(part) if isinstance(last, _Run) and isinstance(part, _Run) else None
        result[len(result) - (both is not None) :] = [part if both is None else both]
    return result


def _closed(parts: Sequence[Module | _Run]) -> Module:
    modules = [_Fused(part) if isinstance(part, _Run) else part for part in parts]
    return modules[0] if len(modules) == 1 else Sequential(*modules)


def _alone(module: Any, open_outputs: int) -> Module | _Run:
    """What a module becomes behind a layer with so many outputs."""
    kind = type(module)
    if not is_plain(module, kind):
        return _with_fused_parts(module)
    if kind in _LAYERS:
        return _layer(module)
    if kind in _ENDS and getattr(module, "approximate", "none") == "none":
        return _Run([(kind.__name__, (), (), (), _ENDS[kind])], None)
    if kind in (BatchNorm1d, BatchNorm2d) and module.num_features == open_outputs and module.running_var is not None:
        values = (module.running_mean, module.running_var, module.weight, module.bias)
        return _Run([("BatchNorm", (), values, (), module.eps)], None, open_outputs)
    if kind in (MaxPool2d, AvgPool2d, AdaptiveAvgPool2d):
        numbers = _windows_of_pool(module)
        return _with_fused_parts(module) if numbers is None else _Run([(kind.__name__, numbers, (), (), None)], 2)
    if kind is _Fused:
        return _Run([module._network.__reduce__()[1][0]], module._axes, module._open)
    return _residual(module) if kind is Residual else _with_fused_parts(module)


def _windows_of_pool(pool: Any) -> tuple[int, ...] | None:
    """None for those that the library does not have."""
    if isinstance(pool, AdaptiveAvgPool2d):
        return (1, 1) if pool.output_size == (1, 1) else None
    counts_all = getattr(pool, "count_include_pad", True) or not any(pool.padding)
    return (*pool.kernel_size, *pool.stride, *pool.padding) if counts_all and not pool.ceil_mode else None


def _layer(layer: Any) -> _Run:
    axes = 0
    numbers: tuple[int, ...] = ()
    if isinstance(layer, _Convolution):
        axes = layer._axes
        stride, ((top, bottom), (left, right)), dilation, groups, transposed, more = functional.convolution_windows(
            layer._name,
            axes,
            layer.weight.shape,
            layer.stride,
            layer.padding,
            layer.dilation,
            layer.groups,
            getattr(layer, "output_padding", None),
        )
        numbers = (*stride, top, bottom, left, right, *dilation, groups, int(transposed), *more)
    outputs = layer.out_channels if axes else layer.out_features
    description = (type(layer).__name__, (0, *numbers), (layer.weight, layer.bias), (), "none")
    return _Run([description], axes, outputs if layer.weight.dtype.kind == "f" else 0)


def _residual(module: Any) -> Module | _Run:
    chains = [[] if part is None else _chain([part]) for part in (module.body, module.shortcut, module.activation)]
    body, shortcut, activation = chains
    runs = [run for run in map(_one_run, chains) if run is not None]
    axes = {run.axes for run in runs} - {None}
    if len(runs) == len(chains) and len(axes) < 2:
        return _Run([_sum(*runs)], axes.pop() if axes else None)
    last = body[-1] if body else None
    around = _closed(shortcut) if shortcut else None
    end = _closed(activation) if activation else None
    if not isinstance(last, _Run) or not last.open:
        return Residual(_closed(body), around, end)
    taken = _one_run(activation) if activation else None
    if taken is not None and taken.axes is not None:
        taken = None
    joined = _Fused(_Run([_sum(last, None, taken)], last.axes))
    return _FusedResidual(_closed(body[:-1]) if body[1:] else None, joined, around, end if taken is None else None)


def _one_run(chain: list[Module | _Run]) -> _Run | None:
    """The chain, unless there are modules in it."""
    if not chain:
        return _Run([], None)
    return chain[0] if len(chain) == 1 and isinstance(chain[0], _Run) else None


def _sum(body: _Run, shortcut: _Run | None, activation: _Run | None) -> _Description:
    parts = [None if run is None or not run.parts else run.described() for run in (shortcut, activation)]
    if activation is not None and len(activation.parts) == 1:
        parts[1] = activation.parts[0]  # Bare: it may become the end of a layer.
    return ("Residual", (), (), (body.described(), *parts), None)


def _with_fused_parts(module: Module) -> Module:
    """A module of the same kind on the same tensors. Layers in it stay layers: it may look at them."""
    parts = {
        id(child): _closed(_chain([child])) if any(True for _ in child.children()) else _with_fused_parts(child)
        for child in module.children()
    }
    result = copy.copy(module)
    result.__dict__["_kept"] = {}
    for name, value in list(result.__dict__.items()):
        result.__dict__[name] = parts.get(id(value), value)
    if isinstance(result, _List):
        result.__dict__["_items"] = [parts.get(id(item), item) for item in result._items]
    return result
