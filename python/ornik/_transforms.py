"""Functions that give gradients of functions."""

from __future__ import annotations

import functools
from collections.abc import Callable
from typing import Any

from . import _ornik, _tree
from ._convert import is_tensor

__all__ = ["grad", "value_and_grad"]


def value_and_grad(
    function: Callable[..., Any], argnums: int | tuple[int, ...] = 0, *, has_aux: bool = False
) -> Callable[..., tuple[Any, Any]]:
    """A function that gives what ``function`` gives, and its gradients by the arguments ``argnums``.

    ``function`` gives one real number; with ``has_aux`` a pair of that and anything else. An argument may be a nested
    container of tensors, and its gradient is the same container of gradients. No ``grad`` is touched.

    >>> ornik.value_and_grad(lambda p: (p["w"] * p["w"]).sum())({"w": ornik.tensor([1.0, 2.0])})
    (KTensor(5.), {'w': KTensor([2., 4.])})
    """
    several = isinstance(argnums, tuple)
    numbers = tuple(argnums) if isinstance(argnums, tuple) else (argnums,)

    @functools.wraps(function)
    def with_gradients(*args: Any, **kwargs: Any) -> tuple[Any, Any]:
        given = list(args)
        for number in numbers:
            if not -len(args) <= number < len(args):
                raise ValueError(f"there is no argument {number} among {len(args)}")
            given[number] = _tree.map_tensors(_as_leaf, args[number])
        chosen = [given[number] for number in numbers]
        leaves = [leaf for leaf in _tree.flatten(chosen) if leaf.requires_grad]
        before = _ornik.grad_enabled()
        _ornik.set_grad_enabled(True)
        try:
            result = function(*given, **kwargs)
        finally:
            _ornik.set_grad_enabled(before)
        value = result[0] if has_aux else result
        if not is_tensor(value) or value.size != 1:
            raise ValueError(f"the function to differentiate gives one number, but it gave {_described(value)}")
        if not leaves:
            raise ValueError("none of the chosen arguments holds floating or complex tensors")
        if value.requires_grad:
            gradients = _ornik.grad([value], leaves, [], False, before and _outer(args), True)
        else:
            gradients = [None] * len(leaves)
        found = iter(gradients)

        def gradient_of(leaf: Any) -> Any:
            if not leaf.requires_grad:
                return None
            gradient = next(found)
            return _ornik.full(leaf.shape, 0, leaf.dtype) if gradient is None else gradient

        trees = tuple(_tree.map_tensors(gradient_of, tree) for tree in chosen)
        if not (before and _outer(args)):
            result = _tree.map_tensors(_ornik.detach, result)
        return result, (trees if several else trees[0])

    return with_gradients


def grad(
    function: Callable[..., Any], argnums: int | tuple[int, ...] = 0, *, has_aux: bool = False
) -> Callable[..., Any]:
    """A function that gives the gradients of ``function``: :func:`value_and_grad` without the value.

    >>> ornik.grad(ornik.sin)(ornik.tensor(0.0))
    KTensor(1.)
    """
    both = value_and_grad(function, argnums, has_aux=has_aux)

    @functools.wraps(function)
    def gradients(*args: Any, **kwargs: Any) -> Any:
        value, found = both(*args, **kwargs)
        return (found, value[1]) if has_aux else found

    return gradients


def _as_leaf(tensor: Any) -> Any:
    if tensor.dtype.kind not in "fc":
        return tensor
    if tensor.requires_grad and _ornik.grad_enabled():
        # Inside another derivative: a result of its own, on the way to the outer one's leaf.
        return _ornik.view(tensor, tensor.shape)
    leaf = _ornik.detach(tensor)
    leaf.requires_grad = True
    return leaf


def _outer(args: Any) -> bool:
    return any(tensor.requires_grad for tensor in _tree.flatten(args))


def _described(value: Any) -> str:
    return f"{value.size} of them" if is_tensor(value) else type(value).__name__
