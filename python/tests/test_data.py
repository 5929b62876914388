"""Datasets, samplers, loaders and their workers."""

import collections
import dataclasses
import gzip
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import ornik
from ornik import data

Point = collections.namedtuple("Point", "x y")
CONTEXTS = ["fork", "forkserver", "spawn"]


@dataclasses.dataclass
class Row:
    x: float
    name: str


class Noisy:
    """Items that draw, some slower than others, that fail or end the process on demand."""

    def __init__(self, fail_at=None, exit_at=None):
        self.fail_at, self.exit_at = fail_at, exit_at

    def __len__(self):
        return 23

    def __getitem__(self, i):
        if i == self.fail_at:
            raise KeyError(f"item {i}")
        if i == self.exit_at:
            os.kill(os.getpid(), signal.SIGKILL)
        time.sleep(0.003 * (i % 3))
        return {"i": i, "noise": ornik.random.rand(2), "large": np.full(30_000, i)}


class Stream:
    def __init__(self, n):
        self.n = n

    def __iter__(self):
        return iter(range(self.n))


class Shards(Stream):
    def shard(self, worker, workers):
        return range(worker, self.n, workers)


def listed(loader):
    return [{key: value.tolist() for key, value in batch.items()} for batch in loader]


def test_datasets():
    points = data.TensorDataset(ornik.arange(10), np.arange(20.0).reshape(10, 2))
    assert len(points) == 10 and points[-1][1].tolist() == [18, 19]
    part = data.Subset(points, [7, -1])
    assert len(part) == 2 and part[1][0].item() == 9 and part.batch([1, 0])[0].tolist() == [9, 7]
    assert not hasattr(data.Subset(range(3), [0]), "batch")
    both = data.ConcatDataset([range(3), [], "ab"])
    assert [both[i] for i in range(-5, 5)] == [0, 1, 2, "a", "b"] * 2
    for seed, lengths, found in [(1, [4, 6], [4, 6]), (1, [0.5, 0.25, 0.25], [6, 2, 2]), (None, [0, 10], [0, 10])]:
        parts = data.random_split(range(10), lengths, seed=seed)
        assert [len(p) for p in parts] == found and sorted(i for p in parts for i in p) == list(range(10))
    assert list(data.random_split(range(99), [99], seed=4)[0]) == list(data.random_split(range(99), [99], seed=4)[0])
    for error, text, call in [
        (
            ValueError,
            "first extents differ or are missing: [10], []",
            lambda: data.TensorDataset(ornik.zeros(10), 1),
        ),
        (ValueError, "at least one tensor is wanted", data.TensorDataset),
        (IndexError, "Subset(): there is no item 3 among 3", lambda: data.Subset(range(3), [3])),
        (IndexError, "there is no item 5 among 5", lambda: both[5]),
        (ValueError, "add up to 1, not [0.5, 0.1]", lambda: data.random_split(range(9), [0.5, 0.1])),
        (ValueError, "add up to 9, not [5, 5]", lambda: data.random_split(range(9), [5, 5])),
    ]:
        with pytest.raises(error) as caught:
            call()
        assert text in str(caught.value)


def test_samplers():
    assert list(data.SequentialSampler("abc")) == [0, 1, 2]
    assert list(data.BatchSampler(range(5), 2)) == [[0, 1], [2, 3], [4]] and len(data.BatchSampler(range(5), 2)) == 3
    assert list(data.BatchSampler(range(5), 2, True)) == [[0, 1], [2, 3]]
    one, other = data.RandomSampler(100, seed=5), data.RandomSampler(100, seed=5)
    first = list(one)
    assert first == list(other) and sorted(first) == list(range(100)) and first != list(one)
    assert len(list(data.RandomSampler(3, num_samples=8))) == 8
    repeated = list(data.RandomSampler(10, replacement=True, num_samples=500, seed=1))
    assert len(repeated) == 500 and set(repeated) == set(range(10)) and len(set(repeated[:10])) < 10
    assert sorted(data.SubsetRandomSampler([4, 9, 2], seed=1)) == [2, 4, 9]
    drawn = collections.Counter(data.WeightedRandomSampler([1, 0, 3], 4000, seed=2))
    assert drawn[1] == 0 and 900 < drawn[0] < 1100  # 1000 expected, deviation 27.
    assert sorted(data.WeightedRandomSampler([1, 0, 3], 2, False, seed=2)) == [0, 2]
    for text, call in [
        ("a batch holds at least 1 item; batch_size is 0", lambda: data.BatchSampler([], 0)),
        ("3 samples can not be drawn from 2 items", lambda: data.WeightedRandomSampler([1, 0, 3], 3, False)),
        ("finite numbers of 0 and above", lambda: data.WeightedRandomSampler([1, float("nan")], 3)),
        ("1 samples can not be drawn from 0 items", lambda: data.RandomSampler(0, num_samples=1)),
    ]:
        with pytest.raises(ValueError) as caught:
            call()
        assert text in str(caught.value)


