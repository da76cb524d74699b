#!/usr/bin/env bash
# Makes Debian packages of what this project installs, and prints where they are.
#
#   scripts/package.sh [OPTION...]     the options go to cmake
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
source scripts/progress.sh
packed=build/package/packed

build_and_pack() {
    cmake --preset package "$@" &&
        cmake --build --preset package &&
        rm -rf -- "$packed" &&
        (cd -- build/package && cpack -B packed) &&
        rm -rf -- "$packed/_CPack_Packages"
}

scripts/setup.sh package
[[ -e build/package/build.ninja ]] ||
    echo "Building the packages in build/package takes about $(duration 225)." >&2
with_progress 'Building the packages' build/package/build.log build_and_pack "$@"
printf '%s\n' "$packed"/*.deb
echo
echo "To install all of them: sudo apt install ./$packed/*.deb"
