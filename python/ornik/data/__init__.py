"""Data for training: datasets, the order they are read in, and batches made by workers in the background.

>>> points = ornik.data.TensorDataset(ornik.arange(6), ornik.arange(6) * 10)
>>> for x, y in ornik.data.DataLoader(points, batch_size=4):
...     print(x, y)
[0 1 2 3] [ 0 10 20 30]
[4 5] [40 50]
"""

from __future__ import annotations

from ._collate import collate as collate
from ._datasets import ConcatDataset as ConcatDataset
from ._datasets import Dataset as Dataset
from ._datasets import IterableDataset as IterableDataset
from ._datasets import Subset as Subset
from ._datasets import TensorDataset as TensorDataset
from ._datasets import random_split as random_split
from ._idx import read_idx as read_idx
from ._loader import DataLoader as DataLoader
from ._samplers import BatchSampler as BatchSampler
from ._samplers import RandomSampler as RandomSampler
from ._samplers import SequentialSampler as SequentialSampler
from ._samplers import SubsetRandomSampler as SubsetRandomSampler
from ._samplers import WeightedRandomSampler as WeightedRandomSampler
