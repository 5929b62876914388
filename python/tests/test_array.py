"""The tensor as an array: beside NumPy, over dtypes, shapes and layouts."""

import copy
import operator
import pickle
import weakref

import numpy as np
import pytest

import ornik

DTYPES = ("bool", "uint8", "int8", "int16", "int32", "int64", "float32", "float64", "complex64", "complex128")
SHAPES = ((), (1,), (0,), (5,), (2, 3), (3, 1), (2, 0, 3), (2, 1, 3))


def numbers(shape, dtype, seed=0):
    """Small numbers, none of them zero where a quotient follows."""
    rng = np.random.default_rng(seed + 7 * len(shape))
    values = rng.integers(1, 6, shape)
    if np.dtype(dtype).kind == "c":
        return np.asarray(values + 1j * rng.integers(1, 6, shape)).astype(dtype)
    if np.dtype(dtype).kind == "f":
        return np.asarray(values / 2).astype(dtype)
    return np.asarray(values > 2 if dtype == "bool" else values).astype(dtype)


def layouts(array):
    """The same elements row after row, back to front, transposed, and every other one of twice as many."""
    yield array
    if array.ndim:
        yield np.ascontiguousarray(array[::-1])[::-1]
        yield np.ascontiguousarray(array.T).T
        wide = np.zeros((*array.shape[:-1], 2 * array.shape[-1]), array.dtype)
        wide[..., ::2] = array
        yield wide[..., ::2]


def check(tensor, array, rtol=0.0):
    array = np.asarray(array)
    assert tensor.shape == array.shape
    if rtol:
        np.testing.assert_allclose(np.asarray(tensor), array, rtol=rtol)
    else:
        np.testing.assert_array_equal(np.asarray(tensor), array)


@pytest.mark.parametrize("dtype", DTYPES)
def test_round_trip_of_memory(dtype):
    for shape in SHAPES:
        for array in layouts(numbers(shape, dtype)):
            for make in (ornik.asarray, ornik.from_dlpack):
                x = make(array)
                check(x, array)
                assert x.dtype == dtype and x.dtype == array.dtype and str(x.dtype) == dtype
                assert (x.ndim, x.size, x.nbytes, x.itemsize) == (array.ndim, array.size, array.nbytes, array.itemsize)
                for back in (x.numpy(), np.from_dlpack(x)):
                    check(x, back)
                    if array.size:
                        assert np.shares_memory(back, array), (shape, array.strides)
                        assert back.flags.writeable == array.flags.writeable
            assert x.tolist() == array.tolist()
            check(pickle.loads(pickle.dumps(x)), array)
            check(copy.deepcopy(x), array)


ARITHMETIC = (operator.add, operator.sub, operator.mul, operator.truediv, operator.floordiv, operator.mod, operator.pow)
COMPARISONS = (operator.lt, operator.le, operator.eq, operator.ne, operator.gt, operator.ge)
BITS = (operator.and_, operator.or_, operator.xor, operator.lshift, operator.rshift)


def takes(function, dtype):
    kind = np.dtype(dtype).kind
    if function in BITS:
        return kind in "iu" or (kind == "b" and function in BITS[:3])
    if kind == "c":
        return function not in (operator.floordiv, operator.mod, *COMPARISONS[:2], *COMPARISONS[4:])
    if kind == "b":
        return function in (operator.eq, operator.ne, *COMPARISONS)
    return True


@pytest.mark.parametrize("function", ARITHMETIC + COMPARISONS + BITS, ids=lambda f: f.__name__)
def test_operators(function):
    pairs = (((2, 3), (2, 3)), ((2, 3), (3,)), ((2, 1), (1, 3)), ((), (2,)), ((0, 3), (3,)))
    for dtype in (d for d in DTYPES if takes(function, d)):
        rtol = 1e-5 if dtype in ("float32", "complex64", "uint8", "int8", "int16", "int32", "int64") else 1e-13
        for left, right in pairs:
            a, b = numbers(left, dtype), numbers(right, dtype, 1)
            x, y = ornik.asarray(a), ornik.asarray(b)
            expected = function(a, b)
            for result in (function(x, y), function(x, b), function(a, y)):
                assert type(result) is ornik.KTensor
                check(result, expected, rtol)
            if dtype != "bool":
                check(function(x, 2), function(a, 2), rtol)
                check(function(2, x), function(np.array(2, dtype), a), rtol)
            if expected.dtype == a.dtype and left == expected.shape and function not in COMPARISONS:
                target = ornik.asarray(a, copy=True)
                same = target
                in_place = getattr(operator, "i" + function.__name__.rstrip("_"))
                target = in_place(target, y)
                assert target is same
                check(target, expected, rtol)


