#!/usr/bin/env bash
# Screen recording cost: 30 s of a 1920x1080 display at 30 fps on a private Xvfb with a moving
# picture, recorded by `tessarin record` and by a bare gst-launch pipeline with the same encoder
# settings. Prints frames written, frames dropped (goal 0) and the CPU-time ratio (goal <= 1.1).
#   bench/recording_capture_bench.sh [BIN_DIR] [SECONDS]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bin="${1:-$root/build/release/bin}"
seconds="${2:-30}"
fps=30
export CONVERTER_TOOLS_DIR="${CONVERTER_TOOLS_DIR:-$bin/../libexec/tessarin}"

work="$(mktemp -d)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# A display of our own: never the developer's.
mkfifo "$work/display"
exec {report}<>"$work/display"
Xvfb -displayfd "$report" -nolisten tcp -screen 0 1920x1080x24 >/dev/null 2>&1 &
pids+=($!)
read -r -u "$report" number
export DISPLAY=":$number"
unset WAYLAND_DISPLAY
gst-launch-1.0 -q videotestsrc pattern=ball is-live=true \
  ! video/x-raw,width=1920,height=1080,framerate=30/1 ! ximagesink sync=false >/dev/null 2>&1 &
pids+=($!)
sleep 1

frames() {
  ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets \
    -of csv=p=0 "$1"
}
dropped() {  # frames missing from the timeline: gaps between frames beyond one interval
  ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 "$1" | sort -g |
    awk -v fps="$fps" 'NR > 1 { gap = ($1 - last) * fps; if (gap > 1.5) missing += int(gap + 0.5) - 1 }
                       { last = $1 } END { print missing + 0 }'
}
duration() {
  ffprobe -v error -show_entries format=duration -of csv=p=0 "$1"
}
cpu() {  # user + system seconds of a command and its children
  local out
  out=$( { TIMEFORMAT='%U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1)
  awk '{print $1 + $2}' <<<"$out"
}

mkdir -p "$work/out" "$work/data"
ours=$(XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/data/config" \
  cpu "$bin/tessarin" record --display 0 --fps "$fps" --max-dimension 1920 \
      --duration "$seconds" --output-dir "$work/out")
take=$(ls "$work"/out/*.mp4)
bare=$(cpu timeout -s INT "$seconds" gst-launch-1.0 -e ximagesrc use-damage=false \
  ! video/x-raw,framerate=$fps/1 ! videoconvert ! video/x-raw,format=I420 \
  ! x264enc speed-preset=veryfast tune=zerolatency key-int-max=$fps threads=0 \
  ! video/x-h264,profile=high ! h264parse ! mp4mux fragment-duration=1000 ! filesink location="$work/bare.mp4")

ours_frames=$(frames "$take")
ours_dropped=$(dropped "$take")
bare_dropped=$(dropped "$work/bare.mp4")
ours_seconds=$(duration "$take")
bare_frames=$(frames "$work/bare.mp4")
bare_seconds=$(duration "$work/bare.mp4")
awk -v of="$ours_frames" -v os="$ours_seconds" -v oc="$ours" -v od="$ours_dropped" \
    -v bf="$bare_frames" -v bs="$bare_seconds" -v b="$bare" -v bd="$bare_dropped" 'BEGIN {
  printf "tessarin record: %d frames in %.2f s, dropped %d, CPU %.2f s (%.3f s per recorded s)\n",
         of, os, od, oc, oc / os
  printf "bare gst-launch: %d frames in %.2f s, dropped %d, CPU %.2f s (%.3f s per recorded s)\n",
         bf, bs, bd, b, b / bs
  printf "CPU ratio per recorded second (tessarin / bare): %.2f\n", (oc / os) / (b / bs)
  # A pipeline that drops frames also encodes fewer: per frame is the fairer ratio then.
  printf "CPU ratio per written frame (tessarin / bare): %.2f\n", (oc / of) / (b / bf)
}'
