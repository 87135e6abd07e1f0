#!/usr/bin/env bash
# The example leaves its trace where RINGLOG_DIR says, as the client does.
#
#   traced.sh EXAMPLE [RINGLOG]
#
# RINGLOG, where there is one, reads the file: each echo is one record with its value.

set -euo pipefail
example=$1 ringlog=${2:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

RINGLOG_DIR=$scratch "$example"
file=$scratch/UbeVxlanControllerSm.rl
[ -s "$file" ] || { echo "there is no trace in $scratch: $(ls "$scratch")"; exit 1; }
if [ -n "$ringlog" ]; then
  text=$("$ringlog" "$file")
  for wanted in 'handleInitialized' 'echo convergence state true' 'cleanup convergence window true'; do
    grep -q "$wanted" <<<"$text" || { printf '%s\n' "$text"; echo "the trace lacks: $wanted"; exit 1; }
  done
fi
