#!/usr/bin/env bash
# Builds the libFuzzer targets in build/fuzz (clang, ASan+UBSan, -O1) and runs each for SECONDS
# (default 60), two at a time: scripts/fuzz.sh [SECONDS [TREE]]
# With TREE (a clang ASan tree that scripts/build.sh has built, as the test run does), its
# targets run instead and nothing is built.
#
# A target reads its checked-in seeds (fuzz/corpus/<target>, never written to) and what earlier
# runs found (build/fuzz/corpus/<target>, where new inputs go). A crash, leak, broken contract,
# timeout or memory blow-up fails the run; its input is kept in build/fuzz/findings/<target>/ and
# the target's output in build/fuzz/logs/<target>.log.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
tree="${2:-}"
if [[ ! "$seconds" =~ ^[1-9][0-9]*$ || $# -gt 2 ]]; then
  echo "usage: scripts/fuzz.sh [SECONDS [TREE]]" >&2
  exit 2
fi

"$root/scripts/setup.sh"

if [[ -n "$tree" ]]; then
  tree="$(cd "$tree" && pwd)"
  if ! compgen -G "$tree/bin/fuzz_*" >/dev/null; then
    echo "fuzz: $tree holds no fuzz targets (it must be a clang ASan tree)" >&2
    exit 1
  fi
else
  tree="$root/build/fuzz"
  if [[ ! -f "$tree/build.ninja" ]]; then
    # -O1 keeps the targets fast without the optimiser hiding what the sanitizers should see;
    # assertions stay on.
    cmake -S "$root" -B "$tree" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DTESSARIN_FUZZ=ON \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g" \
      -DTESSARIN_WERROR=ON >/dev/null
  fi
  ninja -C "$tree" -j2 tessarin_fuzzers >"$tree.log" 2>&1 || { tail -60 "$tree.log" >&2; exit 1; }
fi

# Files the targets make for themselves (the settings store's) go to a private scratch folder,
# in memory when /dev/shm is there, since the store fsyncs every write.
scratch_base="$tree"
if [[ -d /dev/shm && -w /dev/shm ]]; then
  scratch_base=/dev/shm
fi
scratch="$(mktemp -d "$scratch_base/tessarin-fuzz-XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
export TMPDIR="$scratch"
export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Runs one target and prints its line; a failure is noted in $scratch/failed-<target>.
run_target() {
  local name="$1"
  local corpus="$tree/corpus/$name" findings="$tree/findings/$name" log="$tree/logs/$name.log"
  mkdir -p "$corpus" "$findings" "$tree/logs"
  local options=(-max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1
                 -artifact_prefix="$findings/")
  if [[ -f "$root/fuzz/dict/$name.dict" ]]; then
    options+=(-dict="$root/fuzz/dict/$name.dict")
  fi
  case "$name" in
    # Lines longer than the parser's 4 KiB pending limit need longer inputs than the default.
    progress_parser) options+=(-max_len=16384) ;;
  esac

  local status=0
  (cd "$scratch" && "$tree/bin/fuzz_$name" "${options[@]}" "$corpus" "$root/fuzz/corpus/$name") \
    >"$log" 2>&1 </dev/null || status=$?
  local runs
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
  if ((status == 0)); then
    printf '  %-22s ok, %s inputs in %s s\n' "$name" "${runs:-?}" "$seconds"
    return
  fi
  touch "$scratch/failed-$name"
  local input
  input="$(sed -n 's/.*Test unit written to //p' "$log" | tail -1)"
  if [[ -n "$input" ]]; then
    printf '  %-22s FAILED (%s): input saved at %s, log %s\n' "$name" \
      "$(basename "$input" | cut -d- -f1)" "$input" "$log"
  else
    printf '  %-22s FAILED (exit %s), log %s\n' "$name" "$status" "$log"
  fi
}

names=()
for binary in "$tree"/bin/fuzz_*; do
  names+=("${binary##*/fuzz_}")
done

start=$SECONDS
for name in "${names[@]}"; do
  # Two at a time, one per core.
  while (($(jobs -rp | wc -l) >= 2)); do
    wait -n || true
  done
  run_target "$name" &
done
wait

failed=("$scratch"/failed-*)
if [[ -e "${failed[0]}" ]]; then
  echo "fuzz: ${#failed[@]} of ${#names[@]} targets failed" >&2
  exit 1
fi
echo "fuzz: ${#names[@]} targets clean after ${seconds} s each ($((SECONDS - start)) s)"
