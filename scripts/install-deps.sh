#!/usr/bin/env bash
# Install the Debian packages the build needs (root, or sudo when available).
# Usage: install-deps.sh [--cross] [--plot]
#   --cross  adds the PowerPC toolchain and qemu-user
#   --plot   adds matplotlib, which bench/report.py draws the benchmark's picture with
set -euo pipefail
pkgs=(cmake make g++ pkg-config liblmdb-dev libgtest-dev libbenchmark-dev file clang-14 libclang-rt-14-dev)
for opt in "$@"; do
  case "${opt}" in
    --cross) pkgs+=(g++-powerpc-linux-gnu qemu-user) ;;
    --plot) pkgs+=(python3-matplotlib) ;;
    *) echo "usage: install-deps.sh [--cross] [--plot]" >&2; exit 2 ;;
  esac
done
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
