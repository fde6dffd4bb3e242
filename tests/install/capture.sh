# capture.sh PROGRAM: lets the program capture a datagram of three bytes on lo.
# shellcheck shell=bash
set -euo pipefail
coproc running { exec "$1" lo; }
# shellcheck disable=SC2154 # coproc sets it
pid=$running_PID
exec {output}<&"${running[0]}"
read -r -t 60 line <&"$output"
[ "$line" = capturing ]
echo hi >/dev/udp/127.0.0.1/9
read -r -t 60 line <&"$output"
echo "$line"
[ "$line" = "45 bytes of 45" ] # link, IP and UDP headers of 14, 20 and 8 bytes
wait "$pid"
