"""Gradients: what is recorded, and how they are asked for."""

from __future__ import annotations

import functools
import threading
from collections.abc import Callable, Generator, Sequence
from typing import TYPE_CHECKING, Any, TypeVar

from . import _ornik, _tree
from ._convert import is_tensor

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "Function",
    "FunctionContext",
    "backward",
    "checkpoint",
    "enable_grad",
    "grad",
    "is_grad_enabled",
    "is_recomputing",
    "no_grad",
    "set_grad_enabled",
]

_F = TypeVar("_F", bound=Callable[..., Any])


class _Entered(threading.local):
    """What was before, for each with statement that a thread is in."""

    def __init__(self) -> None:
        self.before: list[bool] = []


_entered = _Entered()


class set_grad_enabled:
    """Records operations, or does not, inside a with statement or a function decorated with it, on this thread.

    Decorated generators and coroutines hold their own state only while they run. Other threads, new ones too, record.
    """

    def __init__(self, enabled: bool) -> None:
        self._enabled = bool(enabled)

    def __enter__(self) -> None:
        _entered.before.append(_ornik.grad_enabled())
        _ornik.set_grad_enabled(self._enabled)

    def __exit__(self, *_: object) -> None:
        _ornik.set_grad_enabled(_entered.before.pop())

    def __call__(self, function: _F) -> _F:
        import inspect

        if inspect.isgeneratorfunction(function):

            @functools.wraps(function)
            def generator(*args: Any, **kwargs: Any) -> Generator[Any, Any, Any]:
                return (yield from self._steps(function(*args, **kwargs)))

            return generator  # type: ignore[return-value]
        if inspect.iscoroutinefunction(function):

            @functools.wraps(function)
            async def coroutine(*args: Any, **kwargs: Any) -> Any:
                return await _Awaitable(self._steps(function(*args, **kwargs)))

            return coroutine  # type: ignore[return-value]

        @functools.wraps(function)
        def plain(*args: Any, **kwargs: Any) -> Any:
            with self:
                return function(*args, **kwargs)

        return plain  # type: ignore[return-value]

    def _steps(self, inner: Any) -> Generator[Any, Any, Any]:
        """Runs a generator or coroutine step by step, each under this setting."""
        resume: Callable[[], Any] = functools.partial(inner.send, None)
        try:
            while True:
                try:
                    with self:
                        value = resume()
                except StopIteration as end:
                    return end.value
                try:
                    sent = yield value
                except GeneratorExit:
                    raise
                except BaseException as error:
                    resume = functools.partial(inner.throw, error)
                else:
                    resume = functools.partial(inner.send, sent)
        finally:
            with self:
                inner.close()


class _Awaitable:
    def __init__(self, steps: Generator[Any, Any, Any]) -> None:
        self._steps = steps

    def __await__(self) -> Generator[Any, Any, Any]:
        return self._steps


class no_grad(set_grad_enabled):
    """Nothing is recorded: ``with ornik.no_grad(): ...``, or as a decorator."""

    def __init__(self) -> None:
        super().__init__(False)


class enable_grad(set_grad_enabled):
    """Operations are recorded, also inside :class:`no_grad`."""

    def __init__(self) -> None:
        super().__init__(True)


def is_grad_enabled() -> bool:
    """Is this thread recording?"""
    return _ornik.grad_enabled()


def is_recomputing() -> bool:
    """Is backward() running a checkpointed function once more?"""
    return _ornik.is_recomputing()


def _list(tensors: KTensor | Sequence[KTensor | None] | None) -> list[Any]:
    if tensors is None:
        return []
    return [tensors] if is_tensor(tensors) else list(tensors)


def backward(
    outputs: KTensor | Sequence[KTensor],
    gradients: KTensor | Sequence[KTensor | None] | None = None,
    *,
    retain_graph: bool = False,
    create_graph: bool = False,
) -> None:
    """``KTensor.backward`` from several tensors at once."""
    _ornik.backward(_list(outputs), _list(gradients), retain_graph, create_graph)


def grad(
    outputs: KTensor | Sequence[KTensor],
    inputs: KTensor | Sequence[KTensor],
    gradients: KTensor | Sequence[KTensor | None] | None = None,
    *,
    retain_graph: bool = False,
    create_graph: bool = False,
    allow_unused: bool = False,
) -> tuple[KTensor | None, ...]:
    """The gradients of ``inputs``, without touching any ``grad``.

    An input that no output depends on is refused, or, with ``allow_unused``, has None for a gradient.
    """
    return tuple(_ornik.grad(_list(outputs), _list(inputs), _list(gradients), retain_graph, create_graph, allow_unused))


