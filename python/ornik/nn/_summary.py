"""A module's parts with shapes, parameters and memory as a table."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, NamedTuple

from .. import _dtypes, _ornik, _tree
from .._convert import DTypeLike
from .._tensor import KTensor
from ..autograd import no_grad
from ._module import Module

__all__ = ["Summary", "SummaryRow", "summary"]


class SummaryRow(NamedTuple):
    """One module."""

    #: The way to it, "" for the whole.
    path: str
    kind: str
    #: Of its results; empty for a module that was not called.
    shapes: tuple[tuple[int, ...], ...]
    #: Elements of its own parameters, without those of its parts.
    parameters: int
    #: Bytes of its results, for a module without parts.
    nbytes: int


class Summary:
    """What :func:`summary` found; its text is a table."""

    def __init__(self, rows: list[SummaryRow], trainable: int, total: int, state_nbytes: int) -> None:
        self.rows = rows
        #: Elements of all parameters, shared ones once, and of those that ask for gradients.
        self.parameters = total
        self.trainable_parameters = trainable
        #: Bytes of parameters and buffers.
        self.state_nbytes = state_nbytes

    @property
    def result_nbytes(self) -> int:
        """Bytes of the results of all modules without parts: about what a step of training keeps."""
        return sum(row.nbytes for row in self.rows)

    def __repr__(self) -> str:
        heads = ("module", "result", "parameters", "memory")
        table = [
            (
                "  " * (row.path.count(".") + 1 if row.path else 0)
                + (f"{row.path.rpartition('.')[2]}: " if row.path else "")
                + row.kind,
                ", ".join(str(list(shape)) for shape in row.shapes) or "-",
                f"{row.parameters:,}" if row.parameters else "-",
                _bytes(row.nbytes) if row.nbytes else "-",
            )
            for row in self.rows
        ]
        widths = [max(len(line[i]) for line in [heads, *table]) for i in range(4)]

        def line(cells: Sequence[str]) -> str:
            left = [cell.ljust(width) for cell, width in zip(cells[:2], widths)]
            return "  ".join([*left, *(cell.rjust(width) for cell, width in zip(cells[2:], widths[2:]))])

        rule = "-" * len(line(heads))
        return "\n".join(
            [
                line(heads),
                rule,
                *map(line, table),
                rule,
                f"parameters: {self.parameters:,} ({self.trainable_parameters:,} trainable), "
                f"{_bytes(self.state_nbytes)} with buffers",
                f"results: {_bytes(self.result_nbytes)}",
            ]
        )


def _bytes(count: int) -> str:
    for limit, unit in ((2**30, "GiB"), (2**20, "MiB"), (2**10, "KiB")):
        if count >= limit:
            return f"{count / limit:.1f} {unit}"
    return f"{count} B"


def summary(module: Module, *inputs: Any, dtype: DTypeLike = _dtypes.float32) -> Summary:
    """Calls the module once, not in training, and lists its parts.

    ``inputs`` are what it is called with: tensors, or shapes, for which zeros stand.

    >>> nn.summary(nn.Sequential(nn.Linear(4, 3), nn.ReLU()), (2, 4))
    module       result  parameters  memory
    ---------------------------------------
    Sequential   [2, 3]           -       -
      0: Linear  [2, 3]          15    24 B
      1: ReLU    [2, 3]           -    24 B
    ---------------------------------------
    parameters: 15 (15 trainable), 60 B with buffers
    results: 48 B
    """
    given = [_ornik.full(x, 0, dtype) if _is_shape(x) else x for x in inputs]
    results: dict[int, list[KTensor]] = {}

    def note(part: Module, _: tuple[Any, ...], result: Any) -> None:
        results[id(part)] = _tree.flatten(result)

    modes = [(part, part.training) for part in module.modules()]
    handles = [part.register_forward_hook(note) for part, _ in modes]
    try:
        module.eval()
        with no_grad():
            module(*given)
    finally:
        for part, mode in modes:
            part.training = mode
        for handle in handles:
            handle.remove()
    rows = []
    for path, part in module.named_modules():
        found = results.get(id(part), [])
        nbytes = 0 if any(True for _ in part.children()) else sum(t.nbytes for t in found)
        own = sum(p.size for _, p in part._own_parameters())
        rows.append(SummaryRow(path, type(part).__name__, tuple(t.shape for t in found), own, nbytes))
    state = [*module.parameters(), *module.buffers()]
    return Summary(
        rows, module.parameter_count(trainable_only=True), module.parameter_count(), sum(t.nbytes for t in state)
    )


def _is_shape(x: object) -> bool:
    return isinstance(x, (tuple, list)) and all(isinstance(n, int) for n in x)
