"""What all optimizers share: groups of parameters, steps, state."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from typing import Any, ClassVar, Union

from .. import _ornik
from .._convert import from_object
from .._tensor import KTensor

__all__ = ["Optimizer", "Parameters"]

#: Parameters, or groups of them: dictionaries with "params" and options of their own.
Parameters = Union[Iterable[KTensor], Iterable[dict[str, Any]]]


class Optimizer:
    """Steps that change parameters by their gradients.

    ``param_groups`` is a list of dictionaries: "params", and the options of this group, which may be changed between
    steps. A parameter without a gradient is left alone, and its own count of steps does not move.
    """

    #: Options whose values are 0 and above; and below 1.
    _not_negative: ClassVar[tuple[str, ...]] = ("lr", "eps", "weight_decay", "momentum", "lr_decay")
    _below_one: ClassVar[tuple[str, ...]] = ("betas", "rho", "alpha")

    def __init__(self, params: Parameters, defaults: dict[str, Any]) -> None:
        self.defaults = defaults
        self.param_groups: list[dict[str, Any]] = []
        # What the steps keep for each parameter, by its identity, and the parameter.
        self._kept: dict[int, tuple[KTensor, dict[str, Any]]] = {}
        if isinstance(params, (KTensor, Mapping)) or not hasattr(params, "__iter__"):
            raise TypeError(
                f"{type(self).__name__}(): a sequence of parameters is wanted, not one {type(params).__name__}"
            )
        listed: list[Any] = list(params)
        if not listed:
            raise ValueError(f"{type(self).__name__}(): there are no parameters")
        for group in listed if isinstance(listed[0], dict) else [{"params": listed}]:
            self.add_param_group(group)

    def add_param_group(self, group: dict[str, Any]) -> None:
        """Parameters with options of their own; those it does not name are the optimizer's."""
        name = type(self).__name__
        if not isinstance(group, dict) or "params" not in group:
            raise TypeError(f'{name}(): a group is a dictionary with "params"')
        unknown = [key for key in group if key != "params" and key not in self.defaults]
        if unknown:
            raise ValueError(f"{name}(): there is no option {', '.join(unknown)}; there are {', '.join(self.defaults)}")
        params = group["params"]
        params = [params] if isinstance(params, KTensor) else list(params)
        complete = {"params": params, **self.defaults, **{k: v for k, v in group.items() if k != "params"}}
        self._check(complete)
        known = {hash(p) for g in self.param_groups for p in g["params"]}  # The hash of a tensor is its identity.
        for i, parameter in enumerate(params):
            if not isinstance(parameter, KTensor):
                raise TypeError(f"{name}(): parameter {i} is a {type(parameter).__name__}, not a KTensor")
            if not parameter.is_leaf:
                raise ValueError(f"{name}(): parameter {i}, {list(parameter.shape)}, is a result, not a leaf")
            if hash(parameter) in known:
                raise ValueError(f"{name}(): parameter {i}, {list(parameter.shape)}, is listed twice")
            known.add(hash(parameter))
        self.param_groups.append(complete)

    def _check(self, options: dict[str, Any]) -> None:
        for key in self._not_negative:
            if key in options and not options[key] >= 0:
                raise ValueError(f"{type(self).__name__}(): {key} is 0 and above, not {options[key]}")
        for key in self._below_one:
            values = options.get(key, ())
            if not all(0 <= v < 1 for v in (values if isinstance(values, (tuple, list)) else (values,))):
                raise ValueError(f"{type(self).__name__}(): {key} lie in [0, 1), not at {values}")

    def step(self) -> None:
        """One step for every parameter that has a gradient."""
        for group in self.param_groups:
            self._check(group)
            for parameter in group["params"]:
                gradient = parameter.grad
                if gradient is None:
                    continue
                if group.get("maximize"):
                    gradient = _ornik.neg(_ornik.detach(gradient))
                place = self._kept.get(hash(parameter))
                if place is None:
                    place = self._kept[hash(parameter)] = (parameter, {"step": 0})
                place[1]["step"] += 1
                self._update(parameter, gradient, place[1], group)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        """One parameter's step; ``kept["step"]`` counts from 1."""
        raise NotImplementedError

    def zero_grad(self, set_to_none: bool = True) -> None:
        """Drops all gradients, or fills them with zeros."""
        for group in self.param_groups:
            for parameter in group["params"]:
                if set_to_none:
                    parameter.grad = None
                elif parameter.grad is not None:
                    parameter.grad.detach().zero_()

    # ---- State ----

    def state_dict(self) -> dict[str, Any]:
        """ "state": what the steps keep, by the number of the parameter over all groups; "param_groups": options.

        Names are those of the large frameworks. Tensors are the optimizer's own.
        """
        numbers: dict[int, int] = {}
        for group in self.param_groups:
            for parameter in group["params"]:
                numbers[hash(parameter)] = len(numbers)
        return {
            "state": {numbers[key]: dict(kept) for key, (_, kept) in self._kept.items()},
            "param_groups": [
                {
                    **{k: v for k, v in group.items() if k != "params"},
                    "params": [numbers[hash(p)] for p in group["params"]],
                }
                for group in self.param_groups
            ],
        }

    def load_state_dict(self, state: Mapping[str, Any]) -> None:
        """The same back, copied. Everything is checked first; all that does not fit is listed in one ValueError."""
        faults, groups = [], state["param_groups"]
        sizes = [len(group["params"]) for group in groups]
        own = [len(group["params"]) for group in self.param_groups]
        if sizes != own:
            raise ValueError(f"load_state_dict(): groups of {sizes} parameters do not fit those of {own}")
        parameters = [p for group in self.param_groups for p in group["params"]]
        numbers = [number for group in groups for number in group["params"]]
        kept: dict[int, tuple[KTensor, dict[str, Any]]] = {}
        for number, entries in state["state"].items():
            if number not in numbers:
                faults.append(f"{number} is no parameter")
                continue
            parameter = parameters[numbers.index(number)]
            values: dict[str, Any] = {}
            for name, value in entries.items():
                if name == "step":
                    values[name] = int(value)
                elif value is not None:
                    tensor = from_object(value, None, None)
                    if tensor.shape != parameter.shape:
                        faults.append(f"{name} of {number} is {list(tensor.shape)}, not {list(parameter.shape)}")
                    else:
                        values[name] = _ornik.clone(_ornik.astype(_ornik.detach(tensor), parameter.dtype))
            kept[hash(parameter)] = (parameter, values)
        if faults:
            raise ValueError("load_state_dict(): " + "; ".join(faults))
        self._kept = kept
        for group, saved in zip(self.param_groups, groups):
            group.update({key: value for key, value in saved.items() if key != "params"})

    def __getstate__(self) -> dict[str, Any]:
        return {**self.__dict__, "_kept": list(self._kept.values())}

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)
        self._kept = {hash(parameter): (parameter, kept) for parameter, kept in state["_kept"]}

    # ---- Text ----

    def __repr__(self) -> str:
        lines = [
            f"  group {i}: {len(group['params'])} parameters, "
            + ", ".join(f"{key}={value}" for key, value in group.items() if key != "params")
            for i, group in enumerate(self.param_groups)
        ]
        return "\n".join([f"{type(self).__name__}(", *lines, ")"])


def zeros_in(kept: dict[str, Any], name: str, parameter: KTensor, value: float = 0.0) -> KTensor:
    """The kept tensor of that name, made of one number on first use."""
    found: KTensor | None = kept.get(name)
    if found is None:
        found = kept[name] = _ornik.full(parameter.shape, value, parameter.dtype)
    elif found.dtype is not parameter.dtype:
        found = kept[name] = _ornik.astype(found, parameter.dtype)
    return found
