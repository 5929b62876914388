"""How the library was built."""

from __future__ import annotations

from . import _ornik

__all__ = ["build_info"]


def build_info() -> dict[str, str]:
    """What runs: the version, the instruction set that the library was compiled for, and the extension's compiler.

    A wheel may carry the library for several levels of a processor's architecture; this is the one that was loaded.

    >>> ornik.build_info()["version"] == ornik.__version__
    True
    """
    return {"version": _ornik.version, "instructions": _ornik.instruction_set(), "compiler": _ornik.compiler()}
