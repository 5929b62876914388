"""Modules, functions, optimizers and schedules against what PyTorch made of them: see torch_cases.py."""

import json
import pathlib
import sys

import numpy
import pytest

import ornik
from ornik import nn, optim

sys.path.insert(0, str(pathlib.Path(__file__).parent))
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

ROWS, METADATA = ornik.io.load_safetensors(pathlib.Path(__file__).with_name("torch_references.safetensors"))
NAMES = json.loads(METADATA["names"])
DTYPES = pytest.mark.parametrize(("dtype", "tolerance"), [("float64", 1e-10), ("float32", 1e-5)])


def library(dtype):
    def tensor(array):
        made = ornik.tensor(array)
        return made.astype(dtype) if made.dtype.kind == "f" else made

    return Library(nn, optim, tensor)


def check(name, found, tolerance):
    numpy.testing.assert_allclose(found, ROWS[name].numpy(), rtol=tolerance, atol=tolerance, err_msg=name)


def test_every_reference_has_a_case():
    schedules = {f"schedule.{name}.{kind}" for name in SCHEDULES for kind in ("SGD", "Adam")}
    assert set(ROWS) == set(CASES) | schedules | {f"optim.{name}" for name, *_ in optimizer_cases()}


@DTYPES
@pytest.mark.parametrize("name", CASES)
def test_case(name, dtype, tolerance):
    case, lib = CASES[name], library(dtype)
    module = case.make(nn)
    is_module = isinstance(module, nn.Module)
    if is_module:
        module.to(dtype).train(case.train)
        module.load_state_dict({key: state_value(name, key, tuple(shape)) for key, shape in NAMES[name].items()})
        assert list(module.state_dict()) == list(NAMES[name])
    inputs = [lib.tensor(x) for x in operands(name, case)]
    for x in inputs:
        if x.dtype.kind == "f":
            x.requires_grad = True
    outputs = flattened(case.call(lib, module, *inputs))
    loss = sum((y * lib.tensor(seed_of(name, i, y.shape))).sum() for i, y in enumerate(outputs) if y.requires_grad)
    if isinstance(loss, ornik.KTensor):
        loss.backward()
    found = [y.detach() for y in outputs] + [x.grad for x in inputs if x.grad is not None]
    if is_module:
        found += [ornik.zeros_like(p) if p.grad is None else p.grad for p in module.parameters()]
        found += [b for b in module.buffers() if b.dtype.kind == "f"]
    assert all(str(t.dtype) == dtype for t in found)
    check(name, numpy.concatenate([t.numpy().ravel() for t in found]), max(tolerance, case.best))


@DTYPES
@pytest.mark.parametrize(("name", "kind", "options", "best"), list(optimizer_cases()))
def test_optimizer(name, kind, options, best, dtype, tolerance):
    found, names = run_optimizer(library(dtype), name, kind, options)
    assert names == NAMES[f"optim.{name}"]
    check(f"optim.{name}", found, max(tolerance, best))


@pytest.mark.parametrize("kind", ["SGD", "Adam"])
@pytest.mark.parametrize("name", SCHEDULES)
def test_schedule(name, kind):
    check(f"schedule.{name}.{kind}", run_schedule(library("float32"), name, SCHEDULES[name], kind), 1e-12)
