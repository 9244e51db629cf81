#!/bin/bash
# Static analysis of the production code (porting_layer/ platform/ tools/): clang-tidy with
# the repository's .clang-tidy, then cppcheck. A finding fails the run unless it is listed,
# with its reason, in .ci/clang-tidy.supp or .ci/cppcheck.supp.
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
# suppressed ones (check name + path pattern, see .ci/clang-tidy.supp) are dropped.
tidy_log=$BUILD/clang-tidy.log
printf '%s\n' "${sources[@]}" |
  xargs -P "$JOBS" -n 1 clang-tidy -p "$BUILD" --quiet 2>/dev/null >"$tidy_log"
findings=$(grep -E '^[^ ]+:[0-9]+:[0-9]+: (warning|error): .* \[[^]]+\]$' "$tidy_log" | sort -u |
  awk -v supp="$ROOT/.ci/clang-tidy.supp" -v root="$ROOT/" '
    BEGIN {
      n = 0
      while ((getline line < supp) > 0) {
        sub(/#.*/, "", line)
        if (split(line, f, " ") >= 2) { check[n] = f[1]; path[n] = f[2]; n++ }
      }
    }
    {
      name = $0; sub(/.*\[/, "", name); sub(/\]$/, "", name)
      file = $1; sub(/:.*/, "", file); sub(root, "", file)
      for (i = 0; i < n; i++) {
        if (name ~ ("^" check[i] "$") && file ~ ("^" path[i] "$")) { next }
      }
      sub(root, "")
      print
    }')
status=0
if [ -n "$findings" ]; then
  echo "clang-tidy findings:"
  echo "$findings"
  echo "clang-tidy: $(echo "$findings" | wc -l) finding(s) not suppressed (full output: $tidy_log)"
  status=1
else
  echo "clang-tidy: clean"
fi

# cppcheck over the same translation units, with the compile database's include paths.
if cppcheck --project="$BUILD/compile_commands.json" --file-filter="$ROOT/porting_layer/*" \
  --file-filter="$ROOT/platform/*" --file-filter="$ROOT/tools/*" \
  --enable=warning,performance,portability --inline-suppr --std=c++17 --library=posix \
  --suppressions-list="$ROOT/.ci/cppcheck.supp" --error-exitcode=1 --quiet -j "$JOBS" \
  --template='{file}:{line}: {severity}: {message} [{id}]' 2>"$BUILD/cppcheck.log"; then
  echo "cppcheck: clean"
else
  echo "cppcheck findings:"
  grep -v '^$' "$BUILD/cppcheck.log"
  status=1
fi
exit $status
