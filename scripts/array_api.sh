#!/usr/bin/env bash
# array_api.sh: runs the test suite of the Python array API standard against the installed package.
#
#     scripts/array_api.sh PATH-OF-THE-SUITE [pytest arguments...]
#     scripts/array_api.sh ../array-api-tests --max-examples 20 -k sort
#
# The suite comes from https://github.com/data-apis/array-api-tests, cloned with its submodule. What it needs, and the
# package where it is missing, are installed into build/venv; PYTHON in the environment names another interpreter, which
# has the package. Failures that are expected stand in python/array_api_xfails.txt with their reasons.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

if [ $# -eq 0 ] || [ ! -d "$1/array_api_tests" ]; then
    [ $# -eq 0 ] || echo "There is no array_api_tests in $1." >&2
    echo "Wanted: the path of the array API test suite, as in" >&2
    echo "    git clone --recurse-submodules https://github.com/data-apis/array-api-tests ../array-api-tests" >&2
    echo "    scripts/array_api.sh ../array-api-tests" >&2
    exit 2
fi
suite=$(cd "$1" && pwd)
shift

if [ -z "${PYTHON:-}" ]; then
    PYTHON="$root/build/venv/bin/python"
    "$PYTHON" -c "import ornik" 2>/dev/null || "$root/scripts/python_env.sh"
fi
"$PYTHON" -m pip install --quiet -r "$suite/requirements.txt"

cd "$suite"
export ARRAY_API_TESTS_MODULE=ornik ARRAY_API_TESTS_VERSION=2025.12
# There are no unsigned integers but of 8 bits.
export ARRAY_API_TESTS_SKIP_DTYPES=uint16,uint32,uint64
export HYPOTHESIS_STORAGE_DIRECTORY="${HYPOTHESIS_STORAGE_DIRECTORY:-$root/build/hypothesis}"
export PYTHONDONTWRITEBYTECODE=1
exec "$PYTHON" -m pytest --rootdir="$suite" array_api_tests -p no:cacheprovider --disable-deadline --max-examples 200 \
    --xfails-file="$root/python/array_api_xfails.txt" "$@"
