#!/usr/bin/env bash
# Builds the Debian package: scripts/package.sh [TREE] (default build/release).
# Builds the three installed programs in TREE (configuring a release tree when TREE doesn't exist
# yet), runs CPack's DEB generator into TREE/package, runs lintian on the result (errors fail,
# warnings are printed) and checks the package with scripts/check-package.sh.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
tree="${1:-$root/build/release}"

if [[ ! -f "$tree/build.ninja" ]]; then
  "$root/scripts/build.sh" release tessarin_gui tessarin_cli tessarin_action tessarin_changelog
else
  ninja -C "$tree" -j2 tessarin_gui tessarin_cli tessarin_action tessarin_changelog >/dev/null
fi

rm -rf "$tree/package"
(cd "$tree" && cpack -G DEB -B "$tree/package" >"$tree/package.log" 2>&1) ||
  { tail -40 "$tree/package.log" >&2; exit 1; }
deb="$(ls "$tree"/package/tessarin_*.deb)"
echo "package: $deb"

if command -v lintian >/dev/null; then
  # Every finding once; errors fail the script.
  lintian --tag-display-limit 0 "$deb" | tee "$tree/package/lintian.txt" || true
  if grep -q '^E:' "$tree/package/lintian.txt"; then
    echo "package: lintian reported errors" >&2
    exit 1
  fi
fi
"$root/scripts/check-package.sh" "$deb"
