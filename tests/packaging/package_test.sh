#!/usr/bin/env bash
# package_test.sh OLDER NEWER: two directories of packages, tried in a bare Debian tree that is made by apt's own
# configuration. As root.
set -euo pipefail
[ -n "${QZHSM_TEST_NAMESPACE:-}" ] || QZHSM_TEST_NAMESPACE=1 exec unshare --mount --pid --fork --kill-child "$0" "$@"
cd "$(dirname "$(readlink -f "$0")")/../.."
work=$(mktemp -d)
tree=$work/tree
finish() {
    [ $? -eq 0 ] || tail -n 30 "$work/said" >&2
    umount --recursive "$tree" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT
fail() {
    echo "dev: $*" >&2
    exit 1
}
say() { printf '== %s\n' "$*"; }
inside() { # COMMANDS
    chroot "$tree" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive /bin/bash -euo pipefail -c "$1" >"$work/said" 2>&1
}
expect() { # TEXT COMMANDS: prints that, and nothing else
    inside "$2" || fail "failed: $2"
    [ "$(<"$work/said")" = "$1" ] || fail "not \"$1\": $2"
}
# The commands of the block of a file that begins with such a line, as root types them.
block() { # FILE FIRST-LINE
    sed -n "\|^    $2|,/^\$/s/^    \(sudo \)*//p" "$1"
}
# All that outlives a restart, but for what apt and dpkg note for themselves.
listing() {
    (cd "$tree" && find . -xdev \( -path ./proc -o -path ./run -o -path ./packages -o -path ./var/cache -o -path ./var/log \
        -o -path ./var/lib/apt -o -path './var/lib/dpkg/*-old' \) -prune -o -print | LC_ALL=C sort)
}

say "A bare tree"
apt-config dump | grep '^Acquire::' >"$work/apt.conf"
sources=$(apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian')
[ -n "$sources" ] || fail "apt knows no source of Debian packages"
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
mmdebstrap --quiet --variant=minbase --aptopt="$work/apt.conf" "$suite" "$tree" - <<<"$sources" >"$work/said" 2>&1
mount --bind "$tree" "$tree" # which gives it an entry of its own in the mount table
mkdir "$tree/packages"
cp -r "$1" "$tree/packages/older"
mkdir "$tree/packages/newer"
cp "$2"/*.deb "$tree/packages/newer"
mount -t proc proc "$tree/proc"
inside 'apt-get update'
listing >"$work/before"

say "The older packages, by the commands of their README"
readme=debian/qzhsm.README.Debian
inside "cd /packages/older && $(block $readme 'sudo apt-get install' | sed 's/^apt-get/& -y/')" || fail "the README's commands"
grep -q '^.*Byte for byte the same' "$work/said" || fail "the demo said something else"
inside 'apt-get install -y /packages/older/qzhsm{d,-emulator}_*.deb'
inside 'mkdir /archive /data && for i in 1 2 3 4; do head -c 3000000 /dev/urandom >/data/$i; done
    cd /data && sha256sum * >/archive/sums'
inside "$(block $readme 'qzhsm store create' | head -n 2)" || fail "the README's commands"
inside '! (cd /data && sha256sum --check --quiet /archive/sums) && qzhsm recall /data/1 && qzhsm verify /data'
inside 'mkdir /etc/qzhsm && cp /usr/share/doc/qzhsmd/qzhsm.conf.sample /etc/qzhsm/qzhsm.conf
    echo "QZHSMD_DIRECTORIES=/data" >/etc/default/qzhsmd'

say "The newer library alone, and then all"
inside 'apt-get install -y /packages/newer/libqzhsmlowlevel1_*.deb && qzhsm recall /data/2 && qzhsm verify /data'
inside 'apt-get install -y /packages/newer/{qzhsm,qzhsmd,qzhsm-emulator}_*.deb'
version=$(dpkg-deb --field "$2"/qzhsm_*.deb Version)
expect "$version" 'dpkg-query --show --showformat "\${Version}\n" "*qzhsm*" | grep . | sort --unique'
expect "QZHSMD_DIRECTORIES=/data" 'cat /etc/default/qzhsmd'
expect "qzhsmd $version" 'qzhsmd --version'
inside 'qzhsm recall /data/3 && cd /data && head -n 3 /archive/sums | sha256sum --check --quiet' || fail "a stub was lost"
inside 'cd /tmp && head -c 100000 /dev/urandom >file
    export LD_PRELOAD=libqzhsm-emulator.so QZHSM_EMULATOR_STATE=/tmp/state
    qzhsm --fs qzfs watch . && qzhsm --fs qzfs stub file --meta a=b && qzhsm --fs qzfs info --json file
    rm -f file state' || fail "the emulator"
grep -q '"stub":true' "$work/said" || fail "no stub under the emulator"

say "Removed, they leave configuration and data; purged, data alone"
inside 'apt-get remove -y qzhsm qzhsmd qzhsm-emulator libqzhsmlowlevel1'
[ -e "$tree/etc/default/qzhsmd" ] || fail "the configuration went with the program"
inside 'dpkg --purge qzhsm qzhsmd qzhsm-emulator libqzhsmlowlevel1 && apt-get autoremove -y --purge'
listing >"$work/after"
left=$(diff "$work/before" "$work/after" | grep '^[<>]' | grep -vE '^> \./(archive|data|etc/qzhsm)(/|$)' || true)
[ -z "$left" ] || fail "left (>) or taken away (<): $left"
inside 'apt-get install -y /packages/newer/{qzhsm,libqzhsmlowlevel1}_*.deb
    qzhsm recall /data && cd /data && sha256sum --check --quiet /archive/sums' || fail "the data did not outlive the packages"

say "Completion under bash, fish and zsh"
inside 'apt-get install -y --no-install-recommends fish zsh'
expect archive 'source /usr/share/bash-completion/completions/qzhsm
    COMP_WORDS=(qzhsm ar) COMP_CWORD=1; _qzhsm qzhsm ar qzhsm; echo "${COMPREPLY[*]}"'
expect --older-than 'source /usr/share/bash-completion/completions/qzhsm
    COMP_WORDS=(qzhsm --kind 2 store gc --ol) COMP_CWORD=5; _qzhsm qzhsm --ol gc; echo "${COMPREPLY[*]}"'
for ask in 'fish -c "complete -C \"WORDS\""' \
    'echo "_describe() { print -rl -- \${(M)listed:#\$PREFIX*}; }; words=(WORDS) CURRENT=\$#words PREFIX=\$words[-1]
        source /usr/share/zsh/vendor-completions/_qzhsm" | zsh -f'; do
    inside "${ask//WORDS/qzhsm --kind 2 store gc --ol}; ${ask//WORDS/qzhsm ar}" || fail "$ask"
    [ "$(grep -oE '^(--)?[a-z-]+' "$work/said" | paste -sd ' ')" = "--older-than archive" ] || fail "$ask"
done

say "The README's program is built with pkg-config and with CMake, the examples too"
inside 'apt-get install -y --no-install-recommends cmake g++ ninja-build pkg-config /packages/newer/libqzhsmlowlevel-dev_*.deb'
sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' >"$tree/tmp/stub_one_file.cpp"
cat >"$tree/tmp/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(program CXX)
find_package(qzhsmlowlevel 1 REQUIRED)
add_executable(program stub_one_file.cpp)
target_link_libraries(program PRIVATE qzhsm::lowlevel)
EOF
inside "cd /tmp && $(sed -n 's/^    \(g++ .*\)/\1/p' README.md) && cmake -G Ninja -S . -B build && cmake --build build"
for program in ./a.out build/program; do
    expect "a stub now" "cd /tmp && head -c 100000 /dev/urandom >file && $program file copy && rm file copy"
done
inside 'apt-get install -y /packages/newer/qzhsm-emulator_*.deb && cd /tmp &&
    cmake -G Ninja -S /usr/share/doc/libqzhsmlowlevel-dev/examples -B examples && cmake --build examples &&
    ctest --test-dir examples --output-on-failure' || fail "the examples"
say "The packages do what they say"
