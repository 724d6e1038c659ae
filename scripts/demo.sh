#!/usr/bin/env bash
# The main job on an embedded default: generates a sample clip (moving pattern and a tone),
# converts it with the "mp4-h264" preset and prints where the result is.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

"$root/scripts/build.sh" release tessarin
tree="$root/build/release"
demo="$tree/demo"
mkdir -p "$demo"

sample="$demo/sample.mp4"
if [[ ! -s "$sample" ]]; then
  "$tree/libexec/tessarin/ffmpeg" -nostdin -v error -y \
    -f lavfi -i "testsrc2=size=640x360:rate=30:duration=4" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=4" \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -shortest \
    "$demo/.sample-in-progress.mp4"
  mv "$demo/.sample-in-progress.mp4" "$sample"
fi

echo "sample clip: $sample" >&2
result="$("$tree/bin/tessarin" convert --preset mp4-h264 "$sample" </dev/null)"
echo "converted: $result"
