#!/usr/bin/env python3
"""The Python package beside NumPy and PyTorch: small calls, the import, training steps, in one table.

    python bench/compare_python.py [--libraries ornik numpy torch] [--rows REGEX] [--rounds 3] [--seconds 2]

Each library has a process of its own, in turn (A B C A B C ...), with teams of two threads; a row keeps its best time
of all rounds. The last column is ours over the faster peer's. Libraries that are not installed are left out.
"""

import argparse
import json
import math
import re
import subprocess
import sys
import time
import timeit

SETUP = {
    "ornik": "import ornik as p; make = lambda *s: p.ones(s); randn = lambda *s: p.random.randn(*s); whole = p.int64",
    "numpy": "import numpy as p; make = lambda *s: p.ones(s, 'float32')",
    "torch": "import torch as p; make = lambda *s: p.ones(*s); randn = p.randn; whole = p.int64",
}
TENSORS = "a, b, c, d, m, s = make(1), make(1), make(10), make(10) * 0, make(3, 4), make(4, 4)"

SMALL = {
    "a + b, one element": "a + b",
    "a * 2.5, one element": "a * 2.5",
    "a[3] of 10": "c[3]",
    "a[2:5] of 10": "c[2:5]",
    "m[1, 2] of 3 x 4": "m[1, 2]",
    "a.shape": "c.shape",
    "a.sum() of 10": "c.sum()",
    "a.reshape(2, 5)": "c.reshape(2, 5)",
    "a.item()": "a.item()",
    "a @ b, 4 x 4": "s @ s",
    "a < b of 10": "c < c",
    "a += b of 10": "c += d",
}

# Of the libraries with networks: a training step from zero_grad() to the optimizer's step.
NETWORKS = """
from {library} import nn, optim
F = nn.functional

class Passing(nn.Module):
    def forward(self, x):
        return x

def stepping(network, loss, optimizer):
    def step():
        optimizer.zero_grad()
        loss(network).backward()
        optimizer.step()
    return step

def image_step():
    network = nn.Sequential(
        nn.Conv2d(1, 16, 3, padding=1, bias=False), nn.BatchNorm2d(16), nn.ReLU(), nn.MaxPool2d(2),
        nn.Conv2d(16, 32, 3, padding=1, bias=False), nn.BatchNorm2d(32), nn.ReLU(), nn.MaxPool2d(2),
        nn.Flatten(), nn.Linear(32 * 49, 128), nn.ReLU(), nn.Linear(128, 10))
    x, truth = randn(128, 1, 28, 28), p.arange(128, dtype=whole) % 10
    return stepping(network, lambda n: F.cross_entropy(n(x), truth),
                    optim.SGD(network.parameters(), lr=0.01, momentum=0.9))

def lstm_step():
    network, x = nn.LSTM(128, 128), randn(100, 32, 128)
    return stepping(network, lambda n: n(x)[0].sum(), optim.Adam(network.parameters()))

def block_step():
    network, x = nn.TransformerEncoderLayer(256, 4, 1024, 0.0, batch_first=True), randn(8, 128, 256)
    return stepping(network, lambda n: (n(x) ** 2).mean(), optim.Adam(network.parameters()))

def tiny_step():
    network, x = nn.Sequential(nn.Linear(8, 8), nn.ReLU(), nn.Linear(8, 8)), randn(2, 8)
    return stepping(network, lambda n: (n(x) ** 2).mean(), optim.Adam(network.parameters()))
"""
STEPS = {
    "step: tiny perceptron": "tiny_step",
    "step: demo's network": "image_step",
    "step: LSTM": "lstm_step",
    "step: transformer block": "block_step",
}
IMPORT = "import"
CALL = "Module.__call__ adds"


def best_of(statement, setup, seconds):
    """The shortest time of one execution, in seconds, of samples of a tenth of a millisecond or one execution."""
    timer = timeit.Timer(statement, setup)
    timer.timeit(1)
    once = timer.timeit(1)
    count = max(1, min(1000, round(1e-4 / max(once, 1e-8))))
    best, end = math.inf, time.perf_counter() + seconds
    while time.perf_counter() < end:
        best = min(best, timer.timeit(count) / count)
    return best


def measure(library, rows, seconds):
    setup = f"{SETUP[library]}\n{TENSORS}"
    times = {
        name: best_of(statement, setup, seconds / 10) for name, statement in SMALL.items() if re.search(rows, name)
    }
    if library == "numpy":
        return times
    scope = {}
    exec(f"{SETUP[library]}\np.set_num_threads(2)\n{NETWORKS.format(library=library)}", scope)
    if re.search(rows, CALL):
        module, x = scope["Passing"](), 1
        called, direct = (
            min(timeit.repeat(statement, globals={"m": module, "x": x}, number=1000, repeat=100)) / 1000
            for statement in ("m(x)", "m.forward(x)")
        )
        times[CALL] = called - direct
    for name, function in STEPS.items():
        if re.search(rows, name):
            scope["p"].manual_seed(1) if library == "torch" else scope["p"].random.seed(1)
            times[name] = best_step(scope[function](), seconds)
    return times


def best_step(step, seconds):
    step()
    best, end = math.inf, time.perf_counter() + seconds
    while time.perf_counter() < end:
        start = time.perf_counter()
        step()
        best = min(best, time.perf_counter() - start)
    return best


def import_time(library):
    """Beyond what the interpreter needs to start."""

    def run(statement):
        start = time.perf_counter()
        subprocess.run([sys.executable, "-c", statement], check=True)
        return time.perf_counter() - start

    return min(run(f"import {library}") for _ in range(5)) - min(run("pass") for _ in range(5))


def in_units(seconds):
    for unit, size in (("s", 1), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}" if seconds < 100 * size else f"{seconds / size:.0f} {unit}"
    return f"{seconds * 1e9:.0f} ns"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--libraries", nargs="+", choices=list(SETUP), default=list(SETUP))
    parser.add_argument("--rows", default="", help="a regular expression that names of rows match")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=2, help="for each step and round; small calls: a tenth")
    parser.add_argument("--measure", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.measure:
        print(json.dumps(measure(options.measure, options.rows, options.seconds)))
        return
    libraries = list(options.libraries)
    best = {}
    for _ in range(options.rounds):
        for library in list(libraries):
            command = [sys.executable, __file__, "--measure", library, "--rows", options.rows]
            run = subprocess.run([*command, "--seconds", str(options.seconds)], capture_output=True, text=True)
            if run.returncode != 0:
                print(f"{library}: left out ({run.stderr.strip().splitlines()[-1]})")
                libraries.remove(library)
                continue
            times = json.loads(run.stdout)
            if re.search(options.rows, IMPORT):
                times[IMPORT] = import_time(library)
            for name, seconds in times.items():
                row = best.setdefault(name, {})
                row[library] = min(seconds, row.get(library, seconds))
    print(f"{'':26}" + "".join(f"{library:>11}" for library in libraries) + "   ratio to the faster peer")
    for name in [*SMALL, IMPORT, CALL, *STEPS]:
        times = best.get(name, {})
        cells = [in_units(times[library]) if library in times else "" for library in libraries]
        peers = [seconds for library, seconds in times.items() if library != "ornik"]
        ratio = f"{times['ornik'] / min(peers):10.2f}" if peers and "ornik" in times else ""
        if times:
            print(f"{name:26}" + "".join(f"{cell:>11}" for cell in cells) + ratio)


if __name__ == "__main__":
    main()