def test_collate():
    items = [{"p": Point(1, [ornik.ones(2)]), "r": Row(0.5, "a"), "n": None, "b": True}] * 2
    batch = data.collate(items)
    assert isinstance(batch["p"], Point) and batch["p"].x.dtype is ornik.int64 and batch["p"].y[0].shape == (2, 2)
    assert batch["r"].x.tolist() == [0.5, 0.5] and batch["r"].name == ["a", "a"] and batch["n"] == [None, None]
    assert batch["b"].dtype is ornik.bool and data.collate([np.float64(2)]).dtype is ornik.float64
    for error, text, wrong in [
        (TypeError, "there is no batch of object at ['a'][1]", [{"a": (1, object())}]),
        (ValueError, "items are [2] float32 and [3] float32 at [0]", [(ornik.ones(2),), (ornik.ones(3),)]),
        (ValueError, "items have different keys", [{"a": 1}, {"b": 1}]),
        (ValueError, "items have different lengths at ['a']", [{"a": [1]}, {"a": []}]),
    ]:
        with pytest.raises(error) as caught:
            data.collate(wrong)
        assert text in str(caught.value)


def test_same_batches_for_any_workers():
    def loader(**options):
        return data.DataLoader(Noisy(), batch_size=4, shuffle=True, seed=9, **options)

    plain = loader()
    expected = [listed(plain), listed(plain)]
    assert expected[0] != expected[1] and len(plain) == 6 == len(expected[0])
    assert sorted(i for batch in expected[0] for i in batch["i"]) == list(range(23))
    for workers in (1, 3):
        for options in [{}, {"prefetch": 1}, *({"worker_kind": "process", "context": c} for c in CONTEXTS)]:
            other = loader(num_workers=workers, **options)
            assert listed(other) == expected[0], (workers, options)
            if options.get("context") in (None, "fork"):
                assert listed(other) == expected[1]
    assert len(listed(loader(num_workers=2, drop_last=True))) == 5
    ornik.random.seed(3)
    drawn = [listed(data.DataLoader(Noisy(), 4, True, num_workers=n)) for n in (0, 2)]
    ornik.random.seed(3)
    assert listed(data.DataLoader(Noisy(), 4, True, num_workers=1)) == drawn[0] != drawn[1]
    later = loader()
    later.epoch = 1
    assert listed(later) == expected[1]


def test_tensors_come_as_whole_batches():
    x = ornik.random.rand(10, 3)
    for workers, kind in [(0, "thread"), (2, "thread"), (2, "process")]:
        batches = list(data.DataLoader(data.TensorDataset(x, x[:, 0]), 4, num_workers=workers, worker_kind=kind))
        assert [b[0].shape for b in batches] == [(4, 3), (4, 3), (2, 3)]
        assert ornik.concat([b[0] for b in batches]).tolist() == x.tolist()
        batches[0][0][0] = 1.0  # What arrives may be written to.
    assert [item.tolist() for item in data.DataLoader(x, batch_size=None)] == x.tolist()
    sampled = data.DataLoader(range(9), batch_sampler=[[1, 2], [8]], collate_fn=list)
    assert list(sampled) == [[1, 2], [8]]


@pytest.mark.parametrize("kind", ["thread", "process"])
def test_streams(kind):
    def values(dataset, **options):
        return [batch.tolist() for batch in data.DataLoader(dataset, 3, worker_kind=kind, **options)]

    assert values(Stream(7), num_workers=0) == values(Stream(7), num_workers=3) == [[0, 1, 2], [3, 4, 5], [6]]
    assert values(Stream(7), num_workers=2, drop_last=True) == [[0, 1, 2], [3, 4, 5]]
    assert values(Shards(11), num_workers=2) == [[0, 2, 4], [1, 3, 5], [6, 8, 10], [7, 9]]
    assert sorted(x for b in values(Shards(40), num_workers=3) for x in b) == list(range(40))
    assert list(data.DataLoader(Stream(3), None, num_workers=2, worker_kind=kind)) == [0, 1, 2]
    with pytest.raises(ValueError, match="has an order of its own"):
        data.DataLoader(Stream(3), shuffle=True)


