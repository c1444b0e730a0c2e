#!/usr/bin/env bash
# Installs the Debian packages the build needs, and those named as arguments, when any is missing.
set -euo pipefail
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev libbenchmark-dev "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
