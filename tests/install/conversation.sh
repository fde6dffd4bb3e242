# conversation.sh EXPECTED SERVER PLACE CLIENT...: runs the client while the server runs at its place, compares the
# client's output with a file, and expects the server to end well when its input ends.
# shellcheck shell=bash
set -euo pipefail
expected=$1 server=$2 place=$3
shift 3
coproc running { exec "$server" "$place"; }
# shellcheck disable=SC2154 # coproc sets it
pid=$running_PID input=${running[1]}
read -r -t 60 line <&"${running[0]}"
[ "$line" = listening ]
"$@" | diff "$expected" -
exec {input}>&-
wait "$pid"
