"""Learning rates over time: ``scheduler.step()`` behind each epoch, or each step of the optimizer.

>>> w = ornik.zeros(1)
>>> w.requires_grad = True
>>> optimizer = ornik.optim.SGD([w], lr=1.0)
>>> scheduler = ornik.optim.lr_scheduler.StepLR(optimizer, step_size=2, gamma=0.5)
>>> rates = []
>>> for _ in range(4):
...     rates += scheduler.get_last_lr()
...     optimizer.step()
...     scheduler.step()
>>> rates
[1.0, 1.0, 0.5, 0.5]

A schedule sets the rates from its own number of steps; of several that follow each other make one with
:class:`SequentialLR`.
"""

from __future__ import annotations

import math
from bisect import bisect_right
from collections.abc import Callable, Mapping, Sequence
from typing import Any

from ._optimizer import Optimizer

__all__ = [
    "ConstantLR",
    "CosineAnnealingLR",
    "CosineAnnealingWarmRestarts",
    "ExponentialLR",
    "LRScheduler",
    "LambdaLR",
    "LinearLR",
    "MultiStepLR",
    "OneCycleLR",
    "PolynomialLR",
    "ReduceLROnPlateau",
    "SequentialLR",
    "StepLR",
]


def _at_least(name: str, least: int, **counts: int) -> None:
    for argument, count in counts.items():
        if not isinstance(count, int) or count < least:
            raise ValueError(f"{name}(): {argument} is a whole number of {least} and above, not {count!r}")


class _Stateful:
    """Attributes of numbers and lists of them are the state."""

    _not_saved: tuple[str, ...] = ("optimizer",)

    def state_dict(self) -> dict[str, Any]:
        """All that the next rates depend on, but the optimizer's state and functions."""
        return {name: value for name, value in self.__dict__.items() if name not in self._not_saved}

    def load_state_dict(self, state: Mapping[str, Any]) -> None:
        """The same back."""
        unknown = [name for name in state if name not in self.__dict__ or name in self._not_saved]
        if unknown:
            raise ValueError(f"load_state_dict() of {type(self).__name__}: {', '.join(unknown)} is unknown")
        self.__dict__.update(state)


class LRScheduler(_Stateful):
    """Sets the rates of all groups by the number of steps taken; construction sets those of step 0.

    A schedule of one's own has ``rate(base, steps)``, the rate of a group whose first one was ``base``.
    """

    def __init__(self, optimizer: Optimizer) -> None:
        if not isinstance(optimizer, Optimizer):
            raise TypeError(f"{type(self).__name__}(): an optimizer is wanted, but got {type(optimizer).__name__}")
        self.optimizer = optimizer
        for group in optimizer.param_groups:
            group.setdefault("initial_lr", group["lr"])
        self.base_lrs: list[float] = [group["initial_lr"] for group in optimizer.param_groups]
        self.last_epoch = 0
        self._apply()

    def rate(self, base: float, steps: int) -> float:
        """The rate of a group after so many steps."""
        raise NotImplementedError(f"{type(self).__name__} has no rate()")

    def _apply(self) -> None:
        for group, base in zip(self.optimizer.param_groups, self.base_lrs):
            group["lr"] = self.rate(base, self.last_epoch)

    def step(self) -> None:
        """One step on."""
        self.last_epoch += 1
        self._apply()

    def get_last_lr(self) -> list[float]:
        """The rates of all groups."""
        return [group["lr"] for group in self.optimizer.param_groups]


class LambdaLR(LRScheduler):
    """base * lr_lambda(t): one function, or one for each group."""

    _not_saved = ("optimizer", "lr_lambdas")

    def __init__(
        self, optimizer: Optimizer, lr_lambda: Callable[[int], float] | Sequence[Callable[[int], float]]
    ) -> None:
        groups = len(optimizer.param_groups)
        self.lr_lambdas = [lr_lambda] * groups if callable(lr_lambda) else list(lr_lambda)
        if len(self.lr_lambdas) != groups:
            raise ValueError(f"LambdaLR(): {groups} functions are wanted, but got {len(self.lr_lambdas)}")
        super().__init__(optimizer)

    def _apply(self) -> None:
        for group, base, factor in zip(self.optimizer.param_groups, self.base_lrs, self.lr_lambdas):
            group["lr"] = base * factor(self.last_epoch)


