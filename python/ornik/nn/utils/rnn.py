"""Batches of sequences of different lengths, without padding.

>>> packed = nn.utils.rnn.pack_padded_sequence(ornik.ones((7, 3, 4)), [7, 3, 5], enforce_sorted=False)
>>> output, _ = nn.GRU(4, 2)(packed)
>>> padded, lengths = nn.utils.rnn.pad_packed_sequence(output)
>>> padded.shape, lengths
((7, 3, 2), KTensor([7, 3, 5]))
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple

from ... import _ornik
from ..._tensor import KTensor
from .._arguments import is_whole, tensors

__all__ = [
    "PackedSequence",
    "pack_padded_sequence",
    "pack_sequence",
    "pad_packed_sequence",
    "pad_sequence",
    "unpack_sequence",
]


class PackedSequence(NamedTuple):
    """The entries of the sequences step by step, and within a step by falling length."""

    #: [entries, ...]
    data: KTensor
    #: How many sequences reach each step, int64.
    batch_sizes: KTensor
    #: Which sequence of the batch stands at each place, int64; None where they came in order.
    sorted_indices: KTensor | None = None
    #: At which place each sequence of the batch stands.
    unsorted_indices: KTensor | None = None


def _lengths(name: str, lengths: KTensor | Sequence[int], least: int) -> list[int]:
    numbers = lengths.tolist() if isinstance(lengths, KTensor) else list(lengths)
    if not isinstance(numbers, list) or not all(is_whole(n) for n in numbers):
        raise TypeError(f"{name}(): lengths are whole numbers, but got {lengths!r}")
    if not numbers or min(numbers) < least:
        raise ValueError(f"{name}(): lengths are {least} and above, one for each sequence, but got {numbers}")
    return numbers


def _packed(data: KTensor, lengths: list[int], enforce_sorted: bool) -> PackedSequence:
    order, batch_sizes = _ornik.packing(lengths)
    sizes = _ornik.from_nested(list(batch_sizes), None)
    if enforce_sorted:
        return PackedSequence(data, sizes)
    places = [0] * len(order)
    for place, sequence in enumerate(order):
        places[sequence] = place
    return PackedSequence(data, sizes, _ornik.from_nested(list(order), None), _ornik.from_nested(places, None))


def _check_sorted(name: str, lengths: list[int], enforce_sorted: bool) -> None:
    if enforce_sorted and lengths != sorted(lengths, reverse=True):
        raise ValueError(f"{name}(): lengths fall unless enforce_sorted is False, but got {lengths}")


def pack_padded_sequence(
    x: KTensor, lengths: KTensor | Sequence[int], batch_first: bool = False, enforce_sorted: bool = True
) -> PackedSequence:
    """[steps, N, ...], or [N, steps, ...], without what stands behind the lengths, which are 1 and above."""
    tensors(x)
    numbers = _lengths("pack_padded_sequence", lengths, 1)
    _check_sorted("pack_padded_sequence", numbers, enforce_sorted)
    batch, steps = (0, 1) if batch_first else (1, 0)
    if x.ndim < 2 or x.shape[batch] != len(numbers) or x.shape[steps] < max(numbers):
        raise ValueError(
            f"pack_padded_sequence(): {list(x.shape)} does not hold {len(numbers)} sequences of up to "
            f"{max(numbers)} steps"
        )
    data = _ornik.pack_sequences(x if batch_first else _ornik.swapaxes(x, 0, 1), numbers)
    return _packed(data, numbers, enforce_sorted)


def _sorted_lengths(sequence: PackedSequence) -> list[int]:
    sizes = [*sequence.batch_sizes.tolist(), 0]
    # Between two steps end those that stand last.
    lengths: list[int] = []
    for step in range(len(sizes) - 1, 0, -1):
        lengths += [step] * (sizes[step - 1] - sizes[step])
    return lengths


def pad_packed_sequence(
    sequence: PackedSequence,
    batch_first: bool = False,
    padding_value: float = 0.0,
    total_length: int | None = None,
) -> tuple[KTensor, KTensor]:
    """The padded batch and the lengths; of as many steps as the longest has, or ``total_length``."""
    if not isinstance(sequence, PackedSequence):
        raise TypeError(f"pad_packed_sequence(): a PackedSequence is wanted, but got {type(sequence).__name__}")
    lengths = _sorted_lengths(sequence)
    if total_length is not None and total_length < lengths[0]:
        raise ValueError(f"pad_packed_sequence(): total_length is {lengths[0]} and above, not {total_length}")
    padded = _ornik.unpack_sequences(sequence.data, lengths, total_length or 0, padding_value)
    if sequence.unsorted_indices is not None:
        padded = _ornik.index_select(padded, 0, sequence.unsorted_indices)
        lengths = [lengths[place] for place in sequence.unsorted_indices.tolist()]
    return (padded if batch_first else _ornik.swapaxes(padded, 0, 1)), _ornik.from_nested(lengths, None)


def pack_sequence(sequences: Sequence[KTensor], enforce_sorted: bool = True) -> PackedSequence:
    """Sequences [length, ...], alike but for their lengths."""
    tensors(*sequences)
    numbers = _lengths("pack_sequence", [len(s) for s in sequences], 1)
    _check_sorted("pack_sequence", numbers, enforce_sorted)
    return _packed(_ornik.pack_sequences(pad_sequence(sequences, True), numbers), numbers, enforce_sorted)


def unpack_sequence(sequence: PackedSequence) -> list[KTensor]:
    """The reverse of :func:`pack_sequence`."""
    padded, lengths = pad_packed_sequence(sequence, batch_first=True)
    return [row[:length] for row, length in zip(padded, lengths.tolist())]


def pad_sequence(sequences: Sequence[KTensor], batch_first: bool = False, padding_value: float = 0.0) -> KTensor:
    """Sequences [length, ...] in one padded batch.

    >>> nn.utils.rnn.pad_sequence([ornik.ones(1), ornik.ones(2)], batch_first=True)
    KTensor([[1., 0.],
             [1., 1.]])
    """
    if not sequences:
        raise ValueError("pad_sequence(): there are no sequences")
    tensors(*sequences)
    longest = max(len(s) for s in sequences)
    rows = [_ornik.pad(s, [0, longest - len(s)] + [0, 0] * (s.ndim - 1), "constant", padding_value) for s in sequences]
    return _ornik.stack(rows, 0 if batch_first else 1)
