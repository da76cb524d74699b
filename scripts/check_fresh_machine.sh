#!/usr/bin/env bash
# Checks on a bare Debian that the README's two commands do all the set-up, and that the Debian packages install and serve
# a host. Takes some ten minutes, root, a network, and debootstrap:
#
#   sudo scripts/check_fresh_machine.sh [FOLDER]     default: a temporary one; it is left there
#
# What is checked is the last commit.
set -euo pipefail

((EUID == 0)) || { echo "check_fresh_machine: needs root" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "check_fresh_machine: needs debootstrap" >&2; exit 1; }
source=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
root=${1:-$(mktemp -d)}

unmount() {
    umount --recursive -- "$root/proc" "$root/dev" 2>/dev/null || true
}
trap unmount EXIT

begin() { printf '\n==== %s (%d s since the start) ====\n' "$1" "$SECONDS"; }

# Runs a script in the bare system, with nothing of this one's environment but the way to the network.
inside() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
        ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} bash -euo pipefail -c "$1"
}

begin 'bare Debian'
debootstrap --variant=minbase bookworm "$root"
cp -- /etc/resolv.conf /etc/hosts "$root/etc/"
mount --bind /proc "$root/proc"
mount --rbind /dev "$root/dev"
mount --make-rslave "$root/dev"
git clone --quiet -- "$source" "$root/project"

begin 'scripts/run.sh'
inside 'cd /project && scripts/run.sh sample --simulate=2'
begin 'scripts/test.sh'
inside 'cd /project && scripts/test.sh'
begin 'packages: made'
inside 'cd /project && scripts/setup.sh ci && scripts/check_package.sh'
begin 'packages: installed, and a host that is built against them'
# shellcheck disable=SC2016 # it is the shell inside that expands
inside '
    apt-get install --yes /project/build/package/packed/*.deb
    gpu_monitor list --simulate=2
    cmake -S /project/tests/consumers/find_package -B /host -G Ninja
    cmake --build /host
    /host/host /usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1
    c++ -std=c++17 /project/tests/consumers/host.cpp $(pkg-config --cflags --libs nvml_gpu_monitor) -ldl -o /linked
    /linked /usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1'
begin "passed; the system is in $root"
