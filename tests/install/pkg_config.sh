# pkg_config.sh PKG_CONFIG PC_DIRECTORY SOURCE PROGRAM COMPILER...: builds a program with what rvio.pc says.
# shellcheck shell=bash
set -euo pipefail
pkg_config=$1 pc_directory=$2 source=$3 program=$4
shift 4
export PKG_CONFIG_LIBDIR=$pc_directory
read -ra cflags < <("$pkg_config" --cflags rvio)
read -ra libs < <("$pkg_config" --libs rvio)
set -x
"$@" "${cflags[@]}" "$source" -o "$program" "${libs[@]}"
