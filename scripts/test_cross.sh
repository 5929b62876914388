#!/usr/bin/env bash
# test_cross.sh: builds the library and its tests for another system, and runs them there: Windows programs under wine,
# those for 64-bit ARM under qemu.
#
#     scripts/test_cross.sh windows                 all test programs
#     scripts/test_cross.sh aarch64 public digests  these; of the digests some of every kind
#
# Optimised a little, unless FLAGS in the environment says otherwise (FLAGS=-O3): most tests are sooner run than compiled.
# With -O0 programs for Windows take roots from its C runtime, which rounds them twice. With WERROR=ON warnings are errors.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=${1:-}
case $preset in
windows) packages=(g++-mingw-w64-x86-64-posix wine wine64) ;;
aarch64) packages=(g++-aarch64-linux-gnu qemu-user) ;;
*)
    echo "Say windows or aarch64." >&2
    exit 2
    ;;
esac
shift
install_missing "${build_packages[@]}" "${packages[@]}" googletest

targets=()
for folder in "$@"; do
    if [ "$folder" = digests ]; then targets+=(digests); else targets+=("test_$folder"); fi
done
cd "$root"
tree=build/$preset-tests
cmake --preset "$preset" -B "$tree" -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=${FLAGS:--O1}" \
    "${compile_options[@]}" -DORNIK_BUILD_TESTS=ON "-DORNIK_WERROR=${WERROR:-OFF}"
cmake --build "$tree" --target ornik "${targets[@]:-all}"
only=$(IFS='|' && echo "$*")
WINEDEBUG=-all ctest --test-dir "$tree" --output-on-failure --no-tests=error -R "^(${only:-.*})(/|$)"
