"""Batches, made by the caller or by workers in the background."""

from __future__ import annotations

import weakref
from collections import deque
from collections.abc import Callable, Iterable, Iterator
from typing import TYPE_CHECKING, Any, Literal

from ._collate import collate
from ._datasets import Dataset, IterableDataset, has_items
from ._samplers import BatchSampler, RandomSampler, SequentialSampler

if TYPE_CHECKING:
    from ._workers import Processes, Threads

__all__ = ["DataLoader"]


class DataLoader:
    """Batches of a dataset, once through with every iteration.

    ``dataset`` gives items by their numbers (:class:`Dataset`) or one after the other (:class:`IterableDataset`). The
    numbers come in order, with ``shuffle`` in an order drawn anew for each iteration, or from a ``sampler``; a
    ``batch_sampler`` gives lists of numbers. ``collate_fn`` makes a batch of a list of items, :func:`collate` by
    default; with ``batch_size=None`` items come as they are.

    ``num_workers`` make up to ``prefetch`` batches each ahead of time: threads, which share the memory and suit items
    that C++, NumPy or files give, or, with ``worker_kind="process"``, processes, which suit items that Python
    computes. They are started as ``context`` tells, one of multiprocessing's start methods, its default when None;
    all but "fork" need a dataset that pickles and a script that guards its work by ``if __name__ == "__main__":``.

    The order, and whatever ``ornik.random`` draws for a batch, depend on ``seed``, on the number of iterations before
    (``epoch``, which may be set) and on the batch, not on the number or kind of workers. Without a seed the default
    generator draws one for each iteration. In worker processes ``random`` and ``numpy.random`` are seeded, too.

    An exception of a worker is raised where its batch would have come, with the worker's traceback.

    >>> loader = ornik.data.DataLoader(range(5), batch_size=2, shuffle=True, num_workers=2, seed=1)
    >>> sorted(x for batch in loader for x in batch.tolist())
    [0, 1, 2, 3, 4]
    """

    def __init__(
        self,
        dataset: Dataset[Any] | IterableDataset[Any],
        batch_size: int | None = 1,
        shuffle: bool = False,
        *,
        sampler: Iterable[int] | None = None,
        batch_sampler: Iterable[list[int]] | None = None,
        collate_fn: Callable[[list[Any]], Any] | None = None,
        num_workers: int = 0,
        worker_kind: Literal["thread", "process"] = "thread",
        prefetch: int = 2,
        drop_last: bool = False,
        seed: int | None = None,
        context: str | None = None,
    ) -> None:
        if num_workers < 0 or prefetch < 1:
            raise ValueError(f"DataLoader(): num_workers is 0 and above, prefetch 1, not {num_workers} and {prefetch}")
        if worker_kind not in ("thread", "process"):
            raise ValueError(f'DataLoader(): worker_kind is "thread" or "process", not {worker_kind!r}')
        if seed is not None and not 0 <= seed < 2**32:
            raise ValueError(f"a seed is a whole number from 0 to 2**32 - 1, not {seed}")
        if bool(shuffle) + (sampler is not None) + (batch_sampler is not None) > 1:
            raise ValueError("DataLoader(): of shuffle, sampler and batch_sampler there is at most one")
        if batch_sampler is not None and (batch_size not in (1, None) or drop_last):
            raise ValueError("DataLoader(): a batch_sampler has batch_size and drop_last of its own")
        self._by_number = has_items(dataset)
        if not self._by_number:
            if not hasattr(dataset, "__iter__"):
                raise TypeError(f"DataLoader(): {type(dataset).__name__} has neither items nor an iterator")
            if shuffle or sampler is not None or batch_sampler is not None:
                raise ValueError("DataLoader(): a dataset without numbers of items has an order of its own")
            BatchSampler((), 1 if batch_size is None else batch_size)  # Checks the size.
        self.dataset = dataset
        self.batch_size = batch_size
        self.drop_last = drop_last
        self.collate_fn = collate_fn
        self.num_workers = num_workers
        self.worker_kind = worker_kind
        self.prefetch = prefetch
        self.seed = seed
        self.context = context
        #: The number of iterations begun.
        self.epoch = 0
        self._order: Any = range(0)
        if self._by_number:
            if sampler is None:
                sized: Any = dataset
                sampler = RandomSampler(sized) if shuffle else SequentialSampler(sized)
            if batch_sampler is not None:
                self._order = batch_sampler
            else:
                self._order = sampler if batch_size is None else BatchSampler(sampler, batch_size, drop_last)

    def __len__(self) -> int:
        """The number of batches."""
        if self._by_number:
            return len(self._order)
        count = len(self.dataset)  # type: ignore[arg-type]
        size = 1 if self.batch_size is None else self.batch_size
        return count // size if self.drop_last else -(-count // size)

    def __iter__(self) -> Iterator[Any]:
        if self.seed is None:
            from ..random import randint

            seed = int(randint(0, 2**32))
        else:
            seed = _mixed(self.seed, self.epoch)
        self.epoch += 1
        maker: _Maker
        if self._by_number:
            maker = _ByNumber(self.dataset, self.collate_fn)
        else:
            maker = _InTurn(self.dataset, self.collate_fn, self.batch_size, self.drop_last, self._streams())
        return _Iterator(self, maker, seed) if self.num_workers else _alone(self, maker, seed)

    def _streams(self) -> int:
        """Among how many workers the items of an iterable are shared out."""
        return max(1, self.num_workers) if hasattr(self.dataset, "shard") else 1

    def _work(self, seed: int) -> Iterator[Any]:
        """What is to be done for each batch; for an iterable without an end, which is found on the way."""
        if not self._by_number:
            while True:
                yield None
        from ..random import Generator

        generator = Generator(seed)
        order: Iterator[Any] | None = None
        while True:
            with generator:  # Around each step, not around the caller's own work between two of them.
                if order is None:
                    order = iter(self._order)
                step = next(order, _END)
            if step is _END:
                return
            yield step