class FunctionContext:
    """What forward() leaves for backward()."""

    def __init__(self, needs_input_grad: tuple[bool, ...]) -> None:
        #: For each argument of apply(): is its gradient asked for?
        self.needs_input_grad = needs_input_grad
        self._saved: tuple[KTensor | None, ...] = ()
        self._dirty: tuple[KTensor, ...] = ()
        self._constant: tuple[KTensor, ...] = ()

    def mark_dirty(self, *tensors: KTensor) -> None:
        """Says which arguments forward() has changed in place; it returns them, and so does apply()."""
        self._dirty = tensors

    def mark_non_differentiable(self, *tensors: KTensor) -> None:
        """Says which results have no gradient: apply() gives them without a past, and backward() gets None for them."""
        self._constant = tensors

    def save_for_backward(self, *tensors: KTensor | None) -> None:
        """Keeps tensors; ones that are changed in place before backward() are noticed."""
        self._saved = tensors

    @property
    def saved_tensors(self) -> tuple[Any, ...]:
        """What was saved."""
        return self._saved


def _place(tensor: Any, tensors: Sequence[Any]) -> int | None:
    """Where a tensor stands among others."""
    return next(
        (i for i, t in enumerate(tensors) if is_tensor(t) and is_tensor(tensor) and _ornik.same(t, tensor)), None
    )


class Function:
    """An operation with a gradient of its own.

    >>> class Cube(ornik.Function):
    ...     @staticmethod
    ...     def forward(ctx, x):
    ...         ctx.save_for_backward(x)
    ...         return x * x * x
    ...
    ...     @staticmethod
    ...     def backward(ctx, gradient):
    ...         (x,) = ctx.saved_tensors
    ...         return gradient * 3 * x * x
    >>> x = ornik.tensor(2.0, requires_grad=True)
    >>> Cube.apply(x).backward()
    >>> x.grad
    KTensor(12.)

    Nothing is recorded inside forward(). backward() gives a gradient for every argument of forward(): None for those
    that have none. Made of recorded operations, it has second derivatives.
    """

    @staticmethod
    def forward(ctx: FunctionContext, *args: Any) -> Any:
        raise NotImplementedError("a Function has forward(ctx, ...)")

    @staticmethod
    def backward(ctx: FunctionContext, *gradients: Any) -> Any:
        raise NotImplementedError("a Function has backward(ctx, ...)")

    @classmethod
    def apply(cls, *args: Any) -> Any:
        """forward(), recorded."""
        places = [i for i, arg in enumerate(args) if is_tensor(arg)]
        needs = tuple(i in places and arg.requires_grad for i, arg in enumerate(args))
        ctx = FunctionContext(needs)
        single = False
        constant: list[int] = []
        changed: dict[int, int | None] = {}

        def run_forward(operands: list[KTensor]) -> tuple[list[Any], list[Any]]:
            nonlocal single
            given = list(args)
            for place, operand in zip(places, operands):
                given[place] = operand
            result = cls.forward(ctx, *given)
            single = not isinstance(result, (tuple, list))
            saved = list(ctx._saved)
            ctx._saved = ()  # The node keeps them, and gives them back with their past.
            results = [result] if single else list(result)
            for i, output in enumerate(results):
                if _place(output, ctx._constant) is not None:
                    constant.append(i)
                if _place(output, ctx._dirty) is not None:
                    changed[i] = _place(output, args)
            if len(changed) < len(ctx._dirty) or None in changed.values():
                raise ValueError(f"{cls.__name__}.forward() returns every argument that it marks as dirty")
            ctx._dirty = ctx._constant = ()
            return results, saved

        def run_backward(kept: list[Any], gradients: list[Any]) -> list[Any]:
            ctx._saved = tuple(kept)
            try:
                result = cls.backward(ctx, *gradients)
            finally:
                ctx._saved = ()
            given = tuple(result) if isinstance(result, (tuple, list)) else (result,)
            if len(given) != len(args):
                raise ValueError(f"{cls.__name__}.backward() gave {len(given)} gradients for {len(args)} arguments")
            for i, gradient in enumerate(given):
                if gradient is not None and i not in places:
                    raise ValueError(f"{cls.__name__}.backward() gave a gradient for argument {i}, which is no KTensor")
            return [given[place] for place in places]

        outputs = _ornik.custom(cls.__name__, [args[place] for place in places], run_forward, run_backward)
        for i in constant:
            outputs[i] = outputs[i].detach()
        for i, place in changed.items():
            if outputs[i].requires_grad:
                _ornik.replace_past(args[place], outputs[i])  # type: ignore[index]
            outputs[i] = args[place]  # type: ignore[index]
        return outputs[0] if single else tuple(outputs)


def checkpoint(function: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    """``function(*args, **kwargs)``, whose inner results are not kept: backward() runs it once more.

    Random numbers are drawn as the first time. Tensors may stand in nested containers, in arguments and results.
    """
    structure: Any = None

    def segment(operands: list[KTensor]) -> list[Any]:
        nonlocal structure
        given, named = _tree.rebuild((args, kwargs), operands)
        result = function(*given, **named)
        structure = result
        return _tree.flatten(result)

    outputs = _ornik.checkpoint(segment, _tree.flatten((args, kwargs)))
    frame = _tree.map_tensors(lambda t: t.detach(), structure)
    structure = None
    return _tree.rebuild(frame, outputs)
