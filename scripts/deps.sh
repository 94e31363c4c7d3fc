#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libssl-dev libcurl4-openssl-dev libtinyxml2-dev clang libclang-rt-14-dev libabsl-dev libisal-dev
          libsqlite3-dev libtbb-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
