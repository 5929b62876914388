"""Calls that nobody should make: every one ends in a result or an exception of Python's, never in a crash."""

import contextlib
import importlib
import inspect
import io
import os

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import ornik

EXAMPLES = int(os.environ.get("ORNIK_HOSTILE_EXAMPLES", "10"))

CYCLE: list = [1, 2]
CYCLE.append(CYCLE)
# Two ways round: a reader that goes both takes for ever.
KNOT: list = []
KNOT += [KNOT, KNOT]


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

    def __array__(self, *_, **__):
        return "no array"


class Winding:
    """A sequence whose length is not what it says, and which holds itself."""

    def __len__(self):
        return -1

    def __getitem__(self, key):
        if isinstance(key, int) and key > 4:
            raise IndexError(key)
        return self if key != 3 else ornik.ones(2)


class Shrinks(list):
    def __len__(self):
        self.clear() if list.__len__(self) else None
        return 3


class Mutates:
    """Changes what it stands in while it is read."""

    def __init__(self, inside):
        self.inside = inside
        inside.append(self)
        inside.append(1)

    def __index__(self):
        self.inside.clear()
        return 1

    def __float__(self):
        self.inside.clear()
        return 1.0


class Derived(ornik.KTensor):
    def __repr__(self):
        raise KeyError("no repr")

    def __eq__(self, other):
        raise KeyError("no comparison")

    __hash__ = None


class Interface:
    """Memory that is not there."""

    def __init__(self, **interface):
        self.__array_interface__ = {"version": 3, "typestr": "<f4", "shape": (2,), "data": (0, False)} | interface


def mutating():
    inside: list = [1]
    Mutates(inside)
    return inside


def derived():
    return ornik._ornik.KTensorBase.__new__(Derived, ornik.ones(2))


def odd_buffers():
    """Memory of every format that others have."""
    yield from (
        np.zeros(3, kind) for kind in ("f2", "u2", "U3", "S2", "M8[s]", "g", "G", "V4", "O", "i4,f8", ">f8", ">c16")
    )
    yield np.frombuffer(bytes(33), "u1")[1:].view("f8")  # misaligned
    yield np.zeros(4, "i4,f8")["f1"]  # steps that are no multiple of the element
    yield np.broadcast_to(np.float32(1), (2**20, 2**20))
    yield np.broadcast_to(np.zeros(1, "?"), (2**20, 2**20))
    yield np.lib.stride_tricks.as_strided(np.zeros(9)[2:], (3, 3), (8, -8))[::-1, ::-1]
    yield np.full((2, 2), 7, "u1").view("?")
    yield np.zeros((0, 2**62), "u1")
    yield np.zeros((1,) * 40)
    yield memoryview(bytearray(16)).cast("d")
    yield memoryview(b"").cast("?")
    yield memoryview(bytearray(4)).cast("c")


BUFFERS = list(odd_buffers())

