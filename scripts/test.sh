#!/usr/bin/env bash
# The whole test suite: every test under AddressSanitizer + UndefinedBehaviorSanitizer (warnings
# as errors), then the concurrency tests again under ThreadSanitizer, then each fuzz target for a
# short run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
start=$SECONDS

echo "== build (ASan+UBSan)"
"$root/scripts/build.sh" asan
echo "== tests (ASan+UBSan)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$root/build/asan" -j2 --output-on-failure --timeout 180 </dev/null

echo "== build (TSan)"
"$root/scripts/build.sh" tsan tessarin_concurrency_tests
echo "== concurrency tests (TSan)"
# TSan's shadow memory layout needs the address space without the kernel's high-entropy ASLR.
# libvips, GLib and the image codecs are not instrumented and hand memory between their worker
# threads by means TSan can't see; only the calls made from inside such libraries are ignored.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1
setarch "$(uname -m)" -R ctest --test-dir "$root/build/tsan" -L concurrency -j2 \
  --output-on-failure --timeout 180 </dev/null

echo "== fuzz targets (5 s each, from the ASan tree)"
"$root/scripts/fuzz.sh" 5 "$root/build/asan"

# The package is built by scripts/package.sh, not here (it needs a release tree); when one was
# built, its unpacked copy is checked (a few seconds).
deb="$(ls "$root"/build/release/package/tessarin_*.deb 2>/dev/null | head -1 || true)"
if [[ -n "$deb" ]]; then
  echo "== package (dpkg -x into a scratch root)"
  "$root/scripts/check-package.sh" "$deb"
fi

echo "== all tests passed in $((SECONDS - start)) s"
