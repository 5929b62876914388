"""Tensors and networks on the processor.

>>> import ornik
>>> x = ornik.tensor([[1.0, 2.0], [3.0, 4.0]], requires_grad=True)
>>> (x @ x).sum().backward()
>>> x.grad
KTensor([[ 7., 11.],
         [ 9., 13.]])
"""

from __future__ import annotations

import math as _math
from typing import TYPE_CHECKING, Any

# First: on a processor that can not run the library it says so, before anything else is loaded.
from . import _processor as _processor

# isort: split
from . import _ornik
from ._build import build_info as build_info
from ._creation import *
from ._dtypes import DType as DType
from ._dtypes import bool_
from ._dtypes import complex64 as complex64
from ._dtypes import complex128 as complex128
from ._dtypes import dtype as dtype
from ._dtypes import float32 as float32
from ._dtypes import float64 as float64
from ._dtypes import int8 as int8
from ._dtypes import int16 as int16
from ._dtypes import int32 as int32
from ._dtypes import int64 as int64
from ._dtypes import uint8 as uint8
from ._elements import *
from ._info import __array_namespace_info__ as __array_namespace_info__
from ._joins import *
from ._picks import *
from ._products import *
from ._promotion import *
from ._reductions import *
from ._sets import *
from ._shapes import *
from ._tensor import HookHandle as HookHandle
from ._tensor import KTensor as KTensor
from ._threads import get_num_threads as get_num_threads
from ._threads import set_num_threads as set_num_threads
from ._transforms import grad as grad
from ._transforms import value_and_grad as value_and_grad
from .autograd import Function as Function
from .autograd import checkpoint as checkpoint
from .autograd import enable_grad as enable_grad
from .autograd import is_grad_enabled as is_grad_enabled
from .autograd import no_grad as no_grad
from .autograd import set_grad_enabled as set_grad_enabled

if TYPE_CHECKING:
    from . import autograd as autograd
    from . import data as data
    from . import fft as fft
    from . import io as io
    from . import linalg as linalg
    from . import nn as nn
    from . import optim as optim
    from . import random as random

__version__: str = _ornik.version
#: The version of the Python array API standard that this namespace follows.
__array_api_version__ = "2025.12"

bool = bool_

e = _math.e
pi = _math.pi
inf = _math.inf
nan = _math.nan
newaxis = None

# Imported when they are first used.
_SUBMODULES = ("autograd", "data", "fft", "io", "linalg", "nn", "optim", "random")


def __getattr__(name: str) -> Any:
    if name in _SUBMODULES:
        import importlib

        return importlib.import_module(f"{__name__}.{name}")
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted({*globals(), *_SUBMODULES} - {"annotations", "TYPE_CHECKING", "Any"})
