#!/usr/bin/env bash
# Installs what building and testing need on Debian 12, without asking anything.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  nlohmann-json3-dev libsqlite3-dev sqlite3 libcli11-dev googletest libgtest-dev
  libbenchmark-dev libspdlog-dev binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi
