"""Workers: threads or processes that make batches in the background.

Both kinds have the same face: ``put(worker, number, work)`` gives a worker something to do, ``get(worker, number)``
waits for what came of it, ``stop()`` ends the workers and may come at any time.
"""

from __future__ import annotations

import os
import pickle
import queue
import threading
import traceback
from collections.abc import Callable
from typing import Any

__all__ = ["Failure", "Processes", "Threads", "WorkerTraceback"]

#: Buffers of a batch from which on they go through shared memory and not through a pipe.
_SHARED_FROM = 1 << 16


class WorkerTraceback(Exception):
    """Where an exception of a worker process came from: its cause."""

    def __str__(self) -> str:
        return f"\n{self.args[0]}"


class Failure:
    """An exception in place of a result."""

    def __init__(self, error: BaseException) -> None:
        self.error = error

    def __reduce__(self) -> tuple[Any, ...]:
        text = "".join(traceback.format_exception(self.error))
        try:
            data = pickle.dumps(self.error)
            pickle.loads(data)
        except Exception:
            name = type(self.error).__name__
            data = pickle.dumps(RuntimeError(f"{name} in a worker: {self.error}"))
        return _failure_from, (data, text)


def _failure_from(data: bytes, text: str) -> Failure:
    error = pickle.loads(data)
    error.__cause__ = WorkerTraceback(text)
    return Failure(error)


class Threads:
    """Worker threads; worker k makes what is put for it, in order."""

    def __init__(self, make: Callable[[int], Callable[[Any], Any]], workers: int) -> None:
        self._queues: list[queue.SimpleQueue[Any]] = [queue.SimpleQueue() for _ in range(workers)]
        self._results: dict[int, Any] = {}
        self._changed = threading.Condition()
        self._stopped = threading.Event()
        self._threads = [
            threading.Thread(
                target=_thread_main,
                args=(make, k, self._queues[k], self._results, self._changed, self._stopped),
                name=f"ornik.data worker {k}",
                daemon=True,
            )
            for k in range(workers)
        ]
        for thread in self._threads:
            thread.start()

    def put(self, worker: int, number: int, work: Any) -> None:
        self._queues[worker].put((number, work))

    def get(self, _: int, number: int) -> Any:
        with self._changed:
            while number not in self._results:
                self._changed.wait()
            return self._results.pop(number)

    def stop(self) -> None:
        self._stopped.set()
        for tasks in self._queues:
            tasks.put(None)
        for thread in self._threads:
            if thread is not threading.current_thread():
                thread.join(5)  # One that waits for something else is left to itself.


def _thread_main(
    make: Callable[[int], Callable[[Any], Any]],
    worker: int,
    tasks: queue.SimpleQueue[Any],
    results: dict[int, Any],
    changed: threading.Condition,
    stopped: threading.Event,
) -> None:
    run: Callable[[Any], Any] | None = None
    while True:
        task = tasks.get()
        if task is None or stopped.is_set():
            return
        number, work = task
        try:
            run = run or make(worker)
            result = run(work)
        except BaseException as error:
            result = Failure(error)
        with changed:
            results[number] = result
            changed.notify_all()


class Processes:
    """Worker processes; worker k makes what is put for it, in order."""

    def __init__(self, make: Callable[[int], Callable[[Any], Any]], workers: int, context: str | None) -> None:
        import multiprocessing

        chosen: Any = multiprocessing.get_context(context)
        self._owner = os.getpid()
        self._results: dict[int, Any] = {}
        self._pipes: list[Any] = []
        self._processes: list[Any] = []
        try:
            for k in range(workers):
                ours, theirs = chosen.Pipe()
                self._pipes.append(ours)
                forked = list(self._pipes) if chosen.get_start_method() == "fork" else []
                process = chosen.Process(
                    target=_process_main, args=(make, k, theirs, forked), name=f"ornik.data worker {k}", daemon=True
                )
                process.start()
                self._processes.append(process)
                theirs.close()
        except BaseException:
            self.stop()
            raise

    def put(self, worker: int, number: int, work: Any) -> None:
        try:
            self._pipes[worker].send((number, work))
        except OSError:
            self._fail(worker)

    def get(self, worker: int, number: int) -> Any:
        from multiprocessing.connection import wait

        pipe = self._pipes[worker]
        while number not in self._results:
            if pipe not in wait([pipe, self._processes[worker].sentinel]):
                self._fail(worker)
            try:
                done, result = _receive(pipe)
            except (EOFError, ConnectionError):
                self._fail(worker)
            self._results[done] = result
        return self._results.pop(number)

    def _fail(self, worker: int) -> None:
        process = self._processes[worker]
        process.join(5)
        raise RuntimeError(
            f"worker process {worker} ({process.pid}) has ended with exit code {process.exitcode} before its work was "
            "done"
        )

    def stop(self) -> None:
        for pipe in self._pipes:
            pipe.close()  # The end for the process that reads from it.
        if self._owner != os.getpid():
            return  # A copy in a forked process: the workers are not its own.
        for process in self._processes:
            process.join(1)
            if process.is_alive():
                process.kill()
                process.join()
            process.close()
        self._pipes, self._processes = [], []


