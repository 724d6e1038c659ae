#!/usr/bin/env bash
# Times `tessarin actions status` (24 action files installed) in a private data home: the median
# and worst of 20 runs, in milliseconds. Usage: bench/actions_status.sh [TREE] (default build/release).
set -euo pipefail
tree="${1:-build/release}"
tool="$tree/bin/tessarin"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export XDG_DATA_HOME="$scratch/data" XDG_CONFIG_HOME="$scratch/config" XDG_STATE_HOME="$scratch/state"
"$tool" actions install >/dev/null 2>&1
times=()
for _ in $(seq 20); do
  start=$(date +%s%N)
  "$tool" actions status >/dev/null 2>&1
  times+=($(( ($(date +%s%N) - start) / 1000 )))
done
sorted=($(printf '%s\n' "${times[@]}" | sort -n))
printf 'actions status: median %d.%03d ms, worst %d.%03d ms (limit 100 ms)\n' \
  $((sorted[10] / 1000)) $((sorted[10] % 1000)) $((sorted[19] / 1000)) $((sorted[19] % 1000))
