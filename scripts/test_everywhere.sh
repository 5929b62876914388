#!/usr/bin/env bash
# test_everywhere.sh: the same digests on every processor and system that this machine has or can emulate.
#
#     scripts/test_everywhere.sh              all of them
#     scripts/test_everywhere.sh --short      emulated ones with some rows of every kind
#     scripts/test_everywhere.sh v3 windows   these
#
# v2, v3 and v4 are instruction sets of x86-64, run here where the processor has them and under qemu otherwise; nehalem
# and haswell run v2 and v3 on emulated processors without AVX and with AVX2, aarch64 runs under qemu, windows under wine.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

short=()
targets=()
for argument in "$@"; do
    if [ "$argument" = --short ]; then short=(--short); else targets+=("$argument"); fi
done
[ ${#targets[@]} -eq 0 ] && targets=(v2 v3 v4 nehalem haswell aarch64 windows)

# One after the other, also after one that differs.
if [ ${#targets[@]} -gt 1 ]; then
    differ=()
    for target in "${targets[@]}"; do
        "${BASH_SOURCE[0]}" "${short[@]}" "$target" || differ+=("$target")
    done
    [ ${#differ[@]} -eq 0 ] || { echo "Not the same: ${differ[*]}" >&2; exit 1; }
    echo "The same bits: ${targets[*]}"
    exit 0
fi

install_missing "${build_packages[@]}" libgtest-dev googletest
list=$root/tests/digests/digests.txt
# Emulated threads that spin would keep the others waiting.
export OMP_WAIT_POLICY=passive

# build_digests TREE [CMake arguments...] : the program, in build/TREE
build_digests() {
    local tree=$root/build/$1
    shift
    (cd "$root" && cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=Release -DORNIK_BUILD_EXAMPLES=OFF \
        "${compile_options[@]}" "$@" >/dev/null && cmake --build "$tree" --target digests)
}

has() { grep -q -w -- "$1" /proc/cpuinfo; }

# What compilers make of loops by themselves stops qemu 7.2: it takes the vector register 4, where a gather has its
# addresses, for none at all, and reads what a masked load is not to read. The kernels' own vectors stay.
emulated_flags=-fno-tree-loop-vectorize

# run_emulated LEVEL PROCESSOR
run_emulated() {
    local tree=x86-64-$1 flags=
    [ "$1" = v3 ] && tree=$tree-emulated flags=$emulated_flags
    install_missing qemu-user
    build_digests "$tree" "-DORNIK_ARCH=x86-64-$1" "-DCMAKE_CXX_FLAGS=$flags"
    qemu-x86_64 -cpu "$2" "$root/build/$tree/tests/digests" --check "$list" "${short[@]}"
}

# An instruction set runs here where the processor has it, and on qemu's best one otherwise; qemu has no AVX-512.
run_level() {
    local level=$1 feature=$2
    build_digests "x86-64-$level" "-DORNIK_ARCH=x86-64-$level"
    local program=$root/build/x86-64-$level/tests/digests
    if has "$feature"; then
        "$program" --check "$list"
    elif [ "$level" = v4 ]; then
        echo "x86-64-v4: compiled; no processor here runs it"
    else
        run_emulated "$level" max
    fi
}

target=${targets[0]}
echo "== $target"
case $target in
v2) run_level v2 sse4_2 ;;
v3) run_level v3 avx2 ;;
v4) run_level v4 avx512vl ;;
nehalem) run_emulated v2 Nehalem ;;
haswell) run_emulated v3 Haswell ;;
aarch64)
    install_missing qemu-user g++-aarch64-linux-gnu
    build_digests aarch64 "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchains/aarch64-linux.cmake"
    qemu-aarch64 -L /usr/aarch64-linux-gnu "$root/build/aarch64/tests/digests" --check "$list" "${short[@]}"
    ;;
windows)
    install_missing wine wine64 g++-mingw-w64-x86-64-posix
    build_digests windows "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchains/windows.cmake"
    WINEDEBUG=-all wine "$root/build/windows/tests/digests.exe" --check "$list" "${short[@]}"
    ;;
*)
    echo "Unknown: $target. There are v2, v3, v4, nehalem, haswell, aarch64 and windows." >&2
    exit 2
    ;;
esac
