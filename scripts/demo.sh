#!/usr/bin/env bash
# demo.sh: installs what is missing, builds the library and runs an example in Python: fashion_mnist, which trains a
# classifier on real images and draws how it went, or, if named first, character_model. With --cpp it runs the example in
# C++; there is a third one of those, tide_forecast. Other arguments go to the program:
#
#     scripts/demo.sh --help
#     scripts/demo.sh character_model --steps 600
#     scripts/demo.sh --cpp --epochs 1
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

example=fashion_mnist
language=python
while [ $# -gt 0 ]; do
    case $1 in
        --cpp) language=cpp ;;
        fashion_mnist | character_model | tide_forecast) example=$1 ;;
        [!-]*)
            echo "demo.sh: there is no example $1; there are fashion_mnist, character_model and tide_forecast" >&2
            exit 2
            ;;
        *) break ;;
    esac
    shift
done
[ "$example" = tide_forecast ] && language=cpp

data=()
[ "$example" = fashion_mnist ] && data=(dataset-fashion-mnist)
if [ "$language" = cpp ]; then
    install_missing "${build_packages[@]}" "${example_packages[@]}" "${data[@]}"
    build release -DORNIK_BUILD_TESTS=OFF
    exec "$root/build/release/examples/$example" "$@"
fi
install_missing "${build_packages[@]}" "${python_packages[@]}" "${data[@]}"
python_environment demo
[ "$example" = fashion_mnist ] && set -- --output "$root/build/demo" "$@"
exec "$root/build/venv/bin/python" "$root/examples/python/$example.py" "$@"
