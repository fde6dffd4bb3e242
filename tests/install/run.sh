# run.sh EXPECTED PROGRAM...: runs the program and compares its output with a file.
# shellcheck shell=bash
set -euo pipefail
expected=$1
shift
"$@" </dev/null | diff "$expected" -