def test_numbers_beside_tensors_never_widen_them():
    x = ornik.ones(2)
    for number in (2, 2.0, True, np.float64(2), np.float32(2), np.int64(2), np.uint8(2), np.bool_(True)):
        for result in (x + number, number + x, x * number, number * x, x - number, number - x):
            assert type(result) is ornik.KTensor and result.dtype == "float32", number
    assert (x * 2j).dtype == "complex64" and (np.complex128(2j) * x).dtype == "complex64"
    assert (ornik.arange(3) + 1).dtype == "int64" and (ornik.asarray([1], dtype="uint8") + 1).dtype == "uint8"
    with pytest.raises(TypeError):
        np.ones(2).__iadd__(x)
    assert (x == "a") is False and (x != "a") is True
    with pytest.raises(TypeError, match=r"unsupported operand type"):
        x + "a"
    with pytest.raises(OverflowError, match="beyond 64 bits"):
        x + 10**30


INDICES = (
    0, -1, slice(None), slice(1, None), slice(None, None, -1), slice(10, None, -2), slice(-100, 100, 3),
    None, ..., (..., 0), (0, ...), (slice(None), 1), (0, 0), (None, 0, None), (..., None), (slice(None, None, 2), -1),
    [0, 1], [1, 1, 0], ([0, 1], [1, 2]), ([0, 1], slice(None)), (slice(None), [2, 0]), (0, [1, 2]), ([1], 0),
    np.array([0, 1]), np.array([[0, 1], [1, 0]]), [True, False], (slice(None), [True, False, True]),
    np.array(1), np.int64(-2), True, False, (0, True), ([[0], [1]], [0, 2]), [], (), (slice(0, 0),),
)  # fmt: skip


@pytest.mark.parametrize("index", INDICES, ids=repr)
def test_subscripts(index):
    for dtype in ("int64", "float32", "complex128", "bool"):
        for a in layouts(np.arange(2 * 3 * 4).reshape(2, 3, 4).astype(dtype)):
            x = ornik.asarray(a.copy())
            own = index
            if isinstance(index, list) and not index:
                own = np.array([], int)
            check(x[index], a[own])
            written = a.copy()
            written[own] = 1
            x[index] = 1
            check(x, written)
            if a[own].size:
                values = numbers(a[own].shape, dtype, 3)
                written[own] = values
                x[index] = values
                check(x, written)


# Views that the package makes when somebody looks at them, and, behind the first nine, views of such views.
LATE = (
    lambda x: x[1], lambda x: x[-1], lambda x: x[1:3], lambda x: x[::-2], lambda x: x[-1:0:-1], lambda x: x[2, 1],
    lambda x: x[-1, -3], lambda x: x.reshape(2, 6), lambda x: x.reshape((-1,)), lambda x: x.reshape(-1, 1, 4)[0],
    lambda x: x[0][2], lambda x: x[1:][1, 2], lambda x: x.T[1], lambda x: x.T[1, 0], lambda x: x.reshape(12)[::-3][1],
)  # fmt: skip


@pytest.mark.parametrize("number", range(len(LATE)))
def test_views_that_are_looked_at_late(number):
    view = LATE[number]
    places = view(np.arange(12).reshape(3, 4))
    a = np.arange(10.0, 22.0)
    x = ornik.asarray(a.reshape(3, 4))
    late, read, shown = view(x), view(x), view(x)
    a += 1
    assert shown.shape == places.shape and read.tolist() == a[places].tolist()
    if places.shape == ():  # A number is read without the view.
        assert view(x).item() == float(view(x)) == int(view(x)) == a[places] and bool(view(x))
    check(late, a[places])
    late.fill_(7)
    assert np.flatnonzero(a == 7).tolist() == np.sort(places, axis=None).tolist()
    # What is recorded between the view and the look counts, but not that its tensor asks for gradients since.
    if number < 9:
        x, w = ornik.zeros((3, 4)), ornik.ones((3, 4))
        late = view(x)
        w.requires_grad = True
        x += w
        late.sum().backward()
        assert np.flatnonzero(np.asarray(w.grad)).tolist() == np.sort(places, axis=None).tolist()
        x = ornik.ones((3, 4))
        late = view(x)
        x.requires_grad = True
        assert not late.requires_grad


