#!/usr/bin/env bash
# Checks that the installed tools are relocatable: installs a build folder (default build/release,
# after scripts/run-main.sh) into a staging prefix, moves the prefix elsewhere, and runs kelo,
# kelo-sim and the manual pages from there with a fresh home, no build tree involved.
#   scripts/check-install.sh [BUILD_DIR]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build/release}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/staged" >/dev/null
mv "$work/staged" "$work/moved"
prefix=$work/moved
export HOME=$work/home XDG_STATE_HOME=
mkdir -p "$HOME"
cd "$work"
"$prefix/bin/kelo" --version
"$prefix/bin/kelo-sim" --version
"$prefix/bin/kelo-sim" --apps 20 --json >"$work/day.json"
root=$HOME/.local/state/kelo-sim/root
test -f "$root/System/Library/Kelo/KeloConfiguration.bundle/Info.json"
grep -q '"posted": 8' "$work/day.json"  # the kelo beside kelo-sim posted them
"$prefix/bin/kelo" --root "$root" --home "$root/home" config get maxFetchApps >/dev/null
for page in man1/kelo.1 man1/kelo-sim.1 man8/kelo-powerd.8; do
  test -s "$prefix/share/man/$page"
done
for tool in kelo kelo-sim kelo-powerd; do
  bash -n "$prefix/share/bash-completion/completions/$tool"
done
if grep -rqs -- "$top" "$root/etc" "$work/day.json"; then
  echo "the installed tools still point into $top" >&2
  exit 1
fi
echo "relocatable: the tools ran from $prefix with no build or source tree involved"
