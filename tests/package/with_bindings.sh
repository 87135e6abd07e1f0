#!/usr/bin/env bash
# Runs a Python program that reads C++ by libclang, with an interpreter that has the bindings: the system's has those of
# its packages, also where another interpreter comes first in the path.
#
#   with_bindings.sh PROGRAM [ARGUMENT...]

set -euo pipefail
for python in python3 /usr/bin/python3; do
  if "$python" -c 'import clang.cindex' 2>/dev/null; then
    exec "$python" -B "$@"
  fi
done
echo "the bindings of libclang are missing: install python3-clang-14, or run scripts/setup" >&2
exit 1
