#!/usr/bin/env bash
# Builds the release tree and runs every benchmark; each prints its figures and ratios.
# Run on a quiet machine: the ratios compare against plain tools (cat, mv, cp, bare ffmpeg)
# measured in the same run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

"$root/scripts/build.sh" release tessarin_process_runner_bench tessarin_progress_parser_bench \
  tessarin_publish_bench tessarin_conversion_job_bench tessarin_fast_cut_bench \
  tessarin_frame_export_bench tessarin_queue_intake_bench tessarin_cut_aids_bench \
  tessarin_recording_join_bench tessarin_handoff_server_bench tessarin_transcription_upload_bench \
  tessarin_transcription_pipeline_bench tessarin_cli
bin="$root/build/release/bin"
export CONVERTER_TOOLS_DIR="$root/build/release/libexec/tessarin"

echo "== process runner (64 MiB in 64 KiB lines vs cat; 1,000 starts vs posix_spawn)"
"$bin/tessarin_process_runner_bench"
echo "== progress parser"
"$bin/tessarin_progress_parser_bench"
echo "== publish (1 GiB: same volume vs mv, copying vs cp)"
"$bin/tessarin_publish_bench"
echo "== conversion job overhead (10 s 1280x720, mp4-h264, vs bare ffmpeg)"
"$bin/tessarin_conversion_job_bench" "${1:-5}"
echo "== fast cut (226 s of a 5-minute 1280x720 file vs a bare stream copy)"
"$bin/tessarin_fast_cut_bench" "${1:-5}"
echo "== frame export (2-minute 1080p slide recording: analysis vs decode, export vs scene one-liner)"
"$bin/tessarin_frame_export_bench" "${1:-3}"
echo "== recording take (10 two-second 1080p segments: finalised vs the bare concat join)"
"$bin/tessarin_recording_join_bench" "${1:-5}"
echo "== queue intake (30,000 entries holding 1,000 videos)"
"$bin/tessarin_queue_intake_bench" 3
echo "== cut aids (silence scan of 10 min vs bare silencedetect, a 30 s waveform, a 1080p thumbnail)"
"$bin/tessarin_cut_aids_bench" "${1:-5}"
echo "== handoff socket (10,000 hostile connections, then 100 valid handoffs by the helper)"
"$bin/tessarin_handoff_server_bench"
echo "== transcription upload (100 MB audio to a loopback HTTPS server vs curl --data-binary)"
"$bin/tessarin_transcription_upload_bench" 3
echo "== transcription pipeline (a 30-minute talk, two chunks, vs ffmpeg and curl by hand)"
"$bin/tessarin_transcription_pipeline_bench" "${1:-1}"
echo "== screen recording (30 s of 1920x1080 at 30 fps on Xvfb vs a bare gst-launch pipeline)"
"$root/bench/recording_capture_bench.sh" "$bin" 30
