"""Networks for inference in fewer passes over memory."""

from __future__ import annotations

import copy
from collections.abc import Sequence
from typing import TYPE_CHECKING, Any

from .. import _dtypes, _ornik
from ..autograd import no_grad
from . import _activations
from ._basic import Dropout, Dropout1d, Dropout2d, Identity, Linear
from ._containers import Residual, Sequential, _List
from ._convolutions import Conv1d, Conv2d, ConvTranspose1d, ConvTranspose2d, _Convolution
from ._module import Module, Parameter, is_plain
from ._normalizations import BatchNorm1d, BatchNorm2d

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["fuse"]

_LAYERS = (Linear, Conv1d, Conv2d, ConvTranspose1d, ConvTranspose2d)
_ENDS: dict[type, str] = {
    _activations.ReLU: "relu",
    _activations.ReLU6: "relu6",
    _activations.Sigmoid: "sigmoid",
    _activations.Tanh: "tanh",
    _activations.SiLU: "silu",
    _activations.GELU: "gelu",
    _activations.Hardsigmoid: "hardsigmoid",
    _activations.Hardswish: "hardswish",
}
_NOTHING = (Dropout, Dropout1d, Dropout2d, Identity)


def fuse(module: Module) -> Module:
    """The same network for inference, in fewer passes over memory. The module, which is in ``eval()``, stays.

    In what follows each other in a :class:`Sequential` (those within it count as its own), a batch normalization is
    folded into the convolution or linear map before it, an activation (ReLU, ReLU6, Sigmoid, Tanh, SiLU, GELU,
    Hardsigmoid, Hardswish) becomes its end, dropout goes. The sum of a :class:`Residual`, with its activation, becomes
    the end of its body's last layer.

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


class _Fused(Module):
    """A convolution or linear map with a normalization folded in and an end."""

    def __init__(self, layer: Any) -> None:
        self._layer = copy.copy(layer)
        self._layer.__dict__["_kept"] = {}
        for name, tensor in self._members():  # The same memory, without gradients.
            self._layer.__dict__[name] = Parameter(tensor, requires_grad=False)
        self._normalized = False
        self._end = "none"

    def _members(self) -> Any:
        tensors = self.__dict__["_layer"].__dict__
        return iter([(name, tensors[name]) for name in ("weight", "bias") if tensors[name] is not None])

    def takes(self, module: Module) -> bool:
        """Did it become a part of this layer?"""
        weight = self._layer.weight
        if self._end != "none" or weight.dtype.kind != "f":
            return False
        if is_plain(module, BatchNorm1d) or is_plain(module, BatchNorm2d):
            return self._fold(module)
        end = _ENDS.get(type(module)) if is_plain(module, type(module)) else None
        if end is None or getattr(module, "approximate", "none") != "none":
            return False
        self._end = end
        return True

    def _fold(self, norm: Any) -> bool:
        layer = self._layer
        weight, bias = layer.weight, layer.bias
        transposed = isinstance(layer, (ConvTranspose1d, ConvTranspose2d))
        groups = layer.groups if isinstance(layer, _Convolution) else 1
        channels = weight.shape[1] * groups if transposed else weight.shape[0]
        if norm.running_var is None or norm.num_features != channels:
            return False

        def wide(t: KTensor) -> KTensor:
            return _ornik.detach(t).astype(_dtypes.float64)

        with no_grad():
            scale = 1.0 / (wide(norm.running_var) + norm.eps).sqrt()
            if norm.weight is not None:
                scale = scale * wide(norm.weight)
            shift = ((0.0 if bias is None else wide(bias)) - wide(norm.running_mean)) * scale
            if norm.bias is not None:
                shift = shift + wide(norm.bias)
            # The weight as [groups, in, out, ...] or [out, ...].
            shape, spread = weight.shape, (channels, *(1 for _ in weight.shape[1:]))
            if transposed:
                shape = (groups, shape[0] // groups, *shape[1:])
                spread = (groups, 1, shape[2], *(1 for _ in shape[3:]))
            folded = (wide(weight).reshape(shape) * scale.reshape(spread)).reshape(weight.shape)
            layer.__dict__["weight"] = Parameter(folded.astype(weight.dtype), requires_grad=False)
            layer.__dict__["bias"] = Parameter(shift.astype(weight.dtype), requires_grad=False)
        self._normalized = True
        return True

    def forward(self, x: KTensor, residual: KTensor | None = None) -> KTensor:
        if self.training:
            raise RuntimeError("a fused module is for inference; train the one that it was made from")
        if self._normalized and isinstance(self._layer, Linear) and x.ndim != 2:
            raise ValueError(
                "a linear map with a batch normalization folded in takes "
                f"[N, {self._layer.in_features}], but got {list(x.shape)}"
            )
        y: KTensor = self._layer._ended(x, self._end, residual)
        return y

    def __repr__(self) -> str:
        normalized = ", normalized" if self._normalized else ""
        end = "" if self._end == "none" else f", {self._end}"
        return f"Fused({type(self._layer).__name__}{normalized}{end})"


class _FusedResidual(Module):
    """activation(last(first(x)) + shortcut(x)); the sum, and an activation the layer took, inside the last layer."""

    def __init__(self, first: Module | None, last: _Fused, shortcut: Module | None, activation: Module | None) -> None:
        self.first = first
        self.last = last
        self.shortcut = shortcut
        self.activation = activation

    def forward(self, x: KTensor) -> KTensor:
        added = x if self.shortcut is None else self.shortcut(x)
        y: KTensor = self.last(x if self.first is None else self.first(x), added)
        return y if self.activation is None else self.activation(y)


def _flat(modules: Sequence[Module]) -> list[Module]:
    """Those of nested Sequentials, in order."""
    result: list[Module] = []
    for module in modules:
        result.extend(_flat(list(module)) if is_plain(module, Sequential) else [module])  # type: ignore[call-overload]
    return result


def _chain(modules: Sequence[Module]) -> list[Module]:
    """Fused, the last one still open."""
    result: list[Module] = []
    for module in _flat(modules):
        last = result[-1] if result else None
        if isinstance(last, _Fused) and last.takes(module):
            continue
        if type(module) not in _NOTHING or not is_plain(module, type(module)):
            result.append(_alone(module))
    return result


def _closed(modules: list[Module]) -> Module:
    return modules[0] if len(modules) == 1 else Sequential(*modules)


def _alone(module: Module) -> Module:
    """What a module becomes by itself."""
    if any(is_plain(module, kind) for kind in _LAYERS):
        return _Fused(module)
    if is_plain(module, Residual):
        return _residual(module)
    made = getattr(module, "fused", None)
    if made is not None and module._hooks is None:
        stands_for = made()
        if not isinstance(stands_for, Module):
            raise TypeError(f"{type(module).__name__}.fused() returns a Module, but gave {type(stands_for).__name__}")
        return stands_for if stands_for is module else _closed(_chain([stands_for]))
    return _with_fused_parts(module)


def _residual(module: Any) -> Module:
    body = _chain([module.body])
    shortcut = None if module.shortcut is None else _closed(_chain([module.shortcut]))
    activation = module.activation
    last = body[-1] if body else None
    if not isinstance(last, _Fused) or last._end != "none":
        return Residual(_closed(body), shortcut, activation)
    if activation is not None and last.takes(activation):
        activation = None
    return _FusedResidual(_closed(body[:-1]) if body[1:] else None, last, shortcut, activation)


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
