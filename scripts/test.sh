#!/usr/bin/env bash
# test.sh: installs what is missing, builds and runs all tests; those of the Python package come with the release
# preset, and with asan those that crash what can be crashed.
#
#     scripts/test.sh              the release preset
#     scripts/test.sh asan tsan    other presets
#
# With WERROR=ON in the environment warnings are errors.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release)

packages=("${build_packages[@]}" "${example_packages[@]}" "${python_packages[@]}" libgtest-dev pkg-config
    dataset-fashion-mnist qemu-user)
for preset in "${presets[@]}"; do
    [ "$preset" = tsan ] && packages+=(clang libomp-dev libclang-rt-14-dev)
done
install_missing "${packages[@]}"

for preset in "${presets[@]}"; do
    echo "== $preset"
    options=(-DORNIK_BUILD_TESTS=ON "-DORNIK_WERROR=${WERROR:-OFF}")
    # Who meets whom in threads is the same at any width of vectors; this one is sooner compiled than AVX-512.
    [ "$preset" = tsan ] && grep -q -w avx2 /proc/cpuinfo && options+=(-DORNIK_ARCH=x86-64-v3)
    build "$preset" "${options[@]}"
    (cd "$root" && ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j "$(nproc)")
    if [ "$preset" = release ]; then
        echo "== Python package"
        python_environment test,demo,docs
        (cd "$root" && build/venv/bin/python -m pytest)
    elif [ "$preset" = asan ]; then
        echo "== Python package under the sanitizers"
        python_tools
        PYTHON=$root/build/venv/bin/python "$root/scripts/python_asan.sh"
    fi
done
