#!/usr/bin/env bash
# Mutation check: puts deliberate faults into a scratch copy of the tree, one at a time, and
# says for each whether the tests that cover it catch it (a test binary fails, crashes or hangs).
# A tool for judging the suite, not part of scripts/test.sh.
#
#   scripts/mutate.sh            every mutant
#   scripts/mutate.sh NAME...    only these
#   scripts/mutate.sh --list     the mutants, their files and the tests they are run against
#
# MUTATE_DIR (default /tmp/mutate-src) holds the copy and its build (preset MUTATE_PRESET,
# default "default"). Only files that differ from this tree are copied, so each mutant costs an
# incremental rebuild. Before the first mutant every test binary named below must pass on the
# unchanged copy. Exits 0 when every mutant was applied and built, whatever the verdicts.
set -euo pipefail
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
scratch=${MUTATE_DIR:-/tmp/mutate-src}
preset=${MUTATE_PRESET:-default}
build=$scratch/build/$preset

names=() files=() tests=() olds=() news=()
# mutant NAME FILE "TEST BINARIES" OLD NEW: OLD must stand exactly once in FILE ("\n" = newline).
mutant() { names+=("$1") files+=("$2") tests+=("$3") olds+=("$4") news+=("$5"); }

DH="dialhome_tests agent_tests"
SV="server_tests agent_tests"
HL="hlp_tests hlp_http_tests server_tests dialhome_tests"
AL="alerts_tests agent_tests"

mutant settings-line-phase-off-by-one dialhome/DialHomeInfo.cpp "$DH" \
  'number > kMaxPhaseHours' 'number >= kMaxPhaseHours'
mutant settings-line-blank-in-name dialhome/DialHomeInfo.cpp "$DH" \
  "if (byte <= ' ' ||" "if (byte < ' ' ||"
mutant retry-counted-twice dialhome/EndNodeDialHome.cpp "$DH" \
  'const uint32_t next = NextRetryDelay(retryDelay_.load(), schedule_);' \
  'const uint32_t next = NextRetryDelay(NextRetryDelay(retryDelay_.load(), schedule_), schedule_);'
mutant reply-record-length-check-dropped dialhome/DialHomeFrame.cpp "$DH" \
  'if (total < kReplyHeaderSize + nameSize + static_cast<uint64_t>(payloadSize)) {' 'if (false) {'
mutant inventory-revision-mask dialhome/SystemInventory.cpp "$DH" \
  '| (parts[3] & 0xF);' '| (parts[3] & 0xFF);'
mutant config-logging-level-off-by-one config/KroConfiguration.cpp "config_tests agent_tests" \
  'if (field > kHighestLevel) {' 'if (field >= kHighestLevel) {'
mutant config-member-swapped config/KroAgentConfiguration.cpp "config_tests agent_tests" \
  'ApplyNumber(*root, "DialHomeSecondRetry", settings_.dialHomeSecondRetry);' \
  'ApplyNumber(*root, "DialHomeSecondRetry", settings_.dialHomeThirdRetry);'
mutant mime-type-swapped server/BrowserRouter.cpp "$SV" \
  '{"png", "image/png"},' '{"png", "image/jpeg"},'
mutant client-version-summed server/RequestChecks.cpp "$SV" \
  'supported = ((major * 256) | minor) >= 258;' 'supported = ((major * 256) + minor) >= 258;'
mutant session-pause-off-by-one server/BrowserSessions.cpp "$SV" \
  'now < lastSeen + timeoutMinutes' 'now <= lastSeen + timeoutMinutes'
mutant upstream-limit-ignores-queued server/UpstreamQueue.cpp "$SV" \
  'if (record.size() > outboundCapacity_ - outboundLength_) {' \
  'if (record.size() > outboundCapacity_) {'
mutant body-limit-dropped platform/hlp/ServerSession.cpp "$HL" \
  'if (!invalidLength && contentLength && *contentLength > kMaxContentLength) {' 'if (false) {'
mutant client-body-type-swapped platform/hlp/HttpClient.cpp "$HL" \
  '"application/octet-stream"' '"text/plain"'
mutant json-depth-limit-dropped platform/hlp/JsonParse.h "$HL" \
  'if (depth_ == kJsonMaxDepth) {' 'if (false) {'
mutant compare-signed-bytes core/StringCompare.h "core_tests $HL" \
  'return ca < cb;' 'return static_cast<signed char>(ca) < static_cast<signed char>(cb);'
mutant registry-lock-missing common/RegistryFile.cpp "common_tests" \
  'rc = ::flock(fd_, LOCK_EX);' 'rc = 0;'
mutant twelve-hour-clock-off-by-one common/WinHelper.cpp "common_tests" \
  'return hour > 12 ? hour - 12 : hour;' 'return hour >= 12 ? hour - 12 : hour;'
mutant purge-keeps-sent platform/alerts/AlertStore.cpp "$AL" \
  '(?2 = 0 OR sent = 1)' '(?2 = 0 OR sent = 0)'
mutant same-second-order platform/alerts/AlertStore.cpp "$AL" \
  '" ORDER BY raised DESC, rowid DESC"' '" ORDER BY raised DESC, rowid"'
