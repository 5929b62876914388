"""Bounds for gradients, parameters as one vector, sequences of different lengths."""

from __future__ import annotations

import math
from collections.abc import Iterable

from ... import _ornik
from ..._tensor import KTensor
from ...autograd import no_grad
from .._arguments import tensors
from . import rnn as rnn

__all__ = ["clip_grad_norm_", "clip_grad_value_", "parameters_to_vector", "rnn", "vector_to_parameters"]


def _gradients(parameters: KTensor | Iterable[KTensor]) -> list[KTensor]:
    listed = [parameters] if isinstance(parameters, KTensor) else list(parameters)
    tensors(*listed)
    return [gradient for gradient in (p.grad for p in listed) if gradient is not None]


@no_grad()
def clip_grad_norm_(
    parameters: KTensor | Iterable[KTensor],
    max_norm: float,
    norm_type: float = 2.0,
    error_if_nonfinite: bool = False,
) -> KTensor:
    """Scales all gradients by max_norm / (norm + 1e-6) where their common norm is above ``max_norm``.

    Returns the norm before. Parameters without a gradient do not count.
    """
    gradients = _gradients(parameters)
    if not norm_type > 0:
        raise ValueError(f"clip_grad_norm_(): norm_type is above 0, not {norm_type}")
    if norm_type == 2:
        norms = [float(_ornik.l2_norm(g, None, False)) for g in gradients]
        total = math.hypot(*norms)
    elif math.isinf(norm_type):
        # NaN stays.
        norms = [float(_ornik.max(_ornik.abs(g), None, False)) for g in gradients if g.size]
        total = math.nan if any(map(math.isnan, norms)) else max(norms, default=0.0)
    else:
        total = sum(float(_ornik.sum(_ornik.abs(g) ** norm_type, None, False)) for g in gradients) ** (1 / norm_type)
    if error_if_nonfinite and not math.isfinite(total):
        raise RuntimeError(f"clip_grad_norm_(): the norm of the gradients is {total}")
    factor = max_norm / (total + 1e-6)
    if factor < 1:
        for gradient in gradients:
            gradient *= factor
    return _ornik.full((), total, gradients[0].dtype if gradients and gradients[0].dtype.kind == "f" else "float32")


@no_grad()
def clip_grad_value_(parameters: KTensor | Iterable[KTensor], clip_value: float) -> None:
    """Cuts every element of the gradients off at -clip_value and clip_value."""
    if not clip_value >= 0:
        raise ValueError(f"clip_grad_value_(): clip_value is 0 and above, not {clip_value}")
    for gradient in _gradients(parameters):
        _ornik.copy_into(gradient, _ornik.clamp(gradient, -clip_value, clip_value))


def parameters_to_vector(parameters: Iterable[KTensor]) -> KTensor:
    """All elements in one row. Gradients go through it."""
    return _ornik.concat([_ornik.reshape(p, -1) for p in parameters], 0)


@no_grad()
def vector_to_parameters(vector: KTensor, parameters: Iterable[KTensor]) -> None:
    """Writes such a row back."""
    targets = list(parameters)
    tensors(vector, *targets)
    if vector.shape != (sum(p.size for p in targets),):
        raise ValueError(
            f"vector_to_parameters(): {list(vector.shape)} is no row of {sum(p.size for p in targets)} elements"
        )
    begin = 0
    for target in targets:
        _ornik.copy_into(target, _ornik.reshape(vector[begin : begin + target.size], target.shape))
        begin += target.size
