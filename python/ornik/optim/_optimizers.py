"""The optimizers. Each parameter's step is one pass over memory; its numbers are single-precision ones."""

from __future__ import annotations

from typing import Any

from .. import _ornik
from .._tensor import KTensor
from ._optimizer import Optimizer, Parameters, zeros_in

__all__ = ["SGD", "Adadelta", "Adagrad", "Adam", "AdamW", "Adamax", "RMSprop"]


class SGD(Optimizer):
    """Stochastic gradient descent.

    With momentum, b = momentum b + (1 - dampening) g, at the first step b = g, and p -= lr b; with nesterov
    p -= lr (g + momentum b). ``weight_decay`` p is added to g.
    """

    def __init__(
        self,
        params: Parameters,
        lr: float = 1e-3,
        momentum: float = 0.0,
        dampening: float = 0.0,
        weight_decay: float = 0.0,
        nesterov: bool = False,
        *,
        maximize: bool = False,
    ) -> None:
        options = {
            "lr": lr,
            "momentum": momentum,
            "dampening": dampening,
            "weight_decay": weight_decay,
            "nesterov": nesterov,
            "maximize": maximize,
        }
        super().__init__(params, options)

    def _check(self, options: dict[str, Any]) -> None:
        super()._check(options)
        if options["nesterov"] and not (options["momentum"] > 0 and options["dampening"] == 0):
            raise ValueError("SGD(): nesterov takes a momentum above 0 and no dampening")

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        momentum = group["momentum"]
        first = "momentum_buffer" not in kept
        _ornik.sgd_step(
            parameter,
            gradient,
            zeros_in(kept, "momentum_buffer", parameter) if momentum else None,
            group["lr"],
            momentum,
            group["dampening"],
            group["weight_decay"],
            group["nesterov"],
            first,
        )


class Adam(Optimizer):
    """Adam (Kingma and Ba, 2015), with ``amsgrad`` by the largest second moment so far.

    ``weight_decay`` p is added to the gradient.
    """

    _step = staticmethod(_ornik.adam_step)

    def __init__(
        self,
        params: Parameters,
        lr: float = 1e-3,
        betas: tuple[float, float] = (0.9, 0.999),
        eps: float = 1e-8,
        weight_decay: float = 0.0,
        amsgrad: bool = False,
        *,
        maximize: bool = False,
    ) -> None:
        options = {
            "lr": lr,
            "betas": betas,
            "eps": eps,
            "weight_decay": weight_decay,
            "amsgrad": amsgrad,
            "maximize": maximize,
        }
        super().__init__(params, options)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        self._step(
            parameter,
            gradient,
            zeros_in(kept, "exp_avg", parameter),
            zeros_in(kept, "exp_avg_sq", parameter),
            zeros_in(kept, "max_exp_avg_sq", parameter) if group["amsgrad"] else None,
            group["lr"],
            group["betas"][0],
            group["betas"][1],
            group["eps"],
            group["weight_decay"],
            kept["step"],
        )


class AdamW(Adam):
    """Adam with the weight decay apart from the gradient: p -= lr weight_decay p (Loshchilov and Hutter, 2019)."""

    _step = staticmethod(_ornik.adamw_step)

    def __init__(
        self,
        params: Parameters,
        lr: float = 1e-3,
        betas: tuple[float, float] = (0.9, 0.999),
        eps: float = 1e-8,
        weight_decay: float = 1e-2,
        amsgrad: bool = False,
        *,
        maximize: bool = False,
    ) -> None:
        super().__init__(params, lr, betas, eps, weight_decay, amsgrad, maximize=maximize)


class Adamax(Optimizer):
    """Adam by the infinity norm (Kingma and Ba, 2015)."""

    def __init__(
        self,
        params: Parameters,
        lr: float = 2e-3,
        betas: tuple[float, float] = (0.9, 0.999),
        eps: float = 1e-8,
        weight_decay: float = 0.0,
        *,
        maximize: bool = False,
    ) -> None:
        options = {"lr": lr, "betas": betas, "eps": eps, "weight_decay": weight_decay, "maximize": maximize}
        super().__init__(params, options)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        _ornik.adamax_step(
            parameter,
            gradient,
            zeros_in(kept, "exp_avg", parameter),
            zeros_in(kept, "exp_inf", parameter),
            group["lr"],
            group["betas"][0],
            group["betas"][1],
            group["eps"],
            group["weight_decay"],
            kept["step"],
        )


class Adagrad(Optimizer):
    """Adagrad (Duchi and others, 2011): step t is of lr / (1 + (t - 1) lr_decay)."""

    _not_negative = (*Optimizer._not_negative, "initial_accumulator_value")

    def __init__(
        self,
        params: Parameters,
        lr: float = 1e-2,
        lr_decay: float = 0.0,
        weight_decay: float = 0.0,
        initial_accumulator_value: float = 0.0,
        eps: float = 1e-10,
        *,
        maximize: bool = False,
    ) -> None:
        options = {
            "lr": lr,
            "lr_decay": lr_decay,
            "weight_decay": weight_decay,
            "initial_accumulator_value": initial_accumulator_value,
            "eps": eps,
            "maximize": maximize,
        }
        super().__init__(params, options)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        _ornik.adagrad_step(
            parameter,
            gradient,
            zeros_in(kept, "sum", parameter, group["initial_accumulator_value"]),
            group["lr"] / (1 + (kept["step"] - 1) * group["lr_decay"]),
            group["eps"],
            group["weight_decay"],
        )


class Adadelta(Optimizer):
    """Adadelta (Zeiler, 2012)."""

    def __init__(
        self,
        params: Parameters,
        lr: float = 1.0,
        rho: float = 0.9,
        eps: float = 1e-6,
        weight_decay: float = 0.0,
        *,
        maximize: bool = False,
    ) -> None:
        options = {"lr": lr, "rho": rho, "eps": eps, "weight_decay": weight_decay, "maximize": maximize}
        super().__init__(params, options)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        _ornik.adadelta_step(
            parameter,
            gradient,
            zeros_in(kept, "square_avg", parameter),
            zeros_in(kept, "acc_delta", parameter),
            group["lr"],
            group["rho"],
            group["eps"],
            group["weight_decay"],
        )


class RMSprop(Optimizer):
    """RMSprop (Hinton, 2012): by a running mean of squared gradients, ``centered`` less that of gradients, squared."""

    def __init__(
        self,
        params: Parameters,
        lr: float = 1e-2,
        alpha: float = 0.99,
        eps: float = 1e-8,
        weight_decay: float = 0.0,
        momentum: float = 0.0,
        centered: bool = False,
        *,
        maximize: bool = False,
    ) -> None:
        options = {
            "lr": lr,
            "alpha": alpha,
            "eps": eps,
            "weight_decay": weight_decay,
            "momentum": momentum,
            "centered": centered,
            "maximize": maximize,
        }
        super().__init__(params, options)

    def _update(self, parameter: KTensor, gradient: KTensor, kept: dict[str, Any], group: dict[str, Any]) -> None:
        _ornik.rmsprop_step(
            parameter,
            gradient,
            zeros_in(kept, "square_avg", parameter),
            zeros_in(kept, "grad_avg", parameter) if group["centered"] else None,
            zeros_in(kept, "momentum_buffer", parameter) if group["momentum"] else None,
            group["lr"],
            group["alpha"],
            group["eps"],
            group["momentum"],
            group["weight_decay"],
        )
