#!/usr/bin/env bash
# Installs what this project is built with, where it is missing. Prints nothing when everything is there.
#
#   scripts/setup.sh [run|package|test|ci|clients|arm64]...     default: test
#
# run: to build and run the terminal program. package: to make packages of all programs. test: to build and run the
# tests and benchmarks. ci: for every check of .ci/run. clients: what check_clients.sh needs, and
# arm64: what check_arm64.sh needs, both apart from what they unpack themselves.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/progress.sh"
compiler=${CXX:-c++}

have() { command -v -- "$1" >/dev/null; }

# Asks the compiler, which also finds headers that no package has installed.
header() {
    # Unquoted: CXX may carry a launcher or flags.
    # shellcheck disable=SC2086
    printf '#if !__has_include(<%s>)\n#error missing\n#endif\n' "$1" |
        $compiler -std=c++17 -E -x c++ - >/dev/null 2>&1
}

# Clang's runtime libraries are in a package of their own.
have_fuzzer() {
    have clang++ && echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' |
        clang++ -fsanitize=fuzzer,address,undefined -x c++ - -o /dev/null 2>/dev/null
}

have_opengl() { compgen -G '/usr/lib*/libOpenGL.so' || compgen -G '/usr/lib/*/libOpenGL.so'; } >/dev/null

have_software_opengl() { compgen -G '/usr/lib*/dri/swrast_dri.so' || compgen -G '/usr/lib/*/dri/swrast_dri.so'; } >/dev/null

have_prometheus() { have prometheus && have promtool; }

have_rust_wrapper() { [[ -x /usr/bin/cargo ]] && compgen -G '/usr/share/cargo/registry/nvml-wrapper-0*' >/dev/null; }

# part | package of Debian and Ubuntu | command that succeeds when the package's files are there
needs=(
    "run|g++|have ${compiler%% *}"
    "run|cmake|have cmake"
    "run|ninja-build|have ninja"
    "run|libcli11-dev|header CLI/CLI.hpp"
    "run|nlohmann-json3-dev|header nlohmann/json.hpp"
    "run|libncurses-dev|header ncursesw/curses.h"
    "all|libimgui-dev|header imgui/imgui.h"
    "all|libglfw3-dev|header GLFW/glfw3.h"
    "all|libgl-dev|header GL/glcorearb.h"
    "all|libopengl-dev|have_opengl"
    "all|libpng-dev|header png.h"
    "all|prometheus-cpp-dev|header prometheus/exposer.h"
    "all|libcivetweb-dev|header CivetServer.h"
    "package|dpkg-dev|have dpkg-shlibdeps"
    "package|file|have file" # cpack looks for dependencies in what it calls an executable
    "test|libgtest-dev|header gtest/gtest.h"
    "test|libgmock-dev|header gmock/gmock.h"
    "test|libvterm-dev|header vterm.h"
    "test|libbenchmark-dev|header benchmark/benchmark.h"
    "test|curl|have curl"
    "test|xvfb|have Xvfb"
    "test|xauth|have xauth" # xvfb-run needs it
    "test|libgl1-mesa-dri|have_software_opengl"
    "test|pkg-config|have pkg-config"
    "ci|g++|have g++" # the sanitizer builds name it; the compiler above may be another one
    "ci|ccache|have ccache"
    "ci|clang|have clang++"
    "ci|libclang-rt-dev|have_fuzzer"
    "ci|clang-format|have clang-format"
    "ci|clang-tidy|have clang-tidy"
    "ci|shellcheck|have shellcheck"
    "ci|git|have git" # names the sources whose format is checked
    "ci|systemd|have systemd-analyze"
    "ci|jq|have jq"
    "ci|prometheus|have_prometheus"
    "arm64|g++-aarch64-linux-gnu|have aarch64-linux-gnu-g++"
    "arm64|qemu-user|have qemu-aarch64"
    "clients|python3|have python3"
    "clients|tmux|have tmux"
    "clients|cargo|have_rust_wrapper"
    "clients|librust-nvml-wrapper-dev|have_rust_wrapper"
)

# Fills `missing` with the packages whose probe fails. Headers cannot be probed without a compiler, so the packages with
# headers then count as missing, too.
find_missing() {
    local need part package probe
    missing=()
    for need in "${needs[@]}"; do
        IFS='|' read -r part package probe <<<"$need"
        [[ $wanted == *" $part "* ]] || continue
        [[ " ${missing[*]-} " == *" $package "* ]] && continue
        read -ra probe <<<"$probe"
        "${probe[@]}" || missing+=("$package")
    done
}

