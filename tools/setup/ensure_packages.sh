#!/bin/sh
# Installs the Debian packages the build needs that are missing; does nothing
# when all are there. `make` runs it before configuring, so a fresh machine
# needs only `make demo` or `make test`.
#
#   ensure_packages.sh            checks the packages listed below
#   ensure_packages.sh PKG...     checks these instead
#   ensure_packages.sh --windows  checks those of the Windows cross build
#   APT_GET=echo ensure_packages.sh ...   shows what would be installed
set -eu

# One variable per purpose; a new need is a new line here and a word in `packages`.
cli_packages="libcli11-dev"         # kvrscan's and kvr_simulate's command lines
test_packages="nlohmann-json3-dev"  # the tests read the tool's JSON back
# The Python package kvr_decode, its tests and its wheel; its batch runner (Dask)
python_packages="pybind11-dev python3-numpy python3-pytest python3-setuptools python3-build python3-dask python3-distributed"
# make test-windows only: the cross compiler and Wine to run its tests.
windows_packages="g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine64"
packages="$cli_packages $test_packages $python_packages"
[ "${1:-}" = "--windows" ] && { shift; packages="$windows_packages"; }

[ "$#" -gt 0 ] && packages="$*"
apt_get="${APT_GET:-apt-get}"

if ! command -v dpkg-query >/dev/null 2>&1; then
  echo "ensure_packages: not a Debian system; make sure these are installed: $packages" >&2
  exit 0
fi

missing=""
for package in $packages; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = "installed" ] || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null 2>&1; then
    echo "ensure_packages: missing$missing; run as root, or install them: apt-get install$missing" >&2
    exit 1
  fi
  sudo="sudo"
fi
echo "ensure_packages: installing$missing" >&2
$sudo "$apt_get" update
# shellcheck disable=SC2086  # one word per package
$sudo "$apt_get" install -y $missing
