#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is
# missing, and the npm packages of the loopback S3 servers.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
packages=(build-essential cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libssl-dev libcurl4-openssl-dev libtinyxml2-dev clang libclang-rt-14-dev libabsl-dev libisal-dev
          libsqlite3-dev libtbb-dev
          rclone awscli openssl curl)
# A node or npm already on PATH may be newer than Debian's: keep it.
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)
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

peers="$root/tests/s3peers"
if [ ! -d "$peers/node_modules" ] || [ "$peers/package-lock.json" -nt "$peers/node_modules/.package-lock.json" ]; then
  echo "installing npm packages in tests/s3peers"
  (cd "$peers" && npm ci --no-audit --no-fund) ||
    echo "npm ci failed in tests/s3peers: the tests against the S3 servers will fail" >&2
fi
