#!/usr/bin/env bash
# Tries on a bare Debian what the documents ask users to type: runs every block of commands, as a user who may use sudo.
# Then checks that the packages pass their checks there, that hosts build against them, and that the service comes and
# goes with its package. Takes about an hour, and needs root, a network, and debootstrap:
#
#   sudo scripts/check_fresh_machine.sh [FOLDER [DOCUMENT...]]
#
# FOLDER is where the bare Debian is made and left; by default a temporary folder. One that is there already is used as
# it is. With documents, only their blocks are run. The last commit is checked.
set -euo pipefail

((EUID == 0)) || { echo "check_fresh_machine: needs root" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "check_fresh_machine: needs debootstrap" >&2; exit 1; }
# In namespaces of its own: at the end nothing stays mounted, and no process is left.
(($$ == 1)) || exec unshare --mount --pid --fork --kill-child "${BASH_SOURCE[0]}" "$@"

source=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
root=$(realpath -- "${1:-$(mktemp -d)}")
documents=("${@:2}")
home=/home/visitor
project=$home/nvml_gpu_monitor

begin() { printf '\n==== %s (%d s since the start) ====\n' "$1" "$SECONDS"; }

# inside USER COMMAND...: in the bare system, with an empty environment but for the network's proxies.
inside() {
    chroot --userspec="$1:$1" --groups="$1" "$root" /usr/bin/env -i \
        PATH=/usr/local/bin:/usr/bin:/bin"$([[ $1 != root ]] || echo :/usr/sbin:/sbin)" \
        HOME="$([[ $1 == root ]] && echo /root || echo $home)" LANG=C.UTF-8 TERM=xterm REPOSITORY=$home/repository.git \
        ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} "${@:2}"
}

# The visitor is what a new user is: somebody with sudo, git and a clone. apt's questions are answered with yes.
make_system() {
    debootstrap --variant=minbase bookworm "$root"
    echo 'APT::Get::Assume-Yes "true";' >"$root/etc/apt/apt.conf.d/90yes"
    enter_system
    inside root bash -euc "
        apt-get install --no-install-recommends sudo git
        useradd --create-home --shell /bin/bash visitor
        echo 'visitor ALL=(ALL) NOPASSWD: ALL' >/etc/sudoers.d/visitor"
}

enter_system() {
    cp -- /etc/resolv.conf /etc/hosts "$root/etc/"
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
}

clone_project() {
    rm -rf -- "${root:?}$home/repository.git" "${root:?}$project"
    git clone --quiet --bare -- "$source" "$root$home/repository.git"
    inside root chown -R visitor: $home
    inside visitor git clone --quiet $home/repository.git $project
}

# The order in which a reader comes to them.
list_documents() {
    {
        printf '%s\n' README.md docs/install.md docs/embedding.md docs/gpu_monitor.md
        git -C "$source" ls-files 'docs/*.md'
        git -C "$source" ls-files '*.md'
    } | awk '!seen[$0]++'
}

# run_block FILE PLACE: on a terminal on which somebody presses q once per second, which ends a live view.
run_block() {
    local file=$1 place=$2 folder=$project status=0
    begin "$place"
    cat -- "$root$file"
    if grep -q 'git clone' "$root$file"; then
        folder=$(inside visitor mktemp --directory --tmpdir=$home)
    fi
    # Expands in the bare system.
    # shellcheck disable=SC2016
    inside visitor bash -c 'cd -- "$1" && exec script --quiet --return --echo never --command "bash -euo pipefail $2" /dev/null' \
        bash "$folder" "$file" < <(while sleep 1; do printf q; done) || status=$?
    if ((status != 0)); then
        printf '\ncheck_fresh_machine: %s failed (exit status %d):\n' "$place" "$status" >&2
        sed 's/^/    /' "$root$file" >&2
        exit 1
    fi
}

# A reader of a document has the packages that README.md makes, also after another document has removed them.
install_packages() {
    # shellcheck disable=SC2016 # the shell in the bare system expands
    inside root bash -euc '[[ ! -e $1 ]] || apt-get -qq install "$1"/*.deb' bash $project/build/package/packed
}

run_blocks() {
    local document='' file place reason skipped='' count=0
    rm -rf -- "$root/blocks"
    for document in "$@"; do
        (cd -- "$root$project" && scripts/document_blocks.sh sh "$root/blocks/$document" "$document")
    done >"$root/blocks.txt"
    while IFS=$'\t' read -r -u 3 file place reason; do
        if [[ -n $reason ]]; then
            skipped+="    $place: $reason"$'\n'
        else
            [[ $document == "${place%:*}" ]] || install_packages
            document=${place%:*}
            run_block "${file#"$root"}" "$place"
            count=$((count + 1))
        fi
    done 3<"$root/blocks.txt"
    begin "$count blocks of commands work; not run:"
    printf '%s' "$skipped"
}

begin 'bare Debian'
if [[ -e $root/etc/debian_version ]]; then enter_system; else make_system; fi
clone_project
if ((${#documents[@]} > 0)); then
    run_blocks "${documents[@]}"
    exit
fi
mapfile -t documents < <(list_documents)
run_blocks "${documents[@]}"

begin 'packages: checked'
inside visitor bash -euc "cd $project && scripts/setup.sh ci && scripts/check_package.sh"
begin 'packages: installed, and hosts that are built against them'
# shellcheck disable=SC2016 # the shell in the bare system expands
inside root bash -euc '
    packed=$1/build/package/packed hosts=$1/tests/consumers
    apt-get install "$packed"/*.deb
    gpu_monitor list --simulate=2
    simulator=/usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1
    for library in nvml_gpu_monitor feed; do
        cmake -S "$hosts/find_package" -B "/host/$library" -G Ninja -DLIBRARY="$library"
        cmake --build "/host/$library"
        "/host/$library/host" "$simulator"
    done
    c++ -std=c++17 "$hosts/nvml_gpu_monitor_host.cpp" $(pkg-config --cflags --libs nvml_gpu_monitor) -ldl -o /linked
    /linked "$simulator"' bash $project
begin 'the service of the exporter: enabled, installed again, removed'
# shellcheck disable=SC2016
inside root bash -euc '
    rm -f /etc/gpu-exporter.users # the visitor has made it
    getent passwd gpu-exporter
    systemctl is-enabled gpu-exporter
    dpkg --install "$1"/build/package/packed/gpu-exporter_*.deb
    dpkg --purge gpu-exporter
    [[ -z $(find /etc /var/lib -name "gpu[-_]exporter*") ]]
    ! systemctl is-enabled prometheus' bash $project
begin "passed; the system is in $root"