class StepLR(LRScheduler):
    """base * gamma**(t // step_size)."""

    def __init__(self, optimizer: Optimizer, step_size: int, gamma: float = 0.1) -> None:
        _at_least("StepLR", 1, step_size=step_size)
        self.step_size = step_size
        self.gamma = gamma
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return float(base * self.gamma ** (steps // self.step_size))


class MultiStepLR(LRScheduler):
    """base * gamma for each milestone that is reached."""

    def __init__(self, optimizer: Optimizer, milestones: Sequence[int], gamma: float = 0.1) -> None:
        self.milestones = sorted(milestones)
        self.gamma = gamma
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return float(base * self.gamma ** bisect_right(self.milestones, steps))


class ExponentialLR(LRScheduler):
    """base * gamma**t."""

    def __init__(self, optimizer: Optimizer, gamma: float) -> None:
        self.gamma = gamma
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return float(base * self.gamma**steps)


class ConstantLR(LRScheduler):
    """base * factor for ``total_iters`` steps, then base."""

    def __init__(self, optimizer: Optimizer, factor: float = 1 / 3, total_iters: int = 5) -> None:
        self.factor = factor
        self.total_iters = total_iters
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return base * self.factor if steps < self.total_iters else base


class LinearLR(LRScheduler):
    """base times a factor that goes from start_factor to end_factor in ``total_iters`` steps: a warm-up."""

    def __init__(
        self, optimizer: Optimizer, start_factor: float = 1 / 3, end_factor: float = 1.0, total_iters: int = 5
    ) -> None:
        _at_least("LinearLR", 1, total_iters=total_iters)
        self.start_factor = start_factor
        self.end_factor = end_factor
        self.total_iters = total_iters
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        part = min(steps, self.total_iters) / self.total_iters
        return base * (self.start_factor + (self.end_factor - self.start_factor) * part)


class PolynomialLR(LRScheduler):
    """base * (1 - t / total_iters)**power, then 0."""

    def __init__(self, optimizer: Optimizer, total_iters: int = 5, power: float = 1.0) -> None:
        _at_least("PolynomialLR", 1, total_iters=total_iters)
        self.total_iters = total_iters
        self.power = power
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return float(base * (1 - min(steps, self.total_iters) / self.total_iters) ** self.power)


def _along_cosine(a: float, b: float, part: float) -> float:
    """From a to b along half a cosine."""
    return b + (a - b) / 2 * (1 + math.cos(math.pi * part))


class CosineAnnealingLR(LRScheduler):
    """From base to eta_min along half a cosine in ``T_max`` steps, and back (Loshchilov and Hutter, 2017)."""

    def __init__(self, optimizer: Optimizer, T_max: int, eta_min: float = 0.0) -> None:
        _at_least("CosineAnnealingLR", 1, T_max=T_max)
        self.T_max = T_max
        self.eta_min = eta_min
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        return _along_cosine(base, self.eta_min, steps / self.T_max)


class CosineAnnealingWarmRestarts(LRScheduler):
    """From base to eta_min along half a cosine, again and again: first in T_0 steps, then T_mult times more."""

    def __init__(self, optimizer: Optimizer, T_0: int, T_mult: int = 1, eta_min: float = 0.0) -> None:
        _at_least("CosineAnnealingWarmRestarts", 1, T_0=T_0, T_mult=T_mult)
        self.T_0 = T_0
        self.T_mult = T_mult
        self.eta_min = eta_min
        super().__init__(optimizer)

    def rate(self, base: float, steps: int) -> float:
        length = self.T_0
        while steps >= length and self.T_mult > 1:
            steps -= length
            length *= self.T_mult
        return _along_cosine(base, self.eta_min, steps % length / length)


class OneCycleLR(LRScheduler):
    """Up to max_lr and down again (Smith and Topin, 2018), with a step after each of ``total_steps`` training steps.

    A further step is an error.

    It begins at max_lr / div_factor, rises for ``pct_start`` of the steps and ends at that begin over
    final_div_factor. The momentum, or Adam's first beta, runs the other way.
    """

    def __init__(
        self,
        optimizer: Optimizer,
        max_lr: float | Sequence[float],
        total_steps: int | None = None,
        epochs: int | None = None,
        steps_per_epoch: int | None = None,
        pct_start: float = 0.3,
        anneal_strategy: str = "cos",
        cycle_momentum: bool = True,
        base_momentum: float = 0.85,
        max_momentum: float = 0.95,
        div_factor: float = 25.0,
        final_div_factor: float = 1e4,
    ) -> None:
        if total_steps is None:
            if epochs is None or steps_per_epoch is None:
                raise ValueError("OneCycleLR(): either total_steps or epochs and steps_per_epoch are wanted")
            total_steps = epochs * steps_per_epoch
        _at_least("OneCycleLR", 1, total_steps=total_steps)
        if anneal_strategy not in ("cos", "linear"):
            raise ValueError(f'OneCycleLR(): anneal_strategy is "cos" or "linear", not {anneal_strategy!r}')
        groups = optimizer.param_groups
        self.max_lrs: list[float] = list(max_lr) if isinstance(max_lr, Sequence) else [max_lr] * len(groups)
        if len(self.max_lrs) != len(groups):
            raise ValueError(f"OneCycleLR(): {len(groups)} rates are wanted, but got {len(self.max_lrs)}")
        if cycle_momentum and not all("momentum" in g or "betas" in g for g in groups):
            raise ValueError("OneCycleLR(): the optimizer has no momentum; cycle_momentum=False leaves it out")
        self.total_steps = total_steps
        self.pct_start = pct_start
        self.anneal_strategy = anneal_strategy
        self.cycle_momentum = cycle_momentum
        self.base_momentum = base_momentum
        self.max_momentum = max_momentum
        self.div_factor = div_factor
        self.final_div_factor = final_div_factor
        super().__init__(optimizer)

    def _between(self, low: float, high: float, last: float) -> float:
        """Between ``low`` at the begin, ``high`` at the peak and ``last`` at the end."""
        peak, end = self.pct_start * self.total_steps - 1, self.total_steps - 1
        steps = min(self.last_epoch, end)
        if steps <= peak:
            a, b, part = low, high, steps / peak if peak > 0 else 1.0
        else:
            a, b, part = high, last, (steps - peak) / (end - peak)
        return _along_cosine(a, b, part) if self.anneal_strategy == "cos" else a + (b - a) * part

    def _apply(self) -> None:
        if self.last_epoch > self.total_steps:
            raise RuntimeError(f"OneCycleLR: the cycle ends after {self.total_steps} steps")
        for group, largest in zip(self.optimizer.param_groups, self.max_lrs):
            first = largest / self.div_factor
            group["lr"] = self._between(first, largest, first / self.final_div_factor)
            if self.cycle_momentum:
                momentum = self._between(self.max_momentum, self.base_momentum, self.max_momentum)
                if "betas" in group:
                    group["betas"] = (momentum, *group["betas"][1:])
                else:
                    group["momentum"] = momentum


class SequentialLR(_Stateful):
    """One schedule up to the first milestone, another from there on, and so on; each counts its own steps."""

    _not_saved = ("optimizer", "schedulers")

    def __init__(self, optimizer: Optimizer, schedulers: Sequence[LRScheduler], milestones: Sequence[int]) -> None:
        if not schedulers or len(milestones) != len(schedulers) - 1:
            raise ValueError(
                f"SequentialLR(): {len(schedulers)} schedules take a milestone less, but got {len(milestones)}"
            )
        if any(scheduler.optimizer is not optimizer for scheduler in schedulers):
            raise ValueError("SequentialLR(): the schedules are of another optimizer")
        self.optimizer = optimizer
        self.schedulers = list(schedulers)
        self.milestones = list(milestones)
        self.last_epoch = 0
        self.schedulers[0]._apply()

    def step(self) -> None:
        """One step on."""
        self.last_epoch += 1
        number = bisect_right(self.milestones, self.last_epoch)
        current = self.schedulers[number]
        if number > 0 and self.milestones[number - 1] == self.last_epoch:
            current.last_epoch = 0
            current._apply()
        else:
            current.step()

    def get_last_lr(self) -> list[float]:
        """The rates of all groups."""
        return [group["lr"] for group in self.optimizer.param_groups]

    def state_dict(self) -> dict[str, Any]:
        return {**super().state_dict(), "schedulers": [s.state_dict() for s in self.schedulers]}

    def load_state_dict(self, state: Mapping[str, Any]) -> None:
        inner = state["schedulers"]
        if len(inner) != len(self.schedulers):
            raise ValueError(f"load_state_dict(): {len(inner)} schedules do not fit {len(self.schedulers)}")
        super().load_state_dict({name: value for name, value in state.items() if name != "schedulers"})
        for scheduler, values in zip(self.schedulers, inner):
            scheduler.load_state_dict(values)


class ReduceLROnPlateau(_Stateful):
    """Cuts the rates when a measure has not got better for more than ``patience`` calls of ``step(measure)``."""

    def __init__(
        self,
        optimizer: Optimizer,
        mode: str = "min",
        factor: float = 0.1,
        patience: int = 10,
        threshold: float = 1e-4,
        threshold_mode: str = "rel",
        cooldown: int = 0,
        min_lr: float | Sequence[float] = 0.0,
        eps: float = 1e-8,
    ) -> None:
        if mode not in ("min", "max") or threshold_mode not in ("rel", "abs"):
            raise ValueError(
                f'ReduceLROnPlateau(): mode is "min" or "max" and threshold_mode "rel" or "abs", not {mode!r} and '
                f"{threshold_mode!r}"
            )
        if not 0 <= factor < 1:
            raise ValueError(f"ReduceLROnPlateau(): factor lies in [0, 1), not at {factor}")
        groups = len(optimizer.param_groups)
        self.optimizer = optimizer
        self.mode = mode
        self.factor = factor
        self.patience = patience
        self.threshold = threshold
        self.threshold_mode = threshold_mode
        self.cooldown = cooldown
        self.min_lrs: list[float] = list(min_lr) if isinstance(min_lr, Sequence) else [min_lr] * groups
        if len(self.min_lrs) != groups:
            raise ValueError(f"ReduceLROnPlateau(): {groups} rates are wanted, but got {len(self.min_lrs)}")
        self.eps = eps
        self.best = math.inf if mode == "min" else -math.inf
        self.num_bad_epochs = 0
        self.cooldown_counter = 0
        self.last_epoch = 0

    def _is_better(self, measure: float) -> bool:
        sign = -1 if self.mode == "min" else 1
        if math.isinf(self.best):
            return not math.isnan(measure) and sign * measure > sign * self.best
        margin = self.threshold if self.threshold_mode == "abs" else self.threshold * self.best
        return sign * measure > sign * (self.best + sign * margin)

    def step(self, measure: Any) -> None:
        """One measure on: a number, or a tensor of one element."""
        measure = float(measure)
        self.last_epoch += 1
        if self._is_better(measure):
            self.best = measure
            self.num_bad_epochs = 0
        else:
            self.num_bad_epochs += 1
        if self.cooldown_counter > 0:
            self.cooldown_counter -= 1
            self.num_bad_epochs = 0
        if self.num_bad_epochs > self.patience:
            for group, least in zip(self.optimizer.param_groups, self.min_lrs):
                lower = max(group["lr"] * self.factor, least)
                if group["lr"] - lower > self.eps:
                    group["lr"] = lower
            self.cooldown_counter = self.cooldown
            self.num_bad_epochs = 0

    def get_last_lr(self) -> list[float]:
        """The rates of all groups."""
        return [group["lr"] for group in self.optimizer.param_groups]
