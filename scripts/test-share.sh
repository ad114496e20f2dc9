#!/usr/bin/env bash
# Prints how large the tests are beside the code they test, and fails when the tests pass 36%.
#
# Counts the C++ files git tracks (*.cpp, *.h): tests are those under tests/, code is every
# other one except bench/. A line counts when something is left on it once // comments and
# /* */ blocks are taken out (text inside string and character literals, raw strings included,
# is kept as it stands).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

limit=36

mapfile -t files < <(git ls-files -- '*.cpp' '*.h')
awk -v limit="$limit" '
  FNR == 1 {
    block = 0
    side = FILENAME ~ /^tests\// ? "tests" : (FILENAME ~ /^bench\// ? "" : "code")
  }
  {
    line = $0; n = length(line); kept = ""; i = 1
    while (i <= n) {
      if (block) {
        j = index(substr(line, i), "*/")
        if (!j) break
        i += j + 1; block = 0; continue
      }
      c = substr(line, i, 1); d = substr(line, i + 1, 1)
      if (c == "/" && d == "/") break
      if (c == "/" && d == "*") { block = 1; i += 2; continue }
      if (c == "R" && d == "\"" && substr(line, i - 1, 1) !~ /[A-Za-z0-9_]/) {
        # A raw string ends only at )delim" and may hold quotes and slashes.
        open = index(substr(line, i + 2), "(")
        delim = substr(line, i + 2, open - 1)
        shut = index(substr(line, i + 2 + open), ")" delim "\"")
        end = shut ? i + 2 + open + shut + length(delim) : n
        kept = kept substr(line, i, end - i + 1); i = end + 1; continue
      }
      digitSeparator = c == "\047" && substr(line, i - 1, 1) ~ /[0-9A-Fa-f]/ && d ~ /[0-9A-Fa-f]/
      if ((c == "\"" || c == "\047") && !digitSeparator) {
        kept = kept c; i++
        while (i <= n) {
          e = substr(line, i, 1); kept = kept e; i++
          if (e == "\\") { kept = kept substr(line, i, 1); i++; continue }
          if (e == c) break
        }
        continue
      }
      kept = kept c; i++
    }
    if (side != "" && kept ~ /[^ \t\r]/) lines[side]++
  }
  END {
    tests = lines["tests"] + 0; code = lines["code"] + 0
    share = code ? 100 * tests / code : 0
    printf "tests: %d lines, code: %d lines, share: %.1f%% (limit %d%%)\n", tests, code, share, limit
    if (share > limit) { print "test-share: the tests are larger than the limit allows" > "/dev/stderr"; exit 1 }
  }' "${files[@]}"
