#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh [release|asan|tsan] [ninja targets...]
# Prints nothing but errors; the tree is build/<kind>.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
kind="${1:-release}"
shift || true

"$root/scripts/setup.sh"

case "$kind" in
  release) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  # clang, so the same tree builds the libFuzzer targets the test run uses. Line tables are all
  # the sanitizers' reports need, and build and link faster than full debug information; the
  # libraries are compiled in batches (the release tree keeps one file per compile).
  asan) options=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DTESSARIN_SANITIZE=address
                 -DCMAKE_CXX_FLAGS_DEBUG=-gline-tables-only -DTESSARIN_UNITY=ON -DTESSARIN_WERROR=ON) ;;
  # The thread-sanitizer tree runs the concurrency tests only; the window isn't among them.
  tsan) options=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DTESSARIN_SANITIZE=thread
                 -DCMAKE_CXX_FLAGS_DEBUG=-gline-tables-only -DTESSARIN_UNITY=ON -DTESSARIN_WERROR=ON
                 -DTESSARIN_BUILD_BENCH=OFF -DTESSARIN_BUILD_GUI=OFF) ;;
  *) echo "usage: scripts/build.sh [release|asan|tsan] [targets...]" >&2; exit 2 ;;
esac

tree="$root/build/$kind"
if [[ ! -f "$tree/build.ninja" ]]; then
  cmake -S "$root" -B "$tree" -G Ninja "${options[@]}" >/dev/null
fi
ninja -C "$tree" -j2 "$@" >"$tree.log" 2>&1 || { tail -60 "$tree.log" >&2; exit 1; }
