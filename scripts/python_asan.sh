#!/usr/bin/env bash
# python_asan.sh: the Python tests of bad input under AddressSanitizer and UndefinedBehaviorSanitizer: about a minute.
#
# Builds the extension beside the library of the asan preset. PYTHON is one with nanobind, numpy, pytest, hypothesis and
# safetensors. ORNIK_HOSTILE_EXAMPLES says how many calls of each function are tried; arguments go to pytest.
#
#     PYTHON=build/venv/bin/python scripts/python_asan.sh
set -euo pipefail
cd "$(dirname "$0")/.."
python=$(realpath -s "${PYTHON:-python3}")
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake --preset asan "${launcher[@]}" -DORNIK_BUILD_PYTHON=ON "-DPython_EXECUTABLE=$python"
cmake --build build/asan --target ornik_python ornik_processor
tests=("$@")
[ ${#tests[@]} -eq 0 ] && tests=(python/tests/test_hostile.py python/tests/test_dangers.py python/tests/test_interchange.py)
# The C++ runtime is loaded with the sanitizer's, whose hooks for exceptions find nothing to call otherwise. Python
# leaves objects behind when it ends, so leaks are looked for by the tests of the library itself. Memory that nobody has
# is refused, as without the sanitizer.
LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libstdc++.so)" \
    ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=4096" \
    UBSAN_OPTIONS=print_stacktrace=1 PYTHONMALLOC=malloc PYTHONPATH=build/asan/python \
    ORNIK_HOSTILE_EXAMPLES="${ORNIK_HOSTILE_EXAMPLES:-3}" \
    "$python" -X faulthandler -m pytest -q -p no:cacheprovider -o faulthandler_timeout=300 "${tests[@]}"
