#!/usr/bin/env bash
# Checks on a bare Debian that the README's two commands set everything up, and that the Debian packages install and hosts
# build against them. Takes about ten minutes, and needs root, a network, and debootstrap:
#
#   sudo scripts/check_fresh_machine.sh [FOLDER]     where the bare Debian is made and left; default: a temporary folder
#
# The last commit is checked.
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

# Runs a script in the bare system, with an empty environment but for the network's proxies.
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
begin 'packages: installed, and hosts that are built against them'
# shellcheck disable=SC2016 # the shell in the bare system expands
inside '
    apt-get install --yes /project/build/package/packed/*.deb
    gpu_monitor list --simulate=2
    hosts=/project/tests/consumers
    simulator=/usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1
    for library in nvml_gpu_monitor feed; do
        cmake -S "$hosts/find_package" -B "/host/$library" -G Ninja -DLIBRARY="$library"
        cmake --build "/host/$library"
        "/host/$library/host" "$simulator"
    done
    c++ -std=c++17 "$hosts/nvml_gpu_monitor_host.cpp" $(pkg-config --cflags --libs nvml_gpu_monitor) -ldl -o /linked
    /linked "$simulator"'
begin 'the service of the exporter: enabled, installed again, removed'
# shellcheck disable=SC2016
inside '
    getent passwd gpu-exporter
    systemctl is-enabled gpu-exporter
    dpkg --install /project/build/package/packed/gpu-exporter_*.deb
    dpkg --purge gpu-exporter
    [[ -z $(find /etc /var/lib -name "gpu[-_]exporter*") ]]
    ! systemctl is-enabled prometheus'
begin "passed; the system is in $root"
