#!/usr/bin/env bash
# Installs a build tree into an empty folder and uses it from there: the README's program through the CMake
# package and through pkg-config, and every public header on its own.
#
#     run.sh SOURCE_TREE BUILD_TREE WORK_FOLDER CXX
set -euo pipefail
source_tree=$1 build_tree=$2 work=$3 cxx=$4

rm -rf "$work"
mkdir -p "$work/source"
cmake --install "$build_tree" --prefix "$work/prefix" >/dev/null

# The program and its output, as the README shows them.
awk '/^```cpp/ {on = 1; next} /^```/ {on = 0} on' "$source_tree/README.md" >"$work/source/main.cpp"
awk '/^```text/ {on = 1; next} /^```/ {on = 0} on' "$source_tree/README.md" >"$work/expected"
grep -q 'int main' "$work/source/main.cpp"
[ -s "$work/expected" ]
cp "$source_tree/tests/consumer/CMakeLists.txt" "$work/source"

cmake -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer" | diff - "$work/expected"

libdir=$(dirname "$(find "$work/prefix" -name ornik.pc)")
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --define-variable=prefix="$work/prefix" --cflags --libs ornik)
# shellcheck disable=SC2086
"$cxx" -std=c++20 "$work/source/main.cpp" $flags -Wl,-rpath,"$libdir/.." -o "$work/by_pkg_config"
"$work/by_pkg_config" | diff - "$work/expected"

cd "$work/prefix/include/ornik"
find . -name '*.h' | while read -r header; do
    echo "#include \"$header\"" | "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I . -x c++ -
done
echo "consumer: all good"