# CMake would show pages about a compiler that does not work, and no header can be probed with it.
require_working_compiler() {
    local program=${compiler%% *} complaint probe
    [[ $wanted == *' run '* ]] || return 0
    if ! have "$program"; then
        [[ $program != [cg]++ ]] || return 0 # comes with the package g++
        echo "setup: CXX names $program, which does not exist here: install it, or set CXX to another compiler" >&2
        exit 1
    fi
    probe=$(mktemp)
    # Links, too, which a compiler of C does without the C++ library. Unquoted: CXX may carry a launcher or flags.
    # shellcheck disable=SC2086
    complaint=$(printf '#include <string>\nint main() { return std::string(9, 0).empty(); }\n' |
        $compiler -std=c++17 -x c++ - -o "$probe" 2>&1) || : >"$probe"
    if [[ ! -s $probe ]]; then
        rm -f -- "$probe"
        echo "setup: the compiler \"$compiler\" cannot build a C++17 program${complaint:+: }${complaint%%$'\n'*}" >&2
        exit 1
    fi
    rm -f -- "$probe"
}

# An installed CMake can be too old for CMakePresets.json, and would only say that it cannot read that file.
require_recent_cmake() {
    have cmake || return 0
    local version major minor
    version=$(cmake --version)
    version=${version#cmake version }
    version=${version%%[!0-9.]*}
    IFS=. read -r major minor _ <<<"$version"
    if ((major > 3 || (major == 3 && minor >= 21))); then return 0; fi
    {
        echo "setup: CMake $version is too old: the presets that the scripts build with need 3.21 or newer."
        echo "Debian 12 and Ubuntu 22.04 bring one; on an older system put a newer CMake first in PATH."
        echo "The library alone still builds with CMake 3.16 or newer, without the presets."
    } >&2
    exit 1
}

# Debian starts and enables the services that it installs. Prometheus is only a tool of the checks here: it is not
# started now, nor when the machine starts again. One that was installed before is left as it is.
start_policy=/usr/sbin/policy-rc.d

forbid_prometheus() {
    [[ " ${missing[*]} " == *' prometheus '* ]] || return 0
    if have prometheus || [[ -e /etc/systemd/system/prometheus.service ]] ||
        { [[ -e $start_policy ]] && { [[ ! -x $start_policy ]] || "$start_policy" prometheus start; }; }; then
        echo "setup: install the package prometheus by hand: here its service could start or replace another one" >&2
        exit 1
    fi
    trap disable_prometheus EXIT
    if [[ ! -e $start_policy ]]; then
        trap 'disable_prometheus; "${as_root[@]}" rm -f -- "$start_policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin "$start_policy"
    fi
}

disable_prometheus() {
    if have prometheus; then "${as_root[@]}" update-rc.d prometheus disable; fi
}

# Fills `as_root` with what starts a command as root.
become_root() {
    as_root=()
    ((EUID != 0)) || return 0
    local reason='there is no sudo'
    if have sudo; then
        as_root=(sudo)
        if sudo true </dev/null; then return 0; fi
        reason='sudo refuses'
    fi
    {
        echo "setup: missing packages: ${missing[*]}"
        echo "Only root can install them, and $reason. As root, run:"
        echo "    $by_hand"
    } >&2
    exit 1
}

apt_get() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q "$@" </dev/null; }

# An update that fails may not matter, so only the installation decides. Automatic updates often hold the lock for a
# moment. apt reports its progress in its output, because sudo closes other descriptors.
update_and_install() {
    apt_get update || echo 'setup: apt-get update failed; going on with the package lists at hand'
    apt_get "${install[@]}" -o DPkg::Lock::Timeout=120 -o APT::Status-Fd=1
}

install_missing() {
    local install=(install --yes --no-install-recommends "${missing[@]}")
    local by_hand="apt-get update && apt-get ${install[*]}"
    become_root
    forbid_prometheus
    echo "Installing, which can take some minutes: ${missing[*]}" >&2
    if ! with_progress 'Installing packages' "$root/build/setup.log" update_and_install; then
        {
            echo 'To see why, run as root:'
            echo "    $by_hand"
        } >&2
        exit 1
    fi
}

wanted=' '
for set in "${@:-test}"; do
    case $set in
        run) wanted+='run ' ;;
        package) wanted+='run all package ' ;; # all: what every program is built with
        test) wanted+='run all test ' ;;
        ci) wanted+='run all package test ci ' ;;
        clients) wanted+='clients ' ;;
        arm64) wanted+='run all test arm64 ' ;;
        *)
            echo "usage: ${0##*/} [run|package|test|ci|clients|arm64]..." >&2
            exit 2
            ;;
    esac
done

require_working_compiler
require_recent_cmake
find_missing
if ((${#missing[@]} == 0)); then exit 0; fi

if ! have apt-get; then
    {
        echo "setup: missing, by the names of the Debian packages that bring it: ${missing[*]}"
        echo "There is no apt-get here: install them with this system's own package manager."
    } >&2
    exit 1
fi
install_missing
hash -r
require_recent_cmake
find_missing
if ((${#missing[@]} > 0)); then
    echo "setup: installed, but still not found: ${missing[*]}" >&2
    exit 1
fi
