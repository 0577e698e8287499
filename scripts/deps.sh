#!/usr/bin/env bash
# Installs, with apt-get, whatever of the build and test dependencies this
# Debian machine lacks. Sourced by scripts/demo and scripts/test.
set -euo pipefail

VEX_PACKAGES=(cmake g++ make pkg-config libfftw3-dev libsndfile1-dev libcli11-dev libboost-dev
              libgtest-dev libgmock-dev libbenchmark-dev clang-format
              nlohmann-json3-dev pybind11-dev python3-dev python3-numpy python3-pytest
              libebur128-dev libsoxr-dev libsamplerate0-dev sox clang libclang-rt-14-dev)

vex_install_missing() {
  local missing=()
  for p in "${VEX_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}" >&2
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
  fi
}

vex_install_missing
