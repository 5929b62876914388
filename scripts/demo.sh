#!/usr/bin/env bash
# demo.sh: installs what is missing, builds the library and runs an example: fashion_mnist, which trains a classifier on
# real images, or the one that is named first, character_model or tide_forecast. Other arguments go to the program:
#
#     scripts/demo.sh --help
#     scripts/demo.sh character_model --steps 600
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

example=fashion_mnist
case ${1-} in
    fashion_mnist | character_model | tide_forecast)
        example=$1
        shift
        ;;
    [!-]*)
        echo "demo.sh: there is no example $1; there are fashion_mnist, character_model and tide_forecast" >&2
        exit 2
        ;;
esac

data=()
[ "$example" = fashion_mnist ] && data=(dataset-fashion-mnist)
install_missing "${build_packages[@]}" "${example_packages[@]}" "${data[@]}"
build release -DORNIK_BUILD_TESTS=OFF
exec "$root/build/release/examples/$example" "$@"
