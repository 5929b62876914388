"""Memory shared with others: who sees whose writes, who keeps what alive, and what is refused."""

import array
import ctypes
import gc
import threading
import weakref

import numpy as np
import pytest

import ornik


class Producer:
    """An array that hands out capsules of the version it is told to, and says when its owner has died."""

    def __init__(self, data, versioned=True):
        self.data = data
        self.versioned = versioned

    def __dlpack__(self, **arguments):
        if self.versioned:
            return self.data.__dlpack__(**arguments)
        return self.data.__dlpack__()

    def __dlpack_device__(self):
        return (1, 0)


def test_both_see_writes():
    a = np.zeros((3, 4))
    for x in (ornik.asarray(a), ornik.from_numpy(a), ornik.from_dlpack(a), ornik.asarray(memoryview(a))):
        x[1, 2] = 5
        assert a[1, 2] == 5
        a[1, 2] = 0
        assert float(x[1, 2]) == 0
        out = np.asarray(x.T[::-1])
        assert np.shares_memory(out, a)
    for source in (bytearray(8), array.array("d", [0.0]), (ctypes.c_double * 1)()):
        x = ornik.asarray(source)
        x[0] = 1
        assert bytes(memoryview(source)) != bytes(8)
    x = ornik.frombuffer(bytearray(16), "int32", 3, 4)
    assert x.tolist() == [0, 0, 0] and not x.readonly and ornik.frombuffer(b"\1\0\0\0", "int32").tolist() == [1]
    for arguments in ((bytearray(4), "int32", 2), (bytearray(5), "int32"), (bytearray(4), "int8", 1, -1)):
        with pytest.raises(ValueError):
            ornik.frombuffer(*arguments)


def test_copy_argument():
    a = np.ones(3)
    for make in (ornik.asarray, ornik.from_dlpack):
        assert not np.shares_memory(make(a, copy=True).numpy(), a)
        assert np.shares_memory(make(a, copy=False).numpy(), a)
    swapped = np.array([1, 2], ">i4")
    mixed = np.zeros(2, [("a", "i1"), ("b", "<f8")])["b"]
    for awkward in (swapped, mixed, np.array([1 + 2j], ">c16")):
        assert ornik.asarray(awkward).tolist() == awkward.tolist()
        with pytest.raises(ValueError, match="can not be used without a copy"):
            ornik.asarray(awkward, copy=False)
    for value in ([1, 2], 1, range(2)):
        with pytest.raises(ValueError, match="copy=False"):
            ornik.asarray(value, copy=False)
    with pytest.raises(ValueError, match="copy=False"):
        ornik.asarray(a, dtype="int32", copy=False)
    x = ornik.ones(2)
    assert ornik.asarray(x) is x and ornik.asarray(x, copy=True) is not x
    assert np.asarray(x, dtype="float64").dtype == np.float64
    with pytest.raises(ValueError, match="copy=False"):
        x.__array__("float64", copy=False)
    assert not np.shares_memory(np.array(x), x.numpy()) and np.shares_memory(np.array(x, copy=False), x.numpy())
    truths = np.frombuffer(b"\0\1\2", bool)
    assert ornik.asarray(truths).tolist() == [False, True, True]
    # Windows show bytes often; whether they are truths is seen by looking at each once.
    bits = np.zeros(2**21, bool)
    for windows in (np.broadcast_to(bits[:1], (2**20, 2**20)), np.lib.stride_tricks.sliding_window_view(bits, 2**20)):
        x = ornik.asarray(windows[::-1])
        assert np.shares_memory(np.asarray(x), bits) and x.shape == windows.shape
    truths = np.frombuffer(b"\0\2\1\0\2\1", bool)
    assert ornik.asarray(np.lib.stride_tricks.sliding_window_view(truths, 2)).astype("int8").sum() == 7
    assert np.shares_memory(np.asarray(ornik.asarray(truths[::3])), truths)


def test_read_only_memory_stays_so():
    a = np.arange(3.0)
    a.flags.writeable = False
    for x in (ornik.asarray(a), ornik.from_dlpack(a), ornik.asarray(memoryview(a.tobytes()).cast("d"))):
        assert x.readonly and not x.numpy().flags.writeable
        for write in (lambda t: t.__setitem__(0, 1), lambda t: t.__iadd__(1), lambda t: t.fill_(0)):
            with pytest.raises(RuntimeError, match="read-only"):
                write(x)
        with pytest.raises(BufferError, match="read-only"):
            x.__dlpack__()
        with pytest.raises(TypeError, match="not writable"):
            (ctypes.c_char * 1).from_buffer(x)
        assert not np.from_dlpack(x).flags.writeable
    assert a.tolist() == [0, 1, 2]


