#!/bin/bash
# Static analysis of the production code (porting_layer/ platform/ tools/): clang-tidy with
# the repository's .clang-tidy, then cppcheck. A finding fails the run unless it is listed,
# with its reason, in .ci/clang-tidy.supp or .ci/cppcheck.supp, or suppressed at its site
# (NOLINT with a reason); a line of either file that matches no finding fails it too.
#
#   .ci/analysis.sh BUILD_DIR      (the directory gets a configure-only tree for
#                                   compile_commands.json)
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:?usage: .ci/analysis.sh BUILD_DIR}
JOBS=${KORA_JOBS:-$(nproc)}
cd "$ROOT" || exit 1

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Debug -DKORA_BUILD_TESTS=OFF -DKORA_BUILD_TOOLS=ON \
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null || exit 1

mapfile -t sources < <(git ls-files --cached --others --exclude-standard -- \
  'porting_layer/*.cpp' 'porting_layer/*.c' 'platform/*.cpp' 'platform/*.c' 'tools/*.cpp' 'tools/*.c' |
  while read -r f; do [ -f "$f" ] && echo "$f"; done)
echo "analysis: ${#sources[@]} translation units"

# clang-tidy: one process per file, two at a time; the findings are gathered, then the
# suppressed ones (check name + path pattern, see .ci/clang-tidy.supp) are dropped. Lines of
# the file that dropped nothing are written to $unused.
tidy_log=$BUILD/clang-tidy.log
unused=$BUILD/clang-tidy.unused-suppressions
printf '%s\n' "${sources[@]}" |
  xargs -P "$JOBS" -n 1 clang-tidy -p "$BUILD" --quiet 2>/dev/null >"$tidy_log"
findings=$(grep -E '^[^ ]+:[0-9]+:[0-9]+: (warning|error): .* \[[^]]+\]$' "$tidy_log" | sort -u |
  awk -v supp="$ROOT/.ci/clang-tidy.supp" -v root="$ROOT/" -v unused="$unused" '
    BEGIN {
      n = 0
      while ((getline line < supp) > 0) {
        text = line
        sub(/#.*/, "", line)
        if (split(line, f, " ") >= 2) { check[n] = f[1]; path[n] = f[2]; entry[n] = text; used[n] = 0; n++ }
      }
    }
    {
      name = $0; sub(/.*\[/, "", name); sub(/\]$/, "", name)
      file = $1; sub(/:.*/, "", file); sub(root, "", file)
      for (i = 0; i < n; i++) {
        if (name ~ ("^" check[i] "$") && file ~ ("^" path[i] "$")) { used[i] = 1; next }
      }
      sub(root, "")
      print
    }
    END {
      printf "" > unused
      for (i = 0; i < n; i++) { if (!used[i]) { print entry[i] > unused } }
    }')
status=0
if [ -s "$unused" ]; then
  echo "clang-tidy: suppressions in .ci/clang-tidy.supp that match no finding (remove them):"
  cat "$unused"
  status=1
fi
if [ -n "$findings" ]; then
  echo "clang-tidy findings:"
  echo "$findings"
  echo "clang-tidy: $(echo "$findings" | wc -l) finding(s) not suppressed (full output: $tidy_log)"
  status=1
elif [ "$status" -eq 0 ]; then
  echo "clang-tidy: clean"
fi

# cppcheck over the same translation units, with the compile database's include paths. With
# "information" on, a suppression that matches nothing is reported (unmatchedSuppression)
# and fails the run like a finding.
if cppcheck --project="$BUILD/compile_commands.json" --file-filter="$ROOT/porting_layer/*" \
  --file-filter="$ROOT/platform/*" --file-filter="$ROOT/tools/*" \
  --enable=warning,performance,portability,information --inline-suppr --std=c++17 --library=posix \
  --suppressions-list="$ROOT/.ci/cppcheck.supp" --error-exitcode=1 --quiet -j "$JOBS" \
  --template='{file}:{line}: {severity}: {message} [{id}]' 2>"$BUILD/cppcheck.log"; then
  echo "cppcheck: clean"
else
  echo "cppcheck findings:"
  grep -v '^$' "$BUILD/cppcheck.log"
  status=1
fi
exit $status