def test_reshape_takes_extents_or_a_sequence():
    x = ornik.arange(6)
    same = x.reshape(2, 3)
    for y in (x.reshape((2, 3)), x.reshape([2, -1]), x.reshape(-1, 3), x.reshape(np.int64(2), 3), same.reshape(2, 3)):
        check(y, np.arange(6).reshape(2, 3))
    assert ornik.asarray(5).reshape(()).shape == () and ornik.zeros((0, 3)).reshape(3, 0).shape == (3, 0)
    for shape, error, text in (
        ((4,), ValueError, "reshape(): [6] int64 has 6 elements, which do not make [4] int64."),
        ((-1, -1), ValueError, "reshape(): [6] int64 has 6 elements, which do not make [-1, -1] int64."),
        ((2**62, 4), ValueError, f"reshape(): [6] int64 has 6 elements, which do not make [{2**62}, 4] int64."),
        ((2**70,), OverflowError, "an extent has to fit in 64 bits"),
        ((2.0, 3), TypeError, "an extent is a whole number, but got float"),
        (("ab",), TypeError, "a shape (a whole number or a sequence of them) is wanted, but got str"),
    ):
        with pytest.raises(error) as caught:
            x.reshape(*shape)
        assert str(caught.value) == text


def test_subscripts_by_tensors_and_refusals():
    a = np.arange(12).reshape(3, 4)
    x = ornik.asarray(a)
    check(x[x > 5], a[a > 5])
    check(x[ornik.asarray([2, 0]), 1], a[[2, 0], 1])
    check(x[ornik.asarray(1)], a[1])
    view = x[1]
    view[0] = 100
    assert a[1, 0] == 100 and int(x[1, 0]) == 100
    x[1:] = x[:-1]
    assert a[2, 0] == 100
    table = (
        (7, IndexError, "out of range"), ((0, 0, 0), IndexError, "3 are indexed"), (10**30, IndexError, "range"),
        (-(10**30), IndexError, "range"), ("a", IndexError, "but got str"), (1.5, IndexError, "but got float"),
        ((..., ...), IndexError, "llipsis"), ([0, 9], IndexError, "range"), (slice(0, 2, 0), ValueError, "zero"),
        ([1.5], IndexError, "whole numbers"), (slice("a"), TypeError, "slice indices"),
    )  # fmt: skip
    for index, error, text in table:
        with pytest.raises(error, match=text):
            x[index]
        with pytest.raises(error, match=text):
            x[index] = 0
    with pytest.raises(TypeError, match="can not be deleted"):
        del x[0]


def test_sequences():
    x = ornik.arange(6).reshape(3, 2)
    assert len(x) == 3 and [r.tolist() for r in x] == [[0, 1], [2, 3], [4, 5]]
    assert 5 in x and 6 not in x
    with pytest.raises(TypeError, match="without axes"):
        len(ornik.asarray(1))
    with pytest.raises(TypeError, match="without axes"):
        iter(ornik.asarray(1))


def test_conversions():
    for value in (True, 3, 2.5, 1 + 2j):
        x = ornik.asarray(value)
        assert x.item() == value and complex(x) == value and bool(x) is bool(value)
        assert type(x.item()) is type(value)
    assert float(ornik.asarray([2.5])) == 2.5 and int(ornik.asarray(-2.7)) == -2 and [1, 2][ornik.asarray(1)] == 2
    assert f"{ornik.asarray(1.25):.1f}" == "1.2" and bool(ornik.asarray(0j)) is False and bool(ornik.asarray(1j))
    refused = (
        (bool, [1, 2], ValueError, "the truth of a tensor of 2 elements is ambiguous; use all() or any()"),
        (float, [1, 2], TypeError, "float(): a tensor of 2 elements is no single number"),
        (float, 1j, TypeError, "float(): a complex number is no real one"),
        (int, 1j, TypeError, "int(): a complex number is no real one"),
        (operator.index, 1.0, TypeError, "only whole numbers without axes serve as an index"),
    )
    for function, value, error, text in refused:
        with pytest.raises(error) as caught:
            function(ornik.asarray(value))
        assert str(caught.value).startswith(text)


def test_printing_is_numpys():
    cases = [numbers(s, d) for d in DTYPES for s in ((), (3,), (2, 3), (2, 2, 2))]
    cases += [np.array([1e-9, 1, np.nan, -np.inf], "float32"), np.arange(2000), np.array([1e10, 1.5])]
    for a in cases:
        assert str(ornik.asarray(a)) == str(a) or a.ndim == 0
        body = np.array2string(a, separator=", ", prefix="KTensor(", suffix=")")
        plain = a.dtype.name in ("float32", "int64", "bool", "complex64")
        assert repr(ornik.asarray(a)) == f"KTensor({body}{'' if plain else f', dtype={a.dtype}'})"
    assert repr(ornik.zeros((0, 2))) == "KTensor([], shape=(0, 2), dtype=float32)"
    x = ornik.tensor([1.0], requires_grad=True)
    assert repr(x) == "KTensor([1.], requires_grad=True)" and repr(x * 2) == "KTensor([2.], grad_fn=mul_scalar)"


