"""Optimizers, and schedules of their learning rates.

>>> w = ornik.tensor([1.0, -2.0], requires_grad=True)
>>> optimizer = ornik.optim.SGD([w], lr=0.5)
>>> (w * w).sum().backward()
>>> optimizer.step()
>>> w.tolist()
[0.0, 0.0]
"""

from __future__ import annotations

from . import lr_scheduler as lr_scheduler
from ._optimizer import Optimizer as Optimizer
from ._optimizers import SGD as SGD
from ._optimizers import Adadelta as Adadelta
from ._optimizers import Adagrad as Adagrad
from ._optimizers import Adam as Adam
from ._optimizers import Adamax as Adamax
from ._optimizers import AdamW as AdamW
from ._optimizers import RMSprop as RMSprop
