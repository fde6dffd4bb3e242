# own_network.sh LOOPBACK_UP COMMAND...: runs the command in a network of its own, whose only interface is lo.
# Where that is not allowed the test is skipped (77), or fails in continuous integration.
# shellcheck shell=bash
set -u
if unshare --net true 2>/dev/null; then
    exec unshare --net "$@"
elif unshare --net --map-root-user true 2>/dev/null; then
    exec unshare --net --map-root-user "$@"
fi
echo "no network of its own for the test"
if [ "${CI:-}" = true ]; then exit 1; else exit 77; fi
