#!/usr/bin/env bash
# subproject_test.sh SOURCE-DIR BUILD-DIR: a project that takes this one in gets the library alone, static unless it
# says otherwise, and installs it only if it asks; programs find the static library by pkg-config and by CMake.
set -euo pipefail
source=$1
export BUILD=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cat >CMakeLists.txt <<EOF
cmake_minimum_required(VERSION 3.25)
project(parent CXX)
if(INSTALLED)
  find_package(qzhsmlowlevel 1 REQUIRED)
else()
  add_subdirectory($source library)
endif()
add_executable(program $source/examples/stub_one_file.cpp)
target_link_libraries(program PRIVATE qzhsm::lowlevel)
EOF
# In the compiler's place: takes an object that BUILD holds already, compiled from the same source.
cat >take <<'EOF'
#!/usr/bin/env bash
for arg; do
    [ "${last:-}" = -o ] && object=$arg
    last=$arg
done
cp "$BUILD/${object#library/}" "$object" 2>/dev/null || exec "$@"
EOF
chmod +x take
fail() {
    echo "$*" >&2
    exit 1
}
stubs() { # PROGRAM
    rm -f file copy
    head -c 100000 /dev/urandom >file
    [ "$("$1" file copy)" = "a stub now" ]
}

cmake -G Ninja -S . -B build -DCMAKE_CXX_COMPILER_LAUNCHER="$work/take" >/dev/null
cmake --build build >/dev/null
stubs build/program
[ "$(cd build/library && echo */)" = "CMakeFiles/ lowlevel/ platform/" ] || fail "More than the library was built."
if grep -q Wconversion build/build.ninja; then fail "Warnings are the parent's to choose."; fi
cmake --install build --prefix "$work/nothing" >/dev/null
[ ! -e nothing ] || fail "Something was installed: $(find nothing -type f)"

cmake -DQZHSM_INSTALL=ON build >/dev/null
cmake --build build >/dev/null
cmake --install build --prefix "$work/usr" >/dev/null
[ -z "$(find usr -name '*.so*')" ]
PKG_CONFIG_PATH=$(dirname "$(find usr -name qzhsmlowlevel.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs qzhsmlowlevel)
g++ -std=c++20 "$source/examples/stub_one_file.cpp" "${flags[@]}"
stubs ./a.out
cmake -G Ninja -S . -B found -DINSTALLED=ON -DCMAKE_PREFIX_PATH="$work/usr" >/dev/null
cmake --build found >/dev/null
stubs found/program
