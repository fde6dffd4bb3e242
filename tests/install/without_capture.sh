# without_capture.sh NM PLAIN CAPTURING: packet capture is in the program that uses it and not in the other.
# shellcheck shell=bash
set -euo pipefail
plain=$("$1" --demangle --defined-only "$2")
capturing=$("$1" --demangle --defined-only "$3")
for symbol in PacketCapture::open RvKQueueBPF::openInterface; do
    [[ $capturing == *$symbol* ]] || { echo "$3 is without $symbol" && exit 1; }
    [[ $plain != *$symbol* ]] || { echo "$2 has $symbol" && exit 1; }
done
[[ $plain == *RvKQueue::start* ]]
