#!/usr/bin/env bash
# docs.sh: builds the pages about the Python package, build/docs/index.html, with warnings as errors. Takes the package
# from build/venv and puts it there first if need be; PYTHON names another Python that has it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

if [ -z "${PYTHON:-}" ]; then
    PYTHON=$root/build/venv/bin/python
    if ! "$PYTHON" -c 'import ornik, sphinx, myst_parser, furo' 2>/dev/null; then
        install_missing "${build_packages[@]}" "${python_packages[@]}"
        python_environment docs
    fi
fi
cd "$root"  # The package comes from the environment, not from the sources beside this file.
"$PYTHON" -m sphinx -W --keep-going -q -b html docs/python build/docs
echo "build/docs/index.html"
