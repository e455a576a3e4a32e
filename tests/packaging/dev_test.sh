#!/usr/bin/env bash
# dev_test.sh SOURCE-DIR: ./dev helps, says what is missing, and tells what tests left out.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$1/dev" "$1/CMakePresets.json" "$work"
cd "$work"
expect() { # STATUS PATTERN COMMAND...: the pattern must be in the last line that it prints
    local status=0 said
    said=$("${@:3}" 2>&1) || status=$?
    [ "$status" -eq "$1" ] && tail -n 1 <<<"$said" | grep -q -- "$2" && return
    printf 'FAILED: %s: status %s\n%s\n' "${*:3}" "$status" "$said" >&2
    exit 1
}
for verb in $(./dev | sed -n 's/^  \([a-z]*\).*/\1/p'); do
    expect 0 '\.$' ./dev "$verb" --help
done
expect 2 'takes a preset: .*dev' ./dev build
expect 2 'no preset "tests"; there are: .*dev' ./dev build tests
expect 2 'no verb "tests"' ./dev tests

# A build is faked, and in place of its tests stand one that passes and two that skip as scripts and programs do.
mkdir bin
printf '#!/bin/sh\necho "install ok installed"\n' | tee bin/dpkg-query >bin/cmake
chmod +x bin/*
PATH=$work/bin:$PATH
cat >skipping <<'EOF'
add_test(script sh -c "echo 'skipped: takes a moon'; exit 77")
add_test(program printf "x.cpp:1: Skipped\\ntakes a sun\\n[  SKIPPED ]\\n")
set_tests_properties(script PROPERTIES LABELS threads SKIP_RETURN_CODE 77)
set_tests_properties(program PROPERTIES LABELS threads SKIP_REGULAR_EXPRESSION "SKIPPED")
EOF
for preset in dev asan tsan; do
    mkdir -p build/$preset
    printf '%s\n' "$(<skipping)" 'add_test(passes true)' 'set_tests_properties(passes PROPERTIES LABELS threads)' \
        >build/$preset/CTestTestfile.cmake
done
expect 0 '^== 3 tests passed, 6 were skipped$' ./dev test
[ "$(./dev test 2>/dev/null | grep -cE '^ +1 takes a (moon|sun)$')" -eq 6 ]
printf '#!/bin/sh\necho 1000\n' | tee bin/id >/dev/null
chmod +x bin/id
expect 0 '^== 3 tests passed, 6 could not be run; as root' ./dev test
cp skipping build/tsan/CTestTestfile.cmake
expect 1 'nothing was tested: all 2 tests of tsan were skipped' ./dev test
