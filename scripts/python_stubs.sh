#!/usr/bin/env bash
# Writes the types of the extension into python/ornik/_ornik.pyi, or, with --check, says whether they are up to date.
# Runs with the Python that has the package and nanobind: PYTHON=build/venv/bin/python scripts/python_stubs.sh
set -eu
cd "$(dirname "$0")/.."
python=${PYTHON:-python3}
target=python/ornik/_ornik.pyi
new=$(mktemp --suffix=.pyi)
trap 'rm -f "$new"' EXIT
"$python" -m nanobind.stubgen -q -m ornik._ornik -p python/stubs.pat -o "$new"
# Every argument is shown None, to be refused by its name; those that take it say so twice.
sed -E -i 's/ \| None \| None([,)])/ | NONE\1/g; s/ \| None([,)])/\1/g; s/NONE/None/g' "$new"
if [ "${1:-}" = --check ]; then
    diff -u "$target" "$new" || { echo "$target is out of date: run scripts/python_stubs.sh" >&2; exit 1; }
else
    cp "$new" "$target"
fi
