#!/usr/bin/env bash
# Runs NVML clients of the field on the simulator, and compares what they show with what gpu_monitor reads. Prints each
# difference, and a line for each client and state. docs/simulator.md has the results.
#
#   scripts/check_clients.sh                   builds gpu_monitor and the simulator first
#   scripts/check_clients.sh --build FOLDER    uses those of this build
#
# The clients come from this system's package sources. Only what is compiled here is installed; the programs are unpacked
# into build/clients, because PCP's package would start four services. A client that cannot be had is left out.
# Exit status: 0 everything is the same, 1 something differs or no client could be checked, 2 wrong usage.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
work=$root/build/clients
build=$root/build/run
clients=()

say() { echo "check_clients: $1" >&2; }

# unpack CLIENT PACKAGE...: the packages' files are then in $work/CLIENT. False when one cannot be had.
unpack() {
    local folder=$work/$1 package
    rm -rf -- "$folder"
    mkdir -p -- "$folder"
    if ! (cd -- "$folder" && apt-get -q download "${@:2}") >"$folder.log" 2>&1; then
        say "$1 is left out, because a package cannot be had: $(grep '^E:' "$folder.log" || cat "$folder.log")"
        return 1
    fi
    for package in "$folder"/*.deb; do dpkg-deb --extract "$package" "$folder"; done
}

# Compiles our program on Debian's Rust wrapper, with Debian's compiler and nothing from elsewhere.
compile_rust_client() {
    local cargo=(env RUSTC=/usr/bin/rustc CARGO_HOME="$work/cargo" /usr/bin/cargo)
    mkdir -p -- "$work"
    cp -R -- "$root/scripts/clients/rust_wrapper" "$work"
    "${cargo[@]}" build --quiet --release --offline --manifest-path "$work/rust_wrapper/Cargo.toml" \
        --config 'source.crates-io.replace-with="debian"' \
        --config 'source.debian.directory="/usr/share/cargo/registry"'
}

case "$#:${1-}" in
    0:)
        # run.sh builds it, and prints the errors of the build.
        "$root/scripts/run.sh" --version >/dev/null
        ;;
    2:--build) build=$(CDPATH='' cd -- "$2" && pwd) ;;
    *)
        echo "usage: ${0##*/} [--build FOLDER]" >&2
        exit 2
        ;;
esac
"$root/scripts/setup.sh" clients || say 'going on with what is installed'

if unpack pcp pcp pcp-conf libpcp3 libpcp-pmda3; then clients+=(--pcp "$work/pcp"); fi
if ! command -v tmux >/dev/null; then
    say 'nvtop is left out, because tmux is not installed'
elif unpack nvtop nvtop; then
    clients+=(--nvtop "$work/nvtop/usr/bin/nvtop")
fi
if compgen -G '/usr/share/cargo/registry/nvml-wrapper-0*' >/dev/null; then
    compile_rust_client
    clients+=(--rust-wrapper "$work/rust_wrapper/target/release/wrapper_client")
else
    say 'the Rust wrapper is left out, because its package is not installed'
fi
if ((${#clients[@]} == 0)); then
    say 'no client could be checked'
    exit 1
fi
python3 "$root/scripts/clients/compare.py" --build "$build" "${clients[@]}"