@pytest.mark.parametrize("kind", ["thread", "process"])
def test_exceptions_and_early_ends(kind):
    before = threading.active_count()
    loader = data.DataLoader(Noisy(fail_at=9), 4, num_workers=2, worker_kind=kind)
    batches = iter(loader)
    assert next(batches)["i"].tolist() == [0, 1, 2, 3] and next(batches)["i"].tolist() == [4, 5, 6, 7]
    with pytest.raises(KeyError) as caught:
        next(batches)
    assert caught.value.args == ("item 9",)
    trace = [entry.name for entry in caught.traceback]
    assert "__getitem__" in trace or "in __getitem__" in str(caught.value.__cause__)
    assert list(batches) == []
    for _ in data.DataLoader(Noisy(), 2, num_workers=2, worker_kind=kind):
        break
    abandoned = iter(data.DataLoader(Noisy(), 2, num_workers=2, worker_kind=kind))
    next(abandoned)
    del abandoned
    assert threading.active_count() == before
    if kind == "process":
        with pytest.raises(RuntimeError, match=r"worker process 0 \(\d+\) has ended with exit code -9 before"):
            list(data.DataLoader(Noisy(exit_at=9), 4, num_workers=2, worker_kind=kind))


PROGRAM = """
import ornik, os, signal, sys, time
class Slow:
    def __len__(self): return 100
    def __getitem__(self, i):
        time.sleep(0.01)
        return i
if __name__ == "__main__":
    x = ornik.ones((400, 400))
    (x @ x).sum()  # Threads of the library are about before the processes start.
    batches = iter(ornik.data.DataLoader(Slow(), 1, num_workers=2, worker_kind=sys.argv[1]))
    print(next(batches).tolist(), flush=True)
    if sys.argv[2] == "kill":
        print(*(p.pid for p in batches._pool._processes), flush=True)
        os.kill(os.getpid(), signal.SIGKILL)
"""


@pytest.mark.parametrize("kind,end", [("thread", ""), ("process", ""), ("process", "kill")])
def test_a_program_that_ends_early(kind, end, tmp_path):
    script = tmp_path / "program.py"
    script.write_text(PROGRAM)
    ran = subprocess.run([sys.executable, script, kind, end], capture_output=True, text=True, timeout=60)
    assert ran.stdout.startswith("[0]\n") and ran.stderr == "" and ran.returncode == (-9 if end else 0)
    for pid in ran.stdout.split()[1:]:
        deadline = time.monotonic() + 20
        while os.path.exists(f"/proc/{pid}") and pathlib.Path(f"/proc/{pid}/stat").read_text().split()[2] != "Z":
            assert time.monotonic() < deadline, "a worker has outlived its parent"
            time.sleep(0.02)


def test_a_loader_refuses():
    for error, text, options in [
        (ValueError, "num_workers is 0 and above", {"num_workers": -1}),
        (ValueError, 'worker_kind is "thread" or "process"', {"worker_kind": "fibre"}),
        (ValueError, "there is at most one", {"shuffle": True, "sampler": [1]}),
        (ValueError, "from 0 to 2**32 - 1, not -1", {"seed": -1}),
        (ValueError, "batch_size and drop_last of its own", {"batch_sampler": [[1]], "batch_size": 2}),
    ]:
        with pytest.raises(error) as caught:
            data.DataLoader(range(3), **options)
        assert text in str(caught.value)
    with pytest.raises(TypeError, match="int has neither items nor an iterator"):
        data.DataLoader(3)


def test_idx_files(tmp_path):
    codes = {"u1": 8, "i1": 9, ">i2": 11, ">i4": 12, ">f4": 13, ">f8": 14}
    path = tmp_path / "numbers"
    for code, number in codes.items():
        array = np.arange(6).reshape(3, 2).astype(code)
        content = bytes([0, 0, number, 2, 0, 0, 0, 3, 0, 0, 0, 2]) + array.tobytes()
        for bytes_of in (content, gzip.compress(content)):
            path.write_bytes(bytes_of)
            read = data.read_idx(path)
            assert read.tolist() == array.tolist() and read.dtype.name == array.dtype.name and not read.readonly
    for text, wrong in [
        ("is no IDX file", b"\0\0\7\1"),
        ("is no IDX file", b""),
        ("the header is cut short", content[:9]),
        ("[3, 2] float64 takes 48 bytes, but there are 47", content[:-1]),
        ("the gzip file is damaged", gzip.compress(content)[:-9]),
    ]:
        path.write_bytes(wrong)
        with pytest.raises(ValueError) as caught:
            data.read_idx(path)
        assert str(caught.value).startswith(str(path)) and text in str(caught.value)
