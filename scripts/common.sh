# common.sh: what demo.sh and test.sh share. Sourced, not run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# install_missing COMMAND-DESCRIPTION... : Debian packages that are not there yet. On a system without
# apt, says what is needed and goes on: the tools may have come another way.
install_missing() {
    if ! command -v apt-get >/dev/null 2>&1 || ! command -v dpkg-query >/dev/null 2>&1; then
        echo "This system has no apt. Needed are CMake 3.25, Ninja, GCC 12 or Clang 16, OpenMP, and what" \
            "stands behind these Debian packages: $*" >&2
        command -v cmake >/dev/null 2>&1 && command -v ninja >/dev/null 2>&1 || exit 1
        return 0
    fi
    local missing=()
    local package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 || { echo "Run as root, or install sudo: packages are missing." >&2; exit 1; }
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# What CMake is told where there is a compiler cache, which sees through compiled headers with these settings. Without
# the second it takes those of a header for those of another that differs in comments alone, and the compiler does not.
compile_options=()
if command -v ccache >/dev/null 2>&1; then
    export CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_DEPEND=1
    compile_options=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DORNIK_PRECOMPILE=ON)
fi

# build PRESET [CMake arguments...]
build() {
    local preset=$1 options=("${compile_options[@]}")
    shift
    # The Python package is the same library compiled in another folder: the cache knows it by the same command, which
    # names no headers of a folder.
    [ "$preset" = release ] && [ ${#options[@]} -gt 0 ] && options+=(-DORNIK_PRECOMPILE=TESTS)
    (cd "$root" && cmake --preset "$preset" "${options[@]}" "$@" && cmake --build --preset "$preset")
}

build_packages=(g++ cmake ninja-build)
example_packages=(zlib1g-dev libcli11-dev)
python_packages=(python3 python3-dev python3-venv)

# python_tools : build/venv with what builds the extension and tests it, without the package.
python_tools() {
    local venv=$root/build/venv
    [ -x "$venv/bin/pip" ] || python3 -m venv "$venv"
    "$venv/bin/python" -m pip --disable-pip-version-check install --quiet "nanobind>=3,<4" numpy pytest \
        hypothesis safetensors
}

# python_environment EXTRAS : build/venv with the Python package in it, built for this machine. EXTRAS are lists of the
# package's own of what else is installed, such as test or demo,docs.
python_environment() {
    local venv=$root/build/venv
    local launcher=()
    command -v ccache >/dev/null 2>&1 && launcher=("--config-settings=cmake.define.CMAKE_CXX_COMPILER_LAUNCHER=ccache")
    [ -x "$venv/bin/pip" ] || python3 -m venv "$venv"
    local pip=("$venv/bin/python" -m pip --disable-pip-version-check install --quiet)
    "${pip[@]}" "scikit-build-core>=1.0" "nanobind>=3,<4"
    # In this environment, not in one of pip's own, and by the compiler's same name: what is compiled twice has the same
    # command, and is found again.
    "${pip[@]}" --no-build-isolation "${launcher[@]}" --config-settings=build-dir=build/python \
        --config-settings=cmake.define.ORNIK_ARCH=native \
        "--config-settings=cmake.define.CMAKE_CXX_COMPILER=${CXX:-c++}" \
        "--config-settings=cmake.define.ORNIK_WERROR=${WERROR:-OFF}" "$root[$1]"
}
