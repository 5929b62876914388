"""How many threads work."""

from __future__ import annotations

from . import _ornik

__all__ = ["get_num_threads", "set_num_threads"]


def set_num_threads(count: int, /) -> None:
    """Cuts work into this many parts; at most as many threads as there are processors run them.

    Results do not depend on it.
    """
    _ornik.set_num_threads(count)


def get_num_threads() -> int:
    """What :func:`set_num_threads` has set; 4 before."""
    return _ornik.get_num_threads()
