"""Losses as modules, called with prediction and target; formulas: :mod:`ornik.nn.functional`."""

from __future__ import annotations

from typing import TYPE_CHECKING

from . import functional
from ._arguments import shown
from ._module import Module

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "BCELoss",
    "BCEWithLogitsLoss",
    "CrossEntropyLoss",
    "HuberLoss",
    "KLDivLoss",
    "L1Loss",
    "MSELoss",
    "NLLLoss",
    "SmoothL1Loss",
]


class _Loss(Module):
    _reductions: tuple[str, ...] = ("mean", "sum", "none")

    def __init__(self, reduction: str = "mean") -> None:
        if reduction not in self._reductions:
            names = ", ".join(f'"{name}"' for name in self._reductions)
            raise ValueError(f"{type(self).__name__}(): a reduction is one of {names}, not {reduction!r}")
        self.reduction = reduction

    def extra_repr(self) -> str:
        return shown(reduction=(self.reduction, "mean"))


class MSELoss(_Loss):
    """(x - target)**2."""

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.mse_loss(x, target, self.reduction)


class L1Loss(_Loss):
    """``|x - target|``."""

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.l1_loss(x, target, self.reduction)


class SmoothL1Loss(_Loss):
    """d**2 / (2 beta) of the distance d below beta, d - beta / 2 above."""

    def __init__(self, reduction: str = "mean", beta: float = 1.0) -> None:
        super().__init__(reduction)
        self.beta = beta

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.smooth_l1_loss(x, target, self.reduction, self.beta)


class HuberLoss(_Loss):
    """d**2 / 2 of the distance d below delta, delta (d - delta / 2) above."""

    def __init__(self, reduction: str = "mean", delta: float = 1.0) -> None:
        super().__init__(reduction)
        self.delta = delta

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.huber_loss(x, target, self.reduction, self.delta)


class CrossEntropyLoss(_Loss):
    """-log(softmax(x)) of the target's class; see :func:`functional.cross_entropy`.

    >>> criterion = nn.CrossEntropyLoss()
    >>> criterion(ornik.zeros((2, 4)), ornik.tensor([1, 3]))
    KTensor(1.3862944)
    """

    def __init__(
        self,
        weight: KTensor | None = None,
        ignore_index: int = -100,
        reduction: str = "mean",
        label_smoothing: float = 0.0,
    ) -> None:
        super().__init__(reduction)
        self.register_buffer("weight", weight)
        self.ignore_index = ignore_index
        self.label_smoothing = label_smoothing

    weight: KTensor | None

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.cross_entropy(x, target, self.weight, self.ignore_index, self.reduction, self.label_smoothing)


class NLLLoss(_Loss):
    """:class:`CrossEntropyLoss` of log-probabilities."""

    def __init__(self, weight: KTensor | None = None, ignore_index: int = -100, reduction: str = "mean") -> None:
        super().__init__(reduction)
        self.register_buffer("weight", weight)
        self.ignore_index = ignore_index

    weight: KTensor | None

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.nll_loss(x, target, self.weight, self.ignore_index, self.reduction)


class BCELoss(_Loss):
    """-(t log(x) + (1 - t) log(1 - x)) of probabilities x."""

    def __init__(self, weight: KTensor | None = None, reduction: str = "mean") -> None:
        super().__init__(reduction)
        self.register_buffer("weight", weight)

    weight: KTensor | None

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.binary_cross_entropy(x, target, self.weight, self.reduction)


class BCEWithLogitsLoss(_Loss):
    """The same of sigmoid(x), exact for large numbers; ``pos_weight`` scales the terms with t."""

    def __init__(
        self, weight: KTensor | None = None, reduction: str = "mean", pos_weight: KTensor | None = None
    ) -> None:
        super().__init__(reduction)
        self.register_buffer("weight", weight)
        self.register_buffer("pos_weight", pos_weight)

    weight: KTensor | None
    pos_weight: KTensor | None

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.binary_cross_entropy_with_logits(x, target, self.weight, self.reduction, self.pos_weight)


class KLDivLoss(_Loss):
    """t (log(t) - x) of log-probabilities x; "batchmean" divides by the extent of the first axis alone."""

    _reductions = ("mean", "batchmean", "sum", "none")

    def __init__(self, reduction: str = "mean", log_target: bool = False) -> None:
        super().__init__(reduction)
        self.log_target = log_target

    def forward(self, x: KTensor, target: KTensor) -> KTensor:
        return functional.kl_div(x, target, self.reduction, self.log_target)
