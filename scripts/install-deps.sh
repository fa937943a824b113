#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test and benchmark, when any of
# them is missing. Safe to run repeatedly; needs root (or sudo) only when something is
# missing.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang lld libclang-rt-14-dev ccache clang-format
    qt6-base-dev qtbase5-dev libgl-dev qt6-serialport-dev libqt5serialport5-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    binutils python3 pkg-config python3-venv python3-pytest
    libelf-dev help2man bash-completion
)
if [[ "${PELLIX_WITH_PLOTS:-0}" == 1 ]]; then
    packages+=(python3-matplotlib)
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [[ $(id -u) != 0 ]]; then
    sudo="sudo"
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