def test_versions_of_dlpack():
    a = np.arange(6.0).reshape(2, 3)
    for versioned in (True, False):
        x = ornik.from_dlpack(Producer(ornik.asarray(a), versioned))
        x[0, 0] = 7
        assert a[0, 0] == 7
    x = ornik.ones(2)
    names = [repr(x.__dlpack__(max_version=v)) for v in (None, (0, 8), (1, 0), (2, 5))]
    assert [n.count("dltensor_versioned") for n in names] == [0, 0, 1, 1]
    assert x.__dlpack_device__() == (1, 0)
    for arguments, error in (({"stream": 1}, ValueError), ({"dl_device": (2, 0)}, BufferError)):
        with pytest.raises(error):
            x.__dlpack__(**arguments)

    class Once:
        capsule = x.__dlpack__(max_version=(1, 0))

        def __dlpack__(self, **_):
            return self.capsule

    assert ornik.from_dlpack(Once()).tolist() == [1, 1]
    with pytest.raises(ValueError, match="used once"):
        ornik.from_dlpack(Once())
    for wrong, text in ((object(), "object with __dlpack__"), (3, "object with __dlpack__")):
        with pytest.raises(TypeError, match=text):
            ornik.from_dlpack(wrong)
    with pytest.raises(BufferError, match="no dtype here"):
        ornik.from_dlpack(np.ones(2, "uint16"))
    grad = ornik.tensor([1.0], requires_grad=True)
    for lend in (lambda: memoryview(grad), lambda: grad.__dlpack__()):
        with pytest.raises(BufferError, match="use detach"):
            lend()
    with pytest.raises(RuntimeError, match="use detach"):
        np.asarray(grad)


@pytest.mark.parametrize("take", [ornik.asarray, ornik.from_dlpack, lambda a: ornik.asarray(memoryview(a))])
def test_lifetimes(take):
    class Watched(np.ndarray):
        pass

    def owner():
        a = np.arange(10.0).view(Watched)
        return a, weakref.ref(a)

    a, alive = owner()
    x = take(a)
    part = x[2:4]
    del a, x
    gc.collect()
    assert alive() is not None and part.tolist() == [2, 3]
    back = np.asarray(part)
    del part
    gc.collect()
    assert alive() is not None and back.tolist() == [2, 3]
    del back
    gc.collect()
    assert alive() is None

    # The last user is a thread that never holds the lock of its own accord.
    a, alive = owner()
    box = [take(a)]
    del a
    thread = threading.Thread(target=box.clear)
    thread.start()
    thread.join()
    gc.collect()
    assert alive() is None
    # A capsule that nobody takes.
    x = ornik.ones(3)
    for version in (None, (1, 0)):
        x.__dlpack__(max_version=version)
    # An owner that may not change its size while it is looked at.
    source = bytearray(8)
    x = ornik.asarray(source)
    with pytest.raises(BufferError):
        source.append(0)
    del x
    source.append(0)


def test_owners_die_during_work_without_the_lock():
    """backward() drops the last share of foreign memory while no Python code runs."""

    class Watched(np.ndarray):
        pass

    a = np.arange(1.0, 5.0).view(Watched)
    alive = weakref.ref(a)
    w = ornik.tensor(2.0, dtype="float64", requires_grad=True)
    y = (ornik.asarray(a) * w).sum()
    del a
    y.backward()
    del y
    ornik.ones(1)
    gc.collect()
    assert alive() is None and float(w.grad) == 10


def test_buffer_requests():
    x = ornik.arange(6).reshape(2, 3)
    view = memoryview(x)
    assert (view.format, view.shape, view.strides, view.readonly) == ("q", (2, 3), (24, 8), False)
    assert view.tolist() == x.tolist() and bytes(view) == x.numpy().tobytes()
    assert memoryview(ornik.asarray(3)).shape == () and memoryview(x.T).f_contiguous
    with pytest.raises(TypeError, match="not C contiguous"):
        (ctypes.c_char * 8).from_buffer(x.T)
    del view
    assert np.frombuffer(x, dtype="int64").tolist() == list(range(6))
