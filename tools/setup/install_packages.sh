#!/usr/bin/env bash
# Installs the Debian packages named in the given lists (one a line, '#' starts
# a comment) that are not installed yet; does nothing when all are there.
#   tools/setup/install_packages.sh tools/setup/windows_packages.txt ...
set -euo pipefail
missing=()
for list in "$@"; do
  while read -r package _; do
    [[ -z "${package}" || "${package}" == \#* ]] && continue
    if ! dpkg-query -W -f='${Status}' "${package}" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("${package}")
    fi
  done < "${list}"
done
((${#missing[@]} == 0)) && exit 0

sudo=()
[[ "$(id -u)" -ne 0 ]] && sudo=(sudo)
echo "installing: ${missing[*]}" >&2
"${sudo[@]}" apt-get update
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