def _process_main(make: Callable[[int], Callable[[Any], Any]], worker: int, pipe: Any, inherited: list[Any]) -> None:
    import signal

    signal.signal(signal.SIGINT, signal.SIG_IGN)  # The parent is interrupted, and ends this process.
    for other in inherited:
        other.close()
    from .. import _ornik

    _ornik.set_num_threads(1)  # The processes themselves are the parallel work.
    tasks: queue.SimpleQueue[Any] = queue.SimpleQueue()
    # Tasks are taken out of the pipe at once: the parent never waits, and its end is noticed in the middle of work.
    threading.Thread(target=_listen, args=(pipe, tasks), daemon=True).start()
    run: Callable[[Any], Any] | None = None
    while True:
        number, work = tasks.get()
        try:
            _seed_others(work[0])
            run = run or make(worker)
            message = _packed(number, run(work))
        except BaseException as error:
            message = _packed(number, Failure(error))
        try:
            _send(pipe, *message)
        except OSError:
            os._exit(0)


def _seed_others(seed: int) -> None:
    """Python's and NumPy's own numbers follow the batch, too, where a process has them to itself."""
    import random
    import sys

    random.seed(seed)
    numpy: Any = sys.modules.get("numpy")
    if numpy is not None:
        numpy.random.seed(seed)


def _listen(pipe: Any, tasks: queue.SimpleQueue[Any]) -> None:
    try:
        while True:
            tasks.put(pipe.recv())
    except (EOFError, OSError):
        os._exit(0)


def _packed(number: int, result: Any) -> tuple[int, bytes, list[memoryview]]:
    buffers: list[pickle.PickleBuffer] = []
    data = pickle.dumps(result, protocol=5, buffer_callback=buffers.append)
    return number, data, [buffer.raw() for buffer in buffers]


def _send(pipe: Any, number: int, data: bytes, parts: list[memoryview]) -> None:
    """The message, with its buffers in shared memory that has no name, or behind it where they are small."""
    extents = [part.nbytes for part in parts]
    shared = _shared_memory(parts) if sum(extents) >= _SHARED_FROM else None
    pipe.send((number, data, extents, shared is not None))
    if shared is None:
        for part in parts:
            pipe.send_bytes(part)
        return
    from multiprocessing import reduction

    try:
        reduction.send_handle(pipe, shared, os.getppid())
    finally:
        os.close(shared)


def _shared_memory(parts: list[memoryview]) -> int | None:
    """A file of memory with all parts in it, or None where there is none to be had."""
    if not hasattr(os, "memfd_create") or not hasattr(os, "posix_fallocate"):
        return None
    import mmap

    total = sum(_aligned(part.nbytes) for part in parts)
    handle = os.memfd_create("ornik.data")
    try:
        os.posix_fallocate(handle, 0, total)  # Now, not as a bus error when it is written to.
        with mmap.mmap(handle, total) as target:
            begin = 0
            for part in parts:
                target[begin : begin + part.nbytes] = part
                begin += _aligned(part.nbytes)
    except OSError:
        os.close(handle)
        return None
    return handle


def _aligned(nbytes: int) -> int:
    return -(-nbytes // 64) * 64


def _receive(pipe: Any) -> tuple[int, Any]:
    number, data, extents, is_shared = pipe.recv()
    buffers: list[Any] = []
    if is_shared:
        import mmap
        from multiprocessing import reduction

        handle = reduction.recv_handle(pipe)
        try:
            # The tensors hold it; the last one gives it back.
            memory = memoryview(mmap.mmap(handle, sum(map(_aligned, extents))))
        finally:
            os.close(handle)
        begin = 0
        for nbytes in extents:
            buffers.append(memory[begin : begin + nbytes])
            begin += _aligned(nbytes)
    else:
        buffers.extend(bytearray(pipe.recv_bytes()) for _ in extents)
    return number, pickle.loads(data, buffers=buffers)
