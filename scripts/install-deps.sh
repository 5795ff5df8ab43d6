#!/usr/bin/env bash
# Installs the Debian packages listed in apt-packages.txt (skips the network when all are there).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mapfile -t pkgs < <(grep -v '^\s*#' "$here/apt-packages.txt" | grep -v '^\s*$')
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    echo "Installing: ${missing[*]}"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
