#!/bin/sh
# install_npm_reader.sh SRC DEST PACKAGE: installs a reader test's third-party
# reader (the versions of SRC's package-lock.json, PACKAGE the one it tests with)
# into DEST. Does nothing when DEST already holds them. When npm cannot reach its
# registry, leaves DEST/npm-unreachable saying so, and the test is skipped;
# any other failure of npm fails.
set -u
src=$1
dest=$2
package=$3
mkdir -p "$dest"
if [ -f "$dest/node_modules/$package/package.json" ] && cmp -s "$src/package-lock.json" "$dest/package-lock.json"; then
  exit 0
fi
rm -f "$dest/npm-unreachable"
cp "$src/package.json" "$src/package-lock.json" "$dest/"
if ! command -v npm >/dev/null 2>&1; then
  echo "npm is not installed" >"$dest/npm-unreachable"
  echo "$package reader: npm is not installed; the reader test will be skipped" >&2
  exit 0
fi
if (cd "$dest" && npm ci --prefer-offline --no-audit --no-fund --loglevel=error); then
  exit 0
fi
if ! npm ping >/dev/null 2>&1; then
  echo "npm cannot reach its registry" >"$dest/npm-unreachable"
  echo "$package reader: npm cannot reach its registry; the reader test will be skipped" >&2
  exit 0
fi
echo "$package reader: npm ci failed in $dest" >&2
exit 1
