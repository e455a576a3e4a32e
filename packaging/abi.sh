#!/usr/bin/env bash
# abi.sh PREFIX DUMP [renew]: compares the binary interface of the library that is installed in PREFIX, with its debug
# information, with the dump of the release; what was merely added does not count. With "renew" writes the dump.
set -euo pipefail
prefix=$1 dump=$2
library=$(find "$prefix" -name 'libqzhsmlowlevel.so')
now=$(mktemp)
trap 'rm -f "$now"' EXIT
# What no installed header declares is not looked at, and nothing tells where the library was built.
abidw --headers-dir "$prefix/include/qzhsm" --drop-private-types --exported-interfaces-only --no-corpus-path \
    --no-comp-dir-path --no-show-locs --no-elf-needed --no-parameter-names --type-id-style hash \
    --out-file "$now" "$library"
if [ "${3:-}" = renew ]; then
    cp "$now" "$dump"
    exit
fi
abidiff --leaf-changes-only --no-added-syms --no-show-locs "$dump" "$now" || {
    cat >&2 <<EOF
dev: programs that were built against the release break with this library, for the reasons above. New functions and
classes, and operations that are not virtual, do not break them. If that must be, raise the major version, and with
it the SONAME, and write the dump anew: ./dev abi renew
EOF
    exit 1
}
