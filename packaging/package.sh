#!/usr/bin/env bash
# package.sh [VERSION]: builds the Debian packages, looks at them with lintian, and leaves them in build/package. With
# VERSION they say that they are that one, and not the changelog's. In a copy of the tree, since debhelper works in it.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source=build/package/source
mkdir -p $source
# What was compiled before is kept, and with its times the files it was compiled from.
find $source -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
git ls-files -z --cached --others --exclude-standard --deduplicate | tar -c --null -T - --ignore-failed-read 2>/dev/null |
    tar -x -C $source
cd $source
[ $# -eq 0 ] || sed -i "1s/(.*)/($1)/" debian/changelog
echo "dev: building packages of version $(dpkg-parsechangelog -S Version) in build/package" >&2
rm -f ../*.{deb,changes,buildinfo}
dpkg-buildpackage --build=binary --no-sign --no-pre-clean >../log 2>&1 || {
    tail -n 40 ../log >&2
    exit 1
}
as_root=()
[ "$(id -u)" -ne 0 ] || as_root=(--allow-root)
lintian "${as_root[@]}" --display-info --fail-on error,warning,info ../*.changes