class _End:
    """Nothing more comes."""

    def __reduce__(self) -> str:
        return "_END"


_END = _End()


def _mixed(*numbers: int) -> int:
    """A seed of these numbers: another one wherever one of them differs."""
    state = 0x9E3779B97F4A7C15
    for number in numbers:
        state = (state + number + 1) * 0xBF58476D1CE4E5B9 % 2**64
        state ^= state >> 29
        state = state * 0x94D049BB133111EB % 2**64
        state ^= state >> 32
    return state % 2**32


class _Maker:
    """Makes the batches of one worker; called with the worker's number it gives the function that does."""

    def __init__(self, dataset: Any, collate_fn: Callable[[list[Any]], Any] | None) -> None:
        self.dataset = dataset
        self.collate_fn = collate_fn

    def __call__(self, worker: int) -> Callable[[tuple[int, Any]], Any]:
        from ..random import Generator

        make = self.maker(worker)

        def run(work: tuple[int, Any]) -> Any:
            with Generator(work[0]):
                return make(work[1])

        return run

    def maker(self, worker: int) -> Callable[[Any], Any]:
        raise NotImplementedError


class _ByNumber(_Maker):
    def maker(self, worker: int) -> Callable[[Any], Any]:
        dataset, collate_fn = self.dataset, self.collate_fn
        whole: Callable[[Any], Any] | None = getattr(dataset, "batch", None) if collate_fn is None else None
        join = collate if collate_fn is None else collate_fn

        def make(step: Any) -> Any:
            if not isinstance(step, (list, tuple)):
                item = dataset[step]
                return item if collate_fn is None else collate_fn(item)
            return join([dataset[i] for i in step]) if whole is None else whole(step)

        return make


class _InTurn(_Maker):
    def __init__(
        self,
        dataset: Any,
        collate_fn: Callable[[list[Any]], Any] | None,
        batch_size: int | None,
        drop_last: bool,
        streams: int,
    ) -> None:
        super().__init__(dataset, collate_fn)
        self.batch_size = batch_size
        self.drop_last = drop_last
        self.streams = streams

    def maker(self, worker: int) -> Callable[[Any], Any]:
        items: Iterator[Any] | None = None
        collate_fn = self.collate_fn
        join = collate if collate_fn is None else collate_fn

        def make(_: Any) -> Any:
            nonlocal items
            if items is None:
                items = iter(self.dataset.shard(worker, self.streams) if self.streams > 1 else self.dataset)
            if self.batch_size is None:
                item: Any = next(items, _END)
                return item if collate_fn is None or item is _END else collate_fn(item)
            batch: list[Any] = []
            for item in items:
                batch.append(item)
                if len(batch) == self.batch_size:
                    return join(batch)
            return _END if not batch or self.drop_last else join(batch)

        return make


def _alone(loader: DataLoader, maker: _Maker, seed: int) -> Iterator[Any]:
    run = maker(0)
    for number, step in enumerate(loader._work(seed)):
        batch = run((_mixed(seed, number), step))
        if batch is _END:
            return
        yield batch


class _Iterator:
    """One time through, with workers."""

    def __init__(self, loader: DataLoader, maker: _Maker, seed: int) -> None:
        from . import _workers

        workers = loader.num_workers if loader._by_number else loader._streams()
        self._failure = _workers.Failure
        self._pool: Threads | Processes
        if loader.worker_kind == "thread":
            self._pool = _workers.Threads(maker, workers)
        else:
            self._pool = _workers.Processes(maker, workers, loader.context)
        # Also when the loop is left early, and at the program's end.
        self._stop = weakref.finalize(self, self._pool.stop)
        self._work = enumerate(loader._work(seed))
        self._seed = seed
        self._ahead = loader.prefetch * workers
        self._asked: deque[tuple[int, int]] = deque()
        # Workers that have more to give, in turn.
        self._turns = deque(range(workers))

    def __iter__(self) -> _Iterator:
        return self

    def __next__(self) -> Any:
        try:
            return self._next()
        except BaseException:
            self._stop()
            self._turns.clear()
            self._asked.clear()
            raise

    def _next(self) -> Any:
        while True:
            while self._turns and len(self._asked) < self._ahead:
                number, step = next(self._work, (-1, _END))
                if step is _END:
                    self._turns.clear()
                    break
                worker = self._turns[0]
                self._turns.rotate(-1)
                self._pool.put(worker, number, (_mixed(self._seed, number), step))
                self._asked.append((worker, number))
            if not self._asked:
                raise StopIteration
            worker, number = self._asked.popleft()
            batch = self._pool.get(worker, number)
            if batch is _END:
                if worker in self._turns:
                    self._turns.remove(worker)
                continue
            if isinstance(batch, self._failure):
                raise batch.error
            return batch
