# headers.sh DIRECTORY COMPILER...: compiles each installed header as the first include, alone and twice, with
# nothing but the installed headers on the include path.
# shellcheck shell=bash
set -euo pipefail
directory=$1
shift
cd "$directory"
mapfile -t headers < <(find . -name '*.h' -printf '%P\n' | sort)
[ ${#headers[@]} -gt 0 ]
check() {
    local header=$1
    shift
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" | "$@" -fsyntax-only -I. -x c++ - ||
        { echo "$header does not compile alone" && return 1; }
}
failures=0
for header in "${headers[@]}"; do
    check "$header" "$@" || failures=$((failures + 1))
done
echo "${#headers[@]} headers, $failures failures"
[ "$failures" -eq 0 ]
