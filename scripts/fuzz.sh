#!/usr/bin/env bash
# Runs the libFuzzer targets of fuzz/ (built by the "fuzz" preset; configured and built here
# only when the build is missing).
#
#   scripts/fuzz.sh [TARGET|--all] [SECONDS]     default: --all, 60 s per target
#   scripts/fuzz.sh --list                       the targets
#
# Per target: first the kept regression inputs (fuzz/regressions/TARGET) and the seeds are
# replayed, then the target runs for SECONDS on a scratch copy of its seeds (the committed corpus
# never grows), with its dictionary when it has one. A crash, hang, leak or sanitizer report is
# minimised and saved as fuzz/crashes/TARGET-HASH. Prints per target the executions and the
# coverage (edges) reached; exits non-zero when any target failed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

BUILD=${KRO_FUZZ_BUILD:-build/fuzz}
BIN=$BUILD/fuzz
TARGETS=(settings_line dialhome_json dialhome_reply config_agent config_master products
         webserver_cfg registry_file job_records alert_payload base64 json http_request uri_map)

usage() { sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; }

which=--all
seconds=60
for arg in "$@"; do
  case $arg in
    -h | --help) usage; exit 0 ;;
    --list) printf '%s\n' "${TARGETS[@]}"; exit 0 ;;
    --all) which=--all ;;
    *[!0-9]*) which=$arg ;;
    *) seconds=$arg ;;
  esac
done
if [[ $which == --all ]]; then
  selected=("${TARGETS[@]}")
elif [[ " ${TARGETS[*]} " == *" $which "* ]]; then
  selected=("$which")
else
  echo "fuzz.sh: unknown target '$which' (--list shows them)" >&2
  exit 2
fi

missing=0
for t in "${selected[@]}"; do
  [[ -x $BIN/fuzz_$t ]] || missing=1
done
if ((missing)); then
  echo "[fuzz] building the fuzz preset" >&2
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -- -j"$(nproc)"
fi

# Targets that read settings files write one per input: memory-backed scratch keeps them fast.
scratch_base=${TMPDIR:-/tmp}
[[ -d /dev/shm && -w /dev/shm ]] && scratch_base=/dev/shm
scratch=$(mktemp -d "$scratch_base/kro-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p fuzz/crashes

# Leaks are reported at once; UBSan stops at its first report (the build makes every check fatal).
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:symbolize=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

failed=0
rows=()

# Keeps the minimised input of a failed run and prints the report.
keep_failure() {
  local target=$1 bin=$2 log=$3 artifact=$4
  local kept=$scratch/$target.min
  if ! TMPDIR=$scratch "$bin" -minimize_crash=1 -max_total_time=60 -timeout=10 \
    -rss_limit_mb=2048 -exact_artifact_path="$kept" "$artifact" >"$scratch/$target.min.log" 2>&1 ||
    [[ ! -s $kept ]]; then
    kept=$artifact
  fi
  local hash
  hash=$(sha1sum "$kept" | cut -c1-12)
  cp "$kept" "fuzz/crashes/$target-$hash"
  echo "[fuzz] $target FAILED; input kept as fuzz/crashes/$target-$hash" >&2
  echo "[fuzz] reproduce: $bin fuzz/crashes/$target-$hash" >&2
  grep -E -A40 'ERROR: |runtime error|FUZZ CHECK FAILED|Timeout|out-of-memory|leak' "$log" |
    grep -v '^INFO' | head -60 >&2 || tail -40 "$log" >&2
}

for t in "${selected[@]}"; do
  bin=$BIN/fuzz_$t
  log=$scratch/$t.log
  work=$scratch/$t
  mkdir -p "$work/corpus" "$work/tmp"
  [[ -d fuzz/corpus/$t ]] && cp fuzz/corpus/"$t"/* "$work/corpus/" 2>/dev/null || true
  [[ -d fuzz/regressions/$t ]] && cp fuzz/regressions/"$t"/* "$work/corpus/" 2>/dev/null || true

  # Every kept input runs first: a regression shows here, named, before any new input.
  replay=(fuzz/regressions/"$t" fuzz/corpus/"$t")
  existing=()
  for d in "${replay[@]}"; do [[ -d $d ]] && existing+=("$d"); done
  if ((${#existing[@]})) &&
    ! TMPDIR=$work/tmp "$bin" -runs=0 -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$work/" "${existing[@]}" >"$log" 2>&1; then
    failed=1
    artifact=$(ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null | head -1 || true)
    echo "[fuzz] $t: a kept input fails on replay" >&2
    [[ -n $artifact ]] && keep_failure "$t" "$bin" "$log" "$artifact"
    rows+=("$t|0|-|-|-|-|replay FAILED")
    continue
  fi

  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$work/")
  [[ -f fuzz/dict/$t.dict ]] && args+=(-dict="fuzz/dict/$t.dict")
  echo "[fuzz] $t: ${seconds}s" >&2
  status=ok
  if ! TMPDIR=$work/tmp "$bin" "${args[@]}" "$work/corpus" >"$log" 2>&1; then
    failed=1
    status=FAILED
    artifact=$(ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null | head -1 || true)
    if [[ -n $artifact ]]; then
      keep_failure "$t" "$bin" "$log" "$artifact"
    else
      tail -40 "$log" >&2
    fi
  fi
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo -)
  rate=$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo -)
  edges=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*$' || echo -)
  units=$(find "$work/corpus" -type f | wc -l)
  rows+=("$t|$seconds|${execs:--}|${rate:--}|${edges:--}|$units|$status")
done

printf '\n%-16s %8s %12s %9s %7s %7s  %s\n' target seconds executions exec/s edges corpus result
for row in "${rows[@]}"; do
  IFS='|' read -r t s e r c u st <<<"$row"
  printf '%-16s %8s %12s %9s %7s %7s  %s\n' "$t" "$s" "$e" "$r" "$c" "$u" "$st"
done
exit "$failed"
