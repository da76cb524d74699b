#!/usr/bin/env bash
# Builds everything for 64-bit Arm with Debian's cross compiler and has an emulator (qemu-user) run the tests, all on the
# simulator. Takes about 15 minutes on two cores, and needs a network. Arguments go to ctest:
#
#   scripts/check_arm64.sh                 all tests that can pass there; the others are listed with the reason
#   scripts/check_arm64.sh -R Sampler      these tests only
#
# The libraries for Arm (70 MiB) are not installed: they are unpacked into build/arm64/sysroot. They come from this
# system's package sources, which have to offer arm64. Debian's do. Ubuntu's do not: add ports.ubuntu.com there.
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
build=$PWD/build/arm64
sysroot=$build/sysroot

made_up_stat='the emulator makes up the /proc/PID/stat of its own process, without memory and with another start time'
software_opengl='OpenGL in software takes a second for a frame in the emulator'
# test | why it cannot pass in the emulator
left_out=(
    "ChangeJournalTest.OnlyCompleteNotesOfEndedProgramsInFilesThatNobodyElseWritesAreBelieved|$made_up_stat"
    "ProcessNamesTest.ProcessesOfThisSystemHaveNameAndUserTheLargestFirst|$made_up_stat"
    "WatchTest.WhatAKilledViewHasLeftIsReportedUntilItIsUndone|$made_up_stat"
    "CommandTest.WithoutTheSimulatorBesideItTheProgramNamesItsPackage|copies the program, here a script that starts it"
    "OverlayTest.FramesAreMeasuredAndReachSamplesAndScreenshot|$software_opengl"
    "OverlayTest.FramesGoOnWhileABoardHangs|$software_opengl"
)

# As on a system for this processor without any package, whose files are all below build/arm64.
arm64_apt_get() {
    apt-get -q -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o Dir::State="$build/apt/state" \
        -o Dir::State::status="$build/apt/status" -o Dir::Cache="$build/apt/cache" -o Debug::NoLocking=true \
        -o APT::Sandbox::User=root "$@"
}

# Fills `sysroot` with the libraries that setup.sh names, unless it is filled.
fill_sysroot() {
    local packages package link target
    packages=$(sed -nE 's/^ *"(run|all|test)\|(lib[^|]*|[^|]*-dev)\|.*/\2/p' scripts/setup.sh)
    if [[ -e $sysroot/packages && $packages == "$(<"$sysroot/packages")" ]]; then return 0; fi
    rm -rf -- "$sysroot" "$build/apt"
    mkdir -p -- "$sysroot" "$build"/apt/{state/lists,cache/archives}/partial
    : >"$build/apt/status"
    arm64_apt_get update || echo 'check_arm64: apt-get update failed; going on with the package lists that came'
    # shellcheck disable=SC2086 # several packages
    if ! arm64_apt_get install --yes --no-install-recommends --download-only $packages; then
        echo "check_arm64: the libraries for Arm could not be had: this system's package sources must offer arm64" >&2
        exit 1
    fi
    for package in "$build"/apt/cache/archives/*.deb; do dpkg-deb --extract "$package" "$sysroot"; done
    # Absolute links lead to this machine's files.
    find "$sysroot" -lname '/*' -printf '%p\t%l\n' | while IFS=$'\t' read -r link target; do
        ln -sfnr -- "$sysroot$target" "$link"
    done
    echo "$packages" >"$sysroot/packages"
}

scripts/setup.sh arm64
fill_sysroot
cmake --preset arm64
cmake --build --preset arm64
excluded=$(printf '|%s' "${left_out[@]%%|*}")
status=0
ctest --preset arm64 --exclude-regex "^(${excluded#|})\$" "$@" || status=$?
printf '\nLeft out:\n'
printf '  %s\n' "${left_out[@]/|/: }"
aarch64-linux-gnu-g++ --version | head -n 1
qemu-aarch64 --version | head -n 1
exit "$status"
