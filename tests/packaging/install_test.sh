#!/usr/bin/env bash
# install_test.sh SOURCE-DIR BUILD-DIR: what is installed is complete, works as the documents say, knows nothing of the
# directory that it was built in, and exports what callers can name.
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "$*" >&2
    exit 1
}
cmake --install "$build" --prefix "$work/usr" >/dev/null
libdir=$(dirname "$(find "$work/usr" -name 'libqzhsmlowlevel.so.1')")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
cd "$work"
[ "qzhsm $(pkg-config --modversion qzhsmlowlevel)" = "$(usr/bin/qzhsm --version)" ]

# The README's program, built by the README's command.
sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | sed '1d;$d' >stub_one_file.cpp
diff stub_one_file.cpp "$source/examples/stub_one_file.cpp"
eval "$(sed -n 's/^    \(g++ .*\)/\1/p' "$source/README.md")"
head -c 100000 /dev/urandom >file
[ "$(./a.out file copy)" = "a stub now" ]

# The examples, built by their own command, with what ./dev installs: Ninja, and no make.
ln -s "$source/examples" examples
command=$(sed -n 's/^# .*: \(cmake .*\)/\1/p' examples/CMakeLists.txt)
eval "${command/%PREFIX/$work/usr}" >/dev/null
[ -e build/examples/build.ninja ] || fail "The examples' command takes a generator that ./dev does not install."
cmake --build build/examples >/dev/null
ctest --test-dir build/examples --output-on-failure >said || fail "$(cat said)"

holding=$(grep -rlF -e "$source/" -e "$build" usr "$build"/{lowlevel,emulator}/*.so "$build/tools/qzhsm/qzhsm" || true)
[ -z "$holding" ] || fail "These hold the directory that they were built in: $holding"

# Each installed header stands on its own.
(cd usr/include/qzhsm && find . -name '*.h') >headers
xargs -P "$(nproc)" -I{} g++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -Iusr/include/qzhsm -include {} -x c++ \
    /dev/null <headers

"$source/packaging/exports.sh" "$libdir/libqzhsmlowlevel.so" >symbols
diff "$source/packaging/libqzhsmlowlevel.symbols" symbols || fail "The exported symbols changed (>: new). Removing or \
changing one breaks programs that are built already. ./dev symbols writes the list anew."
nm -DC --defined-only "$libdir/libqzhsm-emulator.so" | sed 's/^[^ ]* . //; s/(.*//' | LC_ALL=C sort >emulated
diff <(printf '%s\n' emulator::{answerAtOnce,driver,fail,fidOf} ioctl open stat) emulated
# Callers and classes of theirs can name each of them.
{
    sed 's/.*/#include "&"/' headers
    sed -E 's/@@.*|\(.*|\[abi.*|^(vtable|typeinfo|typeinfo name) for //g' symbols | sort -u | awk -F:: '
        NF == 1 { print "namespace n" NR " { using ::" $1 "; }" }
        NF == 2 && $2 != $1 && $2 !~ /^~/ { print "struct S" NR " : " $1 " { using " $0 "; };" }'
} >names.cpp
g++ -std=c++20 -fsyntax-only -Iusr/include/qzhsm names.cpp ||
    fail "No caller can name this, so it must not be exported: mark it QZHSM_HIDDEN."
