#!/usr/bin/env bash
# Installs the Debian packages of the given groups (packages.txt) that are missing: install_packages.sh build test
# Needs root or sudo only where something is missing. Prints what it does.
set -eu
list=$(dirname "$0")/packages.txt

wanted=()
for group in "$@"; do
  while read -r name; do wanted+=("$name"); done < <(awk -v group="$group" '$1 == group { print $2 }' "$list")
done

missing=()
for name in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'ok installed' || missing+=("$name")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "All packages needed are installed: ${wanted[*]}"
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Missing packages: ${missing[*]}. Install them as root; sudo is not here." >&2; exit 1; }
  as_root=(sudo)
fi
echo "Installing ${missing[*]} ..."
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
