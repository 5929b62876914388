"""Networks: modules, their parameters, and losses.

>>> network = nn.Sequential(nn.Linear(2, 8), nn.Tanh(), nn.Linear(8, 1))
>>> optimizer = ornik.optim.Adam(network.parameters(), lr=0.01)
>>> loss = nn.functional.mse_loss(network(ornik.ones((4, 2))), ornik.zeros((4, 1)))
>>> loss.backward()
>>> optimizer.step()

Names of modules, arguments and parameters, and the parameters' layouts and first values, are those of the large
frameworks.
"""

from __future__ import annotations

from . import functional as functional
from . import init as init
from . import utils as utils
from ._activations import *
from ._attention import *
from ._basic import Dropout as Dropout
from ._basic import Dropout1d as Dropout1d
from ._basic import Dropout2d as Dropout2d
from ._basic import Embedding as Embedding
from ._basic import Flatten as Flatten
from ._basic import Identity as Identity
from ._basic import Linear as Linear
from ._basic import Unflatten as Unflatten
from ._containers import *
from ._convolutions import *
from ._fuse import *
from ._losses import *
from ._module import *
from ._normalizations import *
from ._pools import *
from ._recurrent import *
from ._summary import Summary as Summary
from ._summary import SummaryRow as SummaryRow
from ._summary import summary as summary
