#!/usr/bin/env bash
# A virtual environment with the package for development: build/venv. The package is built for this machine, in
# build/python, which later calls go on from. Arguments go to pip: scripts/python_env.sh -e . for an editable one.
set -eu
cd "$(dirname "$0")/.."
venv=build/venv
[ -x "$venv/bin/python" ] || "${PYTHON:-python3}" -m venv "$venv"
"$venv/bin/pip" install -q "scikit-build-core>=1.0" "nanobind>=3,<4" numpy pytest hypothesis mypy ruff safetensors
"$venv/bin/pip" install -q --no-build-isolation --no-deps --config-settings=build-dir=build/python \
    --config-settings=cmake.define.ORNIK_ARCH=native "${@:-.}"
"$venv/bin/python" -c 'import ornik; print("ornik", ornik.__version__, "in", ornik.__path__[0])'
