#!/usr/bin/env bash
# Installs the Debian packages Seaforge needs to build and test, only those still missing.
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libxerces-c-dev libgdal-dev libproj-dev
          googletest libgtest-dev proj-bin gdal-bin clang libclang-rt-14-dev
          libcli11-dev nlohmann-json3-dev libcairo2-dev)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
