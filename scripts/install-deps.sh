#!/usr/bin/env bash
# Installs the Debian packages that Coilscope needs to build, test and run.
# Only what is missing is installed, so running it twice is harmless.
set -euo pipefail

packages=(
  g++ make cmake pkg-config
  qtbase5-dev qtbase5-dev-tools libqt5charts5-dev libqt5serialport5-dev libqt5svg5-dev
  libjsoncpp-dev libzstd-dev
  libzip-dev sigrok-cli
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  xvfb xauth x11-apps imagemagick
  poppler-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
