#!/usr/bin/env bash
# Runs every fuzz target for a fixed time, JOBS at a time, each from its seed
# corpus (fuzz/corpus/<target>) copied into a scratch corpus. Fails on any finding.
set -uo pipefail
bin_dir=$(cd "$1" && pwd)
seconds=${2:-10}
jobs=${3:-2}
src_dir=$(cd "$(dirname "$0")" && pwd)
work=${FUZZ_WORK_DIR:-$bin_dir/work}
mkdir -p "$work"
work=$(cd "$work" && pwd)  # each target runs in its own directory below it

targets=()
for t in "$bin_dir"/*_fuzz; do [ -x "$t" ] && targets+=("$t"); done
if [ ${#targets[@]} -eq 0 ]; then echo "no fuzz targets built"; exit 0; fi

run_one() {
  local t=$1 name corpus log dict=()
  name=$(basename "$t")
  [ -f "$src_dir/dict/$name.dict" ] && dict=(-dict="$src_dir/dict/$name.dict")
  corpus="$work/$name/corpus"
  log="$work/$name/log.txt"
  mkdir -p "$corpus" "$work/$name/artifacts"
  [ -d "$src_dir/corpus/$name" ] && cp -n "$src_dir/corpus/$name"/* "$corpus"/ 2>/dev/null
  # Each target runs in its own directory: the library writes its log to the current one.
  (cd "$work/$name" && "$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2560 \
      -artifact_prefix="$work/$name/artifacts/" "${dict[@]}" "$corpus" >"$log" 2>&1)
  local rc=$?
  if [ $rc -ne 0 ]; then
    echo "FAIL $name (exit $rc); last lines of $log:"
    tail -n 40 "$log"
    return 1
  fi
  echo "ok   $name: $(grep -E '^#[0-9]+.*(DONE|pulse)' "$log" | tail -n 1)"
}
export -f run_one
export work src_dir seconds

failed=0
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_one "$@"' _ {} || failed=1
echo "fuzz: ${#targets[@]} targets, ${seconds}s each"
exit $failed
