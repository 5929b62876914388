"""What a loader reads from."""

from __future__ import annotations

import bisect
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING, Any, Protocol, TypeVar, runtime_checkable

from .. import _ornik
from .._convert import from_object, is_tensor

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = ["ConcatDataset", "Dataset", "IterableDataset", "Subset", "TensorDataset", "random_split"]

_Item = TypeVar("_Item", covariant=True)


@runtime_checkable
class Dataset(Protocol[_Item]):
    """Items by their numbers 0 .. len - 1. Anything that has the two methods is one: a list, a class of yours.

    A dataset may also have ``batch(indices)``, which gives a whole batch at once and is taken instead of single items
    and a collate function.
    """

    def __getitem__(self, index: int, /) -> _Item: ...

    def __len__(self) -> int: ...


@runtime_checkable
class IterableDataset(Protocol[_Item]):
    """Items one after the other. Anything that can be iterated over is one.

    Several workers share the work only when it has ``shard(worker, workers)``, which gives each an iterable of its own
    part; without it one worker reads everything.
    """

    def __iter__(self) -> Iterator[_Item]: ...


class TensorDataset:
    """Item i is the tuple of every tensor's slice i.

    >>> points = ornik.data.TensorDataset(ornik.zeros((3, 2)), ornik.arange(3))
    >>> points[1]
    (KTensor([0., 0.]), KTensor(1))
    """

    def __init__(self, *tensors: object) -> None:
        self.tensors: tuple[KTensor, ...] = tuple(from_object(t, None, None) for t in tensors)
        if not self.tensors:
            raise ValueError("TensorDataset(): at least one tensor is wanted")
        shapes = [t.shape for t in self.tensors]
        if any(len(shape) == 0 for shape in shapes) or len({shape[0] for shape in shapes}) != 1:
            raise ValueError(f"TensorDataset(): the first extents differ or are missing: {_listed(shapes)}")

    def __getitem__(self, index: int) -> tuple[KTensor, ...]:
        return tuple(t[index] for t in self.tensors)

    def __len__(self) -> int:
        return len(self.tensors[0])

    def batch(self, indices: Sequence[int]) -> tuple[KTensor, ...]:
        """The slices of these numbers, one behind the other."""
        picks = _ornik.from_nested(list(indices), None)
        return tuple(_ornik.index_select(t, 0, picks) for t in self.tensors)


class Subset:
    """Some of a dataset's items, in the order of ``indices``."""

    def __init__(self, dataset: Dataset[Any], indices: Sequence[int]) -> None:
        self.dataset = dataset
        self.indices = [int(i) for i in indices]
        count = len(dataset)
        wrong = next((i for i in self.indices if not -count <= i < count), None)
        if wrong is not None:
            raise IndexError(f"Subset(): there is no item {wrong} among {count}")
        if hasattr(dataset, "batch"):
            self.batch = self._batch

    def _batch(self, indices: Sequence[int]) -> Any:
        whole: Any = self.dataset
        return whole.batch([self.indices[i] for i in indices])

    def __getitem__(self, index: int) -> Any:
        return self.dataset[self.indices[index]]

    def __len__(self) -> int:
        return len(self.indices)


class ConcatDataset:
    """The items of several datasets, one dataset behind the other."""

    def __init__(self, datasets: Sequence[Dataset[Any]]) -> None:
        self.datasets = list(datasets)
        self._ends: list[int] = []
        for dataset in self.datasets:
            self._ends.append(len(self) + len(dataset))

    def __getitem__(self, index: int) -> Any:
        place = index + len(self) if index < 0 else index
        if not 0 <= place < len(self):
            raise IndexError(f"there is no item {index} among {len(self)}")
        which = bisect.bisect_right(self._ends, place)
        return self.datasets[which][place - (self._ends[which - 1] if which else 0)]

    def __len__(self) -> int:
        return self._ends[-1] if self._ends else 0


def random_split(dataset: Dataset[Any], lengths: Sequence[float], *, seed: int | None = None) -> list[Subset]:
    """Parts without common items, drawn at random: of these lengths, or of these shares, which add up to 1.

    What the rounding of shares leaves over goes to the first parts, one item each. Without a seed the default
    generator draws.

    >>> [len(part) for part in ornik.data.random_split(range(10), [0.75, 0.25], seed=1)]
    [8, 2]
    """
    from ..random import Generator, permutation

    count = len(dataset)
    if any(isinstance(n, float) for n in lengths):
        if min(lengths) < 0 or abs(sum(lengths) - 1) > 1e-9:
            raise ValueError(f"random_split(): shares are 0 and above and add up to 1, not {list(lengths)}")
        whole = [int(share * count + 1e-6) for share in lengths]
        for i in range(count - sum(whole)):
            whole[i % len(whole)] += 1
    else:
        whole = [int(n) for n in lengths]
        if any(n < 0 for n in whole) or sum(whole) != count:
            raise ValueError(f"random_split(): lengths are 0 and above and add up to {count}, not {list(lengths)}")
    if seed is None:
        order = permutation(count).tolist()
    else:
        with Generator(seed):
            order = permutation(count).tolist()
    ends = [sum(whole[: i + 1]) for i in range(len(whole))]
    return [Subset(dataset, order[end - n : end]) for n, end in zip(whole, ends)]


def _listed(shapes: Sequence[tuple[int, ...]]) -> str:
    return ", ".join(str(list(shape)) for shape in shapes)


def has_items(dataset: object) -> bool:
    """Are its items had by their numbers?"""
    return (hasattr(dataset, "__getitem__") and hasattr(dataset, "__len__")) or is_tensor(dataset)
