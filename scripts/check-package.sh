#!/usr/bin/env bash
# Unpacks a Tessarin .deb into a scratch root with `dpkg -x` and checks that what it installs
# stands: `tessarin --version` runs and prints the package's version, the helper folder holds
# tessarin-action and its digest, and the desktop entry, icon, MIME and AppStream files are there
# and valid. Usage: scripts/check-package.sh FILE.deb
set -euo pipefail
deb="$1"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
dpkg -x "$deb" "$scratch"
version="$(dpkg-deb -f "$deb" Version)"

printed="$("$scratch/usr/bin/tessarin" --version)"
[[ "$printed" == "$version" ]] || { echo "check-package: --version printed '$printed', not $version" >&2; exit 1; }
for file in usr/bin/tessarin-gui usr/libexec/tessarin/tessarin-action \
            usr/libexec/tessarin/tessarin-action.sha256 \
            usr/share/applications/com.tessarin.Tessarin.desktop \
            usr/share/icons/hicolor/scalable/apps/com.tessarin.Tessarin.svg \
            usr/share/mime/packages/com.tessarin.Tessarin.xml \
            usr/share/metainfo/com.tessarin.Tessarin.metainfo.xml \
            usr/share/doc/tessarin/copyright; do
  [[ -e "$scratch/$file" ]] || { echo "check-package: $file missing" >&2; exit 1; }
done
# The recorded digest is the unpacked helper's.
[[ "$(sha256sum <"$scratch/usr/libexec/tessarin/tessarin-action" | cut -d' ' -f1)" == \
   "$(cat "$scratch/usr/libexec/tessarin/tessarin-action.sha256")" ]] ||
  { echo "check-package: helper digest differs" >&2; exit 1; }
# The media tools are links to the distribution's programs, which the package depends on.
[[ "$(readlink "$scratch/usr/libexec/tessarin/ffmpeg")" == /usr/bin/ffmpeg ]] ||
  { echo "check-package: ffmpeg link is $(readlink "$scratch/usr/libexec/tessarin/ffmpeg")" >&2; exit 1; }
dpkg-deb -f "$deb" Depends | grep -q 'ffmpeg' && dpkg-deb -f "$deb" Depends | grep -q 'gifsicle' ||
  { echo "check-package: Depends lacks ffmpeg or gifsicle" >&2; exit 1; }
desktop-file-validate "$scratch/usr/share/applications/com.tessarin.Tessarin.desktop"
appstreamcli validate --no-net --explain "$scratch/usr/share/metainfo/com.tessarin.Tessarin.metainfo.xml" >/dev/null
echo "check-package: $deb unpacks and runs (tessarin $printed)"