mutant update-keeps-sent-flag platform/alerts/AlertStore.cpp "$AL" \
  'updated = ?2, sent = 0 ' 'updated = ?2, sent = sent '
mutant timer-drifts platform/nvthreads/Pool.cpp "nvthreads_tests" \
  'auto next = due + period;' 'auto next = now + period;'
mutant ui-port-fallback-off-by-one agent/KroAgent.cpp "agent_tests" \
  'port = value < 1 ? kDefaultUIPort' 'port = value < 0 ? kDefaultUIPort'
mutant routine-registration-lock-missing core/RoutineTable.cpp "agent_tests config_tests" \
  'std::unique_lock<std::shared_mutex> guard(lock_);\n    map_.emplace(std::string(name)' \
  'map_.emplace(std::string(name)'

if [[ ${1:-} == --list ]]; then
  for i in "${!names[@]}"; do
    printf '%-36s %-36s %s\n' "${names[$i]}" "${files[$i]}" "${tests[$i]}"
  done
  exit 0
fi
if [[ ${1:-} == -h || ${1:-} == --help ]]; then
  sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'
  exit 0
fi

selected=()
if (($#)); then
  for want in "$@"; do
    found=
    for i in "${!names[@]}"; do
      [[ ${names[$i]} == "$want" ]] && selected+=("$i") && found=1
    done
    [[ -n $found ]] || { echo "mutate.sh: no mutant '$want'" >&2; exit 2; }
  done
else
  selected=("${!names[@]}")
fi

# Copies what differs (tracked and untracked, not ignored) and drops what this tree no longer
# has. A copied file gets a new time stamp, so the build notices it.
sync_tree() {
  mkdir -p "$scratch"
  local listing=$scratch/.mutate-files
  local now
  now=$(cd "$src" && git ls-files -co --exclude-standard | sort)
  if [[ -f $listing ]]; then
    comm -23 "$listing" <(printf '%s\n' "$now") | while IFS= read -r gone; do
      rm -f "$scratch/$gone"
    done
  fi
  while IFS= read -r file; do
    [[ -f $src/$file ]] || continue
    if ! cmp -s "$src/$file" "$scratch/$file"; then
      mkdir -p "$(dirname "$scratch/$file")"
      cp "$src/$file" "$scratch/$file"
    fi
  done <<<"$now"
  printf '%s\n' "$now" >"$listing"
}

build_tree() {
  (cd "$scratch" && { [[ -f $build/build.ninja ]] || cmake --preset "$preset" >/dev/null; } &&
    cmake --build --preset "$preset" -- -j2) >"$scratch/.mutate-build.log" 2>&1
}

# Runs the named test binaries; prints the first that fails, or nothing when all pass.
run_tests() {
  local binary
  for binary in $1; do
    # A crash is a catch; the shell's own note about it would only clutter the table.
    if ! (cd "$build" &&
      KRO_BIN_DIR=$build/bin TSAN_OPTIONS="halt_on_error=1 suppressions=$scratch/tests/tsan.supp" \
        ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1 \
        timeout 600 "$build/tests/$binary" --gtest_brief=1 >"$scratch/.mutate-$binary.log" 2>&1) \
      2>/dev/null; then
      echo "$binary"
      return
    fi
  done
}

# Puts NEW in place of the one OLD in FILE; fails when OLD does not stand there exactly once.
apply() {
  python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace("\\n", "\n"), sys.argv[3].replace("\\n", "\n")
text = open(path, encoding="utf-8").read()
if text.count(old) != 1:
    sys.exit(1)
open(path, "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

restore=
trap '[[ -z $restore ]] || cp "$src/$restore" "$scratch/$restore"' EXIT

sync_tree
build_tree || { echo "mutate.sh: the unchanged copy does not build (see $scratch/.mutate-build.log)" >&2; exit 1; }
all=$(for i in "${selected[@]}"; do printf '%s\n' ${tests[$i]}; done | sort -u | tr '\n' ' ')
if failing=$(run_tests "$all") && [[ -n $failing ]]; then
  echo "mutate.sh: $failing fails on the unchanged copy (see $scratch/.mutate-$failing.log)" >&2
  exit 1
fi

caught=0 missed=0 broken=0
for i in "${selected[@]}"; do
  file=${files[$i]}
  restore=$file
  if ! apply "$scratch/$file" "${olds[$i]}" "${news[$i]}"; then
    verdict="not applied (text not found once)"
    broken=$((broken + 1))
  elif ! build_tree; then
    verdict="does not build"
    broken=$((broken + 1))
  elif failing=$(run_tests "${tests[$i]}") && [[ -n $failing ]]; then
    verdict="caught by $failing"
    caught=$((caught + 1))
  else
    verdict="MISSED"
    missed=$((missed + 1))
  fi
  cp "$src/$file" "$scratch/$file"
  restore=
  printf '%-36s %-36s %s\n' "${names[$i]}" "$file" "$verdict"
done
echo "caught $caught, missed $missed, not run $broken, of ${#selected[@]}"
((broken == 0))
