"""Calls of a few elements, in nanoseconds, beside NumPy's and, when it is installed, PyTorch's.

    python bench/python_small.py [ornik|numpy|torch]...

Each library runs in a process of its own, in turn, three times; the best of its times counts.
"""

import json
import subprocess
import sys
import timeit

ROWS = {
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
SETUP = {
    "ornik": "import ornik as p; make = lambda *s: p.ones(s)",
    "numpy": "import numpy as p; make = lambda *s: p.ones(s, 'float32')",
    "torch": "import torch as p; p.set_num_threads(2); make = lambda *s: p.ones(*s)",
}
TENSORS = "a, b, c, d, m, s = make(1), make(1), make(10), make(10) * 0, make(3, 4), make(4, 4)"


def measure(library):
    times = {}
    for name, statement in ROWS.items():
        timer = timeit.Timer(statement, f"{SETUP[library]}\n{TENSORS}")
        count = 1000
        times[name] = min(timer.repeat(150, count)) / count * 1e9
    return times


def main():
    if sys.argv[1:2] == ["--measure"]:
        print(json.dumps(measure(sys.argv[2])))
        return
    libraries = sys.argv[1:] or list(SETUP)
    best = {}
    for _ in range(3):
        for library in libraries:
            run = subprocess.run([sys.executable, __file__, "--measure", library], capture_output=True, text=True)
            if run.returncode != 0:
                print(f"{library}: not here ({run.stderr.strip().splitlines()[-1]})")
                libraries = [x for x in libraries if x != library]
                continue
            for name, time in json.loads(run.stdout).items():
                best.setdefault(name, {})[library] = min(time, best.get(name, {}).get(library, time))
    print(f"{'':24}" + "".join(f"{library:>10}" for library in libraries) + "   ratio to the faster peer")
    for name, times in best.items():
        peers = [time for library, time in times.items() if library != "ornik"]
        ratio = f"{times['ornik'] / min(peers):10.2f}" if peers and "ornik" in times else ""
        print(f"{name:24}" + "".join(f"{times[library]:10.0f}" for library in libraries) + ratio)


if __name__ == "__main__":
    main()
