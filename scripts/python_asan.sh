#!/usr/bin/env bash
# python_asan.sh: the Python tests of bad input, memory and threads under AddressSanitizer and
# UndefinedBehaviorSanitizer: no call, however hostile, may crash the interpreter.
#
# Builds the extension beside the library of the asan preset. PYTHON is one with nanobind, numpy, pytest, hypothesis and
# safetensors. ORNIK_HOSTILE_EXAMPLES says how many calls of each function are tried: 1 is for every change, 30 for a
# night. Other arguments than tests go to pytest, too.
#
#     PYTHON=build/venv/bin/python scripts/python_asan.sh
#     PYTHON=build/venv/bin/python ORNIK_HOSTILE_EXAMPLES=30 scripts/python_asan.sh python/tests/test_hostile.py
set -euo pipefail
cd "$(dirname "$0")/.."
python=$(realpath -s "${PYTHON:-python3}")
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake --preset asan "${launcher[@]}" -DORNIK_BUILD_PYTHON=ON "-DPython_EXECUTABLE=$python"
cmake --build build/asan --target ornik_python ornik_processor
tests=("$@")
[ ${#tests[@]} -eq 0 ] && tests=(python/tests/test_{hostile,dangers,interchange,array}.py)
# The C++ runtime is loaded with the sanitizer's, whose hooks for exceptions find nothing to call otherwise. Python
# leaves objects behind when it ends, so leaks are looked for by the tests of the library itself. Memory that nobody has
# is refused, as without the sanitizer. Reports go straight to the terminal: a process that the sanitizer ends takes what
# pytest has captured with it.
LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libstdc++.so)" \
    ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=4096" \
    UBSAN_OPTIONS=print_stacktrace=1 PYTHONMALLOC=malloc PYTHONPATH=build/asan/python \
    ORNIK_HOSTILE_EXAMPLES="${ORNIK_HOSTILE_EXAMPLES:-1}" \
    "$python" -X faulthandler -m pytest -q --capture=sys -p no:cacheprovider -o faulthandler_timeout=300 "${tests[@]}"
