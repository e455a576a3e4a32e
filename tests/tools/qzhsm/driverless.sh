#!/usr/bin/env bash
# The tool on local file systems, with attributes and without.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
for type in tmpfs ramfs; do
    on $type
    becomes_stub tape=1
    refused "$f" 'it is the stub or no regular file' backup "$f" -o "$f"
    same <("$qzhsm" backup "$f" --snapshot) "$work/saved"
    comes_back
    truncate -s 4000000 "$f"
    expect 1 'does not fit: .*file: header says 3000000 bytes, file has 4000000' scan "$fs"
    refused "$f" 'changed since it was stubbed' recall "$f" --from "$work/data"
    truncate -s 3000000 "$f" && touch -d @1000000000 "$f"
    refused "$f" 'is the stub itself' recall "$f" --from "$f"
    refused "$f" 'saved is a stub or the copy of one' recall "$f" --from "$work/saved"
    refused "$work/data" 'data is not a stub \(code 8\)' recall "$work/data" --from "$work/part"
    refused "$f" 'standard input has 2500000 bytes' recall "$f" --from - <"$work/part"
    unchanged "$f" eval "feed; ended 1 'the stub was put back as it was' TERM"
    is_recalled

    expect 0 '^$' stub "$f" --meta m
    feed
    ended 137 '' KILL
    feed
    expect 1 'is locked, as by another recall or archiving of it \(code 3\)' recall "$f" --from "$work/data"
    ended 0 ''
    same "$f" "$work/data"
    expect 0 '^$' stub "$f" --meta m
    expect 0 'warning: .* has 2500000 bytes' recall "$f" --from "$work/part" --force
    same "$f" "$work/part"

    refused "$work/saved" 'is a copy of a stub' stub "$work/saved" --meta m
    refused "$work/data" 'modified file .* \(code 3\)' stub "$work/data" --meta m --ref-time 5
    cat "$work/saved" "$work/part" >"$work/longer"
    refused "$f" 'corrupt metadata' restore-stub "$f" "$work/longer" --force
    refused "$f" 'holds data' restore-stub "$f" "$work/saved"
    : >"$f"
    refused "$f" 'not be shorter' stub "$f" --meta m
    expect 1 'special file' restore-stub "$fs" "$work/saved"
done

on tmpfs
: >"$f" && setfattr -n user.NkStubFile -v other "$f" # a mark that is not ours stays
refused "$f" 'File exists \(code 17\)' restore-stub "$f" "$work/saved"
setfattr -n user.NkStubFile -v 1 "$f"
refused "$f" 'nothing on it tells where its data is' recall "$f" --from "$work/data"
on tmpfs
expect 0 '^$' stub "$f" --meta m
cat /dev/zero >"$fs/filler" 2>/dev/null
refused "$f" 'No space left on device \(code -1\)' recall "$f" --from "$work/data"
touch -d @1000000000 "$fs/empty"
refused "$fs/empty" 'No space left' restore-stub "$fs/empty" "$work/saved"
chmod 000 "$f"
qzhsm=setpriv expect 1 'Permission denied' --bounding-set=-dac_override,-dac_read_search "$plain" info "$f"
finish
