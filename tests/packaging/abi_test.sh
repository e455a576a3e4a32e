#!/usr/bin/env bash
# abi_test.sh SOURCE-DIR: what breaks programs that are built already is told by ./dev abi, and nothing else is.
set -euo pipefail
source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p prefix/include/qzhsm/{lowlevel,platform}
cp -r "$source/lowlevel/"{*.h,*.cpp,foundation,internal} prefix/include/qzhsm/lowlevel
cp -r "$source/platform/"* prefix/include/qzhsm/platform
header=prefix/include/qzhsm/lowlevel/QZHSMLowLevel.h
cp $header as-it-is
library() { # [SED-SCRIPT]: of one source, with the header changed so
    sed "${1:-}" as-it-is >$header
    [ $# -eq 0 ] || ! cmp -s $header as-it-is
    g++ -std=c++20 -D_GNU_SOURCE -g -fPIC -shared -Iprefix/include/qzhsm -o prefix/libqzhsmlowlevel.so \
        prefix/include/qzhsm/lowlevel/QZHSMLowLevel.cpp
}
tells() { # TEXT SED-SCRIPT
    library "$2"
    ! "$source/packaging/abi.sh" prefix dump >said 2>&1 && grep -q "$1" said && return
    printf '%s: not told that: %s\n' "$2" "$1" >&2
    cat said >&2
    exit 1
}
library
"$source/packaging/abi.sh" prefix dump renew
"$source/packaging/abi.sh" prefix dump
library 's/^    virtual int statFile(.*/&\n    int fresh() { return m_errorCode; }/'
"$source/packaging/abi.sh" prefix dump
tells "insertion.*\|virtual int QZHSMLowLevel::fresh" 's/^    virtual int statFile(.*/&\n    virtual int fresh() { return 0; }/'
tells "size changed" 's/^    int m_errorCode.*/&\n    long fresh = 0;/'
tells "offset changed" 's/^    int m_errorCode.*/    int fresh = 0;\n&/'