def test_dtypes():
    for name in DTYPES:
        d = getattr(ornik, name)
        assert ornik.dtype(name) is d and d == name and name == d and d == np.dtype(name) and d == np.dtype(name).type
        assert d.itemsize == np.dtype(name).itemsize and d.kind == np.dtype(name).kind and repr(d) == f"ornik.{name}"
        assert pickle.loads(pickle.dumps(d)) is d and copy.deepcopy(d) is d and hash(d) == hash(name)
    assert ornik.float32 != ornik.float64 and ornik.float32 != "float64" and ornik.int64 != None  # noqa: E711
    for wrong, text in ((None, "a dtype is wanted"), ("f8x", 'no dtype "f8x"'), (np.uint16, "has no dtype here")):
        with pytest.raises(TypeError, match=text):
            ornik.zeros(2, dtype=wrong) if wrong is not None else ornik.dtype(wrong)


def test_creation():
    check(ornik.arange(5), np.arange(5))
    check(ornik.arange(5, -3, -3), np.arange(5, -3, -3))
    check(ornik.arange(2**60, 2**60 + 3), np.arange(2**60, 2**60 + 3))
    check(ornik.arange(0, 1, 0.25), np.arange(0, 1, 0.25))
    check(ornik.linspace(0, 1, 5), np.linspace(0, 1, 5))
    check(ornik.linspace(0, 1, 4, endpoint=False), np.linspace(0, 1, 4, endpoint=False))
    check(ornik.eye(3, 4, k=1), np.eye(3, 4, 1))
    check(ornik.full((2, 2), 7), np.full((2, 2), 7))
    assert ornik.full(2, True).dtype == "bool" and ornik.full(2, 1j).dtype == "complex64"
    check(ornik.asarray([[1, 2.5], [True, 3]]), np.array([[1, 2.5], [1, 3]]))
    check(ornik.asarray([np.ones(2), ornik.zeros(2)]), np.array([[1, 1], [0, 0]]))
    check(ornik.asarray(range(4)), np.arange(4))
    check(ornik.asarray([[], []]), np.zeros((2, 0)))
    cyclic = []
    cyclic.append(cyclic)
    grown = [1, 2]

    class Grows:
        def __index__(self):
            grown.extend([0] * 1000)
            return 1

    refused = (
        (cyclic, ValueError, "nested deeper than 29"), ([[1, 2], [3]], ValueError, "a row of 1 stands where rows of 2"),
        ([1, [2]], ValueError, "a row of 1 stands where numbers"), ([[1], 2], ValueError, "a number stands where"),
        (["a"], TypeError, "but got str"), ("abc", TypeError, "but got str"), (None, TypeError, "but got NoneType"),
        ({1, 2}, TypeError, "but got set"), ([2**70], OverflowError, "beyond 64 bits"),
        (np.array(["a"]), TypeError, "have no dtype here"), (np.ones(2, "uint16"), TypeError, "have no dtype here"),
        ([grown, [Grows(), 2]], TypeError, "but got Grows"),
    )  # fmt: skip
    for value, error, text in refused:
        with pytest.raises(error, match=text):
            ornik.asarray(value)
    for shape in (-1, (2, -3), 10**18, (10**10, 10**10)):
        with pytest.raises((ValueError, MemoryError)):
            ornik.zeros(shape)
    with pytest.raises(OverflowError):
        ornik.zeros(10**40)


def test_errors_keep_the_location_apart():
    with pytest.raises(ValueError) as caught:
        ornik.ones((2, 3)) + ornik.ones(4)
    assert ".cpp" not in str(caught.value) and ".cpp" in caught.value.location
    assert "[2, 3] float32" in str(caught.value)


def test_objects():
    x = ornik.ones(2)
    assert weakref.ref(x)() is x and len({x, x}) == 1 and x.shape is x.shape
    assert not hasattr(x, "__dict__") and isinstance(x, ornik.KTensor)
    assert x.T is not None if x.ndim == 2 else True
    with pytest.raises(ValueError, match="T is for two axes"):
        _ = x.T
    check(ornik.ones((2, 3)).mT, np.ones((3, 2)))
    with pytest.raises(AttributeError):
        x.something = 1

    class Parameter(ornik.KTensor):
        pass

    p = Parameter([1.0], requires_grad=True)
    q = pickle.loads(pickle.dumps(ornik.ones(3)[::2]))
    check(q, np.ones(2))
    assert type(p) is Parameter and p.requires_grad and type(p + 1) is ornik.KTensor
    assert type(copy.deepcopy(p)) is Parameter and copy.deepcopy([p, p])[0] is not p
    first, second = copy.deepcopy([p, p])
    assert first is second
    p.note = "kept"
    assert p.note == "kept"
    buffers = []
    data = pickle.dumps(ornik.ones(1000), protocol=5, buffer_callback=buffers.append)
    assert len(data) < 1000 and len(buffers) == 1
    check(pickle.loads(data, buffers=buffers), np.ones(1000))
