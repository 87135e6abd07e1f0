# Sourced by the scripts beside it: where the project is, how a step is announced, how results are counted.
# After sourcing, the working directory is the top of the project.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
top=$PWD
jobs=${VCC_JOBS:-$(nproc)}

# A compiler cache is used where there is one, and never needed.
if command -v ccache >/dev/null 2>&1; then
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
  # One cache serves every clone and build folder, precompiled headers included.
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$top")} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros,include_file_mtime,include_file_ctime}
fi

say() { printf '%s\n' "$*"; }
step() { printf '\n== %s\n' "$*"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

passed=0
failed=0

# count PASSED FAILED adds to the totals of this script.
count() { passed=$((passed + $1)); failed=$((failed + $2)); }

# finish prints the totals as the last line, hands them to the script that called this one (by the file that
# VCC_TALLY names), and ends with 0 only when something passed and nothing failed.
finish() {
  [ -z "${VCC_TALLY:-}" ] || printf '%d %d\n' "$passed" "$failed" >>"$VCC_TALLY"
  printf '\n%d passed, %d failed\n' "$passed" "$failed"
  [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}

# quietly LOG COMMAND... runs with the output in LOG; when the command fails, the end of the output is shown.
quietly() {
  local log=$1
  shift
  mkdir -p "$(dirname "$log")"
  if ! "$@" >"$log" 2>&1; then
    grep -n -E 'error[: ]|FAILED|CMake Error' "$log" | head -20 || true
    say "   the last lines of $log:"
    tail -n 60 "$log"
    return 1
  fi
}

# check NAME COMMAND... runs one thing that passes or fails as a whole, and counts it.
check() {
  local name=$1 began=$SECONDS
  shift
  step "$name"
  if "$@"; then
    count 1 0
    say "   passed, $((SECONDS - began)) s"
  else
    count 0 1
    say "   FAILED: $name, $((SECONDS - began)) s"
  fi
}

# configure PRESET [ARGUMENT...] and build PRESET [TARGET...]: into build/PRESET, output in its log files.
configure() { quietly "build/$1/configure.log" cmake --preset "$@"; }
build() {
  local preset=$1
  shift
  quietly "build/$preset/build.log" cmake --build "build/$preset" -j "$jobs" ${1:+--target "$@"}
}

# Tests that wait for real servers and the kernel: on a machine that is busy one of them may wait longer than it is allowed to.
real_servers='^(live|lab|vtep_live_test|kernel_live_test)\.'

# run_tests FOLDER [CTEST ARGUMENT...] runs the tests of a build folder, shows those that failed and ctest's summary, and
# counts. Those that wait for real servers get a second run when they fail, which is told; all others have one.
# Tests that skip themselves are listed, for a skipped test has shown nothing.
run_tests() {
  local folder=$1 log=$1/test.log again=$1/again.log all bad names saved=0
  shift
  ctest --test-dir "$folder" -j "$jobs" --output-on-failure --no-tests=error "$@" >"$log" 2>&1 || true
  if ! grep -q 'tests passed,.*tests failed out of' "$log"; then
    tail -n 30 "$log"
    say "   ctest did not come to an end in $folder"
    count 0 1
    return 0
  fi
  all=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
  bad=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed.*/\1/p' "$log" | tail -n 1)
  [ "$bad" -eq 0 ] || sed -n '/\*\*\*/,/^ *[0-9]*\/[0-9]* Test/p' "$log" | head -n 400
  sed -n '/tests passed,/,$p' "$log" | sed '/^Errors while running/d'
  names=$(failed_names "$log" | grep -E "$real_servers" | paste -sd '|') || true
  if [ -n "$names" ]; then
    ctest --test-dir "$folder" -R "^($names)\$" --output-on-failure >"$again" 2>&1 || true
    saved=$(grep -cE ' Passed +[0-9.]+ sec$' "$again" || true)
    say "   $saved of those that wait for real servers passed when they were run alone:"
    sed -n 's/.*Test *#[0-9]*: \([^ ]*\) .* Passed .*/   \1/p' "$again"
  fi
  count $((all - bad + saved)) $((bad - saved))
}

# failed_names LOG prints the names of the tests that ctest lists as failed.
failed_names() { sed -n '/The following tests FAILED:/,$s/^[[:space:]]*[0-9]* - \([^ ]*\) (.*/\1/p' "$1"; }