# Sizes are small enough to fit into memory or so large that no machine has it.
NUMBERS = (0, 1, -1, 2, 3, 7, -(2**31), 2**44, 2**62, -(2**63), 2**63, 10**30, 0.5, -0.0, 2.0**31)
NUMBERS += (float("nan"), float("inf"), 1j)
VALUES = st.one_of(
    st.sampled_from(NUMBERS),
    st.sampled_from([None, True, False, "", "float32", "x", b"", b"abc", ..., slice(None), slice(2, -9, -3), object]),
    st.sampled_from([ornik.float32, ornik.int8, ornik.bool, "complex128", np.float64, np.dtype("uint16"), int]),
    st.lists(st.sampled_from(NUMBERS), max_size=3),
    st.tuples(st.sampled_from(NUMBERS), st.sampled_from(NUMBERS)),
    st.sampled_from(
        [CYCLE, KNOT, (KNOT, 1), "\0", "\ud800", float, sum, range(3), range(2**62), np.float32(2), np.bool_(1)]
    ),
    st.builds(Liar),
    st.builds(Winding),
    st.builds(lambda: Shrinks([1, 2, 3])),
    st.builds(mutating),
    st.builds(lambda: lambda *a: a),
    st.builds(lambda: lambda *a: 1 // 0),
    st.builds(dict),
    st.builds(lambda: {"": ornik.ones(2), 1: None}),
    st.builds(lambda: io.BytesIO(b"\x93NUMPY")),
    st.sampled_from(["float32", "int64", "bool", "complex64", "uint8"]).flatmap(
        lambda d: st.sampled_from([(), (0,), (3,), (2, 3), (1, 1, 2), (2, 3, 4, 4), (2, 0, 2)]).map(
            lambda s: ornik.ones(s, dtype=d)
        )
    ),
    st.builds(lambda: ornik.tensor([[1.0, 2.0], [3.0, 4.0]], requires_grad=True)),
    st.builds(lambda: ornik.tensor([[1.0, 2.0], [3.0, 4.0]], requires_grad=True) * 2),
    st.builds(lambda: ornik.arange(6).reshape(2, 3).mT),
    st.builds(lambda: ornik.broadcast_to(ornik.ones(1), (4,))),
    st.builds(lambda: ornik.asarray(b"readonly" and memoryview(b"readonly"))),
    st.builds(lambda: ornik.tensor([float("nan"), float("inf"), -1e300])),
    st.builds(lambda: ornik.tensor([2**62, -(2**63), -1])),
    st.builds(lambda: [ornik.ones(2), ornik.ones((3, 0)), None]),
    st.builds(lambda: [ornik.tensor([1.0, 2.0], requires_grad=True)]),
    st.builds(derived),
    st.integers(0, len(BUFFERS) - 1).map(BUFFERS.__getitem__),
    st.builds(lambda: np.array([object()])),
    st.sampled_from([{"typestr": "?"}, {"shape": (-1,)}, {"shape": "x"}, {"strides": (3,)}, {"data": None}]).map(
        lambda d: Interface(**d)
    ),
)

# These change the process: recording, seeds, threads, the class of all tensors.
APART = {"set_grad_enabled", "no_grad", "enable_grad", "set_num_threads", "register_class"}
SPACES = (
    "ornik",
    "ornik.random",
    "ornik.autograd",
    "ornik.linalg",
    "ornik.fft",
    "ornik.nn",
    "ornik.nn.functional",
    "ornik.nn.init",
    "ornik.optim",
    "ornik.data",
    "ornik.io",
    "ornik._ornik",
)


def calls():
    for space in SPACES:
        with contextlib.suppress(ModuleNotFoundError):
            for name, value in vars(importlib.import_module(space)).items():
                ours = str(getattr(value, "__module__", "ornik")).startswith("ornik")
                if ours and not name.startswith("_") and callable(value) and name not in APART:
                    yield f"{space}.{name}", value
    for name, value in inspect.getmembers(ornik.KTensor, callable):
        if name not in ("__class__", "__subclasshook__", "__init_subclass__", "__getattribute__", "__setattr__"):
            yield f"KTensor.{name}", value


CALLS = dict(calls())
TAKING = ("__call__", "load_state_dict")
THOROUGH = settings(
    max_examples=EXAMPLES, deadline=None, suppress_health_check=list(HealthCheck), database=None, derandomize=True
)


@pytest.fixture(autouse=True, scope="module")
def elsewhere(tmp_path_factory):
    """Files that such calls write stay out of the way."""
    before = os.getcwd()
    os.chdir(tmp_path_factory.mktemp("hostile"))
    yield
    os.chdir(before)


def attempt(call):
    """What the call gives; None where it fails as Python code may."""
    try:
        return call()
    except Exception as error:
        assert not isinstance(error, SystemError), error
        text = str(error)
        assert ".cpp" not in text and "std::" not in text, error
        return None
    finally:
        assert ornik.is_grad_enabled()


def parameters_of(function):
    try:
        kinds = inspect.signature(function).parameters.values()
    except (TypeError, ValueError):
        return []
    return [p.name for p in kinds if p.kind in (p.KEYWORD_ONLY, p.POSITIONAL_OR_KEYWORD)]


@pytest.mark.parametrize("name", CALLS)
@THOROUGH
@given(data=st.data())
def test_call(name, data):
    function = CALLS[name]
    arguments = data.draw(st.lists(VALUES, min_size=0, max_size=4))
    if data.draw(st.booleans()):
        arguments[:1] = [ornik.arange(6.0).reshape(2, 3)]
    named = {}
    names = parameters_of(function)
    if names and data.draw(st.booleans()):
        named = {data.draw(st.sampled_from(names)): data.draw(VALUES)}
    made = attempt(lambda: function(*arguments, **named))
    if inspect.isclass(function):  # A layer, a loss, an optimizer, a dataset: use it.
        given_next = data.draw(st.lists(VALUES, max_size=3))
        for use in (
            "__call__",
            "step",
            "zero_grad",
            "state_dict",
            "load_state_dict",
            "__len__",
            "__iter__",
            "__repr__",
        ):
            if hasattr(made, use):
                attempt(
                    lambda use=use: getattr(made, use)(
                        *given_next[: 3 if use in ("__call__", "load_state_dict") else 0]
                    )
                )


class Stranger:
    """Nothing that any function takes."""


# An argument for each kind of type that a parameter is annotated with.
FITTING = (("KTensor", lambda: ornik.arange(1.0, 7.0).reshape(2, 3)), ("Operand", lambda: 2.0), ("str", lambda: ""))


def kind_of(parameter):
    annotation = str(parameter.annotation)
    return annotation if parameter.kind in (parameter.POSITIONAL_ONLY, parameter.POSITIONAL_OR_KEYWORD) else ""


def functions_with_texts():
    """Public functions and classes, and how many leading parameters only have to be there."""
    for name, function in CALLS.items():
        if "_ornik" in name or name.startswith("KTensor.") or getattr(function, "_is_protocol", False):
            continue
        with contextlib.suppress(TypeError, ValueError):
            yield name, function, list(inspect.signature(function).parameters.values())


def test_wrong_types_are_named():
    """The function and the argument, by Python's own exceptions, and never the extension's list of signatures."""
    named, faults = 0, []
    for name, function, parameters in functions_with_texts():
        fitting = [next((make() for kind, make in FITTING if kind in str(p.annotation)), 1) for p in parameters]
        required = sum(p.default is p.empty and bool(kind_of(p)) for p in parameters)
        for i, parameter in enumerate(parameters):
            arguments, options = fitting[:required], {}
            if i < required:
                arguments[i] = Stranger()
            elif parameter.kind in (parameter.KEYWORD_ONLY, parameter.POSITIONAL_OR_KEYWORD):
                options[parameter.name] = Stranger()
            else:
                continue
            try:
                function(*arguments, **options)
                continue  # Stored as it is, or not looked at.
            except Exception as error:
                text = str(error)
            if kind_of(parameter) == "KTensor" and i == 0:
                wanted = f"{function.__qualname__}(), argument {parameter.name}: "
                right = text.startswith(wanted) and text.endswith("wanted, but got Stranger")
                named += 1
            else:
                right = "incompatible function arguments" not in text
            faults += [] if right else [f"{name}, {parameter.name}: {text}"]
    assert not faults and named > 150, "\n".join(faults)
    for call, text in (
        (
            lambda: ornik.nn.functional.dropout(ornik.ones(2), "a"),
            "dropout(), argument p: a number is wanted, but got str",
        ),
        (lambda: ornik.exp(None), "exp(), argument x: a KTensor is wanted, but got NoneType"),
        (
            lambda: ornik.ones(2).sum("x"),
            "KTensor.sum(), argument axis: an axis or a sequence of axes is wanted, but got str",
        ),
        (lambda: ornik.nn.Linear(2, 2)(3), "Linear(), argument x: a KTensor is wanted, but got int"),
        (lambda: ornik.concat([ornik.ones(2), 3]), "concat(): a KTensor is wanted, but got int"),
        (
            lambda: ornik.all(ornik.ones(2), keepdims=1),
            "all(), argument keepdims: True or False is wanted, but got int",
        ),
        (lambda: ornik.eye(2, k=1.5), "eye(), argument k: a whole number is wanted, but got float"),
        (lambda: ornik.linalg.matrix_norm(ornik.ones((2, 2)), ord=3), None),
    ):
        with pytest.raises((TypeError, ValueError)) as caught:
            call()
        assert text is None or str(caught.value) == text


@settings(THOROUGH, max_examples=10 * EXAMPLES)
@given(items=st.lists(VALUES, max_size=4), value=VALUES)
def test_subscripts(items, value):
    key = tuple(items) if len(items) != 1 else items[0]
    for x in (ornik.arange(24.0).reshape(2, 3, 4), ornik.asarray(1), ornik.zeros((0, 3)), ornik.ones((3, 2)).mT):
        for use in (lambda t: t[key], lambda t: t.__setitem__(key, value), lambda t: t.__contains__(value)):
            attempt(lambda use=use, x=x: use(x))


SETTABLE = ("requires_grad", "grad", "data", "shape", "dtype", "T", "name", "__class__", "__dict__")


@settings(THOROUGH, max_examples=10 * EXAMPLES)
@given(name=st.sampled_from(SETTABLE), value=VALUES)
def test_attributes(name, value):
    for x in (ornik.ones((2, 3)), ornik.ones(2)[0], ornik.tensor([1.0], requires_grad=True) * 2):
        attempt(lambda x=x: setattr(x, name, value))
        attempt(lambda x=x: delattr(x, name))
        attempt(lambda x=x: (repr(x), x.grad, x.shape, x.sum().backward()))


@settings(THOROUGH, max_examples=10 * EXAMPLES)
@given(data=VALUES, dtype=VALUES, shape=VALUES, wanted=VALUES, kind=VALUES)
def test_pickles_that_lie(data, dtype, shape, wanted, kind):
    rebuild, arguments = ornik.ones((2, 3)).__reduce_ex__(5)[:2]
    for place, lie in enumerate((kind, data, dtype, shape, wanted)):
        lies = list(arguments)
        lies[place] = lie
        attempt(lambda lies=lies: rebuild(*lies).sum())
        attempt(lambda: rebuild(arguments[0], data, dtype, shape, False).sum())
        attempt(lambda: rebuild(Derived, bytes(24), "float32", (2, 3), wanted))
