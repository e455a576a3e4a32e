#!/usr/bin/env bash
# install_test.sh SOURCE-DIR BUILD-DIR: what is installed is complete, and exports what it should.
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/usr" >/dev/null
libdir=$(dirname "$(find "$work/usr" -name 'libqzhsmlowlevel.so.1')")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig

read -ra flags < <(pkg-config --cflags --libs qzhsmlowlevel)
[ "qzhsm $(pkg-config --modversion qzhsmlowlevel)" = "$("$work/usr/bin/qzhsm" --version)" ]
sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | sed '1d;$d' >"$work/readme.cpp"
g++ -std=c++20 -Wall -Wextra -Werror "$work/readme.cpp" "${flags[@]}" -o "$work/readme"
head -c 100000 /dev/urandom >"$work/file"
[ "$("$work/readme" "$work/file" "$work/copy")" = "a stub now" ]
diff "$work/readme.cpp" "$source/examples/stub_one_file.cpp"

cmake -G Ninja -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/usr" >/dev/null
cmake --build "$work/examples" >/dev/null
ctest --test-dir "$work/examples" --output-on-failure >"$work/said" || { cat "$work/said"; exit 1; }

# Each installed header stands on its own.
find "$work/usr/include/qzhsm" -name '*.h' | while read -r header; do
    g++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only "${flags[0]}" -include "$header" -x c++ /dev/null
done

nm -D --defined-only "$libdir/libqzhsmlowlevel.so.1" | awk '$2 != "A" { print $3 }' | LC_ALL=C sort >"$work/symbols"
diff "$source/packaging/libqzhsmlowlevel.symbols" "$work/symbols" || {
    echo "The exported symbols changed. Removing or changing one breaks programs that are built already." >&2
    exit 1
}
nm -DC --defined-only "$libdir/libqzhsm-emulator.so" | sed 's/^[^ ]* . //; s/(.*//' | LC_ALL=C sort >"$work/symbols"
diff <(printf '%s\n' emulator::{answerAtOnce,driver,fail,fidOf} ioctl open stat) "$work/symbols"
