# fresh_prefix.sh CMAKE BUILD_DIRECTORY PREFIX: installs the engine into an empty prefix. Times of files are kept, so
# what was built against the last prefix is not built again.
# shellcheck shell=bash
set -euo pipefail
rm -rf "$3"
"$1" --install "$2" --prefix "$3" --component Development
