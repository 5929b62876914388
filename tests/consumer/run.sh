#!/usr/bin/env bash
# Installs a build tree into an empty folder, moves that, and uses it from there: the README's program through the CMake
# package and through pkg-config, every public header on its own, and code that has to be refused with a reason.
#
#     run.sh SOURCE_TREE BUILD_TREE WORK_FOLDER CXX
set -euo pipefail
source_tree=$1 build_tree=$2 work=$3 cxx=$4

rm -rf "$work"
mkdir -p "$work/source"
cmake --install "$build_tree" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/prefix"

# The program and its output, as the README shows them.
awk '/^```cpp/ {on = 1; next} /^```/ {on = 0} on' "$source_tree/README.md" >"$work/source/main.cpp"
awk '/^```cpp/ {seen = 1} /^```text/ {on = seen; next} /^```/ {on = 0} on' "$source_tree/README.md" >"$work/expected"
grep -q 'int main' "$work/source/main.cpp"
[ -s "$work/expected" ]
cp "$source_tree/tests/consumer/CMakeLists.txt" "$work/source"

cmake -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer" | diff - "$work/expected"

package=$(dirname "$(find "$work/prefix" -name ornik.pc)")
flags=$(PKG_CONFIG_PATH="$package" pkg-config --cflags --libs ornik)
# shellcheck disable=SC2086
"$cxx" -std=c++20 "$work/source/main.cpp" $flags -Wl,-rpath,"$package/.." -o "$work/by_pkg_config"
"$work/by_pkg_config" | diff - "$work/expected"

# The guide's blocks are one program.
{
    printf '#include <%s>\n' ornik.h cstdio iostream
    echo 'using namespace ornik; int main() {'
    awk '/^```cpp/ {on = 1; next} /^```/ {on = 0} on' "$source_tree/docs/guide.md"
    echo 'return curvature.item<double>() == 18 && first == 1 && total == 6 ? 0 : 1; }'
} >"$work/guide.cpp"
# shellcheck disable=SC2086
"$cxx" -std=c++20 "$work/guide.cpp" $flags -Wl,-rpath,"$package/.." -o "$work/guide"
(cd "$work" && ./guide >/dev/null)

# The version rule follows the SONAME: 0.1.0 serves whoever asks for 0.1, and nobody who asks for 0.2.
soname=$(readelf -d "$package/../libornik.so" | sed -n 's/.*SONAME.*\[libornik\.so\.\(.*\)\]/\1/p')
for version in "$soname" "$(awk -F. -v OFS=. '{$NF += 1} 1' <<<"$soname")"; do
    sed -i "s/find_package(ornik[ 0-9.]*/find_package(ornik $version /" "$work/source/CMakeLists.txt"
    found=yes
    cmake "$work/build" >/dev/null 2>&1 || found=no
    [ "$found" = "$([ "$version" = "$soname" ] && echo yes || echo no)" ] || { echo "version $version: $found"; exit 1; }
done

# Folders given as absolute paths.
cmake -S "$source_tree" -B "$work/absolute" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_INSTALL_LIBDIR=/far/lib \
    -DCMAKE_INSTALL_INCLUDEDIR=/far/include -DORNIK_BUILD_TESTS=OFF -DORNIK_BUILD_EXAMPLES=OFF >/dev/null
flags=$(PKG_CONFIG_PATH="$work/absolute" pkg-config --cflags --libs ornik)
[ "${flags% }" = "-I/far/include/ornik -L/far/lib -lornik" ] || { echo "absolute folders: $flags"; exit 1; }

cd "$work/prefix/include/ornik"
find . -name '*.h' | while read -r header; do
    echo "#include \"$header\"" | "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I . -x c++ -
    # What a header points at is installed, too.
    grep -o '\w[[:alnum:]_/]*\.h\b' "$header" | sort -u | while read -r name; do
        [ -n "$(find . -path "*/${name#include/}" -print -quit)" ] || { echo "$header: there is no $name"; exit 1; }
    done
done
printf '#include <%s>\n' algorithm chrono complex >"$work/macros.cpp"
printf '#define %s(a, b) 0\n' max min >>"$work/macros.cpp"
echo '#include <ornik.h>' >>"$work/macros.cpp"
"$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I . "$work/macros.cpp"

# refuse STANDARD CODE REASON: the code does not compile, and the compiler's text names the reason.
refuse() {
    local text
    if text=$(printf '#include <ornik.h>\n%s\n' "$2" | "$cxx" "-std=$1" -fsyntax-only -Werror=unused-result -I . -x c++ - 2>&1); then
        echo "compiles: $2"
        exit 1
    fi
    grep -q "$3" <<<"$text" || { echo "$text"; exit 1; }
}
refuse c++17 '' 'ornik needs C++20'
refuse c++20 'void f(ornik::Tensor* t) { t->exp(); }' 'nodiscard'
refuse c++20 'void f() { ornik::getLoss("mse"); }' 'nodiscard'
refuse c++20 'void f(ornik::Tensor* t) { t->add_scalar_inplace(1UL); }' 'an_element_type_holds_every_value_of<.*unsigned'
refuse c++20 'void f(ornik::Tensor* t) { t->fill_with_(1.0L); }' 'an_element_type_holds_every_value_of<.*long double'
refuse c++20 'void f(ornik::Tensor* t) { t->mult_scalar_inplace("2"); }' 'ScalarArgument'
echo "consumer: all good"
