"""Random numbers.

The same seed gives the same numbers on every machine and with any number of threads.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from . import _dtypes, _ornik
from ._convert import DTypeLike, Shape

if TYPE_CHECKING:
    from ._tensor import KTensor

__all__ = [
    "Generator",
    "get_state",
    "multinomial",
    "normal",
    "permutation",
    "rand",
    "randint",
    "randn",
    "seed",
    "set_state",
    "uniform",
]


def seed(seed: int) -> None:
    """Starts the default generator afresh: 0 <= seed < 2**32."""
    if not 0 <= seed < 2**32:
        raise ValueError(f"a seed is a whole number from 0 to 2**32 - 1, not {seed}")
    _ornik.set_seed(seed)


def get_state() -> tuple[Any, ...]:
    """All that the default generator's next numbers depend on."""
    return _ornik.default_generator().get_state()


def set_state(state: tuple[Any, ...]) -> None:
    """Goes on from such a state."""
    _ornik.default_generator().set_state(state)


class Generator:
    """Random numbers of their own. Inside ``with generator:`` all functions of this thread draw from it.

    >>> with ornik.random.Generator(7):
    ...     a = ornik.random.rand(3)
    >>> with ornik.random.Generator(7):
    ...     b = ornik.random.rand(3)
    >>> bool((a == b).all())
    True
    """

    def __init__(self, seed: int) -> None:
        if not 0 <= seed < 2**32:
            raise ValueError(f"a seed is a whole number from 0 to 2**32 - 1, not {seed}")
        self._generator = _ornik.new_generator(seed)
        self._scopes: list[_ornik.GeneratorScope] = []

    def __enter__(self) -> Generator:
        self._scopes.append(_ornik.GeneratorScope(self._generator))
        return self

    def __exit__(self, *_: object) -> None:
        self._scopes.pop().leave()

    def get_state(self) -> tuple[Any, ...]:
        """All that its next numbers depend on."""
        return self._generator.get_state()

    def set_state(self, state: tuple[Any, ...]) -> None:
        """Goes on from such a state."""
        self._generator.set_state(state)

    def __reduce__(self) -> tuple[Any, ...]:
        return _generator_from, (self.get_state(),)


def _generator_from(state: tuple[Any, ...]) -> Generator:
    generator = Generator(0)
    generator.set_state(state)
    return generator


def rand(*shape: int, dtype: DTypeLike = _dtypes.float32) -> KTensor:
    """Uniform in [0, 1)."""
    return _ornik.rand(shape, dtype, 0.0, 1.0)


def randn(*shape: int, dtype: DTypeLike = _dtypes.float32) -> KTensor:
    """Normal, of mean 0 and deviation 1."""
    return _ornik.randn(shape, dtype, 0.0, 1.0)


def uniform(low: float = 0.0, high: float = 1.0, shape: Shape = (), *, dtype: DTypeLike = _dtypes.float32) -> KTensor:
    """Uniform in [low, high)."""
    return _ornik.rand(shape, dtype, low, high)


def normal(
    mean: float = 0.0, deviation: float = 1.0, shape: Shape = (), *, dtype: DTypeLike = _dtypes.float32
) -> KTensor:
    """Normal."""
    return _ornik.randn(shape, dtype, mean, deviation)


def randint(low: int, high: int, shape: Shape = (), *, dtype: DTypeLike = _dtypes.int64) -> KTensor:
    """Whole numbers of [low, high)."""
    return _ornik.randint(low, high, shape, dtype)


def permutation(n: int, *, dtype: DTypeLike = _dtypes.int64) -> KTensor:
    """0 .. n - 1 in random order."""
    return _ornik.randperm(n, dtype)


def multinomial(weights: KTensor, count: int, *, replacement: bool = True) -> KTensor:
    """Positions [count] or [rows, count], drawn with probabilities proportional to weights [n] or [rows, n].

    The weights are floating, finite, and 0 and above. Without ``replacement`` no position comes twice in a row.

    >>> ornik.random.multinomial(ornik.tensor([0.0, 3.0]), 4)
    KTensor([1, 1, 1, 1])
    """
    return _ornik.multinomial(weights, count, replacement)
