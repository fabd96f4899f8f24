#!/usr/bin/env bash
# Install the Debian packages the build needs (root, or sudo when available).
# Usage: install-deps.sh [--cross]   (--cross adds the PowerPC toolchain and qemu-user)
set -euo pipefail
pkgs=(cmake make g++ pkg-config liblmdb-dev libgtest-dev libbenchmark-dev file)
if [[ "${1:-}" == "--cross" ]]; then
  pkgs+=(g++-powerpc-linux-gnu qemu-user)
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [[ $(id -u) -ne 0 ]] && sudo="sudo"
  echo "installing: ${missing[*]}" >&2
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
