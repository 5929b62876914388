"""Calls that nobody should make: every one ends in a result or an exception of Python's, never in a crash."""

import inspect
import os

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import ornik

EXAMPLES = int(os.environ.get("ORNIK_HOSTILE_EXAMPLES", "10"))

CYCLE: list = [1, 2]
CYCLE.append(CYCLE)


class Liar:
    """Says that it is many things, and fails or lies when it is used as one."""

    def __index__(self):
        raise KeyError("no index")

    def __float__(self):
        raise KeyError("no number")

    def __len__(self):
        return 2**62

    def __getitem__(self, key):
        raise IndexError(key)

    def __dlpack__(self, **_):
        return 5


class Shrinks(list):
    def __len__(self):
        self.clear() if list.__len__(self) else None
        return 3


# Sizes are small enough to fit into memory or so large that no machine has it.
NUMBERS = (
    0,
    1,
    -1,
    2,
    3,
    7,
    -(2**31),
    2**31,
    2**62,
    -(2**63),
    2**63,
    10**30,
    0.5,
    -0.0,
    float("nan"),
    float("inf"),
    1j,
)
VALUES = st.one_of(
    st.sampled_from(NUMBERS),
    st.sampled_from([None, True, False, "", "float32", "x", b"", b"abc", ..., slice(None), slice(2, -9, -3), object]),
    st.sampled_from([ornik.float32, ornik.int8, ornik.bool, "complex128", np.float64, np.dtype("uint16"), int]),
    st.lists(st.sampled_from(NUMBERS), max_size=3),
    st.tuples(st.sampled_from(NUMBERS), st.sampled_from(NUMBERS)),
    st.builds(lambda: CYCLE),
    st.builds(Liar),
    st.builds(lambda: Shrinks([1, 2, 3])),
    st.builds(lambda: lambda *a: a),
    st.builds(dict),
    st.sampled_from(["float32", "int64", "bool", "complex64", "uint8"]).flatmap(
        lambda d: st.sampled_from([(), (0,), (3,), (2, 3), (1, 1, 2)]).map(lambda s: ornik.ones(s, dtype=d))
    ),
    st.builds(lambda: ornik.tensor([[1.0, 2.0], [3.0, 4.0]], requires_grad=True)),
    st.builds(lambda: ornik.arange(6).reshape(2, 3).mT),
    st.builds(lambda: ornik.broadcast_to(ornik.ones(1), (4,))),
    st.builds(lambda: ornik.asarray(b"readonly" and memoryview(b"readonly"))),
    st.builds(lambda: np.array([1, 2, 3], ">i2")),
    st.builds(lambda: np.array([object()])),
)

# These change the process: recording, seeds, threads.
APART = {"set_grad_enabled", "no_grad", "enable_grad", "set_num_threads"}


def calls():
    for space in (ornik, ornik.random, ornik.autograd):
        for name, value in vars(space).items():
            if not name.startswith("_") and callable(value) and name not in APART and not inspect.ismodule(value):
                yield f"{space.__name__}.{name}", value
    for name, value in inspect.getmembers(ornik.KTensor, callable):
        if name not in ("__class__", "__subclasshook__", "__init_subclass__", "__getattribute__", "__setattr__"):
            yield f"KTensor.{name}", value


CALLS = dict(calls())


@pytest.mark.parametrize("name", CALLS)
@settings(
    max_examples=EXAMPLES, deadline=None, suppress_health_check=list(HealthCheck), database=None, derandomize=True
)
@given(data=st.data())
def test_call(name, data):
    arguments = data.draw(st.lists(VALUES, min_size=0, max_size=4))
    if name.startswith("KTensor.") and data.draw(st.booleans()):
        arguments[:1] = [ornik.arange(6.0).reshape(2, 3)]
    try:
        CALLS[name](*arguments)
    except Exception as error:
        assert not isinstance(error, SystemError), error
        assert ".cpp" not in str(error) and "std::" not in str(error), error
    with_recording = ornik.is_grad_enabled()
    assert with_recording


@settings(
    max_examples=10 * EXAMPLES, deadline=None, suppress_health_check=list(HealthCheck), database=None, derandomize=True
)
@given(items=st.lists(VALUES, max_size=4), value=VALUES)
def test_subscripts(items, value):
    key = tuple(items) if len(items) != 1 else items[0]
    for x in (ornik.arange(24.0).reshape(2, 3, 4), ornik.asarray(1), ornik.zeros((0, 3)), ornik.ones((3, 2)).mT):
        for use in (lambda t: t[key], lambda t: t.__setitem__(key, value), lambda t: t.__contains__(value)):
            try:
                use(x)
            except Exception as error:
                assert not isinstance(error, SystemError), error
                assert ".cpp" not in str(error), error
