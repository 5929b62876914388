"""Gradients from Python: closed forms, containers, hooks, operations of one's own, threads."""

import asyncio
import gc
import math
import threading
from typing import NamedTuple

import pytest

import ornik


def leaf(*numbers, dtype="float64"):
    return ornik.tensor(list(numbers), dtype=dtype, requires_grad=True)


def test_backward_and_its_attributes():
    x = leaf(1, 2, 3)
    y = (x * x).sum()
    assert y.requires_grad and not y.is_leaf and x.is_leaf and y.grad_fn == "sum" and x.grad_fn is None
    y.backward(retain_graph=True)
    assert x.grad.tolist() == [2, 4, 6]
    y.backward()
    assert x.grad.tolist() == [4, 8, 12]
    with pytest.raises(RuntimeError):
        y.backward()
    x.grad = ornik.asarray([1.0, 1.0, 1.0], dtype="float64")
    x.zero_grad()
    assert x.grad is None
    for wrong, error in ((ornik.ones(2), ValueError), (3, TypeError)):
        with pytest.raises(error):
            x.grad = wrong
    del x.grad
    z = x * 2
    z.retain_grad()
    z.backward(ornik.asarray([1.0, 0.0, 2.0], dtype="float64"))
    assert z.grad.tolist() == [1, 0, 2] and x.grad.tolist() == [2, 0, 4]
    with pytest.raises(TypeError, match="floating and complex"):
        ornik.tensor([1], requires_grad=True)
    with pytest.raises(TypeError, match="True or False"):
        x.requires_grad = 1
    with pytest.raises(RuntimeError, match="result of mul_scalar"):
        (x * 2).requires_grad = False
    assert not x.detach().requires_grad
    (first,) = ornik.autograd.grad((x**3).sum(), x, create_graph=True)
    (second,) = ornik.autograd.grad(first.sum(), x)
    assert second.tolist() == [6, 12, 18]
    assert ornik.autograd.grad(x.sum(), [x, leaf(1)], allow_unused=True)[1] is None


def test_what_is_recorded():
    x = leaf(1)

    @ornik.no_grad()
    def plain():
        return (x * 2).requires_grad

    @ornik.no_grad()
    def generator():
        sent = yield (x * 2).requires_grad
        try:
            yield sent, (x * 2).requires_grad
        except KeyError:
            yield "caught", (x * 2).requires_grad
        return 5

    @ornik.no_grad()
    async def coroutine():
        await asyncio.sleep(0)
        return (x * 2).requires_grad

    assert plain() is False
    steps = generator()
    assert next(steps) is False and (x * 2).requires_grad
    assert steps.send("in") == ("in", False) and ornik.is_grad_enabled()
    assert steps.throw(KeyError()) == ("caught", False) and ornik.is_grad_enabled()
    with pytest.raises(StopIteration) as end:
        next(steps)
    assert end.value.value == 5
    assert asyncio.run(coroutine()) is False
    mode = ornik.no_grad()
    with mode, ornik.enable_grad(), mode:
        assert not ornik.is_grad_enabled()
        other = []
        thread = threading.Thread(target=lambda: other.append(ornik.is_grad_enabled()))
        thread.start()
        thread.join()
        assert other == [True]
    assert ornik.is_grad_enabled()
    with pytest.raises(ValueError), ornik.no_grad():
        raise ValueError
    assert ornik.is_grad_enabled()


class Pair(NamedTuple):
    left: object
    right: object


def test_transforms():
    tree = {"w": ornik.asarray([1.0, 2.0]), "p": Pair([ornik.asarray(3.0)], (ornik.asarray(2.0), "text"))}

    def loss(t, scale):
        return ((t["w"] ** 2).sum() * t["p"].left[0] * scale), "aux"

    (value, aux), gradient = ornik.value_and_grad(loss, has_aux=True)(tree, 2.0)
    assert float(value) == 30 and aux == "aux" and not value.requires_grad
    assert gradient["w"].tolist() == [12, 24] and gradient["p"].left[0].item() == 10
    assert gradient["p"].right[0].item() == 0 and gradient["p"].right[1] == "text"
    assert tree["w"].grad is None and not tree["w"].requires_grad
    x = ornik.asarray(0.5)
    derivatives = [ornik.sin]
    for _ in range(3):
        derivatives.append(ornik.grad(derivatives[-1]))
    expected = (math.sin(0.5), math.cos(0.5), -math.sin(0.5), -math.cos(0.5))
    for function, number in zip(derivatives, expected):
        assert math.isclose(function(x).item(), number, rel_tol=1e-6)
    a, b = ornik.grad(lambda p, q: (p * q).sum(), (0, 1))(ornik.asarray([2.0]), ornik.asarray([3.0]))
    assert (a.item(), b.item()) == (3, 2)
    with ornik.no_grad():
        assert ornik.grad(lambda p: p * p)(ornik.asarray(3.0)).item() == 6
    for function, args, text in (
        (lambda p: p * 2, (ornik.ones(2),), "one number, but it gave 2 of them"),
        (lambda p: 3, (ornik.ones(1),), "one number, but it gave int"),
        (lambda p: p, (ornik.asarray(1),), "holds floating or complex"),
    ):
        with pytest.raises(ValueError, match=text):
            ornik.grad(function)(*args)


