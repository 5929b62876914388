#!/usr/bin/env bash
# test_package.sh: builds the packages for others and uses them, from a folder, as a program's builder and a program do:
# by CMake and by pkg-config, on every level that this processor has, and on emulated processors of each age.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
install_missing "${build_packages[@]}" pkg-config dpkg-dev qemu-user
build package
cd "$root"
rm -rf build/package/packages build/package-test
cpack --config build/package/CPackConfig.cmake >/dev/null
work=$root/build/package-test
mkdir -p "$work/source"
for package in build/package/packages/*.deb; do
    dpkg-deb -f "$package" Package Version Depends
    dpkg -x "$package" "$work"
done

# The README's program and its output.
awk '/^```cpp/ {on = 1; next} /^```/ {on = 0} on' README.md >"$work/source/main.cpp"
awk '/^```cpp/ {seen = 1} /^```text/ {on = seen; next} /^```/ {on = 0} on' README.md >"$work/expected"
cp tests/consumer/CMakeLists.txt "$work/source"
cmake -S "$work/source" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/usr" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer" | diff - "$work/expected"

cat >"$work/source/level.cpp" <<'CPP'
#include <ornik.h>
#include <cstdio>
int main() {
    const ornik::KTensor x({{0.0F, 1.0F}, {2.0F, 3.0F}});
    std::printf("%s %g\n", ornik::instruction_set(), ornik::sum(ornik::matmul(x, x)).item<double>());
}
CPP
flags=$(PKG_CONFIG_PATH=$work/usr/lib/pkgconfig pkg-config --cflags --libs ornik)
# shellcheck disable=SC2086
c++ -std=c++20 "$work/source/level.cpp" $flags "-Wl,-rpath,$work/usr/lib" -o "$work/level"

# expect TEXT COMMAND...
expect() {
    local text
    text=$("${@:2}" 2>&1 | grep -v '^qemu-x86_64: warning: ') || true
    echo "${*:2:3}: $text"
    [ "$text" = "$1" ] || { echo "wanted: $1" >&2; exit 1; }
}
loader=/lib64/ld-linux-x86-64.so.2
for level in $("$loader" --help 2>/dev/null | sed -n 's/^ *\(x86-64-v[0-9]\) (supported.*/\1/p'); do
    expect "$level 22" "$loader" --glibc-hwcaps-mask "$level" "$work/level"
done
expect "x86-64-v3 22" qemu-x86_64 -cpu Haswell "$work/level"
expect "x86-64-v2 22" qemu-x86_64 -cpu Nehalem "$work/level"
expect "$work/usr/lib/libornik.so.0.1: CPU ISA level is lower than required" \
    qemu-x86_64 -cpu core2duo "$work/level"
