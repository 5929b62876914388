"""LSTM and GRU in layers and directions, over padded and packed batches."""

from __future__ import annotations

import math
from typing import TYPE_CHECKING, Any, ClassVar

from .. import _ornik
from .._convert import DTypeLike
from ._arguments import positive, probability, shown, tensors
from ._basic import uniform_parameter
from ._module import Module, Parameter
from .utils.rnn import PackedSequence

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["GRU", "GRUCell", "LSTM", "LSTMCell"]


class _Recurrent(Module):
    _gates: ClassVar[int]

    def __init__(
        self,
        input_size: int,
        hidden_size: int,
        num_layers: int = 1,
        bias: bool = True,
        batch_first: bool = False,
        dropout: float = 0.0,
        bidirectional: bool = False,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        name = type(self).__name__
        positive(name, input_size=input_size, hidden_size=hidden_size, num_layers=num_layers)
        probability(name, dropout)
        self.input_size = input_size
        self.hidden_size = hidden_size
        self.num_layers = num_layers
        self.bias = bias
        self.batch_first = batch_first
        self.dropout = dropout
        self.bidirectional = bidirectional
        directions = 2 if bidirectional else 1
        self._names: list[list[str]] = []  # Of the parameters of each layer and direction.
        for layer in range(num_layers):
            width = input_size if layer == 0 else directions * hidden_size
            for direction in range(directions):
                suffix = f"_l{layer}" + "_reverse" * direction
                self._names.append([part + suffix for part in _add_weights(self, self._gates, width, suffix, dtype)])

    def _run(self, x: Any, hidden: KTensor | None, cell: KTensor | None) -> tuple[Any, KTensor, KTensor | None]:
        if isinstance(x, PackedSequence):
            return self._run_packed(x, hidden, cell)
        tensors(x)
        if x.ndim not in (2, 3) or x.shape[-1] != self.input_size:
            batched = f"[N, steps, {self.input_size}]" if self.batch_first else f"[steps, N, {self.input_size}]"
            raise ValueError(
                f"{type(self).__name__}(): {list(x.shape)} is neither {batched} nor [steps, {self.input_size}]"
            )
        if x.ndim == 2:
            states = [s if s is None else _ornik.unsqueeze(s, 1) for s in (hidden, cell)]
            h, c = self._checked(states, 1)
            output, h, c = self._layers(_ornik.unsqueeze(x, 1), h, c, ())
            return _ornik.squeeze(output, 1), _ornik.squeeze(h, 1), None if c is None else _ornik.squeeze(c, 1)
        if self.batch_first:
            x = _ornik.swapaxes(x, 0, 1)
        hidden, cell = self._checked([hidden, cell], x.shape[1])
        output, last_hidden, last_cell = self._layers(x, hidden, cell, ())
        return (_ornik.swapaxes(output, 0, 1) if self.batch_first else output), last_hidden, last_cell

    def _run_packed(
        self, x: PackedSequence, hidden: KTensor | None, cell: KTensor | None
    ) -> tuple[PackedSequence, KTensor, KTensor | None]:
        """States are in the order of the batch, not of the packing."""
        sizes = x.batch_sizes.tolist()
        if x.data.shape != (sum(sizes), self.input_size):
            raise ValueError(
                f"{type(self).__name__}(): {list(x.data.shape)} is no packed [{sum(sizes)}, {self.input_size}]"
            )

        def reordered(state: KTensor | None, order: KTensor | None) -> Any:
            return state if state is None or order is None else _ornik.index_select(state, 1, order)

        hidden, cell = (reordered(s, x.sorted_indices) for s in self._checked([hidden, cell], sizes[0]))
        output, hidden, cell = self._layers(x.data, hidden, cell, sizes)
        packed = PackedSequence(output, x.batch_sizes, x.sorted_indices, x.unsorted_indices)
        return packed, reordered(hidden, x.unsorted_indices), reordered(cell, x.unsorted_indices)

    def _checked(self, states: list[KTensor | None], batch: int) -> list[KTensor | None]:
        wanted = (len(self._names), batch, self.hidden_size)
        for state in states:
            if state is not None:
                tensors(state)
            if state is not None and state.shape != wanted:
                raise ValueError(f"{type(self).__name__}(): a state is {list(state.shape)}, not {list(wanted)}")
        return states

    def _layers(
        self, y: KTensor, hidden: KTensor | None, cell: KTensor | None, batch_sizes: Any
    ) -> tuple[KTensor, KTensor, KTensor | None]:
        """y [steps, N, in] or packed, with the states' sequences in the order of the packing."""
        count, directions = len(self._names), 2 if self.bidirectional else 1
        hiddens = [None] * count if hidden is None else _ornik.unbind(hidden, 0)
        cells = [None] * count if cell is None else _ornik.unbind(cell, 0)
        last: list[tuple[KTensor, KTensor | None]] = []
        own = self.__dict__
        for first in range(0, count, directions):
            if first > 0 and self.dropout > 0:
                y = _ornik.dropout(y, self.dropout, self.training)
            outputs = []
            for i in range(first, first + directions):
                weights = [own[name] for name in self._names[i]] + [None] * (4 - len(self._names[i]))
                output, *states = self._step(y, hiddens[i], cells[i], weights, i > first, batch_sizes)
                outputs.append(output)
                last.append((states[0], states[1] if len(states) > 1 else None))
            y = outputs[0] if directions == 1 else _ornik.concat(outputs, -1)
        last_cells = [c for _, c in last if c is not None]
        return y, _ornik.stack([h for h, _ in last], 0), _ornik.stack(last_cells, 0) if last_cells else None

    def _step(self, *args: Any) -> tuple[KTensor, ...]:
        raise NotImplementedError

    def extra_repr(self) -> str:
        return shown(
            self.input_size,
            self.hidden_size,
            num_layers=(self.num_layers, 1),
            bias=(self.bias, True),
            batch_first=(self.batch_first, False),
            dropout=(self.dropout, 0),
            bidirectional=(self.bidirectional, False),
        )


def _add_weights(module: Any, gates: int, width: int, suffix: str, dtype: DTypeLike | None) -> list[str]:
    """Parameters of one layer and direction, uniform within 1 / sqrt(hidden_size); their names."""
    rows, bound = gates * module.hidden_size, 1 / math.sqrt(module.hidden_size)
    shapes = {"weight_ih": (rows, width), "weight_hh": (rows, module.hidden_size)}
    biases = {"bias_ih": (rows,), "bias_hh": (rows,)}
    for name, shape in {**shapes, **(biases if module.bias else {})}.items():
        setattr(module, name + suffix, uniform_parameter(shape, bound, dtype))
    return [*shapes, *(biases if module.bias else {})]


class LSTM(_Recurrent):
    """Long short-term memory (Hochreiter and Schmidhuber, 1997) in layers and directions.

    Parameters of layer k: weight_ih_l{k} [4 H, in], weight_hh_l{k} [4 H, H], bias_ih_l{k} and bias_hh_l{k} [4 H], those
    of the reverse direction with _reverse behind; all uniform within 1 / sqrt(H). Layers above the first read the
    outputs of both directions side by side; ``dropout`` is that of their operands.

    >>> output, (hidden, cell) = nn.LSTM(10, 20, num_layers=2)(ornik.ones((5, 3, 10)))
    >>> output.shape, hidden.shape, cell.shape
    ((5, 3, 20), (2, 3, 20), (2, 3, 20))
    """

    _gates = 4

    def forward(self, x: Any, hx: tuple[KTensor, KTensor] | None = None) -> tuple[Any, tuple[KTensor, KTensor]]:
        """x [steps, N, in], [N, steps, in] with batch_first, [steps, in], or packed; states [layers directions, N, H].

        Returns the outputs [steps, N, directions H] and the states after each sequence's last step.
        """
        hidden, cell = (None, None) if hx is None else hx
        output, last_hidden, last_cell = self._run(x, hidden, cell)
        return output, (last_hidden, last_cell)  # type: ignore[return-value]

    def _step(self, x: Any, hidden: Any, cell: Any, weights: Any, reverse: Any, batch_sizes: Any) -> Any:
        return _ornik.lstm(x, hidden, cell, weights, reverse, batch_sizes)


class GRU(_Recurrent):
    """Gated recurrent units (Cho and others, 2014) in layers and directions; see :class:`LSTM`. Three gates."""

    _gates = 3

    def forward(self, x: Any, hx: KTensor | None = None) -> tuple[Any, KTensor]:
        """x and the state as those of :class:`LSTM`; returns the outputs and the last state."""
        output, last_hidden, _ = self._run(x, hx, None)
        return output, last_hidden

    def _step(self, x: Any, hidden: Any, cell: Any, weights: Any, reverse: Any, batch_sizes: Any) -> Any:
        return _ornik.gru(x, hidden, weights, reverse, batch_sizes)


class _Cell(Module):
    _gates: ClassVar[int]
    weight_ih: Parameter
    weight_hh: Parameter
    bias_ih: Parameter | None
    bias_hh: Parameter | None

    def __init__(self, input_size: int, hidden_size: int, bias: bool = True, *, dtype: DTypeLike | None = None) -> None:
        positive(type(self).__name__, input_size=input_size, hidden_size=hidden_size)
        self.input_size = input_size
        self.hidden_size = hidden_size
        self.bias = bias
        _add_weights(self, self._gates, input_size, "", dtype)
        if not bias:
            self.bias_ih = self.bias_hh = None

    def _steps(self, x: KTensor, states: list[KTensor | None]) -> tuple[KTensor, list[KTensor | None], list[Any]]:
        """x as one step [1, N, in], the states [N, H], the weights."""
        tensors(x)
        if x.ndim not in (1, 2) or x.shape[-1] != self.input_size:
            raise ValueError(
                f"{type(self).__name__}(): {list(x.shape)} is neither [N, {self.input_size}] nor [{self.input_size}]"
            )
        if x.ndim == 1:
            x, states = _ornik.unsqueeze(x, 0), [s if s is None else _ornik.unsqueeze(s, 0) for s in states]
        for state in states:
            if state is not None:
                tensors(state)
            if state is not None and state.shape != (x.shape[0], self.hidden_size):
                raise ValueError(
                    f"{type(self).__name__}(): a state is {list(state.shape)}, not {[x.shape[0], self.hidden_size]}"
                )
        return _ornik.unsqueeze(x, 0), states, [self.weight_ih, self.weight_hh, self.bias_ih, self.bias_hh]

    def extra_repr(self) -> str:
        return shown(self.input_size, self.hidden_size, bias=(self.bias, True))


class LSTMCell(_Cell):
    """One step of an LSTM: weight_ih, weight_hh, bias_ih, bias_hh. x [N, in] or [in]; states [N, H] or [H]."""

    _gates = 4

    def forward(self, x: KTensor, hx: tuple[KTensor, KTensor] | None = None) -> tuple[KTensor, KTensor]:
        step, states, weights = self._steps(x, [None, None] if hx is None else list(hx))
        _, hidden, cell = _ornik.lstm(step, states[0], states[1], weights, False, ())
        return (hidden, cell) if x.ndim == 2 else (_ornik.squeeze(hidden, 0), _ornik.squeeze(cell, 0))


class GRUCell(_Cell):
    """One step of a GRU: weight_ih, weight_hh, bias_ih, bias_hh. x [N, in] or [in]; state [N, H] or [H]."""

    _gates = 3

    def forward(self, x: KTensor, hx: KTensor | None = None) -> KTensor:
        step, states, weights = self._steps(x, [hx])
        hidden = _ornik.gru(step, states[0], weights, False, ())[1]
        return hidden if x.ndim == 2 else _ornik.squeeze(hidden, 0)