def test_hooks():
    x, seen = leaf(1, 2), []
    y = x * 3
    handle = y.register_hook(lambda g: seen.append(g.tolist()) or g * 2)
    x.register_hook(lambda g: seen.append(g.tolist()))
    y.sum().backward()
    assert seen == [[1, 1], [6, 6]] and x.grad.tolist() == [6, 6]
    handle.remove()
    handle.remove()

    def fail(_):
        raise KeyError("from the hook")

    z = x * 1
    z.register_hook(fail)
    with pytest.raises(KeyError, match="from the hook"):
        z.sum().backward()
    w = x * 1
    w.register_hook(lambda g: "no tensor")
    with pytest.raises(TypeError, match="a KTensor is wanted, but got str"):
        w.sum().backward()
    inner = leaf(1)
    v = x * 1

    @v.register_hook
    def another_pass(_):
        with ornik.enable_grad():
            (inner * 5).sum().backward()

    v.sum().backward()
    assert inner.grad.item() == 5


class Cube(ornik.Function):
    @staticmethod
    def forward(ctx, x, scale):
        assert not ornik.is_grad_enabled()
        ctx.save_for_backward(x)
        ctx.scale = scale
        return x**3 * scale

    @staticmethod
    def backward(ctx, gradient):
        (x,) = ctx.saved_tensors
        assert ctx.needs_input_grad == (True, False)
        return gradient * 3 * x**2 * ctx.scale, None


def test_functions_of_ones_own():
    x = leaf(1, 2)
    y = Cube.apply(x, 2.0)
    assert y.grad_fn == "Cube" and y.tolist() == [2, 16]
    (first,) = ornik.autograd.grad(y.sum(), x, create_graph=True)
    (second,) = ornik.autograd.grad(first.sum(), x)
    assert first.tolist() == [6, 24] and second.tolist() == [12, 24]
    y = Cube.apply(x, 1.0)
    with ornik.no_grad():
        x += 1
    with pytest.raises(RuntimeError, match="Cube"):
        y.sum().backward()

    class Wrong(ornik.Function):
        @staticmethod
        def forward(ctx, a, b):
            return a * 2, b * 2

        @staticmethod
        def backward(ctx, *gradients):
            return ctx.answer

    for answer, error, text in (((1,), ValueError, "gave 1 gradients for 2"), ((1, None), TypeError, "but got int")):
        Wrong.backward = staticmethod(lambda ctx, *g, answer=answer: answer)
        first, _ = Wrong.apply(leaf(1), leaf(2))
        with pytest.raises(error, match=text):
            first.sum().backward()


def test_checkpoint():
    w = leaf(2)
    calls = []

    def block(x, factors):
        calls.append(ornik.autograd.is_recomputing())
        noise = ornik.random.rand(1, dtype="float64")
        return {"y": x * w * factors[0] * noise, "noise": noise}

    x = leaf(3)
    ornik.random.seed(1)
    out = ornik.checkpoint(block, x, [ornik.asarray(5.0, dtype="float64")])
    out["y"].sum().backward()
    assert calls == [False, True]
    assert math.isclose(x.grad.item(), 10 * out["noise"].item()) and math.isclose(
        w.grad.item(), 15 * out["noise"].item()
    )


def test_long_graphs_and_threads():
    x = leaf(1)
    y = x
    for _ in range(100_000):
        y = y + 1
    del y
    gc.collect()
    errors = []

    def work():
        try:
            for _ in range(50):
                (ornik.random.rand(64, 64) @ ornik.random.rand(64, 64) * x).sum().backward()
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=work) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors and x.grad is not None


def test_random_numbers():
    ornik.random.seed(3)
    state = ornik.random.get_state()
    a = ornik.random.randn(4)
    ornik.random.set_state(state)
    assert ornik.random.randn(4).tolist() == a.tolist()
    with ornik.random.Generator(3) as generator:
        assert ornik.random.randn(4).tolist() == a.tolist()
        kept = generator.get_state()
        b = ornik.random.uniform(2, 3, (2, 2))
        generator.set_state(kept)
        assert ornik.random.uniform(2, 3, (2, 2)).tolist() == b.tolist()
    assert sorted(ornik.random.permutation(9).tolist()) == list(range(9))
    assert set(ornik.random.randint(0, 3, 200).tolist()) == {0, 1, 2}
    for wrong in ((), (1,) * 6, (1, 2, b"", 3, False, 0.0)):
        with pytest.raises(ValueError, match="no state of a generator"):
            ornik.random.set_state(wrong)
    with pytest.raises(ValueError, match="a seed is"):
        ornik.random.seed(-1)
    before = ornik.get_num_threads()
    ornik.set_num_threads(2)
    assert ornik.get_num_threads() == 2
    ornik.set_num_threads(before)
