# quotes.sh DOCUMENT DIRECTORY MANUAL: every C++ block of the document is a file of the directory, named in the
# line before the block (`examples/timer.cc`:), word for word; every source in the directory is quoted; and the manual
# page quotes timer.cc without its first line.
# shellcheck shell=bash
set -euo pipefail
document=$1 directory=$2 manual=$3
quoted=$(mktemp -d)
trap 'rm -rf "$quoted"' EXIT
awk -v quoted="$quoted" '
    /^```/ && inside { inside = 0; close(file); next }
    inside { print > file; next }
    /^```cpp/ { inside = 1; file = quoted "/" (name == "" ? "unnamed-at-line-" NR : name); next }
    /^$/ { next }
    { name = "" }
    /^`examples\/[a-z_]+\.cc`:$/ { name = $0; gsub(/^`examples\/|`:$/, "", name) }
' "$document"
mkdir "$quoted/.sources"
cp "$directory"/*.cc "$quoted/.sources"
diff --recursive --exclude=.sources "$quoted/.sources" "$quoted"

example=$(tail -n +2 "$directory/timer.cc" | sed 's/\\/\\e/g')
[[ $(<"$manual") == *"$example"* ]] || { echo "$manual does not quote timer.cc" && exit 1; }
