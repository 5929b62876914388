#!/usr/bin/env python3
"""Writes torch_references.safetensors: what PyTorch makes of torch_cases.py, in float64.

    pip install torch==2.13.0 numpy safetensors
    python python/tests/make_torch_references.py

One row of numbers for each case: results, gradients of the operands, of the parameters, and buffers afterwards. The
metadata tell the names and shapes of the state.
"""

import json
import pathlib

import numpy
import torch
from safetensors.numpy import save_file
from torch_cases import (
    CASES,
    SCHEDULES,
    Library,
    flattened,
    operands,
    optimizer_cases,
    run_optimizer,
    run_schedule,
    seed_of,
    state_value,
)

torch.set_default_dtype(torch.float64)
lib = Library(torch.nn, torch.optim, lambda array: torch.tensor(array))
rows, names = {}, {}

for name, case in CASES.items():
    module = case.make(torch.nn)
    state = {}
    if isinstance(module, torch.nn.Module):
        state = {key: state_value(name, key, tuple(value.shape)) for key, value in module.state_dict().items()}
        module.load_state_dict({key: torch.tensor(value) for key, value in state.items()})
        module.train(case.train)
    inputs = [torch.tensor(x, requires_grad=x.dtype.kind == "f") for x in operands(name, case)]
    outputs = flattened(case.call(lib, module, *inputs))
    sum(
        (y * torch.tensor(seed_of(name, i, tuple(y.shape)))).sum() for i, y in enumerate(outputs) if y.requires_grad
    ).backward() if any(y.requires_grad for y in outputs) else None
    found = [y.detach() for y in outputs] + [x.grad for x in inputs if x.grad is not None]
    if state:
        found += [p.grad if p.grad is not None else torch.zeros_like(p) for p in module.parameters()]
        found += [b for b in module.buffers() if b.is_floating_point()]
    rows[name] = numpy.concatenate([t.numpy().ravel() for t in found])
    names[name] = {key: list(value.shape) for key, value in state.items()}

for name, kind, options, _ in optimizer_cases():
    rows[f"optim.{name}"], names[f"optim.{name}"] = run_optimizer(lib, name, kind, options)
for name, make in SCHEDULES.items():
    for kind in ("SGD", "Adam"):
        rows[f"schedule.{name}.{kind}"] = run_schedule(lib, name, make, kind)

path = pathlib.Path(__file__).with_name("torch_references.safetensors")
save_file(rows, path, {"names": json.dumps(names, separators=(",", ":"))})
print(f"{len(rows)} cases, {path.stat().st_size} bytes")
