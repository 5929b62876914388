#!/usr/bin/env bash
# demo.sh: installs what is missing, builds the library and trains a classifier on real images.
# Arguments go to the program: scripts/demo.sh --help
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_missing "${build_packages[@]}" "${example_packages[@]}" dataset-fashion-mnist
build release -DORNIK_BUILD_TESTS=OFF
exec "$root/build/release/examples/fashion_mnist" "$@"
