#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need,
# and only those that are missing. Quiet when everything is there.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev binutils dpkg-dev pkg-config
  libopenexr-dev zlib1g-dev libdeflate-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  openexr openimageio-tools
  tzdata
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
  sudo=sudo
  command -v sudo >/dev/null || { echo "setup: need root to install: ${missing[*]}" >&2; exit 1; }
else
  sudo=
fi
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq >/dev/null
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
