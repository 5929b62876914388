#!/usr/bin/env python3
"""Every file includes only what stands on its own floor or below (the table in CONTRIBUTING.md)."""
import os
import re
import subprocess
import sys

FLOORS = [  # The first pattern that fits decides.
    (r"python/", 10),
    (r"modules/|ornik\.h", 9),
    (r"ktensor/", 8),
    (r"apis/", 7),
    (r"(layers|losses|optimizers|io)/", 6),
    (r"tensor/(tensor|tensor_meta|tensor_storage|broadcast|checks|dtype|geometry|scalar)\.h", 2),
    (r"tensor/", 5),
    (r"hardware/cpu/", 4),
    (r"descriptors/", 3),
    (r"(hardware|random|utils)/|export\.h|version\.h", 1),
]


def floor(path):
    inner = re.sub(r"^(include|src)/", "", path)
    return next((number for pattern, number in FLOORS if re.match(pattern, inner)), None)


files = set(subprocess.run(["git", "ls-files", "include", "src", "python"], check=True, capture_output=True,
                           text=True).stdout.split())
wrong = []
for path in sorted(file for file in files if re.search(r"\.(h|cpp)$", file)):
    if floor(path) is None:
        wrong.append(f"{path}: stands on no floor")
        continue
    with open(path, encoding="utf-8") as text:
        names = re.findall(r'^\s*#\s*include\s+"([^"]+\.h)"', text.read(), re.M)  # What is generated ends in .inc.
    for name in names:
        places = [os.path.normpath(os.path.join(root, name)) for root in (os.path.dirname(path), "include", "src")]
        target = next((place for place in places if place in files), None)
        if target is None:
            wrong.append(f"{path}: includes {name}, which is no file of the tree")
        elif (floor(target) or 0) > floor(path):
            wrong.append(f"{path} (floor {floor(path)}) includes {target} (floor {floor(target)})")
print("\n".join(wrong) or "floors: all good")
sys.exit(bool(wrong))
