"""The order in which items are read."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence, Sized
from typing import TYPE_CHECKING

from .. import _dtypes, _ornik
from .._convert import from_object

if TYPE_CHECKING:
    from ..random import Generator

__all__ = ["BatchSampler", "RandomSampler", "SequentialSampler", "SubsetRandomSampler", "WeightedRandomSampler"]


def _count(name: str, of: Sized | int) -> int:
    count = of if isinstance(of, int) else len(of)
    if count < 0:
        raise ValueError(f"{name}(): a number of items is 0 and above, not {count}")
    return count


class _Drawing:
    """What samplers that draw share. With a seed they go on with their own numbers from one iteration to the next."""

    def __init__(self, seed: int | None) -> None:
        from ..random import Generator

        self._generator: Generator | None = None if seed is None else Generator(seed)

    def _permutation(self, n: int) -> list[int]:
        from ..random import permutation

        order: list[int]
        if self._generator is None:
            order = permutation(n).tolist()
        else:
            with self._generator:
                order = permutation(n).tolist()
        return order


class SequentialSampler:
    """0, 1, 2 ... for a dataset, or for a number of items."""

    def __init__(self, dataset: Sized | int) -> None:
        self._length = _count("SequentialSampler", dataset)

    def __iter__(self) -> Iterator[int]:
        return iter(range(self._length))

    def __len__(self) -> int:
        return self._length


class RandomSampler(_Drawing):
    """Every item once in random order; with ``replacement`` each draw is from all items.

    ``num_samples`` is how many to draw, and the number of items by default. Without a seed the default generator
    draws, inside a loader that of the loader's seed.

    >>> sorted(ornik.data.RandomSampler(4, seed=3))
    [0, 1, 2, 3]
    """

    def __init__(
        self,
        dataset: Sized | int,
        replacement: bool = False,
        num_samples: int | None = None,
        *,
        seed: int | None = None,
    ) -> None:
        super().__init__(seed)
        self._of = _count("RandomSampler", dataset)
        self._replacement = replacement
        self._length = self._of if num_samples is None else num_samples
        if self._length < 0 or (self._length > 0 and self._of == 0):
            raise ValueError(f"RandomSampler(): {self._length} samples can not be drawn from {self._of} items")

    def __iter__(self) -> Iterator[int]:
        left = self._length
        while left > 0:
            if self._replacement:
                drawn = _randint(self._of, left, self._generator)
            else:
                drawn = self._permutation(self._of)[:left]
            left -= len(drawn)
            yield from drawn

    def __len__(self) -> int:
        return self._length


class SubsetRandomSampler(_Drawing):
    """These numbers of items, each once, in random order."""

    def __init__(self, indices: Sequence[int], *, seed: int | None = None) -> None:
        super().__init__(seed)
        self.indices = [int(i) for i in indices]

    def __iter__(self) -> Iterator[int]:
        return (self.indices[i] for i in self._permutation(len(self.indices)))

    def __len__(self) -> int:
        return len(self.indices)


class WeightedRandomSampler(_Drawing):
    """Items drawn with probabilities that are proportional to ``weights``, each a finite number of 0 and above.

    Without ``replacement`` no item comes twice.

    >>> list(ornik.data.WeightedRandomSampler([0.0, 1.0, 0.0], 4))
    [1, 1, 1, 1]
    """

    def __init__(self, weights: object, num_samples: int, replacement: bool = True, *, seed: int | None = None) -> None:
        super().__init__(seed)
        self.weights = _ornik.astype(from_object(weights, None, None), _dtypes.float64)
        if self.weights.ndim != 1:
            raise ValueError(f"WeightedRandomSampler(): weights are a list, not {list(self.weights.shape)}")
        given: list[float] = self.weights.tolist()
        if not all(0 <= w < float("inf") for w in given):
            raise ValueError("WeightedRandomSampler(): weights are finite numbers of 0 and above")
        possible = sum(w > 0 for w in given)
        if num_samples < 0 or (num_samples > 0 and possible == 0) or (not replacement and num_samples > possible):
            raise ValueError(f"WeightedRandomSampler(): {num_samples} samples can not be drawn from {possible} items")
        self._length = num_samples
        self._replacement = replacement

    def __iter__(self) -> Iterator[int]:
        if self._length == 0:
            return iter(())
        if self._generator is None:
            return iter(self._draw())
        with self._generator:
            return iter(self._draw())

    def _draw(self) -> list[int]:
        drawn: list[int] = _ornik.multinomial(self.weights, self._length, self._replacement).tolist()
        return drawn

    def __len__(self) -> int:
        return self._length


class BatchSampler:
    """Lists of ``batch_size`` numbers of another sampler; ``drop_last`` leaves out a last one that is shorter."""

    def __init__(self, sampler: Iterable[int], batch_size: int, drop_last: bool = False) -> None:
        if isinstance(batch_size, bool) or not isinstance(batch_size, int) or batch_size < 1:
            raise ValueError(f"a batch holds at least 1 item; batch_size is {batch_size!r}")
        self.sampler = sampler
        self.batch_size = batch_size
        self.drop_last = drop_last

    def __iter__(self) -> Iterator[list[int]]:
        batch: list[int] = []
        for index in self.sampler:
            batch.append(int(index))
            if len(batch) == self.batch_size:
                yield batch
                batch = []
        if batch and not self.drop_last:
            yield batch

    def __len__(self) -> int:
        count = len(self.sampler)  # type: ignore[arg-type]
        return count // self.batch_size if self.drop_last else -(-count // self.batch_size)


def _randint(n: int, count: int, generator: Generator | None) -> list[int]:
    from ..random import randint

    drawn: list[int]
    if generator is None:
        drawn = randint(0, n, (count,)).tolist()
    else:
        with generator:
            drawn = randint(0, n, (count,)).tolist()
    return drawn
